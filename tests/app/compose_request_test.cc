// Other programs start a message: from a second process to the running program over its socket, and on the
// command line of a program that starts.
#include "src/app/compose_request.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "src/app/workspace.h"
#include "src/base/filenames.h"
#include "src/compose/compose.h"
#include "src/compose/compose_text.h"
#include "tests/support/frame_fixture.h"

namespace {

class ComposeRequestTest : public UserFrameTest {
 protected:
  // The second process sends; we serve our socket until it has its answer. Its exit status.
  static int SendFromChild(const ComposeRequest& request) {
    const std::string path = CREQ_SocketPath(GetUserDir());
    return FromChild([&] {
      std::string why;
      return CREQ_SendToRunning(path, request, &why) == 1 ? 0 : 1;
    });
  }
  static int FromChild(const std::function<int()>& fn) {
    const pid_t pid = ::fork();
    if (pid == 0) ::_exit(fn());
    int status = -1;
    for (int i = 0; i < 500 && ::waitpid(pid, &status, WNOHANG) == 0; ++i) CREQ_Pump(20);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  static std::string Window(WINDOW win) {
    ComposeInfo* info = ComposeInfoOf(win);
    const ComposeFields f = ComposeGetFields(info);
    std::string out = f.to + "|" + f.cc + "|" + f.bcc + "|" + f.subject + "|" + info->in_reply_to + "|" +
                      ComposeTextGet(info->text_pane).substr(0, 9) + "|";
    for (const ComposeAttachment& a : info->attachment_list) out += a.path + ";";
    return out;
  }
};

TEST_F(ComposeRequestTest, RunningProgramOpensFilledWindowOrRefuses) {
  const std::string file = home_ + "/report.pdf";
  WriteFile(file, "%PDF-1.4\n");
  ASSERT_EQ(::mkfifo((home_ + "/fifo").c_str(), 0600), 0);
  struct Case {
    std::string attach;
    int status;
    std::string want;  // the window, or what the refusal said
  } cases[] = {
      {file, 0, "a@x.org, b@y.org|c@z.org|d@w.org|Caf\u00e9 &|<1@x>|Hi\nthere\n|" + file + ";"},
      {home_ + "/missing.pdf", 1, "No such file or directory"},
      {home_, 1, "not a regular file"},
      {home_ + "/fifo", 1, "not a regular file"},
  };
  Run({"-b"}, [&] {
    for (const Case& c : cases) {
      ComposeRequest r;
      std::string why;
      ASSERT_TRUE(MailtoParse("mailto:a@x.org,b@y.org?cc=c@z.org&bcc=d@w.org&subject=Caf%C3%A9%20%26&body=Hi%0D%0A"
                              "there%0A&in-reply-to=%3C1@x%3E&from=evil@x.org",
                              &r, &why));
      r.attach = {c.attach};
      const size_t before = ComposeWindows().size();
      xvt_test_clear_posts();
      EXPECT_EQ(SendFromChild(r), c.status) << c.attach;
      ASSERT_EQ(ComposeWindows().size(), before + (c.status == 0)) << c.attach;
      const std::string seen = c.status == 0 ? Window(ComposeWindows().back()) : Posts();
      EXPECT_NE(seen.find(c.want), std::string::npos) << seen;
    }
    // A bad link given to a second copy: the reason shows here, and the second copy ends with 2.
    xvt_test_clear_posts();
    std::vector<std::string> words = {"mailto:a@x.org?subject=%ZZ"};
    EXPECT_EQ(FromChild([&] { return CREQ_FromCommandLine(&words); }), 2);
    CREQ_Pump(50);
    EXPECT_NE(Posts().find("bad %-escape \"%ZZ\""), std::string::npos) << Posts();
    for (WINDOW w : ComposeWindows()) xvt_vobj_destroy(w);
    Exit();
  });
}

// A program that is not running yet opens the request once it has started; a bad link opens nothing and
// says why in a box.
TEST_F(ComposeRequestTest, StartingProgramOpensAfterStartUp) {
  std::string seen;
  Run({"-b", "mailto:z@x.org?subject=Start"}, [&] {
    seen = ComposeWindows().empty() ? "(none)" : Window(ComposeWindows().back());
    for (WINDOW w : ComposeWindows()) xvt_vobj_destroy(w);
    Exit();
  });
  EXPECT_EQ(seen, "z@x.org|||Start|||");
  xvt_test_clear_posts();
  Run({"-b", "--compose", "--attach", home_ + "/gone.pdf"}, [&] {
    seen = Posts() + std::to_string(ComposeWindows().size());
    Exit();
  });
  EXPECT_NE(seen.find("cannot attach " + home_ + "/gone.pdf: No such file or directory.\nNo message was opened.\n0"),
            std::string::npos)
      << seen;
}

}  // namespace
