// Enclosures in files: what the dispatch picks, the files the questions
// lead to, and the exact texts of the failures.
#include "src/send/enclosure.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <tuple>

#include "c-client/rfc822/enclosure.h"
#include "rclib/safe_file.h"
#include "tests/c-client/mh/mh_test_util.h"
#include "tests/support/posts.h"
#include "tests/support/scratch_dir.h"
#include "xvt/xvt_test.h"

namespace {

namespace fs = std::filesystem;

class Enclosure : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.empty());
    xvt_test_reset();
    safe_clear_faults_for_test();
  }
  void TearDown() override { safe_clear_faults_for_test(); }
  std::string P(const std::string& name) { return dir_ + "/" + name; }
  void Put(const std::string& name, const std::string& data) { WriteFile(P(name), data); }
  // A missing file reads as "-".
  std::string Get(const std::string& name) {
    return fs::exists(P(name)) ? ReadFile(P(name)) : "-";
  }
  TempDir scratch_{"enclosure_test"};
  const std::string dir_ = scratch_.path;
};

const std::string kData = std::string("binary\0\x90\xff data\n", 16) + std::string(400, 'q');

TEST_F(Enclosure, DecodesWhatTheFirstMarkedLineSays) {
  // Leading control characters do not hide a block.
  Put("uu", "Some text\n\f\x01\rbegin 644 sent.bin\n" + uu_encode(kData, 0644, "x").substr(12));
  Put("hqx", "words\n" + binhex_encode(fakehead("mac.txt", kData)));
  BinhexFile two = fakehead("two", "data fork");
  two.rsrc = "resource fork";
  Put("both", binhex_encode(two));
  xvt_test_push_text(P("out1").c_str());
  EXPECT_EQ(DecodeFileEnclosure(P("uu").c_str()), 1) << Posts();
  EXPECT_EQ(Get("out1"), kData);
  xvt_test_push_text(P("out2").c_str());
  EXPECT_EQ(DecodeFileEnclosure(P("hqx").c_str()), 1) << Posts();
  EXPECT_EQ(Get("out2"), kData);
  xvt_test_push_text(P("data").c_str());
  EXPECT_EQ(DecodeHexbinFile(P("both").c_str(), P("rsrc").c_str()), 1) << Posts();
  EXPECT_EQ(std::make_tuple(Get("data"), Get("rsrc")), std::make_tuple(std::string("data fork"), std::string("resource fork")));
  const auto& posts = xvt_test_posts();
  ASSERT_GE(posts.size(), 3u);
  EXPECT_EQ(posts[0].text, "Save enclosure to:");
  EXPECT_EQ(posts[1].text, "Save binhex enclosure to:");
  // Cancelled: nothing written.
  xvt_test_push_text(nullptr);
  EXPECT_EQ(DecodeUUEncodedFile(P("uu").c_str()), -1);
}

TEST_F(Enclosure, FailuresSayWhyAndWriteNothing) {
  Put("short", "begin 644 x\n#0V%T\n");
  std::string bad = binhex_encode(fakehead("n", "abc"));
  bad[50] = bad[50] == '!' ? '"' : '!';  // a header byte
  Put("badcrc", bad);
  Put("plain", "nothing to see\n");
  Put("uu", uu_encode(kData, 0644, "x"));
  const std::tuple<std::function<int()>, const char*, std::string> rows[] = {
      {[&] { return DecodeFileEnclosure(P("missing").c_str()); }, nullptr,
       "Failed to open input file for reading: " + P("missing") + " - No such file or directory"},
      {[&] { return DecodeUUEncodedFile(P("short").c_str()); }, nullptr,
       "Decode enclosure failed - short file - did not locate uuencoded enclosure \"end\" header line."},
      {[&] { return DecodeFileEnclosure(P("badcrc").c_str()); }, nullptr, "CRC error in encoded Binhex file!"},
      {[&] { return DecodeFileEnclosure(P("plain").c_str()); }, nullptr,
       "The file " + P("plain") + " holds no uuencoded or BinHex enclosure."},
      {[&] { return DecodeFileEnclosure(P("uu").c_str()); }, "write",
       "Decode enclosure failed - error writing decoded output file - No space left on device."},
      {[&] { return EncodeFileEnclosure(P("uu").c_str(), EnclosureFormat::kBinhex, P("o").c_str()); }, nullptr,
       "Encoding of files in BINHEX format is not supported in this version of Velmar."},
      {[&] { return EncodeFileUUEncoded(P("uu").c_str(), P("o").c_str()); }, "open",
       "Failed to open output file for writing: " + P("o") + " - No space left on device"},
      {[&] { return binhex(P("uu").c_str(), P("o").c_str()); }, "write", "Couldn't open output file for BinHex encoding.\n"},
  };
  for (const auto& [call, fault, text] : rows) {
    xvt_test_reset();
    xvt_test_push_text(P("out").c_str());
    if (fault) safe_fail_from_for_test(std::string(fault) == "open" ? kSafeOpen : kSafeWrite, 1, ENOSPC);
    EXPECT_EQ(call(), 0) << text;
    safe_clear_faults_for_test();
    EXPECT_NE(Posts().find("error: " + text), std::string::npos) << Posts();
    EXPECT_EQ(Get("out") + Get("o"), "--") << text;
  }
}

TEST_F(Enclosure, EncodesWithTheFilesModeAndName) {
  Put("report.pdf", kData);
  fs::permissions(P("report.pdf"), fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
  EXPECT_EQ(EncodeFileEnclosure(P("report.pdf").c_str(), EnclosureFormat::kUuencode, P("out.uu").c_str()), 1);
  EXPECT_EQ(Get("out.uu"), uu_encode(kData, 0640, "report.pdf"));
  EXPECT_EQ(binhex(P("report.pdf").c_str(), P("out.hqx").c_str()), 1);
  BinhexFile back;
  std::string why;
  ASSERT_TRUE(binhex_decode(Get("out.hqx"), &back, &why)) << why;
  EXPECT_EQ(std::make_tuple(back.name, back.data, back.rsrc), std::make_tuple(std::string("report.pdf"), kData, std::string()));
}

}  // namespace
