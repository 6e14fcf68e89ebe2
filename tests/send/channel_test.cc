// The local channel between the program and its background sender: what
// a line may hold, and a real socket served in this process.
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "src/send/channel.h"
#include "tests/support/scratch_dir.h"

namespace {

TEST(Channel, LinesReadAsMeantOrRefusedWithAReason) {
  struct Case {
    std::string line;
    bool ok;
    ChannelKind kind;
    const char* item;
    const char* value;  // or the reason of a refusal
  };
  const std::string long_value(kChannelMaxValue + 1, 'x');
  const Case cases[] = {
      {"REQUEST GETLOGININFO", true, ChannelKind::kRequest, "GETLOGININFO", ""},
      {"REQUEST FULLYSTARTED\r", true, ChannelKind::kRequest, "FULLYSTARTED", ""},
      {"POKE OUTBOXMODIFIED 1", true, ChannelKind::kPoke, "OUTBOXMODIFIED", "1"},
      {"POKE CURSESSHANDLE a b:c", true, ChannelKind::kPoke, "CURSESSHANDLE", "a b:c"},
      {"POKE OUTBOXMODIFIED ", true, ChannelKind::kPoke, "OUTBOXMODIFIED", ""},
      {"request GETLOGININFO", false, {}, "", "not a request or a poke"},
      {"REQUEST getlogininfo", false, {}, "", "no item"},
      {"REQUEST LASTRESULT 1", false, {}, "", "a request takes no value"},
      {"POKE OUTBOXMODIFIED", false, {}, "", "a poke needs a value"},
      {"POKE OUTBOXMODIFIED 1\x01", false, {}, "", "control character in value"},
      {"REQUEST " + std::string(kChannelMaxItem + 1, 'A'), false, {}, "", "item too long"},
      {"POKE CURSESSHANDLE " + long_value, false, {}, "", "value too long"},
      {"REQUEST " + std::string(kChannelMaxLine, 'A'), false, {}, "", "line too long"},
  };
  for (const Case& c : cases) {
    ChannelLine out;
    std::string why;
    const bool ok = ChannelParseLine(c.line, &out, &why);
    ASSERT_EQ(ok, c.ok) << c.line.substr(0, 60) << ": " << why;
    if (!ok) {
      EXPECT_EQ(why, c.value) << c.line.substr(0, 60);
      continue;
    }
    EXPECT_EQ(out.kind, c.kind) << c.line;
    EXPECT_EQ(out.item, c.item) << c.line;
    EXPECT_EQ(out.value, c.value) << c.line;
    // What is read is written back the same way.
    std::string again = ChannelFormat(out);
    ASSERT_FALSE(again.empty()) << c.line;
    again.pop_back();
    std::string plain = c.line;
    if (plain.back() == '\r') plain.pop_back();
    EXPECT_EQ(again, plain);
  }
  EXPECT_EQ(ChannelFormat({ChannelKind::kPoke, "OUTBOXMODIFIED", "1\n"}), "");
  EXPECT_EQ(ChannelFormat({ChannelKind::kRequest, "lower", ""}), "");
}

TEST(Channel, OnlyOurOwnUidMayTalk) {
  const uid_t self = ::geteuid();
  EXPECT_TRUE(ChannelPeerAllowed(self, self));
  EXPECT_FALSE(ChannelPeerAllowed(self + 1, self));
  EXPECT_FALSE(ChannelPeerAllowed(0, 1000));
  EXPECT_FALSE(ChannelPeerAllowed(1000, 0));
}

class ChannelSocket : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir_.empty()); }
  // A socket of our own, bound or connected to the channel's name.
  int Socket(int (*how)(int, const sockaddr*, socklen_t)) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
    EXPECT_EQ(how(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    return fd;
  }

  // A raw client: bytes in, whatever the server answers before it goes
  // quiet (the server is pumped in between, in this thread).
  std::string Exchange(ChannelServer* server, const std::string& bytes, bool* closed) {
    const int fd = Socket(::connect);
    size_t sent = 0;
    std::string got;
    *closed = false;
    for (int round = 0; round < 100 && !*closed; ++round) {
      if (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) sent += static_cast<size_t>(n);
      }
      server->Pump(10);
      pollfd p{fd, POLLIN, 0};
      while (::poll(&p, 1, 10) > 0) {
        char block[256];
        const ssize_t n = ::recv(fd, block, sizeof block, 0);
        if (n <= 0) {
          *closed = true;
          break;
        }
        got.append(block, static_cast<size_t>(n));
      }
      if (sent == bytes.size() && !got.empty() && got.back() == '\n' && round > 3) break;
    }
    ::close(fd);
    return got;
  }

  TempDir scratch_{"velmar-chan"};
  const std::string dir_ = scratch_.path;
  const std::string path_ = ChannelPath(dir_, "VELMAR");
};

