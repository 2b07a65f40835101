// tidegate-agent top, which shows an agent that runs, and --check, which tries settings.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <httplib.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <utility>

#include "agent/top_page.h"
#include "support/agent_program.h"
#include "support/loopback_server.h"

namespace tidegate::agent {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

constexpr char kAsk[] = "tidegate-agent 1: tell me your status\n";

class AgentCommandsTest : public AgentTest {
 protected:
  ~AgentCommandsTest() override {
    if (top_ > 0) kill(top_, SIGKILL);
  }

  // Runs the program to its end; standard output, and then error, are in output_.
  int RunAgent(const std::string& arguments) {
    const std::string file = folder_ / "output";
    const int status =
        std::system((TIDEGATE_AGENT " " + arguments + " >" + file + " 2>&1").c_str());
    output_ = Content("output");
    return WEXITSTATUS(status);
  }
  int Top() { return RunAgent("top --socket " + socket_); }

  void StartTopInTerminal() {
    terminal_ = UniqueFd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(grantpt(terminal_.get()), 0);
    ASSERT_EQ(unlockpt(terminal_.get()), 0);
    its_end_ = UniqueFd(open(ptsname(terminal_.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    Resize(30, 100);
    top_ = fork();
    ASSERT_GE(top_, 0);
    if (top_ > 0) return;
    for (const int fd : {0, 1, 2}) dup2(its_end_.get(), fd);
    execl(TIDEGATE_AGENT, TIDEGATE_AGENT, "top", "--socket", socket_.c_str(), nullptr);
    _exit(127);
  }
  void Resize(uint16_t rows, uint16_t columns) const {
    const winsize size = {rows, columns, 0, 0};
    ASSERT_EQ(ioctl(its_end_.get(), TIOCSWINSZ, &size), 0);
  }
  // Reads on until the text comes, for 20 seconds at most.
  void AwaitOnTerminal(const std::string& text) {
    output_.clear();
    pollfd ready = {terminal_.get(), POLLIN, 0};
    for (int i = 0; i < 200 && output_.find(text) == std::string::npos; ++i) {
      std::array<char, 65536> piece;
      if (poll(&ready, 1, 100) <= 0) continue;
      const ssize_t size = read(terminal_.get(), piece.data(), piece.size());
      if (size > 0) output_.append(piece.data(), static_cast<size_t>(size));
    }
    ASSERT_THAT(output_, HasSubstr(text));
  }
  termios Settings() const {
    termios settings = {};
    EXPECT_EQ(tcgetattr(its_end_.get(), &settings), 0);
    return settings;
  }

  std::string output_;
  UniqueFd terminal_, its_end_;
  pid_t top_ = -1;
};

TEST_F(AgentCommandsTest, TopShowsOnePageInAPipe) {
  EXPECT_EQ(Top(), 1);
  EXPECT_THAT(output_, HasSubstr("no agent listens on " + socket_));
  Start({"--quiet"});
  const UniqueFd client = Connect();
  Send(client, GaugeNamed("evil\x1b[2J"));
  Send(client, "no packet");
  for (int i = 0; i < 200 && output_.find("foreign") == std::string::npos; ++i) {
    EXPECT_EQ(Top(), 0);
  }
  EXPECT_THAT(output_, AllOf(HasSubstr("process " + std::to_string(pid_)), HasSubstr("SERVICES"),
                             ContainsRegex("decode_errors_total foreign +1")));
  EXPECT_THAT(output_, AllOf(HasSubstr("evil\\x1b[2J"), Not(HasSubstr("\x1b"))));
  EXPECT_EQ(RunAgent("top --nonsense"), 2);
}

TEST_F(AgentCommandsTest, TopFollowsTheAgentAndLeavesTheTerminalAsItWas) {
  Start({"--quiet"});
  const termios before = [&] {
    StartTopInTerminal();
    return Settings();
  }();
  AwaitOnTerminal("process " + std::to_string(pid_));
  EXPECT_EQ(Settings().c_lflag & ECHO, 0U);
  Resize(1, 14);
  kill(top_, SIGWINCH);
  AwaitOnTerminal("\x1b[H\x1b[1mtidegate-agent\x1b[0m\x1b[K\x1b[J");
  Resize(30, 100);
  EXPECT_EQ(Terminate(), 0);
  AwaitOnTerminal("GONE for 1 s");
  Start({"--quiet"});
  AwaitOnTerminal("the agent is back");
  ASSERT_EQ(write(terminal_.get(), "xq", 2), 2);
  AwaitOnTerminal("\x1b[?1049l");
  int status = 0;
  waitpid(std::exchange(top_, -1), &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Settings().c_lflag, before.c_lflag);
}

// Those that ask and do not read keep nobody up, nor do they get more than a few connections.
TEST_F(AgentCommandsTest, AsksDoNotHoldUpPackets) {
  Start({"--print", "text"});
  std::vector<UniqueFd> askers;
  for (int i = 0; i < 40; ++i) {
    askers.push_back(Connect());
    Send(askers.back(), kAsk);
  }
  const UniqueFd client = Connect();
  Send(client, GaugeNamed("queue"));
  Await("out", "queue");
  EXPECT_EQ(Top(), 0);
  Send(client, std::string(kAsk) + "x");
  EXPECT_EQ(Terminate(), 0);
  EXPECT_THAT(Content("err"), HasSubstr("packets=1 series=1 points=1 errors=1"));
}

TEST_F(AgentCommandsTest, StatusIsNotForOtherUsers) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to be another user";
  Start({"--quiet"});
  fs::permissions(folder_, fs::perms::group_exec | fs::perms::others_exec, fs::perm_options::add);
  const pid_t other = fork();
  ASSERT_GE(other, 0);
  if (other == 0) {
    if (setuid(65534) != 0) _exit(2);
    const UniqueFd client = Connect();
    send(client.get(), kAsk, sizeof(kAsk) - 1, MSG_NOSIGNAL);
    pollfd ready = {client.get(), POLLIN, 0};
    _exit(poll(&ready, 1, 300) == 0 ? 0 : 1);
  }
  int status = 0;
  waitpid(other, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Terminate(), 0);
  EXPECT_THAT(Content("err"), HasSubstr("errors=1"));
}

TEST(TopPageTest, FitsAndShowsNothingThatATerminalObeys) {
  TopPage page;
  EXPECT_FALSE(page.Take("{\"agent\":"));
  EXPECT_TRUE(page.Take("{\"agent\":7,\"services\":\"\",\"drops\":[3],\"destinations\":[{}]}"));
  EXPECT_FALSE(page.Lines(std::nullopt).empty());
  std::string services;
  for (int i = 0; i < 50; ++i)
    services += ",{\"name\":\"a\\u001b[2J\\u009b\\u202e\",\"pid\":1e300}";
  const auto status = [&](int count) {
    return R"({"agent":{"pid":7,"now_ms":)" + std::to_string(1000 * count) + R"(},"services":[)" +
           services.substr(1) + R"(],"drops":[{"number":"lost","count":)" + std::to_string(count) +
           R"(}],"destinations":[{"name":"d","up":false,"dropped":{"full":2}}]})";
  };
  EXPECT_TRUE(page.Take(status(1)));
  EXPECT_TRUE(page.Take(status(4)));
  for (size_t rows = 1; rows < 70; ++rows) EXPECT_LE(page.Lines(rows).size(), rows);
  EXPECT_EQ(page.Lines(40).size(), 40U);
  size_t red = 0;
  for (const TopPage::Line& line : page.Lines(std::nullopt)) {
    EXPECT_THAT(line.text, Not(ContainsRegex("[\x01-\x1f\x80-\xff]")));
    if (line.look != TopPage::Line::Look::kRed) continue;
    ++red;
    if (red == 2) {
      EXPECT_THAT(line.text, ContainsRegex("lost +4 +1.0"));
    }
  }
  EXPECT_EQ(red, 2U);
}

TEST_F(AgentCommandsTest, CheckSaysWhatAnAgentWouldFind) {
  test::LoopbackServer server;
  server.Serve("/(.*)", [](const httplib::Request& request, httplib::Response& response) {
    response.status = std::stoi(request.matches[1]);
    if (response.status == 400) response.set_content("no points\xc2\x9b", "text/plain");
  });
  const std::string spool = folder_ / "spool";
  mkdir((folder_ / "open").c_str(), 0777);
  chmod((folder_ / "open").c_str(), 0777);
  const std::string forward = " --forward " + server.url();
  const struct {
    std::string flags;
    int status;
    std::string line;
  } kCases[] = {
      {"--http 127.0.0.1:0", 0, "ok       http 127.0.0.1:0: "},
      {"--http 127.0.0.1:" + std::to_string(server.port()), 1, "failed   http 127"},
      {forward + "/204", 0, "ok       forward " + server.url() + "/204: took an empty request"},
      {forward + "/401", 1, "/401: HTTP 401"},
      {forward + "/302", 1, "/302: HTTP 302"},
      {forward + "/503", 1, "/503: HTTP 503"},
      {forward + "/400", 0,
       "warning  forward " + server.url() + "/400: HTTP 400: no points\\xc2\\x9b"},
      {"--forward http://127.0.0.1:1/write", 1, "cannot connect"},
      {forward + "/204 --remote-write " + server.url() + "/404", 1, "/404: HTTP 404"},
      {forward + "/204 --spool " + spool, 0, "ok       spool " + spool},
      {forward + "/204 --spool " + spool + "/below", 1, "failed   spool " + spool},
      {forward + "/204 --spool " + (folder_ / "open").string(), 1, "other users may write to it"},
      {"--quiet", 0, "warning  points: would go nowhere"},
      {"--ttl 0", 2, "--ttl"},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.flags);
    EXPECT_EQ(RunAgent("--check --socket " + socket_ + " " + each.flags), each.status) << output_;
    EXPECT_THAT(output_, HasSubstr(each.line));
  }
  EXPECT_FALSE(fs::exists(spool));
  EXPECT_FALSE(fs::exists(fs::path(socket_).parent_path()));
  EXPECT_TRUE(fs::is_empty(folder_ / "open"));
  Start({"--quiet"});
  const std::string process = "process " + std::to_string(pid_);
  EXPECT_EQ(RunAgent("--check --socket " + socket_), 0);
  EXPECT_THAT(output_, HasSubstr(process + " listens there"));
  EXPECT_EQ(RunAgent("--check --take-over --socket " + socket_), 0);
  EXPECT_THAT(output_, HasSubstr("would be taken over from " + process));
  EXPECT_EQ(Top(), 0);  // it still has it
}

}  // namespace
}  // namespace tidegate::agent
