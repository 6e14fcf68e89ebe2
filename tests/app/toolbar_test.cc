// The toolbar over a viewer of an MH folder: each button sends the front
// window's own number for its command and is enabled exactly when that
// window's menu item is, and Print reaches the printer with the message.
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "editor/ekeys/key_event.h"
#include "editor/ekeys/keymap.h"
#include "src/app/toolbar.h"
#include "src/compose/compose.h"
#include "src/organizer/msgwin.h"
#include "src/base/window_list.h"
#include "src/options/options.h"
#include "src/viewer/viewer_internal.h"
#include "tests/editor/keys_fixture.h"
#include "tests/organizer/nodes_fixture.h"

namespace nodestest {
namespace {

std::string Mail(int i) {
  return "From: Ann <ann@example.org>\r\nTo: bob@example.org\r\nSubject: note " + std::to_string(i) +
         "\r\nDate: Mon, 2 Nov 2026 10:00:00 +0000\r\n\r\nbody of " + std::to_string(i) + "\r\n";
}

class ToolbarTest : public NodesTest {
 protected:
  // A viewer of message `msgno` of three, in front, and the toolbar.
  void WithViewer(unsigned long msgno, const std::function<void(WINDOW viewer, WINDOW bar)>& body) {
    Run([&] {
      const std::string name = "tb" + std::to_string(++round_);
      MakeFolder(name, {Mail(1), Mail(2), Mail(3)});
      Opt_AssignString(("Folder.1." + name + ".Sort").c_str(), MSG_SortName(kSortLeastRecentArrival), kOptSession, 0);
      TreeNode* node = Open(local_, name);
      ASSERT_TRUE(node);
      const UMI umi = MM_UMIFromMsgno(F(node)->folder_id, msgno);
      spawnViewer(umi, node);
      WINDOW bar = TBAR_Create(TASK_WIN);
      ASSERT_TRUE(bar && viewerFind(umi));
      body(viewerFind(umi), bar);
      TBAR_Destroy();
    });
  }
  int round_ = 0;
  static bool On(WINDOW bar, int id) { return xvt_vobj_is_enabled(xvt_win_get_ctl(bar, id)); }
};

// Back at message 2, Print sends it to the PDF file.
TEST_F(ToolbarTest, NextAndPreviousFollowTheViewerAndPrintTakesItsMessage) {
  WithViewer(1, [](WINDOW viewer, WINDOW bar) {
    EXPECT_EQ(xvt_vobj_get_tooltip(xvt_win_get_ctl(bar, kTbarReplyAll)), "Reply to All");
    EXPECT_FALSE(On(bar, kTbarCheck));  // a viewer has no such command
    struct Step {
      int press;
      unsigned long shown;
      bool previous, next;
    } steps[] = {{0, 1, false, true}, {kTbarNext, 2, true, true}, {kTbarNext, 3, true, false},
                 {kTbarNext, 3, true, false}, {kTbarPrevious, 2, true, true}};
    for (const Step& s : steps) {
      if (s.press) xvt_test_click(bar, s.press);
      xvt_test_advance_ms(300);  // the toolbar's beat
      EXPECT_EQ(MM_UMIMsgno(ViewerInfoOf(viewer)->umi), s.shown);
      EXPECT_EQ(On(bar, kTbarPrevious), s.previous) << s.shown;
      EXPECT_EQ(On(bar, kTbarNext), s.next) << s.shown;
      EXPECT_EQ(On(bar, kTbarNext), xvt_menu_get_item_enabled(viewer, M_VIEW_NEXT));
    }
    xvt_test_set_print_geometry(20, 40);
    xvt_test_push_answer(RESP_2);
    xvt_test_push_text("/tmp/out.pdf");
    ASSERT_TRUE(xvt_test_click(bar, kTbarPrint));
    ASSERT_EQ(xvt_test_print_jobs().size(), 1u);
    const XvtPrintJob& job = xvt_test_print_jobs()[0];
    EXPECT_EQ(job.title, "Velmar: note 2");
    EXPECT_EQ(job.pdf_path, "/tmp/out.pdf");
    ASSERT_EQ(job.pages.size(), 1u);
    EXPECT_EQ(job.pages[0][2], "From:    Ann <ann@example.org>");
    EXPECT_EQ(job.pages[0][7], "body of 2");
    EXPECT_EQ(job.pages[0][19], "              Page 1 of 1");
    EXPECT_TRUE(job.ended);
  });
}

TEST_F(ToolbarTest, ButtonsSendTheViewersOwnCommands) {
  const struct {
    int press;
    const char* opens;
    int questions;  // a reply asks whom to answer and whether to quote
  } cases[] = {{kTbarNew, "Compose", 0}, {kTbarReply, "Reply", 2}, {kTbarForward, "Forward", 0}};
  for (const auto& c : cases) {
    WithViewer(2, [&](WINDOW viewer, WINDOW bar) {
      for (int i = 0; i < c.questions; ++i) xvt_test_push_answer(RESP_2);
      ASSERT_TRUE(xvt_test_click(bar, c.press));
      ASSERT_NE(WinList_Head(), viewer);
      EXPECT_EQ(Title(WinList_Head()), c.opens);
    });
  }
}

// The E_CHAR of a menu key as written after the tab: "Ctrl+Shift+R", "F7".
EVENT KeyEvent(std::string keys) {
  EVENT ev{};
  ev.type = E_CHAR;
  for (size_t plus; keys.size() > 1 && (plus = keys.find('+')) != std::string::npos; keys.erase(0, plus + 1)) {
    ev.v.chr.control |= keys.compare(0, plus, "Ctrl") == 0;
    ev.v.chr.shift |= keys.compare(0, plus, "Shift") == 0;
  }
  const std::pair<const char*, int> named[] = {{"Return", K_ENTER}, {"Del", K_DEL}, {"Up", K_UP}, {"Down", K_DOWN}};
  ev.v.chr.ch = keys.size() == 1 ? std::tolower(keys[0]) : keys[0] == 'F' ? K_F1 + std::stoi(keys.substr(1)) - 1 : 0;
  for (const auto& [name, code] : named)
    if (keys == name) ev.v.chr.ch = code;
  return ev;
}

// The editor's binding of a key, "" when it has none (the default only types).
std::string Bound(KMSTATE* s, const EVENT& ev) {
  KM_KEY key;
  KBIND_RESULT r;
  if (km_key_from_event(&ev, &key) != RC_OK || km_ksym_decode_seq(s, key.sym, &r) != RC_OK || r.status != 1) return "";
  return std::strcmp(km_result_name(r), "self-insert") == 0 ? "" : km_result_name(r);
}

// A menu key takes the key from whatever has the focus, so one bar never
// has a key twice, and a compose window's keys are none the editor gives a
// meaning of its own (Ctrl+Return, a new line like Return, is free).
TEST_F(ToolbarTest, MenuKeysAreUniqueAndLeaveTheEditorItsKeys) {
  WithViewer(1, [this](WINDOW, WINDOW bar) {
    ASSERT_TRUE(xvt_test_click(bar, kTbarNew));
    ASSERT_TRUE(MSG_OpenNodeWindow(TREE_GetFirstKid(TREE_GetRoot(tree_))));
  });
  KeyState k;
  ASSERT_EQ(km_state_setup(k.s, ShippedKeybind().c_str(), nullptr), RC_OK);
  std::function<void(const MENU_ITEM*, std::set<std::string>*, bool)> walk;
  walk = [&](const MENU_ITEM* m, std::set<std::string>* seen, bool editor) {
    for (; m && (m->tag || m->text || m->separator); ++m) {
      const char* tab = m->text ? std::strchr(m->text, '\t') : nullptr;
      if (tab) {
        EXPECT_TRUE(seen->insert(tab + 1).second) << "twice: " << tab + 1;
        EVENT ev = KeyEvent(tab + 1);
        ASSERT_NE(ev.v.chr.ch, 0) << tab + 1;
        EVENT plain = ev;
        plain.v.chr.control = false;
        const std::string bound = Bound(k.s, ev);
        if (editor) {
          EXPECT_TRUE(bound.empty() || (ev.v.chr.control && bound == Bound(k.s, plain))) << tab + 1 << ": " << bound;
        }
      }
      walk(m->children, seen, editor);
    }
  };
  for (int rid : {kMsgMenuBar, kViewerMenuBar, kComposeMenuBar}) {
    std::set<std::string> seen;
    ASSERT_NE(xvt_res_get_menubar(rid), nullptr) << rid;
    walk(xvt_res_get_menubar(rid), &seen, rid == kComposeMenuBar);
    EXPECT_GE(seen.size(), 3u) << rid;
  }
}

// Each button shows its own picture, and the picture is a file the program
// ships; the Online button's picture says the state it is in.
TEST_F(ToolbarTest, ButtonsShowShippedPicturesAndOnlineFollowsTheState) {
  Run([] {
    WINDOW bar = TBAR_Create(TASK_WIN);
    ASSERT_TRUE(bar);
    auto reads = [](int rid) {
      const char* path = xvt_res_icon_path(rid);
      XVT_IMAGE img = path ? xvt_image_read_bmp(path) : nullptr;
      int w = 0, h = 0;
      xvt_image_get_dimensions(img, &w, &h);
      xvt_image_destroy(img);
      return w == 20 && h == 20;
    };
    std::set<int> seen;
    for (int id = kTbarNew; id <= kTbarCount; ++id) {
      const int rid = xvt_test_ctl_icon(xvt_win_get_ctl(bar, id));
      EXPECT_TRUE(reads(rid)) << "button " << id << ", picture " << rid;
      EXPECT_TRUE(seen.insert(rid).second) << "button " << id << " repeats picture " << rid;
    }
    const struct {
      bool offline;
      int icon;
      const char* face;
    } states[] = {{true, kTbarIconOffline, "Offline"}, {false, kTbarIconOnline, "Online"}};
    for (const auto& s : states) {
      Opt_AssignBoolean("General.Offline", s.offline, kOptSession, 0);
      TBAR_Refresh();
      WINDOW online = xvt_win_get_ctl(bar, kTbarOnline);
      EXPECT_EQ(Title(online), s.face);
      EXPECT_EQ(xvt_test_ctl_icon(online), s.icon) << s.face;
      EXPECT_TRUE(reads(xvt_test_ctl_icon(online))) << s.face;
    }
    // A narrow task window keeps every button, with pictures only.
    for (const int width : {700, 1400}) {
      TBAR_Fit(width);
      RCT r{};
      xvt_vobj_get_outer_rect(bar, &r);
      EXPECT_LE(r.right, width);
      EXPECT_EQ(Title(xvt_win_get_ctl(bar, kTbarNew)), width < 1000 ? "" : "New");
    }
    TBAR_Destroy();
  });
}

}  // namespace
}  // namespace nodestest