TEST_F(ChannelSocket, AnswersEachLineAndDropsAnOverLongOne) {
  ChannelServer server;
  std::string why;
  ASSERT_TRUE(server.Start(path_, [](const ChannelLine& l, std::string* answer) {
    if (l.item == "LASTRESULT") *answer = "7";
    return l.item != "GETLOGININFO";
  }, &why)) << why;
  struct stat st{};
  ASSERT_EQ(::lstat(path_.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  struct Case {
    std::string sent;
    std::string answer;
    bool closed;
  };
  const Case cases[] = {
      {"REQUEST LASTRESULT\nPOKE OUTBOXMODIFIED 1\n", "OK 7\nOK\n", false},
      {"REQUEST GETLOGININFO\n", "NO\n", false},
      {"HELLO\n", "NO not a request or a poke\n", false},
      {std::string(kChannelMaxLine + 10, 'A'), "NO line too long\n", true},
      {"REQUEST " + std::string(kChannelMaxLine, 'A') + "\nREQUEST LASTRESULT\n", "NO line too long\n", true},
  };
  for (const Case& c : cases) {
    bool closed = false;
    EXPECT_EQ(Exchange(&server, c.sent, &closed), c.answer) << c.sent.substr(0, 40);
    EXPECT_EQ(closed, c.closed) << c.sent.substr(0, 40);
  }
  // The client side reads the same answers.
  ChannelClient client;
  ASSERT_TRUE(client.Connect(path_));
  std::string value;
  EXPECT_TRUE(client.Transact({ChannelKind::kRequest, "LASTRESULT", ""}, &value, 2000,
                              [&server] { server.Pump(0); }));
  EXPECT_EQ(value, "7");
  EXPECT_FALSE(client.Transact({ChannelKind::kRequest, "GETLOGININFO", ""}, &value, 2000,
                               [&server] { server.Pump(0); }));
  // Nobody serving: the answer never comes, and the wait ends.
  EXPECT_FALSE(client.Transact({ChannelKind::kRequest, "LASTRESULT", ""}, &value, 200));
  server.Stop();
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(ChannelSocket, AStaleSocketIsReplacedALiveOneIsNot) {
  std::string why;
  {
    ChannelServer first;
    ASSERT_TRUE(first.Start(path_, nullptr, &why)) << why;
    ChannelServer second;
    EXPECT_FALSE(second.Start(path_, nullptr, &why));
    EXPECT_NE(why.find("another program serves"), std::string::npos) << why;
    EXPECT_TRUE(first.Running());
  }
  // A socket file left by a program that died.
  ::close(Socket(::bind));
  ChannelServer again;
  EXPECT_TRUE(again.Start(path_, nullptr, &why)) << why;
  again.Stop();
  // A plain file of that name is not ours to remove.
  { FILE* f = std::fopen(path_.c_str(), "w"); std::fclose(f); }
  EXPECT_FALSE(again.Start(path_, nullptr, &why));
  EXPECT_TRUE(std::filesystem::exists(path_));
}

}  // namespace
