// Stored forms: the reader's verdict on good and bad files, the window it
// builds, and the file written back from what the user typed.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "src/script/forms.h"
#include "tests/support/frame_fixture.h"
#include "xvt/xvt_test.h"

namespace {

struct ReadCase {
  const char* name;
  std::string file;
  std::string error;     // "" when the form is good
  std::string summary;   // width height title | type left top width height value | ...
};

std::string Summary(const FormLayout& f) {
  std::string s = std::to_string(f.width) + " " + std::to_string(f.height) + " " + f.title;
  for (const FormField& x : f.fields)
    s += " | " + std::to_string(x.type) + " " + std::to_string(x.left) + " " + std::to_string(x.top) + " " +
         std::to_string(x.width) + " " + std::to_string(x.height) + " " + x.value;
  return s;
}

TEST(FormParse, GoodAndBadFiles) {
  const ReadCase cases[] = {
      {"marked, commas and title", "#VMRFORM\nBegin Form, 300, 200  Visit\n  TEXT, 1, 2, 30, 16  Name:\n End\n", "",
       "300 200 Visit | 1 1 2 30 16 Name:"},
      {"capitals", "BEGIN FORM 10 20\nEDIT 0 0 5 5 v\nHIDE whatever\nEND\n", "", "10 20  | 2 0 0 5 5 v"},
      {"continuation lines", "begin form 9 9\ntxedit 1 1 5 5  one   \\\n  two\\\nthree  \nend\n", "",
       "9 9  | 3 1 1 5 5 one\n  two\nthree"},
      {"value after a backslash starts below",
       "begin form 9 9\nedit 1 1 5 5 \\\n\n   \nlater  \nend\n", "", "9 9  | 2 1 1 5 5 later"},
      {"CR LF lines and blank lines", "begin form 4 4\r\n\r\ntext 0 0 1 1 a\r\nend\r\n", "", "4 4  | 1 0 0 1 1 a"},
      {"width 0", "begin form 0 20\nend\n", "Invalid form specification", ""},
      {"height 0", "begin form 20 0\nend\n", "Invalid form specification", ""},
      {"first line not a form", "text 1 1 1 1 label\nbegin form 5 5\nend\n", "Invalid form", ""},
      {"begin without form", "begin sheet 5 5\nend\n", "Invalid form", ""},
      {"no begin at all", "#VMRFORM\nedit\n", "Invalid form", ""},
      {"keyword cut at 24 is still unknown", "begin form 5 5\ntext" + std::string(21, 'x') + " 1 1 1 1\nend\n",
       "Invalid form specification", ""},
      {"unknown keyword", "begin form 5 5\nbutton 1 1 1 1 OK\nend\n", "Invalid form specification", ""},
      {"missing number", "begin form 5 5\nedit 1 1 1\nend\n", "Invalid form specification", ""},
      {"not a number", "begin form 5 5\nedit 1 1 1 x1\nend\n", "Invalid form specification", ""},
      {"too big", "begin form 5 99999\nend\n", "Invalid form specification", ""},
      {"no end", "begin form 5 5\nedit 1 1 1 1 v\n", "Invalid form specification", ""},
      {"second begin", "begin form 5 5\nbegin form 6 6\nend\n", "Invalid form specification", ""},
      {"line too long", "begin form 5 5\ntext 1 1 1 1 " + std::string(1100, 'a') + "\nend\n",
       "Invalid form specification", ""},
  };
  for (const ReadCase& c : cases) {
    FormLayout layout;
    std::string error;
    const bool ok = FormParse(c.file, &layout, &error);
    EXPECT_EQ(ok ? "" : error, c.error) << c.name;
    EXPECT_EQ(ok ? Summary(layout) : "", c.summary) << c.name;
  }
  // A value is cut at its limit, never beyond.
  std::string long_value = "begin form 5 5\nedit 1 1 1 1 ";
  for (int i = 0; i < 20; ++i) long_value += std::string(1000, 'v') + "\\\n";
  FormLayout layout;
  ASSERT_TRUE(FormParse(long_value + "z\nend\n", &layout, nullptr));
  EXPECT_EQ(layout.fields.at(0).value.size(), kFormValueMax);
}

TEST(FormFormat, WritesTheLayoutAndRefusesWhatCantReadBack) {
  FormLayout f{300, 120, "Visit",
             {{kFormText, 4, 6, 60, 16, "Caller:"}, {kFormEdit, 70, 6, 200, 20, ""},
              {kFormTxEdit, 4, 30, 290, 80, "Call back\n\nafter  five"}, {9, 0, 0, 1, 1, "unknown"}}};
  std::string text, error;
  ASSERT_TRUE(FormFormat(f, &text, &error)) << error;
  EXPECT_EQ(text,
            "    Begin Form,  300,  120    Visit\n"
            "        TEXT,  4,  6, 60, 16  Caller:  \n"
            "        EDIT,  70,  6, 200, 20    \n"
            "        TXEDIT,  4,  30, 290, 80  Call back   \\\n   \\\nafter  five  \n"
            "   End\n");
  FormLayout back;
  ASSERT_TRUE(FormParse(text, &back, &error)) << error;
  f.fields.pop_back();
  EXPECT_EQ(Summary(back), Summary(f));

  // What the reader would take for a continuation, or can't read whole, is refused.
  for (const std::string& bad : {std::string("C:\\temp"), std::string(kFormLineMax, 'w')}) {
    f.fields[1].value = bad;
    EXPECT_FALSE(FormFormat(f, &text, &error)) << bad;
  }
}

class FormWindows : public UserFrameTest {};

TEST_F(FormWindows, ReadFillWriteAndReadAgainKeepsLineFeeds) {
  Run({"-b"}, [&] {
    const std::string file = home_ + "/visit.frm";
    std::ofstream(file) << "#VMRFORM\nbegin form 300 200 Visit\ntext 4 4 60 16 Name:\nedit 70 4 200 20 Ann\n"
                           "txedit 4 30 290 120 first\\\nsecond\nend\n";
    int w = 0, h = 0;
    xvt_test_clear_posts();
    WINDOW form = form_read_file(TASK_WIN, file.c_str(), 0, &w, &h);
    ASSERT_TRUE(form);
    EXPECT_EQ(std::to_string(w) + "x" + std::to_string(h), "300x200");
    xvt_test_type(form, 2, "Bob");
    FormLayout now;
    ASSERT_TRUE(FormCurrent(form, &now));
    ASSERT_EQ(now.fields.size(), 3u);
    EXPECT_EQ(now.fields[1].value, "Bob");
    EXPECT_EQ(now.fields[2].value, "first\nsecond");

    const std::string out = home_ + "/out.frm";
    ASSERT_EQ(form_write_file(form, out.c_str()), 1);
    WINDOW again = form_read_file(TASK_WIN, out.c_str(), 0, &w, &h);
    ASSERT_TRUE(again);
    FormLayout read;
    ASSERT_TRUE(FormCurrent(again, &read));
    EXPECT_EQ(Summary(read), "300 200 Visit | 1 4 4 60 16 Name: | 2 70 4 200 20 Bob | 3 4 30 290 120 first\nsecond");
    EXPECT_TRUE(xvt_test_posts().empty());

    // A missing file is told (a file that is no form: the compose window's test).
    xvt_test_clear_posts();
    EXPECT_FALSE(form_read_file(TASK_WIN, "/nonexistent/x.frm", 0, &w, &h));
    std::string told;
    for (const XvtPost& p : xvt_test_posts()) told += p.text + "\n";
    EXPECT_EQ(told, "Invalid form, cannot open for reading.\n");
    xvt_vobj_destroy(form);
    xvt_vobj_destroy(again);
  });
}

}  // namespace
