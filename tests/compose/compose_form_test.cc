// Compose windows carrying forms, in the program with its shipped data
// files: what the writer produces for a phone message and a stored form,
// and a form that can't be read leaving the window without a form pane.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "src/base/tcl_interp.h"
#include "src/compose/compose.h"
#include "src/compose/compose_text.h"
#include "tests/model/model_fixture.h"
#include "tests/support/frame_fixture.h"
#include "xvt/xvt_test.h"

namespace {

class ComposeForms : public UserFrameTest {
 protected:
  static std::string Eval(const std::string& script) {
    const int code = Tcl_EvalEx(task_interp, script.c_str(), -1, TCL_EVAL_GLOBAL);
    return std::string(code == TCL_OK ? "" : "error: ") + Tcl_GetStringResult(task_interp);
  }
};

TEST_F(ComposeForms, FormsAreSentAsTheirOwnPartsInPlaceOfTheText) {
  Run({"-b"}, [&] {
    WINDOW phone = phone_message();
    ASSERT_TRUE(phone) << Posts();
    ComposeInfo* info = ComposeInfoOf(phone);
    ASSERT_TRUE(info->form_pane && info->form_tcl);
    EXPECT_FALSE(xvt_vobj_is_visible(info->text_pane));
    EXPECT_EQ(Title(phone), "Phone Message");
    EXPECT_EQ(Eval("txeditctl phonemsg_caller set {Ann M\u00fcller [x]}; _xvt_checkbox SET formwin 22 1; "
                   "txeditctl phonemsg_message set \"Call about\\nthe roof\""),
              "");
    EXPECT_EQ(phone_message(), NULL_WIN) << "one phone message at a time";
    // Its fields follow the compose window when it grows.
    const auto width = [&] { return std::atoi(Eval("lindex [_xvt_get_client_rect phonemsg_caller] 2").c_str()); };
    const int before = width();
    RCT grown{};
    xvt_vobj_get_outer_rect(phone, &grown);
    grown.right += 300;
    xvt_vobj_move(phone, &grown);
    EXPECT_GT(width(), before + 200);
    // Tab from the pane before the form enters its first field; Shift-Tab round the front, its last.
    const auto tab = [&](WINDOW from, bool back, int key = K_TAB) {
      xvt_scr_set_focus_vobj(from);
      xvt_test_key(phone, back ? K_BTAB : key);
      char ptr[32];
      std::snprintf(ptr, sizeof ptr, "%p", static_cast<void*>(xvt_scr_get_focus_vobj()));
      return std::string(ptr);
    };
    EXPECT_EQ(tab(info->address_panel[4], false), Eval("keylget $windows(phonemsg_for) windowptr"));
    EXPECT_EQ(tab(info->address_panel[0], true), Eval("keylget $windows(phonemsg_message) windowptr"));
    EXPECT_EQ(tab(info->address_panel[4], false, K_ENTER), tab(info->address_panel[4], false));  // Enter too

    xvt_test_type(phone, kComposeToId, "bob@example.org");
    const std::string tcl = Built(phone);
    for (const char* want : {"Subject: Phone Message\r\n", "Content-Type: APPLICATION/TCL-FORM; name=Form\r\n",
                             "Content-Description: Tcl-Form\r\n", "set phonemsg(caller) \"Ann M\\u00fcller \\[x\\]\"\r\n",
                             "set phonemsg(callback) \"1\"\r\n", "set phonemsg(message) \"Call about\\nthe roof\"\r\n"})
      EXPECT_NE(tcl.find(want), std::string::npos) << want << "\n" << tcl;
    EXPECT_EQ(tcl.find("TEXT/PLAIN"), std::string::npos) << tcl;

    const std::string file = home_ + "/visit.frm";
    std::ofstream(file) << "begin form 300 120 Visit\ntext 4 4 60 16 Name:\nedit 70 4 200 20 \ntxedit 4 30 290 80\nend\n";
    WINDOW stored = compose_form(file.c_str());
    ASSERT_TRUE(stored);
    ComposeInfo* s = ComposeInfoOf(stored);
    ASSERT_TRUE(s->form_pane && !s->form_tcl);
    EXPECT_EQ(Title(stored), "Visit");
    xvt_test_type(s->form_pane, 2, "Carol");
    const std::string text = Built(stored);  // no To: a form needs none
    for (const char* want : {"Subject: Visit\r\n", "Content-Type: TEXT/FORM; CHARSET=UTF-8\r\n",
                             "    Begin Form,  300,  120    Visit\r\n        TEXT,  4,  4, 60, 16  Name:  \r\n"
                             "        EDIT,  70,  4, 200, 20  Carol  \r\n"})
      EXPECT_NE(text.find(want), std::string::npos) << want << "\n" << text;

    // The chooser's question, and a file that is no form.
    std::ofstream(home_ + "/no.frm") << "hello\n";
    xvt_test_push_text((home_ + "/no.frm").c_str());
    WINDOW plain = compose_form();
    ASSERT_TRUE(plain);
    EXPECT_FALSE(ComposeInfoOf(plain)->form_pane);
    EXPECT_TRUE(xvt_vobj_is_visible(ComposeInfoOf(plain)->text_pane));
    const std::string told = Posts();
    EXPECT_NE(told.find("file_open: Select form file...\nerror: Invalid form\n"
                        "error: Invalid form file. Cannot create form\n"),
              std::string::npos)
        << told;
    for (WINDOW w : ComposeWindows()) xvt_vobj_destroy(w);
  });
}

// A phone message kept by the autosave comes back as a phone message with its fields filled in.
TEST_F(ComposeForms, APhoneMessageIsRestoredWithItsFields) {
  Run({"-b"}, [&] {
    WINDOW phone = phone_message();
    ASSERT_TRUE(phone) << Posts();
    ASSERT_EQ(Eval("txeditctl phonemsg_caller set {Ann M\u00fcller [x]}; _xvt_checkbox SET formwin 22 1; "
                   "txeditctl phonemsg_message set \"Call about\\nthe roof\"; txeditctl phonemsg_when set {}"),
              "");
    ASSERT_EQ(ComposeAutosave(ComposeInfoOf(phone)), 1);
    xvt_vobj_destroy(phone);  // as in a crash: the file stays
    xvt_test_clear_posts();
    xvt_test_push_answer(RESP_DEFAULT);
    ASSERT_EQ(COMP_OfferRestore(), 1) << Posts();
    ASSERT_EQ(ComposeWindows().size(), 1u);
    ComposeInfo* info = ComposeInfoOf(ComposeWindows().back());
    EXPECT_TRUE(info->form_pane && info->form_tcl);
    EXPECT_EQ(Eval("list [txeditctl phonemsg_caller get] [_xvt_checkbox GET formwin 22] [_xvt_checkbox GET formwin 21] "
                   "[txeditctl phonemsg_message get] [txeditctl phonemsg_when get]"),
              "{Ann M\u00fcller [x]} 1 0 {Call about\nthe roof} {}");
    EXPECT_EQ(Posts().find("error"), std::string::npos) << Posts();
    for (WINDOW w : ComposeWindows()) xvt_vobj_destroy(w);
  });
}

}  // namespace
