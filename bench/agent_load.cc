// agent_load AGENT [CLIENTS RATE SECONDS]: does the agent keep up with CLIENTS (20) that each send
// RATE (10) packets of 200 KiB a second for SECONDS (10)? Does any of them hit the time-out that
// the library's sender has? Starts the agent, which says at its end how many packets it decoded and
// dropped. Status 1 if a send failed, if decoded and dropped packets are not those sent, if one was
// malformed, or if one was dropped at the default load.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/packet_reader.h"
#include "agent/unique_fd.h"
#include "testing/packet_writer.h"
#include "testing/temp_dir.h"
#include "testing/unix_socket.h"

namespace {

using std::chrono::duration;
using std::chrono::steady_clock;
using tidegate::agent::UniqueFd;

// As the library's sender has them.
constexpr int kSendBuffer = 409600;
constexpr timeval kSendTimeout = {0, 100000};

struct Totals {
  std::atomic<uint64_t> sent{0};
  std::atomic<uint64_t> failed{0};
  std::atomic<int64_t> longest_micros{0};
};

// 200 KiB of suffixed rates with three tags.
std::string PacketOf(int client) {
  tidegate::agent::Packet packet;
  packet.tenant = "shop";
  for (int i = 0; i < 1590; ++i) {
    tidegate::agent::Block block;
    block.wire_type = 2;
    block.timestamp = 1700000000;
    block.name = "shop.web.requests.rate";
    block.series.resize(1);
    block.series[0].tags = {
        {"host", "web-" + std::to_string(client)}, {"method", "get"}, {"user", std::to_string(i)}};
    block.series[0].values = {static_cast<double>(i)};
    packet.blocks.push_back(block);
  }
  return tidegate::test::PacketWriter::Write(packet);
}

UniqueFd Connect(const std::string& path) {
  UniqueFd client(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  setsockopt(client.get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof(kSendBuffer));
  setsockopt(client.get(), SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof(kSendTimeout));
  // The agent may not listen yet.
  for (int i = 0; i < 500; ++i) {
    if (tidegate::test::CallWithPath(connect, client, path) == 0) return client;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return UniqueFd();
}

void Send(const std::string& path, int client, double rate, double seconds, Totals* totals) {
  const std::string packet = PacketOf(client);
  const UniqueFd socket = Connect(path);
  const steady_clock::time_point start = steady_clock::now();
  const auto count = static_cast<int>(rate * seconds);
  for (int i = 0; i < count; ++i) {
    std::this_thread::sleep_until(start + duration<double>(i / rate));
    const steady_clock::time_point before = steady_clock::now();
    const bool sent = send(socket.get(), packet.data(), packet.size(), MSG_NOSIGNAL) > 0;
    const int64_t micros =
        std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - before).count();
    ++(sent ? totals->sent : totals->failed);
    int64_t longest = totals->longest_micros;
    while (micros > longest && !totals->longest_micros.compare_exchange_weak(longest, micros)) {
    }
  }
}

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

std::string Content(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// The number after the last `name` in the log, 0 if there is none.
uint64_t NumberBehind(const std::string& log, const std::string& name) {
  const size_t at = log.rfind(name);
  return at == std::string::npos ? 0 : std::strtoull(log.c_str() + at + name.size(), nullptr, 10);
}

// By the lines that the agent ends with. The one of dropped packets is there only if some were.
bool AllAccountedFor(const std::string& log, uint64_t sent, bool may_drop) {
  const std::string totals = "tidegate-agent: packets=";
  const uint64_t decoded = NumberBehind(log, totals);
  const uint64_t dropped = NumberBehind(log, "dropped: packets=");
  const uint64_t errors = NumberBehind(log, " errors=");
  std::printf("agent: decoded=%" PRIu64 " dropped=%" PRIu64 " errors=%" PRIu64 "\n", decoded,
              dropped, errors);
  return log.find(totals) != std::string::npos && decoded + dropped == sent && errors == 0 &&
         (may_drop || dropped == 0);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 5) {
    std::fprintf(stderr, "usage: agent_load AGENT [CLIENTS RATE SECONDS]\n");
    return 2;
  }
  const int clients = argc > 2 ? std::atoi(argv[2]) : 20;
  const double rate = argc > 2 ? std::atof(argv[3]) : 10;
  const double seconds = argc > 2 ? std::atof(argv[4]) : 10;
  const tidegate::test::TempDir folder;
  const std::string path = folder.File("s");

  const std::string log_path = folder.File("log");
  const UniqueFd log_file(open(log_path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));

  const pid_t agent = fork();
  if (agent == 0) {
    dup2(log_file.get(), STDERR_FILENO);
    execl(argv[1], argv[1], "--socket", path.c_str(), "--http", "127.0.0.1:0", nullptr);
    _exit(127);
  }
  Totals totals;
  std::vector<std::thread> threads;
  threads.reserve(static_cast<size_t>(clients));
  const steady_clock::time_point start = steady_clock::now();
  for (int i = 0; i < clients; ++i) {
    threads.emplace_back([&, i] { Send(path, i, rate, seconds, &totals); });
  }
  for (std::thread& thread : threads) thread.join();
  const double took = duration<double>(steady_clock::now() - start).count();

  kill(agent, SIGTERM);
  int status = 0;
  rusage usage = {};
  wait4(agent, &status, 0, &usage);
  const std::string log = Content(log_path);
  std::fputs(log.c_str(), stderr);
  std::printf("%d clients, %.0f packets of %zu bytes a second each, in %.1f s:\n", clients, rate,
              PacketOf(0).size(), took);
  std::printf("sent=%llu failed=%llu longest_send=%.1f ms\n",
              static_cast<unsigned long long>(totals.sent),
              static_cast<unsigned long long>(totals.failed),
              static_cast<double>(totals.longest_micros) / 1000);
  std::printf("agent: cpu=%.2f s (user %.2f, system %.2f), most memory %ld MiB, exit status %d\n",
              Seconds(usage.ru_utime) + Seconds(usage.ru_stime), Seconds(usage.ru_utime),
              Seconds(usage.ru_stime), usage.ru_maxrss / 1024, status);
  const bool complete = AllAccountedFor(log, totals.sent, argc > 2);
  return status == 0 && totals.sent > 0 && totals.failed == 0 && complete ? 0 : 1;
}
