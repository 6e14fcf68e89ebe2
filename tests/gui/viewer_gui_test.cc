// A viewer drawn by the Qt backend on the offscreen platform: a message
// with an attachment from an MH folder, its header, text and attachment
// panes filled, and a picture of it in the build tree (viewer_gui.png).
#include <QApplication>
#include <QImage>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QWidget>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "c-client/core/mail.h"
#include "c-client/mh/mh_names.h"
#include "c-client/rfc822/strsrc.h"
#include "src/base/filenames.h"
#include "src/model/mm.h"
#include "src/options/options.h"
#include "src/viewer/viewer_internal.h"
#include "tests/xvt/qt/xvt_qt_harness.h"

namespace xvt_qt_test {
namespace {

const char kMessage[] =
    "From: =?UTF-8?Q?Zo=C3=AB?= <zoe@example.org>\r\nTo: Demo User <demo@example.org>\r\n"
    "Subject: =?ISO-8859-1?Q?Gr=FC=DFe_and_a_picture?=\r\nDate: Fri, 20 Nov 2026 10:00:00 +0000\r\n"
    "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"b\"\r\n\r\n"
    "--b\r\nContent-Type: text/plain; charset=utf-8\r\n\r\nHere is the picture: caf\xC3\xA9 at night.\r\n"
    "--b\r\nContent-Type: image/png\r\nContent-Transfer-Encoding: base64\r\n"
    "Content-Disposition: attachment; filename=\"night.png\"\r\n\r\niVBORw0KGgoAAAANSUhEUg==\r\n--b--\r\n";

std::string Text(WINDOW ctl) {
  if (auto* e = qobject_cast<QPlainTextEdit*>(ctl ? ctl->outer.data() : nullptr)) return e->toPlainText().toStdString();
  return {};
}

TEST_F(XvtQt, AViewerShowsHeaderTextAndAttachments) {
  namespace fs = std::filesystem;
  char tmpl[] = "/tmp/velmar-viewer-gui-XXXXXX";
  ASSERT_TRUE(mkdtemp(tmpl));
  const std::string home = tmpl;
  setenv("VELMAR_HOME", home.c_str(), 1);
  setenv("VELMAR_APPDIR", VELMAR_SOURCE_DATA_DIR, 1);
  RunApp([&] {
    ResetDirectories();
    ASSERT_EQ(InitDirectories(), 1);
    mh_forget_paths();
    ASSERT_EQ(Opt_Init(), 1);
    Opt_AssignString("MsgService.IDList", "1", kOptPermanent, 0);
    Opt_AssignString("MsgService.ms1.Type", "local", kOptPermanent, 0);
    Opt_AssignString("MsgService.ms1.Name", "Local", kOptPermanent, 0);
    ASSERT_EQ(MM_Init(), 1);
    const int ms = MM_MSNew(1);
    ASSERT_TRUE(mail_create(nullptr, "inbox"));
    std::string raw = kMessage;
    StringSource source;
    string_init(&source, &mail_string, raw.data(), raw.size());
    ASSERT_TRUE(mail_append(nullptr, "inbox", nullptr, nullptr, &source));
    const int folder = MM_FolOpen(ms, "inbox");
    ASSERT_NE(folder, INVALID_FOLDER);
    spawnViewer(MM_UMIFromMsgno(folder, 1), nullptr);
    ViewerInfo* v = ViewerInfoOf(viewerFindAny());
    ASSERT_TRUE(v);
    xvt_vobj_set_attr(v->window, ATTR_WIN_MAXIMIZED, 1);
    WaitFor([] { return false; }, 300);
    EXPECT_NE(Text(v->header_pane).find("Subject:    Gr\xC3\xBC\xC3\x9F" "e and a picture"), std::string::npos);
    EXPECT_EQ(Text(v->text_pane), "Here is the picture: caf\xC3\xA9 at night.");
    auto* list = qobject_cast<QListWidget*>(v->attachment_pane->outer.data());
    ASSERT_TRUE(list);
    ASSERT_EQ(list->count(), 1);
    EXPECT_TRUE(list->item(0)->text().startsWith("night.png"));
    EXPECT_TRUE(list->isVisible());
    QWidget* top = v->window->outer->window();
    const QImage shot = top->grab().toImage();
    EXPECT_TRUE(shot.save(QString::fromStdString(std::string(VELMAR_TEST_BINARY_DIR) + "/viewer_gui.png")));
    const std::string dump = xvt_win_describe(v->window);
    EXPECT_NE(dump.find("attachments:\n  night.png"), std::string::npos) << dump;
    xvt_vobj_destroy(v->window);
    MM_FolClose(folder, 1);
    MM_Shutdown(0);
    Opt_Shutdown();
  });
  fs::remove_all(home);
}

}  // namespace
}  // namespace xvt_qt_test
