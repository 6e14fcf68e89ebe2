// Sections: the walk by dotted names through nested messages, shadow
// messages and their table, decoded parts in files, and the MIME tree.
#include <fstream>

#include "c-client/core/mail.h"
#include "c-client/rfc822/rfc822_write.h"
#include "rclib/rc.h"
#include "tests/model/model_fixture.h"

namespace {

const std::string kInner =
    "From: inner@example.org\r\nSubject: inner\r\nX-Inner:  deep\r\nContent-Type: text/plain\r\n"
    "Content-Description: inner text\r\n\r\ninner text\r\n";
const std::string kMiddle =
    "From: middle@example.org\r\nSubject: middle\r\nMIME-Version: 1.0\r\n"
    "Content-Type: multipart/mixed; boundary=\"MID\"\r\n\r\n"
    "--MID\r\nContent-Type: text/plain\r\nContent-Description: middle text\r\n\r\nmiddle text\r\n"
    "--MID\r\nContent-Type: message/rfc822\r\nContent-Description: inner message\r\n\r\n" +
    kInner + "--MID--\r\n";
// The line end before a boundary belongs to the boundary, not the part.
std::string AsPart(const std::string& text) { return text.substr(0, text.size() - 2); }

std::string Binary() {
  std::string b;
  for (int i = 0; i < 3000; ++i) b.push_back(static_cast<char>(i * 131 % 251));
  return b;
}

std::string Nested() {
  const std::string binary = Binary();
  unsigned long n = 0;
  unsigned char* e = rfc822_binary(binary.data(), binary.size(), &n);
  const std::string base64(reinterpret_cast<char*>(e), n);
  FS_GIVE(&e);
  return "From: outer@example.org\r\nSubject: outer\r\nMIME-Version: 1.0\r\n"
         "Content-Type: multipart/mixed; boundary=\"OUT\"\r\n\r\n"
         "--OUT\r\nContent-Type: text/plain\r\nContent-Description: outer text\r\n\r\nouter text\r\n"
         "--OUT\r\nContent-Type: message/rfc822\r\nContent-Description: middle message\r\n\r\n" +
         kMiddle +
         "--OUT\r\nContent-Type: application/octet-stream; name=\"data.bin\"\r\n"
         "Content-Transfer-Encoding: base64\r\nContent-Description: binary\r\n\r\n" +
         base64 +
         "\r\n--OUT\r\nContent-Type: text/plain; charset=iso-8859-1\r\n"
         "Content-Transfer-Encoding: quoted-printable\r\nContent-Description: qp\r\n\r\n"
         "caf=E9 cr=3Dme soft=\r\nbreak\r\n--OUT--\r\n";
}

std::string Desc(const BodyPart* b) { return !b ? "(null)" : b->description ? b->description : "(none)"; }

class Sections : public ModelTest {
 protected:
  UMI Open(const std::vector<std::string>& raws) {
    MakeFolder("f", raws);
    return MM_UMIFromMsgno(MM_FolOpen(local_, "f"), 1);
  }
};

TEST_F(Sections, WalkByDottedNamesThroughNestedMessages) {
  const UMI umi = Open({Nested(), "Subject: single\r\nContent-Description: the only part\r\n\r\nonly\r\n"});
  const UMI single = MM_UMIFromMsgno(MM_UMIFolder(umi), 2);
  const struct { UMI umi; const char* section; const char* want; } cases[] = {
      {umi, "1", "outer text"},      {umi, "2", "middle message"}, {umi, "2.1", "middle text"},
      {umi, "2.2.1", "inner text"},  // the embedded single part ends the walk
      {umi, "2.2.7", "inner text"},  {umi, "2.9", "middle message"},  // past the children: where the walk stood
      {umi, "4", "qp"},              {umi, "1.1", "(null)"},  // a text part has no parts
      {umi, "x", "(null)"},          {umi, "2..1", "(null)"},      {umi, "0", "(null)"},
      {single, "", "the only part"}, {single, "2", "(null)"},
  };
  for (const auto& c : cases) EXPECT_EQ(Desc(MM_MsgSectionBody(c.umi, c.section)), c.want) << c.section;
  EXPECT_EQ(MM_MsgSectionMajorType(umi, ""), TYPEMULTIPART);
  EXPECT_EQ(MM_MsgSectionMinorType(umi, "2"), "RFC822");
  EXPECT_EQ(MM_MsgSectionDesc(umi, "4"), "qp");
  EXPECT_EQ(MM_MsgSectionMajorType(umi, "1.1"), -1);
  EXPECT_EQ(MM_MsgIsMultipart(umi) * 2 + MM_MsgIsMultipart(single), 2);
  EXPECT_EQ(MM_MsgSectionSubsectionList(umi, ""), (std::vector<std::string>{"1", "2", "3", "4"}));
  EXPECT_EQ(MM_MsgSectionSubsectionList(umi, "2"), (std::vector<std::string>{"2.1", "2.2"}));
  EXPECT_TRUE(MM_MsgSectionSubsectionList(umi, "2.2").empty());
  EXPECT_EQ(MM_MsgIPMContent(umi), std::optional<std::string>("outer text"));
  EXPECT_EQ(MM_MsgIPMContent(single), std::optional<std::string>("only\r\n"));
  // The one part of an enclosed message has no node: its bytes start past
  // the enclosed header.
  EXPECT_EQ(ReadFile(MM_MsgSectionContentToFile(umi, "2.2.1")), "inner text");
}

TEST_F(Sections, ShadowMessagesAreReusedAndReadLikeMessages) {
  const UMI umi = Open({Nested()});
  UMI middle = 0, again = 0, inner = 0, inner_again = 0;
  ASSERT_EQ(MM_MsgShadowSubMessage(umi, "2", &middle), 1);
  ASSERT_EQ(MM_MsgShadowSubMessage(umi, "2", &again), 1);
  EXPECT_EQ(middle, again);
  EXPECT_EQ(MM_UMIMsgno(middle), 1u);
  EXPECT_EQ(MM_MsgShadowSubMessage(umi, "1.1", &again), 0);
  EXPECT_EQ(again, 0u);
  EXPECT_EQ(MM_UMISectionName(middle, "2"), "2.2");
  EXPECT_EQ(Subject(middle), "middle");
  EXPECT_EQ(MM_MsgShadowUmiMinorType(middle), kAttachMixed);
  EXPECT_EQ(Desc(MM_MsgSectionBody(middle, "1")), "middle text");
  EXPECT_EQ(MM_MsgSize(middle), AsPart(kMiddle).size());
  EXPECT_EQ(ReadFile(MM_MsgToFile(middle)), AsPart(kMiddle));
  // A message in the shadow is the same shadow as the one asked from the top.
  ASSERT_EQ(MM_MsgShadowSubMessage(middle, "2", &inner), 1);
  ASSERT_EQ(MM_MsgShadowSubMessage(umi, "2.2", &inner_again), 1);
  EXPECT_EQ(inner, inner_again);
  const std::string inner_file = MM_MsgToFile(inner);
  EXPECT_EQ(ReadFile(inner_file), AsPart(kInner));
  const std::string header = kInner.substr(0, kInner.find("\r\n\r\n") + 4);
  EXPECT_EQ(MM_MsgRawHeaders(inner), header);
  EXPECT_EQ(ReadFile(MM_MsgRawHeadersToFile(inner)), header);
  EXPECT_EQ(ReadFile(MM_MsgRawBodyToFile(inner)), "inner text");
  EXPECT_EQ(MM_MsgHeaderContent(inner, "X-Inner"), std::optional<std::string>("deep"));
  EXPECT_EQ(MM_MsgIPMContent(inner), std::optional<std::string>("inner text"));
  std::remove(inner_file.c_str());  // a caller's file is its own
  EXPECT_EQ(ReadFile(MM_MsgToFile(inner)), AsPart(kInner));
  EXPECT_EQ(MM_MsgMove(middle, local_, "elsewhere"), 0) << "a shadow can't be moved";
  seen_.clear();
  MM_MsgReleaseShadowMessage(middle);
  MM_MsgReleaseShadowMessage(middle);  // the slot no longer holds it
  ASSERT_EQ(Types(), std::vector<int>{E_SHADOW_RELEASED});
  EXPECT_EQ(seen_[0].umi, middle);
  EXPECT_EQ(MM_MsgEnvelope(middle), nullptr);
  EXPECT_EQ(Subject(inner), "inner") << "the inner shadow lives on";
}

// The first 511 requests fill the table in order; then a run of 64 is
// released at a time from the sweep position, the last run stops at the
// table's end, and the next starts over at 1 (never slot 0).
TEST_F(Sections, FullShadowTableSweepsRoundAndNeverUsesSlotZero) {
  constexpr int kParts = 1030;
  std::string many = "Subject: many\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"B\"\r\n\r\n";
  for (int i = 1; i <= kParts; ++i)
    many += "--B\r\nContent-Type: message/rfc822\r\n\r\nSubject: " + std::to_string(i) + "\r\n\r\nx\r\n";
  const UMI umi = Open({many + "--B--\r\n"});
  std::vector<std::pair<int, size_t>> got(kParts + 1);  // per request: slot, shadows released
  for (int i = 1; i <= kParts; ++i) {
    seen_.clear();
    UMI shadow = 0;
    ASSERT_EQ(MM_MsgShadowSubMessage(umi, std::to_string(i).c_str(), &shadow), 1) << i;
    got[i] = {MM_UMIShadowSlot(shadow), seen_.size()};
    ASSERT_GE(got[i].first, 1) << i;
  }
  const std::vector<std::pair<int, std::pair<int, size_t>>> want = {
      {1, {1, 0}},     {511, {511, 0}},  {512, {1, 64}},   {575, {64, 0}},
      {576, {65, 64}}, {960, {449, 63}}, {1022, {511, 0}}, {1023, {1, 64}}};
  for (const auto& [request, w] : want) EXPECT_EQ(got[request], w) << "request " << request;
  UMI first = 0;  // asked for again after its slot was swept: made anew
  ASSERT_EQ(MM_MsgShadowSubMessage(umi, "1", &first), 1);
  EXPECT_EQ(Subject(first), "1");
}

TEST_F(Sections, EncodedSectionsAreDecodedIntoFiles) {
  const UMI umi = Open({Nested()});
  const struct { const char* section; std::string want; } cases[] = {
      {"3", Binary()}, {"4", "caf\xE9 cr=me softbreak"}, {"1", "outer text"}};
  for (const auto& c : cases) {
    const std::string file = MM_MsgSectionContentToFile(umi, c.section);
    EXPECT_EQ(ReadFile(file), c.want) << c.section;
    const std::string target = home_ + "/saved-" + c.section;
    unsigned long size = 0;
    EXPECT_EQ(copy_section_to_file(umi, c.section, target.c_str(), &size, 0), 1) << c.section;
    EXPECT_EQ(size, c.want.size()) << c.section;
    EXPECT_EQ(ReadFile(target), c.want) << c.section;
    EXPECT_EQ(ReadFile(file), c.want) << c.section << ": the first file is the caller's";
  }
  EXPECT_GT(MM_MsgSectionSize(umi, "3"), Binary().size()) << "the structure counts the encoded text";
  EXPECT_EQ(ReadFile(MM_MsgIPMContentToFile(umi)), "outer text");
  // A part cached in a file that went away is fetched again.
  ASSERT_EQ(MM_MailgetsToFile(), 1);
  MM_MailgetsSetEncoding(ENCBASE64);
  MailText* text = mail_fetchbody(MM_FolStream(MM_UMIFolder(umi)), 1, "3", nullptr);
  MM_MailgetsFileDone();
  MM_MailgetsSetEncoding(0);
  ASSERT_TRUE(text && text->kind == kTextFile);
  ASSERT_EQ(std::remove(text->data), 0);
  EXPECT_EQ(ReadFile(MM_MsgSectionContentToFile(umi, "3")), Binary());
  // An unwritable target: the user is told, and no file or progress stays.
  xvt_test_clear_posts();
  const size_t before = TempFiles();
  const std::string bad = home_ + "/no/such/dir/file";
  unsigned long size = 0;
  EXPECT_EQ(copy_section_to_file(umi, "1", bad.c_str(), &size, 1), 0);
  EXPECT_NE(Posts().find("error: Failed to write to a file: " + bad + "."), std::string::npos) << Posts();
  EXPECT_EQ(xvt_progress_win(), NULL_WIN);
  EXPECT_EQ(TempFiles(), before);
  EXPECT_EQ(copy_section_to_file(umi, "1.1", bad.c_str(), &size, 0), 0);
}

TEST_F(Sections, MimeTreeHasOneNodePerPartAndDeletesItsFiles) {
  const UMI umi = Open({Nested()});
  MTREE_NODE* root = nullptr;
  ASSERT_EQ(mtree_create(0, CreateDummyAttachInfo(), &root), RC_OK);
  ASSERT_EQ(CreateAttachmentMtree(root, umi), 1);
  MTREE_NODE* top = mtree_first_child(root);
  ASSERT_NE(top, nullptr);
  EXPECT_EQ(static_cast<AttachInfo*>(top->data)->kind, kAttachMixed);
  std::string parts;
  for (MTREE_NODE* c = mtree_first_child(top); c; c = mtree_next_child(top, c)) {
    auto* info = static_cast<AttachInfo*>(c->data);
    parts += info->section + " " + info->major + " " + std::to_string(info->kind) + " " + info->file_name + ";";
  }
  // Kinds: 0 other, 9 a message.
  EXPECT_EQ(parts, "1 TEXT 0 ;2 MESSAGE 9 ;3 APPLICATION 0 data.bin;4 TEXT 0 ;");
  const std::string temp = MM_MsgSectionContentToFile(umi, "3");
  static_cast<AttachInfo*>(mtree_first_child(top)->data)->temp_files.push_back(temp);
  DeleteMtree(root);
  EXPECT_EQ(root, nullptr);
  EXPECT_FALSE(std::ifstream(temp).good()) << "the tree's files go with it";
}

}  // namespace
