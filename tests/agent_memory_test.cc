// Runs the agent's own code in this process while allocations fail on its threads.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>

#include "agent/agent.h"
#include "agent/forward_url.h"
#include "agent/unique_fd.h"
#include "golden/golden_file.h"
#include "support/failing_new.h"
#include "testing/unix_socket.h"

static constexpr long kFailures = 3;  // one after the other
static std::atomic<long> allocations{0};
static std::atomic<long> first_failure{-1};  // which of them fails; negative: none
static thread_local bool of_the_test = false;

static bool NextAllocationFails() {
  if (of_the_test) return false;
  const long first = first_failure;
  const long number = allocations++;
  return first >= 0 && number >= first && number < first + kFailures;
}

namespace tidegate::agent {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

class AgentMemoryTest : public testing::Test {
 protected:
  AgentMemoryTest() {
    of_the_test = true;
    std::string error;
    options_.socket = folder_ / "s";
    options_.print = PrintFormat::kJson;
    options_.http = "127.0.0.1:0";
    options_.drain = std::chrono::seconds(0);
    ForwardOptions& forward = options_.destinations.emplace_back();
    EXPECT_TRUE(ParseForwardUrl("http://127.0.0.1:1", &forward.target.url, &error)) << error;
    forward.limits.interval = milliseconds(1);
    forward.health_interval = milliseconds(5);
  }
  ~AgentMemoryTest() override { fs::remove_all(folder_); }

  // Standard output or error goes to `file`. Returns where it went before.
  UniqueFd Redirect(int fd, const char* file) const {
    UniqueFd before(dup(fd));
    dup2(UniqueFd(creat((folder_ / file).c_str(), 0600)).get(), fd);
    return before;
  }
  std::string Content(const char* file) const {
    std::ostringstream text;
    text << std::ifstream(folder_ / file).rdbuf();
    return text.str();
  }

  // The status of an agent that gets what a few clients send; -1 if it could not be made.
  int Run() {
    const UniqueFd out = Redirect(STDOUT_FILENO, "out");
    const UniqueFd err = Redirect(STDERR_FILENO, "err");
    std::atomic<Agent*> made{nullptr};
    std::atomic<bool> ended{false};
    std::atomic<bool> stopped{false};
    int status = 1;
    std::thread subject([&] {
      try {  // as main does
        Agent agent(options_);
        made = &agent;
        try {
          status = agent.Run();
        } catch (const std::bad_alloc&) {
        }
        ended = true;
        while (!stopped) std::this_thread::yield();  // it may just be told to stop
      } catch (const std::bad_alloc&) {
      } catch (const std::system_error&) {
      }
      ended = true;
    });
    sent_ = 0;
    for (int client = 0; client < 3; ++client) Send(ended);
    // Long enough for most of it; what is left is counted.
    for (int i = 0; i < 50 && !ended && Content("out").find("svc.m") == std::string::npos; ++i) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    if (Agent* const agent = made; agent != nullptr && !ended) agent->Stop();
    stopped = true;
    subject.join();
    dup2(out.get(), STDOUT_FILENO);
    dup2(err.get(), STDERR_FILENO);
    return status;
  }
  void Send(const std::atomic<bool>& ended) {
    const UniqueFd client(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    while (test::CallWithPath(connect, client, options_.socket) != 0) {
      if (ended) return;
      std::this_thread::sleep_for(milliseconds(1));
    }
    for (const char* file : {"gauge.hex", "multi_field.hex"}) {
      const std::string packet = ReadGolden(file);
      for (const size_t size : {packet.size(), packet.size() / 2}) {
        sent_ += send(client.get(), packet.data(), size, MSG_NOSIGNAL) > 0 ? 1 : 0;
      }
    }
  }

  char template_[19] = "/tmp/memory_XXXXXX";
  const fs::path folder_ = mkdtemp(template_);
  Options options_;
  uint64_t sent_ = 0;
};

// The number after `name` in `line`.
uint64_t NumberOf(const std::string& line, const std::string& name) {
  const size_t at = line.find(name);
  return at == std::string::npos ? 0 : std::stoull(line.substr(at + name.size()));
}

TEST_F(AgentMemoryTest, WhereItRunsOutNothingIsLostWithoutASign) {
  allocations = 0;
  ASSERT_EQ(Run(), 0) << Content("err");
  const long all = allocations;
  ASSERT_GT(all, 100);
  int survived = 0;
  int told = 0;
  for (long first = 0; first < all; first += all / 200 + 1) {
    SCOPED_TRACE(first);
    allocations = 0;
    first_failure = first;
    const int status = Run();
    first_failure = -1;
    const std::string log = Content("err");
    EXPECT_FALSE(fs::exists(folder_ / "s")) << log;
    EXPECT_FALSE(fs::exists(folder_ / "s.lock")) << log;
    told += log.find("out of memory") != std::string::npos ? 1 : 0;
    if (status != 0) continue;
    ++survived;
    const size_t totals = log.rfind("tidegate-agent: packets=");
    if (totals == std::string::npos) {
      EXPECT_THAT(log, testing::HasSubstr("out of memory"));
      continue;
    }
    const std::string last = log.substr(totals);
    const uint64_t counted =
        NumberOf(last, "packets=") + NumberOf(last, "errors=") + NumberOf(log, "dropped: packets=");
    if (counted == sent_) continue;
    // What went into a connection that there was no memory for, and that was closed.
    EXPECT_LE(sent_ - counted, 8U) << log;
    EXPECT_THAT(log, testing::AnyOf(testing::HasSubstr("cannot serve a client"),
                                    testing::HasSubstr("out of memory")));
  }
  EXPECT_GT(survived, 20);
  EXPECT_GT(told, 20);
}

}  // namespace
}  // namespace tidegate::agent
