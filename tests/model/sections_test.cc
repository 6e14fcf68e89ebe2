// Sections of a message: the walk by dotted names through nested messages,
// shadow messages and their table, decoded parts in files, and the MIME
// tree.
#include <sys/stat.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/rfc822/rfc822_write.h"
#include "rclib/rc.h"
#include "src/base/model_events.h"
#include "tests/model/message_fixture.h"
#include "xvt/xvt_test.h"

namespace {

const char kInner[] =
    "From: inner@example.org\r\n"
    "Subject: inner\r\n"
    "X-Inner:  deep\r\n"
    "Content-Type: text/plain\r\n"
    "Content-Description: inner text\r\n"
    "\r\n"
    "inner text\r\n";

std::string Binary() {
  std::string b;
  unsigned v = 12345;
  for (int i = 0; i < 3000; ++i) {
    v = v * 1103515245u + 12345u;
    b.push_back(static_cast<char>(v >> 16));
  }
  return b;
}

std::string Base64(const std::string& data) {
  unsigned long n = 0;
  unsigned char* e = rfc822_binary(data.data(), data.size(), &n);
  std::string out(reinterpret_cast<char*>(e), n);
  FS_GIVE(&e);
  return out;
}

const char kQp[] = "caf=E9 cr=3Dme soft=\r\nbreak\r\n";
// The line end before a boundary belongs to the boundary, not the part.
const char kQpDecoded[] = "caf\xE9 cr=me softbreak";
std::string AsPart(const std::string& text) { return text.substr(0, text.size() - 2); }

std::string Middle() {
  return std::string(
             "From: middle@example.org\r\n"
             "Subject: middle\r\n"
             "MIME-Version: 1.0\r\n"
             "Content-Type: multipart/mixed; boundary=\"MID\"\r\n"
             "\r\n"
             "--MID\r\n"
             "Content-Type: text/plain\r\n"
             "Content-Description: middle text\r\n"
             "\r\n"
             "middle text\r\n"
             "--MID\r\n"
             "Content-Type: message/rfc822\r\n"
             "Content-Description: inner message\r\n"
             "\r\n") +
         kInner + "--MID--\r\n";
}

std::string Nested() {
  return "From: outer@example.org\r\n"
         "Subject: outer\r\n"
         "MIME-Version: 1.0\r\n"
         "Content-Type: multipart/mixed; boundary=\"OUT\"\r\n"
         "\r\n"
         "--OUT\r\n"
         "Content-Type: text/plain\r\n"
         "Content-Description: outer text\r\n"
         "\r\n"
         "outer text\r\n"
         "--OUT\r\n"
         "Content-Type: message/rfc822\r\n"
         "Content-Description: middle message\r\n"
         "\r\n" +
         Middle() +
         "--OUT\r\n"
         "Content-Type: application/octet-stream; name=\"data.bin\"\r\n"
         "Content-Transfer-Encoding: base64\r\n"
         "Content-Description: binary\r\n"
         "\r\n" +
         Base64(Binary()) +
         "\r\n--OUT\r\n"
         "Content-Type: text/plain; charset=iso-8859-1\r\n"
         "Content-Transfer-Encoding: quoted-printable\r\n"
         "Content-Description: qp\r\n"
         "\r\n" +
         kQp + "--OUT--\r\n";
}

const char kSingle[] = "From: a@example.org\r\nSubject: single\r\nContent-Description: the only part\r\n\r\nonly\r\n";

std::string Many(int parts) {
  std::string m = "From: a@example.org\r\nSubject: many\r\nMIME-Version: 1.0\r\n"
                  "Content-Type: multipart/mixed; boundary=\"B\"\r\n\r\n";
  for (int i = 1; i <= parts; ++i) m += "--B\r\nContent-Type: message/rfc822\r\n\r\nSubject: " + std::to_string(i) + "\r\n\r\nx\r\n";
  return m + "--B--\r\n";
}

std::string Desc(const BodyPart* b) {
  if (!b) return "(null)";
  return b->description ? b->description : "(none)";
}

using Sections = MessageTest;

TEST_F(Sections, WalkByDottedNamesThroughNestedMessages) {
  const int id = WriteFolder("nested", {Nested(), kSingle});
  const UMI umi = MM_UMIFromMsgno(id, 1);
  const UMI single = MM_UMIFromMsgno(id, 2);
  const struct {
    UMI umi;
    const char* section;
    const char* want;
  } cases[] = {
      {umi, "1", "outer text"},
      {umi, "2", "middle message"},
      {umi, "2.1", "middle text"},
      {umi, "2.2", "inner message"},
      {umi, "2.2.1", "inner text"},  // the embedded single part ends the walk
      {umi, "2.2.7", "inner text"},
      {umi, "2.9", "middle message"},  // beyond the children: where the walk stood
      {umi, "3", "binary"},
      {umi, "4", "qp"},
      {umi, "1.1", "(null)"},  // a text part has no parts
      {umi, "x", "(null)"},
      {umi, "2..1", "(null)"},
      {umi, "0", "(null)"},
      {single, "1", "the only part"},
      {single, "", "the only part"},
      {single, "2", "(null)"},
  };
  for (const auto& c : cases) EXPECT_EQ(Desc(MM_MsgSectionBody(c.umi, c.section)), c.want) << c.section;
  EXPECT_EQ(MM_MsgSectionMajorType(umi, ""), TYPEMULTIPART);
  EXPECT_EQ(MM_MsgSectionMinorType(umi, "2"), "RFC822");
  EXPECT_EQ(MM_MsgSectionDesc(umi, "4"), "qp");
  EXPECT_EQ(MM_MsgSectionMajorType(umi, "1.1"), -1);
  EXPECT_EQ(MM_MsgIsMultipart(umi), 1);
  EXPECT_EQ(MM_MsgIsMultipart(single), 0);

  const struct {
    const char* section;
    std::vector<std::string> want;
  } lists[] = {{"", {"1", "2", "3", "4"}}, {"2", {"2.1", "2.2"}}, {"2.2", {}}, {"1", {}}};
  for (const auto& l : lists) EXPECT_EQ(MM_MsgSectionSubsectionList(umi, l.section), l.want) << l.section;
  EXPECT_EQ(MM_MsgIPMContent(umi), std::optional<std::string>("outer text"));
  EXPECT_EQ(MM_MsgIPMContent(single), std::optional<std::string>("only\r\n"));
}

TEST_F(Sections, ShadowMessagesAreReusedAndReadLikeMessages) {
  const int id = WriteFolder("shadows", {Nested()});
  const UMI umi = MM_UMIFromMsgno(id, 1);
  UMI middle = 0, again = 0, inner = 0, inner_again = 0;
  ASSERT_EQ(MM_MsgShadowSubMessage(umi, "2", &middle), 1);
  ASSERT_EQ(MM_MsgShadowSubMessage(umi, "2", &again), 1);
  EXPECT_EQ(middle, again);
  EXPECT_TRUE(MM_MsgIsShadowMessage(middle));
  EXPECT_EQ(MM_UMIMsgno(middle), 1u);
  EXPECT_EQ(MM_MsgShadowSubMessage(umi, "7.7", &again), 1);  // a body stands there
  EXPECT_EQ(MM_MsgShadowSubMessage(umi, "1.1", &again), 0);  // none does
  EXPECT_EQ(again, 0u);

  EXPECT_EQ(MM_UMISectionName(middle, "2"), "2.2");
  EXPECT_EQ(MM_UMISectionName(middle, ""), "2");
  ASSERT_NE(MM_MsgEnvelope(middle), nullptr);
  EXPECT_STREQ(MM_MsgEnvelope(middle)->subject, "middle");
  EXPECT_EQ(MM_MsgHeaderContent(middle, "Subject"), std::optional<std::string>("middle"));
  EXPECT_EQ(MM_MsgIsMultipart(middle), 1);
  EXPECT_EQ(MM_MsgShadowUmiMinorType(middle), kAttachMixed);
  EXPECT_EQ(Desc(MM_MsgSectionBody(middle, "1")), "middle text");
  EXPECT_EQ(MM_MsgSectionSubsectionList(middle, ""), (std::vector<std::string>{"1", "2"}));
  EXPECT_EQ(MM_MsgSize(middle), AsPart(Middle()).size());
  const std::string middle_file = MM_MsgToFile(middle);
  EXPECT_EQ(ReadFile(middle_file), AsPart(Middle()));

  // A message in the shadow is the same shadow as the one asked from the top.
  ASSERT_EQ(MM_MsgShadowSubMessage(middle, "2", &inner), 1);
  ASSERT_EQ(MM_MsgShadowSubMessage(umi, "2.2", &inner_again), 1);
  EXPECT_EQ(inner, inner_again);
  EXPECT_NE(inner, middle);
  const std::string inner_file = MM_MsgToFile(inner);
  EXPECT_EQ(ReadFile(inner_file), AsPart(kInner));
  const std::string header(kInner, std::strstr(kInner, "\r\n\r\n") + 4);
  EXPECT_EQ(MM_MsgRawHeaders(inner), std::optional<std::string>(header));
  EXPECT_EQ(ReadFile(MM_MsgRawHeadersToFile(inner)), header);
  EXPECT_EQ(ReadFile(MM_MsgRawBodyToFile(inner)), "inner text");
  EXPECT_EQ(MM_MsgHeaderContent(inner, "X-Inner"), std::optional<std::string>("deep"));
  // A caller's file is its own: deleting one does not spoil the next.
  std::remove(inner_file.c_str());
  EXPECT_EQ(ReadFile(MM_MsgToFile(inner)), AsPart(kInner));

  EXPECT_EQ(MM_MsgMove(middle, local_, "elsewhere"), 0);
  EXPECT_TRUE(Traced("MM_MsgMove: attempt to move shadow UMI message\n"));

  TakeEvents();
  MM_MsgReleaseShadowMessage(middle);
  MM_MsgReleaseShadowMessage(middle);  // the slot no longer holds it
  const std::vector<SeenEvent> released = TakeEvents();
  ASSERT_EQ(released.size(), 1u);
  EXPECT_EQ(released[0].type, E_SHADOW_RELEASED);
  EXPECT_EQ(released[0].umi, middle);
  EXPECT_EQ(MM_MsgEnvelope(middle), nullptr);
  // The inner shadow lives on.
  EXPECT_EQ(MM_MsgHeaderContent(inner, "Subject"), std::optional<std::string>("inner"));
}

TEST_F(Sections, FullShadowTableSweepsRoundAndNeverUsesSlotZero) {
  constexpr int kParts = 1030;
  const int id = WriteFolder("many", {Many(kParts)});
  const UMI umi = MM_UMIFromMsgno(id, 1);
  std::vector<int> slots;
  std::vector<size_t> releases;  // released events posted by each request
  for (int i = 1; i <= kParts; ++i) {
    TakeEvents();
    UMI shadow = 0;
    ASSERT_EQ(MM_MsgShadowSubMessage(umi, std::to_string(i).c_str(), &shadow), 1) << i;
    slots.push_back(MM_UMIShadowSlot(shadow));
    releases.push_back(TakeEvents().size());
  }
  for (int i = 0; i < kParts; ++i) {
    ASSERT_GE(slots[i], 1) << i;
    ASSERT_LT(slots[i], kShadowSlots) << i;
  }
  // Requests are 1-based below: the first 511 fill the table in order.
  auto slot = [&](int request) { return slots[request - 1]; };
  auto released = [&](int request) { return releases[request - 1]; };
  EXPECT_EQ(slot(1), 1);
  EXPECT_EQ(slot(511), 511);
  EXPECT_EQ(released(511), 0u);
  // Then a run of 64 is released at a time, from the sweep position.
  EXPECT_EQ(slot(512), 1);
  EXPECT_EQ(released(512), 64u);
  EXPECT_EQ(slot(575), 64);
  EXPECT_EQ(released(575), 0u);
  EXPECT_EQ(slot(576), 65);
  EXPECT_EQ(released(576), 64u);
  // The last run stops at the table's end, and the next starts over at 1.
  EXPECT_EQ(slot(960), 449);
  EXPECT_EQ(released(960), 63u);
  EXPECT_EQ(slot(1022), 511);
  EXPECT_EQ(slot(1023), 1);
  EXPECT_EQ(released(1023), 64u);
  // A shadow asked for again after its slot was swept is made anew.
  UMI first = 0;
  ASSERT_EQ(MM_MsgShadowSubMessage(umi, "1", &first), 1);
  EXPECT_STREQ(MM_MsgEnvelope(first)->subject, "1");
}

TEST_F(Sections, EncodedSectionsAreDecodedIntoFiles) {
  const int id = WriteFolder("encoded", {Nested()});
  const UMI umi = MM_UMIFromMsgno(id, 1);
  const std::string binary = Binary();
  const struct {
    const char* section;
    std::string want;
  } cases[] = {{"3", binary}, {"4", kQpDecoded}, {"1", "outer text"}};
  for (const auto& c : cases) {
    const std::string file = MM_MsgSectionContentToFile(umi, c.section);
    ASSERT_FALSE(file.empty()) << c.section;
    EXPECT_EQ(ReadFile(file), c.want) << c.section;
    const std::string target = home_ + "/saved-" + c.section;
    unsigned long size = 0;
    EXPECT_EQ(copy_section_to_file(umi, c.section, target.c_str(), &size, 0), 1) << c.section;
    EXPECT_EQ(size, c.want.size()) << c.section;
    EXPECT_EQ(ReadFile(target), c.want) << c.section;
    EXPECT_EQ(ReadFile(file), c.want) << c.section << ": the first file is the caller's";
  }
  EXPECT_GT(MM_MsgSectionSize(umi, "3"), binary.size());  // the structure counts the encoded text
  EXPECT_EQ(ReadFile(MM_MsgIPMContentToFile(umi)), "outer text");
}

TEST_F(Sections, VanishedCacheFileIsFetchedAgain) {
  const int id = WriteFolder("vanish", {Nested()});
  const UMI umi = MM_UMIFromMsgno(id, 1);
  MailStream* stream = MM_FolStream(id);
  ASSERT_NE(stream, nullptr);
  // Something left the part cached in a file, which then went away.
  ASSERT_EQ(MM_MailgetsToFile(), 1);
  MM_MailgetsSetEncoding(ENCBASE64);
  MailText* text = mail_fetchbody(stream, 1, "3", nullptr);
  MM_MailgetsFileDone();
  MM_MailgetsSetEncoding(0);
  ASSERT_NE(text, nullptr);
  ASSERT_EQ(text->kind, kTextFile);
  ASSERT_EQ(std::remove(text->data), 0);
  const std::string file = MM_MsgSectionContentToFile(umi, "3");
  EXPECT_TRUE(Traced("MM_MsgSectionContentToFile: cache text file does not exist - invalidating cache.\n"));
  EXPECT_EQ(ReadFile(file), Binary());
}

TEST_F(Sections, CopyToAnUnwritablePlaceSaysWhyAndClosesProgress) {
  const int id = WriteFolder("copyfail", {Nested()});
  const UMI umi = MM_UMIFromMsgno(id, 1);
  xvt_test_clear_posts();
  const size_t before = TempFiles().size();
  unsigned long size = 0;
  const std::string target = home_ + "/no/such/dir/file";
  EXPECT_EQ(copy_section_to_file(umi, "1", target.c_str(), &size, 1), 0);
  EXPECT_TRUE(Traced("copy_section_to_file: failed to copy file "));
  bool said = false;
  for (const XvtPost& p : xvt_test_posts())
    if (p.kind == "error" &&
        p.text == "Failed to write to a file: " + target + ".   Unable to copy message section to destination file.")
      said = true;
  EXPECT_TRUE(said);
  EXPECT_EQ(xvt_progress_win(), NULL_WIN);
  EXPECT_EQ(TempFiles().size(), before);
  EXPECT_EQ(copy_section_to_file(umi, "1.1", target.c_str(), &size, 0), 0);
  EXPECT_TRUE(Traced("copy_section_to_file: failed to get section to file\n"));
}

TEST_F(Sections, MimeTreeHasOneNodePerPartAndDeletesItsFiles) {
  const int id = WriteFolder("tree", {Nested()});
  const UMI umi = MM_UMIFromMsgno(id, 1);
  MTREE_NODE* root = nullptr;
  AttachInfo* dummy = CreateDummyAttachInfo();
  EXPECT_EQ(dummy->major, "NOT DEFINED");
  EXPECT_EQ(dummy->description, "This is the top level node in the MULTI TREE");
  ASSERT_EQ(mtree_create(0, dummy, &root), RC_OK);
  ASSERT_EQ(CreateAttachmentMtree(root, umi), 1);
  MTREE_NODE* top = mtree_first_child(root);
  ASSERT_NE(top, nullptr);
  auto* top_info = static_cast<AttachInfo*>(top->data);
  EXPECT_EQ(top_info->kind, kAttachMixed);
  EXPECT_EQ(std::string(top_info->kind_word), "ATTINFO");
  const struct {
    const char* section;
    const char* major;
    int kind;
    const char* file_name;
  } want[] = {{"1", "TEXT", kAttachOther, ""},
              {"2", "MESSAGE", kAttachRfc822, ""},
              {"3", "APPLICATION", kAttachOther, "data.bin"},
              {"4", "TEXT", kAttachOther, ""}};
  size_t n = 0;
  std::string temp;
  for (MTREE_NODE* c = mtree_first_child(top); c; c = mtree_next_child(top, c), ++n) {
    ASSERT_LT(n, std::size(want));
    auto* info = static_cast<AttachInfo*>(c->data);
    EXPECT_EQ(info->section, want[n].section);
    EXPECT_EQ(info->major, want[n].major) << n;
    EXPECT_EQ(info->kind, want[n].kind) << n;
    EXPECT_EQ(info->file_name, want[n].file_name) << n;
    if (n == 2) {
      temp = MM_MsgSectionContentToFile(umi, "3");
      info->temp_files.push_back(temp);
    }
  }
  EXPECT_EQ(n, std::size(want));
  ASSERT_TRUE(Exists(temp));
  DeleteMtree(root);
  EXPECT_EQ(root, nullptr);
  EXPECT_FALSE(Exists(temp));
}

}  // namespace
