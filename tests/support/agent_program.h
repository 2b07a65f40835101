#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "agent/unique_fd.h"
#include "golden/golden_file.h"
#include "testing/unix_socket.h"

namespace tidegate::agent {

// The golden gauge with another metric name: three lengths change with it.
inline std::string GaugeNamed(const std::string& name) {
  std::string bytes = ReadGolden("gauge.hex").replace(137, 7, name);
  const size_t size = name.size();
  for (const auto& [at, number] :
       {std::pair(size_t{13}, size + 81), {112, size + 81}, {133, size}}) {
    for (size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(number >> 8 * i);
  }
  return bytes;
}

inline void Send(const UniqueFd& client, const std::string& bytes) {
  ASSERT_EQ(send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()))
      << errno;
}

struct Pipe {
  Pipe() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0) << errno;
    read_end = UniqueFd(ends[0]);
    write_end = UniqueFd(ends[1]);
  }
  UniqueFd read_end, write_end;
};

// Runs the real program on a socket in a folder of its own.
class AgentTest : public testing::Test {
 protected:
  using SocketCall = std::function<int(int, const sockaddr*, socklen_t)>;

  ~AgentTest() override {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      Wait();
    }
    std::filesystem::remove_all(folder_);
  }

  // Standard output and error go to the files "out" and "err" of the folder.
  void Spawn(std::vector<std::string> flags = {}, int out = -1, rlim_t descriptors = 0) {
    const UniqueFd out_file(Create("out"));
    const UniqueFd err_file(Create("err"));
    flags.insert(flags.begin(), {TIDEGATE_AGENT, "--socket", socket_});
    std::vector<char*> arguments;
    for (std::string& flag : flags) arguments.push_back(flag.data());
    arguments.push_back(nullptr);
    pid_ = fork();
    ASSERT_GE(pid_, 0);
    if (pid_ > 0) return;
    dup2(out < 0 ? out_file.get() : out, STDOUT_FILENO);
    dup2(err_file.get(), STDERR_FILENO);
    const rlimit limit = {descriptors, descriptors};
    if (descriptors > 0) setrlimit(RLIMIT_NOFILE, &limit);
    execv(TIDEGATE_AGENT, arguments.data());
    _exit(127);
  }
  void Start(const std::vector<std::string>& flags = {}, int out = -1, rlim_t descriptors = 0) {
    Spawn(flags, out, descriptors);
    Await("err", "tidegate-agent: listening on " + socket_ + "\n");
  }
  int Create(const char* file) const {
    return open((folder_ / file).c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  }
  std::string Content(const char* file) const {
    std::ostringstream text;
    text << std::ifstream(folder_ / file).rdbuf();
    return text.str();
  }
  // A file gives nothing to wait on, so it is polled, for 20 seconds at most.
  void Await(const char* file, const std::string& text) const {
    for (int i = 0; i < 2000 && Content(file).find(text) == std::string::npos; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_THAT(Content(file), testing::HasSubstr(text));
  }
  std::string Url() const {  // of its pages
    const std::string log = Content("err");
    const size_t url = log.find("http://");
    return log.substr(url, log.find("/metrics") - url);
  }
  int Wait() {  // for the agent's exit status
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void ExpectRefusal(const std::string& reason) {
    Spawn();
    EXPECT_EQ(Wait(), 1);
    EXPECT_EQ(Content("err"), "tidegate-agent: " + reason + "\n");
  }
  int Terminate() {
    kill(pid_, SIGTERM);
    return Wait();
  }
  UniqueFd Connect(const SocketCall& call = connect) const {
    UniqueFd client(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    EXPECT_EQ(test::CallWithPath(call, client, socket_), 0) << errno;
    return client;
  }

  char template_[18] = "/tmp/agent_XXXXXX";
  const std::filesystem::path folder_ = mkdtemp(template_);
  std::string socket_ = folder_ / "made/by/agent.sock";
  pid_t pid_ = -1;
};

}  // namespace tidegate::agent
