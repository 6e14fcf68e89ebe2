// Viewers over MH folders on the headless toolkit: which viewer shows a
// message, stepping and delete with stepping through a folder node, the
// panes' content for the common kinds of mail, and attachments saved and
// handed to helpers.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "c-client/mh/mh_names.h"
#include "src/options/options.h"
#include "src/script/forms.h"
#include "src/viewer/attach.h"
#include "src/viewer/viewer_internal.h"
#include "tests/organizer/nodes_fixture.h"

namespace nodestest {
namespace {

const char kPng[] = "\x89PNG\r\n\x1a\n\0\0\0\rIHDR";  // the bytes the base64 below holds
const std::string kPngBytes(kPng, sizeof kPng - 1);

std::string Plain(const std::string& subject, const std::string& body) {
  return "From: Ann <ann@example.org>\r\nTo: bob@example.org\r\nSubject: " + subject +
         "\r\nDate: Mon, 2 Nov 2026 10:00:00 +0000\r\n\r\n" + body + "\r\n";
}

std::string WithPng() {
  return "From: Ann <ann@example.org>\r\nTo: bob@example.org\r\nSubject: picture\r\n"
         "Date: Mon, 2 Nov 2026 10:00:00 +0000\r\nMIME-Version: 1.0\r\n"
         "Content-Type: multipart/mixed; boundary=\"b1\"\r\n\r\n"
         "--b1\r\nContent-Type: text/plain; charset=iso-8859-1\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
         "Gr=FC=DFe\r\n"
         "--b1\r\nContent-Type: image/png\r\nContent-Transfer-Encoding: base64\r\n"
         "Content-Disposition: attachment; filename*0*=utf-8''..%2F..%2Fsp%C3%A4t; filename*1=\".png\"\r\n\r\n"
         "iVBORw0KGgoAAAANSUhEUg==\r\n"
         "--b1--\r\n";
}

std::string HtmlOnly() {
  return "From: shop@example.com\r\nTo: bob@example.org\r\nSubject: =?UTF-8?B?U2FsZSDigqw=?=\r\n"
         "Date: Mon, 2 Nov 2026 10:00:00 +0000\r\nMIME-Version: 1.0\r\n"
         "Content-Type: text/html; charset=utf-8\r\n\r\n"
         "<html><body><p>Big &amp; <b>cheap</b></p></body></html>\r\n";
}

class ViewerTest : public NodesTest {
 protected:
  void TearDown() override {
    AttachSetSpawnerForTest(nullptr);
    AttachRemoveTempDir();
    NodesTest::TearDown();
  }
  TreeNode* Folder(const std::string& name, const std::vector<std::string>& raws) {
    MakeFolder(name, raws);
    // Oldest first, so that "next" is the next number.
    Opt_AssignString(("Folder.1." + name + ".Sort").c_str(), MSG_SortName(kSortLeastRecentArrival), kOptSession, 0);
    return Open(local_, name);
  }
  static UMI Umi(TreeNode* node, unsigned long msgno) { return MM_UMIFromMsgno(F(node)->folder_id, msgno); }
  static unsigned long Shown(WINDOW win) {
    ViewerInfo* v = ViewerInfoOf(win);
    return v ? MM_UMIMsgno(v->umi) : 0;
  }
  // The viewer of a message opened from its folder's line; null if none shows it.
  static ViewerInfo* Show(TreeNode* node, unsigned long msgno) {
    spawnViewer(Umi(node, msgno), node);
    return ViewerInfoOf(viewerFind(Umi(node, msgno)));
  }
};

TEST_F(ViewerTest, InstancesDecideWhichViewerShowsAMessage) {
  struct Case {
    const char* mode;
    int viewers_after_three;  // a, b of folder one, then c of folder two
    int viewers_after_fourth; // then another message of folder one
  } cases[] = {{nullptr, 1, 1}, {"One", 1, 1}, {"folder", 2, 2}, {"Message", 3, 4}};
  for (const Case& c : cases) {
    const std::string mode = c.mode ? c.mode : "none";
    SCOPED_TRACE(mode);
    Run([&] {
      if (c.mode) Opt_AssignString("Viewer.Instances", c.mode, kOptSession, 0);
      TreeNode* one = Folder("one" + mode, {Numbered(1), Numbered(2), Numbered(3)});
      TreeNode* two = Folder("two" + mode, {Numbered(1)});
      ASSERT_TRUE(one && two);
      spawnViewer(Umi(one, 1), one);
      spawnViewer(Umi(one, 2), one);
      spawnViewer(Umi(two, 1), two);
      EXPECT_EQ(viewerCount(), c.viewers_after_three);
      // The same message twice: the second raises its viewer rather than opening one.
      for (int twice = 0; twice < 2; ++twice) {
        EXPECT_TRUE(Show(one, 3));
        EXPECT_EQ(viewerCount(), c.viewers_after_fourth);
      }
      if (!c.mode) {
        EXPECT_EQ(Opt_LookupText("Viewer.Instances", kOptPermanent), "One");
      }
      while (WINDOW w = viewerFindAny()) xvt_vobj_destroy(w);
    });
  }
}

TEST_F(ViewerTest, NextPreviousAndDeleteWithStepping) {
  struct Case {
    const char* action;
    unsigned long open, after;  // the message shown after Delete; 0: the viewer closed
  } cases[] = {{"Next", 2, 3}, {nullptr, 3, 0}, {"Previous", 2, 1}, {"Previous", 1, 0}, {"bogus", 1, 2}};
  int round = 0;
  for (const Case& c : cases) {
    Run([&] {
      if (c.action) Opt_AssignString("Viewer.ActionDelete", c.action, kOptSession, 0);
      TreeNode* node = Folder("step" + std::to_string(round++), {Numbered(1), Numbered(2), Numbered(3)});
      ASSERT_TRUE(node);
      const UMI first = Umi(node, c.open);
      spawnViewer(first, node);
      WINDOW win = viewerFind(first);
      ASSERT_TRUE(win);
      doMenu(win, M_VIEW_DELETE);
      EXPECT_TRUE(MM_MsgIsDeleted(first));
      if (c.after) {
        EXPECT_EQ(Shown(win), c.after) << c.open;
        EXPECT_FALSE(viewerExists(first));
      } else {
        EXPECT_EQ(viewerCount(), 0) << c.open;
      }
      while (WINDOW w = viewerFindAny()) xvt_vobj_destroy(w);
    });
  }
}

// Space reads on: a page at a time, then the next message; at the last, nothing.
TEST_F(ViewerTest, SpacePagesThroughTheTextThenShowsTheNextMessage) {
  Run([&] {
    TreeNode* node = Folder("space", {Numbered(1) + std::string(50, '\n') + "end\r\n", Numbered(2), Numbered(3)});
    WINDOW win = Show(node, 1)->window;
    std::vector<unsigned long> shown;
    for (int i = 0; i < 5; ++i) xvt_test_key(win, ' '), shown.push_back(Shown(win));
    EXPECT_EQ(shown, (std::vector<unsigned long>{1, 1, 2, 3, 3}));
  });
}

// Stepped through a folder of the common kinds of mail: the panes of each,
// and the menus telling the folder's ends.
TEST_F(ViewerTest, StepsThroughTheCommonKindsOfMail) {
  Run([&] {
    TreeNode* node = Folder("kinds", {Plain("=?ISO-8859-1?Q?Gr=FC=DFe?=", "plain body"), WithPng(), HtmlOnly()});
    ASSERT_TRUE(node);
    ViewerInfo* v = Show(node, 1);
    ASSERT_TRUE(v);
    EXPECT_EQ(v->msg_avail_state, kAvailNext);
    EXPECT_FALSE(xvt_menu_get_item_enabled(v->window, M_VIEW_PREVIOUS));
    EXPECT_TRUE(xvt_menu_get_item_enabled(v->window, M_VIEW_REPLY));
    EXPECT_EQ(v->content.panes, 2);
    EXPECT_EQ(v->content.text, "plain body\n");
    EXPECT_NE(v->header_text.find("Subject:    Gr\xC3\xBC\xC3\x9F" "e\n"), std::string::npos) << v->header_text;
    EXPECT_NE(v->header_text.find("From:       Ann <ann@example.org>\n"), std::string::npos);
    const std::string dump = xvt_win_describe(v->window);
    EXPECT_NE(dump.find("text:\nplain body\n"), std::string::npos) << dump;

    doMenu(v->window, M_VIEW_NEXT);
    EXPECT_EQ(Shown(v->window), 2u);
    EXPECT_EQ(v->msg_avail_state, kAvailBoth);
    EXPECT_EQ(v->content.panes, 3);
    EXPECT_EQ(v->content.text, "Gr\xC3\xBC\xC3\x9F" "e");  // the line break before the boundary is the boundary's
    ASSERT_EQ(v->content.rows.size(), 1u);
    EXPECT_EQ(v->content.rows[0].name, "sp\xC3\xA4t.png");  // no directories from mail
    EXPECT_EQ(v->content.rows[0].mime, "image/png");

    doMenu(v->window, M_VIEW_NEXT);
    doMenu(v->window, M_VIEW_NEXT);  // no further: stays
    EXPECT_EQ(Shown(v->window), 3u);
    EXPECT_FALSE(xvt_menu_get_item_enabled(v->window, M_VIEW_NEXT));
    EXPECT_TRUE(MM_MsgIsRead(Umi(node, 3)));  // read by being shown
    EXPECT_EQ(v->content.text, "Big & cheap\n");
    ASSERT_EQ(v->content.rows.size(), 1u);
    EXPECT_EQ(v->content.rows[0].mime, "text/html");
    EXPECT_EQ(Title(v->window), "kinds : Sale \xE2\x82\xAC");

    // Raw header style shows the header as stored, and the label follows.
    doMenu(v->window, M_VIEW_RAW_HEADER);
    EXPECT_NE(v->header_text.find("Subject: =?UTF-8?B?U2FsZSDigqw=?="), std::string::npos);
    char label[64];
    xvt_menu_get_item_title(v->window, M_VIEW_RAW_HEADER, label, sizeof label);
    EXPECT_STREQ(label, "Short ~Header\tCtrl+U");
    EXPECT_EQ(Opt_LookupText("Viewer.HeaderStyle", kOptPermanent), "Raw");

    doMenu(v->window, M_VIEW_PREVIOUS);
    EXPECT_EQ(Shown(v->window), 2u);
    EXPECT_EQ(viewerCount(), 1);
    xvt_vobj_destroy(v->window);
    EXPECT_EQ(viewerCount(), 0);
  });
}

void MouseAt(WINDOW win, EVENT_TYPE type, int y) {
  EVENT ev{};
  ev.type = type;
  ev.v.mouse.where = PNT{100, y};
  xvt_win_dispatch_event(win, &ev);
}

int Bottom(WINDOW pane) {
  RCT r{};
  xvt_vobj_get_outer_rect(pane, &r);
  return r.bottom;
}

// A separator dragged with the mouse moves the panes, stays within its
// limits, and is kept for every viewer with that many panes.
TEST_F(ViewerTest, DraggedSeparatorsMoveThePanesAndAreKept) {
  struct Case {
    unsigned long msgno;  // 1: header and text; 2: header, text and attachments
    int which;            // the separator grabbed
    int to_percent;       // where it is let go
    const char* option;
    int first, second;  // saved; -1: where it was, -2: just below the first
  } cases[] = {
      {1, 1, 50, "SepPosn.Viewer1", 50, 0},
      {1, 1, 99, "SepPosn.Viewer1", 90, 0},  // the text keeps some room
      {2, 1, 30, "SepPosn.Viewer2", 30, -1},
      {2, 2, 10, "SepPosn.Viewer2", -1, -2},  // never above the first
  };
  int round = 0;
  for (const Case& c : cases) {
    Run([&] {
      TreeNode* node = Folder("drag" + std::to_string(round++), {Plain("one", "body"), WithPng()});
      ASSERT_TRUE(node);
      ViewerInfo* v = Show(node, c.msgno);
      ASSERT_TRUE(v);
      RCT client{};
      xvt_vobj_get_client_rect(v->window, &client);
      const int h = client.bottom - client.top;
      const int grab = c.which == 1 ? v->sep_y1 : v->sep_y2;
      const int first_before = v->sep_y1 * 100 / h, second_before = v->sep_y2 * 100 / h;
      MouseAt(v->window, E_MOUSE_DOWN, grab + 2);
      MouseAt(v->window, E_MOUSE_MOVE, h * c.to_percent / 100);
      MouseAt(v->window, E_MOUSE_UP, h * c.to_percent / 100);
      const std::string saved = Opt_LookupText(c.option, kOptPermanent);
      int first = 0, second = 0, third = 0;
      ASSERT_EQ(std::sscanf(saved.c_str(), "%d %d %d", &first, &second, &third), 3) << saved;
      EXPECT_EQ(first, c.first == -1 ? first_before : c.first) << saved;
      EXPECT_EQ(second, c.second == -1 ? second_before : c.second == -2 ? first + 6 : c.second) << saved;
      EXPECT_EQ(third, 0) << saved;
      EXPECT_EQ(Bottom(v->header_pane), h * first / 100) << saved;
      if (v->content.panes == 3) {
        EXPECT_GT(second, first + 5) << saved;
        EXPECT_EQ(Bottom(v->text_pane), h * second / 100) << saved;
      }
      // A press away from the separators grabs nothing.
      MouseAt(v->window, E_MOUSE_DOWN, 2);
      MouseAt(v->window, E_MOUSE_MOVE, h / 2);
      MouseAt(v->window, E_MOUSE_UP, h / 2);
      EXPECT_EQ(Opt_LookupText(c.option, kOptPermanent), saved);
      // The next viewer with as many panes starts with them.
      xvt_vobj_destroy(v->window);
      v = Show(node, c.msgno);
      ASSERT_TRUE(v);
      EXPECT_EQ(Bottom(v->header_pane), h * first / 100);
      while (WINDOW w = viewerFindAny()) xvt_vobj_destroy(w);
      Opt_AssignString(c.option, "", kOptPermanent, 0);
    });
  }
}

// Where the user left a viewer is where the next one opens, on screen.
TEST_F(ViewerTest, TheViewersPlaceIsKeptAndBroughtOnScreen) {
  struct Case {
    RCT moved_to;
    std::function<void(WINDOW)> leave;
    RCT next;  // where the next viewer stands
  } cases[] = {
      {{100, 120, 600, 520}, [](WINDOW w) { doMenu(w, M_VIEW_CLOSE); }, {100, 120, 600, 520}},
      {{30, 40, 530, 440}, [](WINDOW) { MM_NotPostSimple(E_SAVE_DESKTOP); }, {30, 40, 530, 440}},
      {{5000, 5000, 5500, 5400}, [](WINDOW w) { doMenu(w, M_VIEW_CLOSE); }, {0, 0, 0, 0}},
  };
  int round = 0;
  for (const Case& c : cases) {
    Run([&] {
      TreeNode* node = Folder("place" + std::to_string(round++), {Plain("one", "body")});
      ASSERT_TRUE(node);
      spawnViewer(Umi(node, 1), node);
      WINDOW win = viewerFindAny();
      ASSERT_TRUE(win);
      xvt_vobj_move(win, &c.moved_to);
      c.leave(win);
      while (WINDOW w = viewerFindAny()) xvt_vobj_destroy(w);
      spawnViewer(Umi(node, 1), node);
      win = viewerFindAny();
      ASSERT_TRUE(win);
      RCT r{}, screen{};
      xvt_vobj_get_outer_rect(win, &r);
      xvt_vobj_get_client_rect(SCREEN_WIN, &screen);
      if (c.next.right) {
        EXPECT_EQ(std::tie(r.left, r.top, r.right, r.bottom),
                  std::tie(c.next.left, c.next.top, c.next.right, c.next.bottom));
      }
      EXPECT_GE(r.left, screen.left);
      EXPECT_GE(r.top, screen.top);
      EXPECT_LE(r.right, screen.right);
      EXPECT_LE(r.bottom, screen.bottom);
      while (WINDOW w = viewerFindAny()) xvt_vobj_destroy(w);
    });
  }
}

// Enclosures in the text become rows that save decoded; once listed, the
// command is spent.
// Showing a message that asks for a read receipt asks once: shown again
// after the answer (here Cancel), it is not asked about again.
TEST_F(ViewerTest, ShowingAMessageAsksForItsReceiptOnce) {
  Run([&] {
    TreeNode* node = Folder("receipts", {"Disposition-Notification-To: ann@example.org\r\n" + Plain("r", "t"), Plain("o", "t")});
    xvt_test_push_answer(RESP_2);
    for (unsigned long msgno : {1ul, 2ul, 1ul}) ASSERT_NE(Show(node, msgno), nullptr);
    EXPECT_EQ(Asked(), "Sending a read receipt to \"ann@example.org\".");
  });
}

TEST_F(ViewerTest, ExtractedEnclosuresAreSavedDecoded) {
  const std::string binhex =
      "(This file must be converted with BinHex 4.0)\r\n"
      ":$5iZ,h*PF'pbG#jdH(3!9%9B9(4dH(3!N!3\"1`#3!`5L#%KPE'a[N!#3!L\"hEh*\r\n"
      "XC!T\"N2p\"N#d+5U&58e*$MlF:\r\n";
  const std::string body = "See the two files.\r\nbegin 644 ../cat.txt\r\n#0V%T\r\n`\r\nend\r\nand\r\n" + binhex +
                           "begin 644 broken\r\nM0V\r\nend\r\nbegin 600 dog.txt\r\n#1&]G\r\n`\r\nend\r\nbye";
  Run([&] {
    TreeNode* node = Folder("enclosures", {Plain("files", body), Plain("none", "just words")});
    ASSERT_TRUE(node);
    ViewerInfo* v = Show(node, 1);
    ASSERT_TRUE(v);
    EXPECT_EQ(v->content.panes, 2);
    EXPECT_TRUE(xvt_menu_get_item_enabled(v->window, M_VIEW_EXTRACT));
    doMenu(v->window, M_VIEW_EXTRACT);
    EXPECT_EQ(v->content.panes, 3);
    struct Want {
      std::string name, bytes;
    } wants[] = {{"cat.txt", "Cat"}, {"report.txt", "Hello\x90\x90 world\n" + std::string(300, 'A') + "\n"},
                 {"dog.txt", "Dog"}};
    ASSERT_EQ(v->content.rows.size(), std::size(wants)) << "the broken block is not listed";
    for (size_t i = 0; i < std::size(wants); ++i) {
      EXPECT_EQ(v->content.rows[i].name, wants[i].name);
      const std::string target = home_ + "/extracted" + std::to_string(i);
      xvt_test_push_text(target.c_str());
      EXPECT_EQ(ViewerSaveRow(v, i), 1);
      EXPECT_EQ(ReadFile(target), wants[i].bytes) << wants[i].name;
    }
    EXPECT_FALSE(xvt_menu_get_item_enabled(v->window, M_VIEW_EXTRACT));
    EXPECT_EQ(ViewerExtractEnclosures(v), 0);
    EXPECT_EQ(v->content.rows.size(), std::size(wants));
    // A text without enclosures says so, and lists nothing.
    doMenu(v->window, M_VIEW_NEXT);
    xvt_test_clear_posts();
    doMenu(v->window, M_VIEW_EXTRACT);
    EXPECT_TRUE(v->content.rows.empty());
    EXPECT_NE(Posts().find("no uuencoded or BinHex"), std::string::npos) << Posts();
    xvt_vobj_destroy(v->window);
  });
}

// A saved attachment is its decoded bytes, and never replaces a file
// silently; an opened one is a private copy handed to a helper.
TEST_F(ViewerTest, AttachmentsAreSavedDecodedAndOpenedAsPrivateCopies) {
  Run([&] {
    Opt_AssignString("Viewers.IDLIST", "4", kOptSession, 0);
    Opt_AssignString("Viewers.4.Name", "Pictures", kOptSession, 0);
    Opt_AssignString("Viewers.4.WinCommand", "/usr/bin/picture-viewer --new", kOptSession, 0);
    Opt_AssignString("Viewers.4.MimeList", "1", kOptSession, 0);
    Opt_AssignString("Viewers.4.MimeType.1.Name", "image/*", kOptSession, 0);
    std::vector<std::vector<std::string>> runs;
    AttachSetSpawnerForTest([&](const std::vector<std::string>& argv, std::string*) {
      runs.push_back(argv);
      return 4242;
    });
    TreeNode* node = Folder("attachments", {WithPng(), HtmlOnly()});
    ASSERT_TRUE(node);
    ViewerInfo* v = Show(node, 1);
    ASSERT_TRUE(v);
    struct stat st;
    const std::string target = home_ + "/saved.png";
    xvt_test_push_text(target.c_str());
    EXPECT_EQ(ViewerSaveRow(v, 0), 1);
    EXPECT_EQ(ReadFile(target), kPngBytes);
    ASSERT_EQ(::stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0111, 0u);

    // Again to the same name: declined keeps the file, agreed replaces it.
    std::ofstream(target) << "mine";
    xvt_test_push_text(target.c_str());
    xvt_test_push_answer(RESP_2);
    EXPECT_EQ(ViewerSaveRow(v, 0), 0);
    EXPECT_EQ(ReadFile(target), "mine");
    xvt_test_push_text(target.c_str());
    xvt_test_push_answer(RESP_DEFAULT);
    EXPECT_EQ(ViewerSaveRow(v, 0), 1);
    EXPECT_EQ(ReadFile(target), kPngBytes);
    // Opened, a private copy goes to the helper for its type.
    EXPECT_EQ(ViewerOpenRow(v, 0), 1);
    ASSERT_EQ(runs.size(), 1u);
    ASSERT_EQ(runs[0].size(), 3u);
    EXPECT_EQ(runs[0][0] + " " + runs[0][1], "/usr/bin/picture-viewer --new");
    const std::string file = runs[0][2];
    EXPECT_EQ(ReadFile(file), kPngBytes);
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(::stat(AttachTempDir().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    // No helper for HTML: the desktop's opener gets the original.
    doMenu(v->window, M_VIEW_NEXT);
    EXPECT_EQ(ViewerOpenRow(v, 0), 1);
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[1][0], "xdg-open");
    EXPECT_NE(ReadFile(runs[1][1]).find("<b>cheap</b>"), std::string::npos);
    // The end of the session closes the viewers and takes the files with them.
    MM_NotPostSimple(E_ABANDON_SHIP);
    EXPECT_EQ(viewerCount(), 0);
    EXPECT_NE(::stat(file.c_str(), &st), 0);
  });
}

// The demo home that "make run" starts on: every message shows something
// readable, and the kinds it is there to show come out as they should.
TEST_F(ViewerTest, TheDemoHomeReadsWell) {
  namespace fs = std::filesystem;
  fs::copy(std::string(VELMAR_TEST_DATA_DIR) + "/demo-home/folders", home_ + "/folders",
           fs::copy_options::recursive | fs::copy_options::overwrite_existing);
  mh_forget_paths();
  Run([&] {
    for (const char* name : {"INBOX", "Work", "Lists"}) {
      TreeNode* node = Open(local_, name);
      ASSERT_TRUE(node) << name;
      const long n = MM_FolGetNumMsgs(F(node)->folder_id);
      EXPECT_GE(n, std::string(name) == "INBOX" ? 30 : 3) << name;
      int with_rows = 0, html = 0;
      for (long i = 1; i <= n; ++i) {
        const UMI umi = Umi(node, static_cast<unsigned long>(i));
        const ViewerContent c = ViewerBuildContent(umi);
        EXPECT_TRUE(!c.text.empty() || !c.rows.empty()) << name << " " << i;
        EXPECT_EQ(c.text.find("\xEF\xBF\xBD"), std::string::npos) << name << " " << i << ": " << c.text;
        const std::string header = ViewerHeaderText(umi, kHeaderShort);
        EXPECT_EQ(header.find("=?"), std::string::npos) << header;
        with_rows += !c.rows.empty();
        html += c.from_html;
      }
      if (std::string(name) == "INBOX") {
        EXPECT_GE(with_rows, 5);
        EXPECT_GE(html, 1);
      }
    }
  });
}

// A stored form in a message shows in the form pane below the header,
// read-only, with the values sent; a broken one is told and leaves no pane.
TEST_F(ViewerTest, AStoredFormShowsInTheFormPane) {
  const std::string head = "From: ann@example.org\r\nTo: bob@example.org\r\nSubject: Visit\r\n"
                           "Date: Mon, 2 Nov 2026 10:00:00 +0000\r\nMIME-Version: 1.0\r\n"
                           "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n"
                           "Content-Type: text/form; charset=utf-8\r\n\r\n";
  const std::string good = head + "    Begin Form,  300,  90    Visit\r\n        EDIT,  4,  4, 200, 20  Ann  \r\n"
                                  "        TXEDIT,  4,  30, 290, 50  one   \\\r\ntwo  \r\n   End\r\n--b--\r\n";
  const std::string bad = head + "begin form 0 0\r\nend\r\n--b--\r\n";
  Run([&] {
    TreeNode* node = Folder("forms", {good, bad});
    ASSERT_TRUE(node);
    ViewerInfo* v = Show(node, 1);
    ASSERT_TRUE(v && v->form_pane);
    FormLayout shown;
    ASSERT_TRUE(FormCurrent(v->form_pane, &shown));
    ASSERT_EQ(shown.fields.size(), 2u);
    EXPECT_EQ(shown.fields[0].value, "Ann");
    EXPECT_EQ(shown.fields[1].value, "one\ntwo");
    RCT form{}, header{};
    xvt_vobj_get_outer_rect(v->form_pane, &form);
    xvt_vobj_get_outer_rect(v->header_pane, &header);
    EXPECT_GE(form.top, header.bottom);
    EXPECT_EQ(form.bottom - form.top, 90);

    xvt_test_clear_posts();
    doMenu(v->window, M_VIEW_NEXT);
    EXPECT_FALSE(v->form_pane);
    EXPECT_EQ(Posts(), "error: Invalid form specification\nerror: Invalid form file. Cannot create form\n");
  });
}

}  // namespace
// Find ignores case (the Kelvin sign folds from three bytes to one, so the
// selection must be mapped back), goes on from its last match and round to
// the start; a text not there is said.
TEST_F(ViewerTest, FindSelectsEachMatchInTurn) {
  Run([&] {
    TreeNode* node = Folder("find", {Plain("f", "\xE2\x84\xAA" "elvin M\xC3\x9C" "NCHEN\nm\xC3\xBC" "nchen kelvin")});
    ViewerInfo* v = Show(node, 1);
    ASSERT_TRUE(v);
    const struct {
      int command;
      const char* answer;
      int start, end;  // -1: no match, the last one stays selected
    } steps[] = {{M_VIEW_FIND, "M\xC3\xBC" "nchen", 9, 17}, {M_VIEW_FIND_AGAIN, nullptr, 18, 26},
                 {M_VIEW_FIND_AGAIN, nullptr, 9, 17}, {M_VIEW_FIND, "KELVIN", 0, 8},
                 {M_VIEW_FIND_AGAIN, nullptr, 27, 33}, {M_VIEW_FIND, "Paris", -1, -1}};
    for (const auto& s : steps) {
      if (s.answer) xvt_test_push_text(s.answer);
      xvt_test_clear_posts();
      doMenu(v->window, s.command);
      int start = -1, end = -1;
      xvt_test_text_sel(v->text_pane, &start, &end);
      EXPECT_EQ(std::make_pair(start, end), std::make_pair(s.start < 0 ? 27 : s.start, s.start < 0 ? 33 : s.end));
      EXPECT_EQ(Posts().find("note: \"Paris\" is not in this message.") != std::string::npos, s.start < 0);
    }
  });
}

}  // namespace nodestest
