// A "#dawz/" folder through the model's local service: made, filled,
// opened, read and flagged as a user would, down to the file's bytes.
#include "c-client/dawz/dawz.h"
#include "tests/model/model_fixture.h"

namespace {

using DawzFolder = ModelTest;

TEST_F(DawzFolder, OpensReadsAndFlagsThroughTheLocalService) {
  MakeFolder("#dawz/box", {"From: a@example.org\r\nSubject: first\r\n\r\none\r\n",
                           "From: b@example.org\r\nSubject: second\r\n\r\ntwo\r\n"});
  const int id = MM_FolOpen(local_, "#dawz/box");
  ASSERT_NE(id, INVALID_FOLDER) << Posts();
  EXPECT_EQ(Subject(MM_UMIFromMsgno(id, 1)), "first");
  EXPECT_EQ(Subject(MM_UMIFromMsgno(id, 2)), "second");
  // The driver's tests check that nothing else in the file changes.
  ASSERT_EQ(MM_MsgSetFlag(MM_UMIFromMsgno(id, 2), "\\Flagged"), 1);
  const std::string after = ReadFile(dawz_file("#dawz/box"));
  EXPECT_NE(after.find(";000000000004\r\nFrom: b@"), std::string::npos);
  MM_FolClose(id, 1);
}

}  // namespace
