#include <fcntl.h>
#include <gmock/gmock.h>
#include <httplib.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../bench/packet_writer.h"
#include "agent/point_mapping.h"
#include "agent/unique_fd.h"
#include "golden/golden_file.h"

namespace tidegate::agent {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::StartsWith;
namespace fs = std::filesystem;

// The golden gauge with another metric name: three lengths change with it.
std::string GaugeNamed(const std::string& name) {
  std::string bytes = ReadGolden("gauge.hex").replace(137, 7, name);
  const size_t size = name.size();
  for (const auto& [at, number] :
       {std::pair(size_t{13}, size + 81), {112, size + 81}, {133, size}}) {
    for (size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(number >> 8 * i);
  }
  return bytes;
}

void Send(const UniqueFd& client, const std::string& bytes) {
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
    fs::remove_all(folder_);
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
      std::this_thread::sleep_for(milliseconds(10));
    }
    ASSERT_THAT(Content(file), HasSubstr(text));
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
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    socket_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    UniqueFd client(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const auto* any = reinterpret_cast<const sockaddr*>(&address);
    EXPECT_EQ(call(client.get(), any, sizeof(address)), 0) << errno;
    return client;
  }

  char template_[18] = "/tmp/agent_XXXXXX";
  const fs::path folder_ = mkdtemp(template_);
  std::string socket_ = folder_ / "made/by/agent.sock";
  pid_t pid_ = -1;
};

TEST_F(AgentTest, ServesClientsSideBySideAndEndsInOrder) {
  const std::string gauge = ReadGolden("gauge.hex");
  Start();
  const UniqueFd first = Connect();
  const UniqueFd second = Connect();
  Send(second, ReadGolden("multi_field.hex"));
  Await(
      "out",
      "1700000000 t1 multi_field svc.m{host=a,account_id=acc,project_id=proj,slot=0} c=3 g=-0.25\n"
      "1700000000 t1 multi_field svc.m{account_id=acc,project_id=proj,slot=0} g=2\n");
  Send(first, gauge.substr(0, 150));
  Send(first, "");
  Send(first, gauge);
  Await("out",
        "1700000000 t1 gauge svc.lat{dc=b,host=a,account_id=acc,project_id=proj,slot=0} 1.5\n");

  // What waits on a connection, and on one not even accepted, when the signal comes still counts.
  kill(pid_, SIGSTOP);
  Send(first, gauge);
  Send(second, gauge);
  Send(Connect(), gauge);
  kill(pid_, SIGTERM);
  kill(pid_, SIGCONT);
  EXPECT_EQ(Wait(), 0);
  EXPECT_EQ(Content("err"),
            "tidegate-agent: listening on " + socket_ +
                "\ntidegate-agent: malformed packet of 150 bytes at offset 13: "
                "body_len is 88 instead of 38\n"
                "tidegate-agent: malformed packet of 0 bytes at offset 0: cut off in magic\n"
                "tidegate-agent: packets=5 series=3 points=6 errors=2\n");
  EXPECT_FALSE(fs::exists(socket_));
}

TEST_F(AgentTest, HandsOnAtItsEndWhatItHoldsToMerge) {
  Start({"--merge"});
  for (int i = 0; i < 2; ++i) Send(Connect(), ReadGolden("gauge.hex"));
  EXPECT_EQ(Terminate(), 0);
  EXPECT_EQ(Content("out"),
            "1700000000 t1 gauge svc.lat{dc=b,host=a,account_id=acc,project_id=proj} 3\n");
}

TEST_F(AgentTest, ServesTheNewestValuesOverHttp) {
  const std::string config = folder_ / "config";
  std::ofstream(config) << "http = 127.0.0.1:0\nsocket-mode = 0600\nlabel-pid = true\nttl = 9\n";
  for (const std::vector<std::string>& flags :
       {std::vector<std::string>{"--http", "127.0.0.1:0", "--socket-mode", "0600", "--label-pid"},
        std::vector<std::string>{"--config", config}}) {
    Start(flags);
    EXPECT_EQ(fs::status(socket_).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    const UniqueFd client = Connect();
    Send(client, ReadGolden("gauge.hex").substr(0, 150));
    Send(client, ReadGolden("gauge.hex"));
    httplib::Client http(Url());
    std::string page;
    for (int i = 0; i < 2000 && page.find("svc_lat") == std::string::npos; ++i) {
      const httplib::Result result = http.Get("/metrics");
      ASSERT_TRUE(result);
      EXPECT_EQ(result->get_header_value("Content-Type"),
                "text/plain; version=0.0.4; charset=utf-8");
      page = result->body;
      std::this_thread::sleep_for(milliseconds(10));
    }
    EXPECT_THAT(page,
                HasSubstr("# HELP svc_lat gauge svc.lat: last value, in the unit of what is "
                          "stored\n# TYPE svc_lat gauge\n"
                          "svc_lat{tenant=\"t1\",account_id=\"acc\",project_id=\"proj\",pid=\"" +
                          std::to_string(getpid()) + "\",dc=\"b\",host=\"a\"} 1.5\n"));
    EXPECT_THAT(page, HasSubstr("_errors_total{reason=\"malformed\"} 1\n"));
    EXPECT_THAT(page, HasSubstr("\ntidegate_agent_clients 1\n"));
    EXPECT_EQ(Terminate(), 0);
    EXPECT_EQ(Content("out"), "");
  }
}

TEST_F(AgentTest, TellsProcessesThatShareTheirTagsApart) {
  constexpr size_t kWorkers = 4;
  const std::string point =
      "1700000000 t1 gauge svc.lat{dc=b,host=a,account_id=acc,project_id=proj";
  std::string gauge = ReadGolden("gauge.hex");
  Start({"--http", "127.0.0.1:0", "--print", "text"});
  // A child that sends a point over a connection of its own for each byte of the pipe.
  std::vector<Pipe> orders(kWorkers);
  const auto work = [&](size_t worker) {
    const pid_t pid = fork();
    if (pid > 0) return pid;
    for (Pipe& pipe : orders) pipe.write_end.Reset();
    std::vector<UniqueFd> connections;
    for (char order = 0; read(orders[worker].read_end.get(), &order, 1) == 1;) {
      Send(connections.emplace_back(Connect()), gauge);
    }
    _exit(0);
  };
  std::vector<pid_t> workers;
  std::string expected;
  const auto order = [&](size_t worker, size_t slot) {
    ASSERT_EQ(write(orders[worker].write_end.get(), "", 1), 1);
    Await("out", expected += point + ",slot=" + std::to_string(slot) + "} 1.5\n");
  };
  const auto end = [&](size_t worker) {
    orders[worker] = Pipe();
    waitpid(workers[worker], nullptr, 0);
  };
  for (size_t i = 0; i < kWorkers; ++i) workers.push_back(work(i));
  for (size_t i = 0; i < 2 * kWorkers; ++i) order(i % kWorkers, i % kWorkers);
  for (int i = 0; i < 1000; ++i) Send(Connect(), gauge);
  for (int i = 0; i < 1000; ++i) expected += point + ",slot=4} 1.5\n";
  Await("out", expected);
  // A successor comes too soon for the slot.
  end(1);
  workers[1] = work(1);
  order(1, 5);
  // The next agent goes on with the same slots, in whatever order the processes come.
  EXPECT_EQ(Terminate(), 0);
  Start({"--http", "127.0.0.1:0", "--print", "text"});
  expected.clear();
  for (const auto& [worker, slot] : {std::pair(3, 3), {1, 5}, {2, 2}, {0, 0}}) {
    order(static_cast<size_t>(worker), static_cast<size_t>(slot));
  }
  for (size_t i = 0; i < kWorkers; ++i) end(i);
  const httplib::Result page = httplib::Client(Url()).Get("/metrics");
  ASSERT_TRUE(page);
  EXPECT_THAT(page->body, HasSubstr("\nsvc_lat{tenant=\"t1\",account_id=\"acc\",project_id="
                                    "\"proj\",slot=\"5\",dc=\"b\",host=\"a\"} 1.5\n"));
  EXPECT_THAT(page->body, HasSubstr("\ntidegate_agent_slots 6\n"));
  EXPECT_THAT(page->body, HasSubstr("\ntidegate_agent_shared_series_total 0\n"));
  EXPECT_EQ(Terminate(), 0);

  Start({"--process-label", "none", "--quiet"});
  orders[0] = Pipe();
  gauge = GaugeNamed("h\xff");
  const pid_t other = work(0);
  for (int i = 0; i < 8; ++i) {
    ASSERT_EQ(write(orders[0].write_end.get(), "", 1), 1);
    Send(Connect(), gauge);
    std::this_thread::sleep_for(milliseconds(20));  // about so that they take turns
  }
  Await("err",
        "\"h\\xff{tenant=t1,account_id=acc,project_id=proj,dc=b,host=a}\" comes from process ");
  EXPECT_THAT(Content("err"), HasSubstr("process " + std::to_string(other)));
  EXPECT_THAT(Content("err"), HasSubstr("process " + std::to_string(getpid())));
  orders[0] = Pipe();
  waitpid(other, nullptr, 0);
  EXPECT_EQ(Terminate(), 0);
}

TEST_F(AgentTest, GoesOnWhileNobodyReadsAndEndsInOrderThoughTheSignalIsRepeated) {
  Pipe pipe;
  Start({"--drain", "2"}, pipe.write_end.get());
  const UniqueFd client = Connect();
  const std::string packet = GaugeNamed(std::string(100000, 'n'));
  for (int i = 0; i < 300; ++i) Send(client, packet);  // 30 MB: more than any buffer on the way
  kill(pid_, SIGSTOP);
  kill(pid_, SIGTERM);
  kill(pid_, SIGINT);
  kill(pid_, SIGCONT);
  // A pause, as a signal that waits is not repeated. The drain, which the pipe holds up, takes
  // more.
  std::this_thread::sleep_for(milliseconds(100));
  kill(pid_, SIGTERM);
  EXPECT_EQ(Wait(), 0);
  // A slow machine may not come to all of them in the time of --drain.
  std::smatch counts;
  const std::string log = Content("err");
  ASSERT_TRUE(std::regex_search(
      log, counts,
      std::regex("dropped: packets=(\\d+) unprinted points=\\d+ .*\n"
                 "tidegate-agent: packets=(\\d+) series=1 points=\\d+ errors=0\n")))
      << log;
  EXPECT_EQ(std::stoi(counts[1]) + std::stoi(counts[2]), 300);

  Start({}, pipe.write_end.get());
  pipe.read_end.Reset();  // so it ends by itself
  Send(Connect(), ReadGolden("gauge.hex"));
  EXPECT_EQ(Wait(), 0);
  EXPECT_THAT(Content("err"), HasSubstr("packets=1 series=1 points=1 errors=0\n"));
}

TEST_F(AgentTest, CountsWhatIsNotPrintedAndGoesOnWhereThereIsRoomAgain) {
  Packet packet;
  packet.tenant = "t1";
  const auto gauge = [&](const std::string& name) {
    packet.blocks.push_back({1, 0, 1700000000, name, {}, {{0, {}, {}, {100000}}}});
  };
  gauge("first");
  for (const std::string_view column : kTimerColumns) gauge("svc.lat." + std::string(column));
  gauge("last");
  const std::string first = "1700000000 t1 gauge first{} 100000\n";
  const std::string next =
      "1700000000 t1 gauge svc.lat{dc=b,host=a,account_id=acc,project_id=proj} 1.5\n";
  const std::string torn = "1700000000 t1 timer svc.lat{} min=100000 max=100000 avg=";
  const auto room_for = [this](rlim_t bytes) {
    const rlimit limit = {bytes, RLIM_INFINITY};
    ASSERT_EQ(prlimit(pid_, RLIMIT_FSIZE, &limit, nullptr), 0) << errno;
  };

  // The log is a stream of the journal.
  struct stat log;
  ASSERT_EQ(fstat(UniqueFd(Create("err")).get(), &log), 0);
  const std::string stream = std::to_string(log.st_dev) + ':' + std::to_string(log.st_ino);
  setenv("JOURNAL_STREAM", stream.c_str(), 1);
  Start({"--http", "127.0.0.1:0", "--print", "text", "--process-label", "none"});
  unsetenv("JOURNAL_STREAM");
  room_for(4000);
  const size_t before = 4000 - first.size() - torn.size();
  Send(Connect(), GaugeNamed(std::string(before - next.size() + 7, 'n')));
  Await("out", "} 1.5\n");
  Send(Connect(), bench::PacketWriter::Write(packet));
  Await("err", "<4>tidegate-agent: points are not printed: File too large\n");
  Send(Connect(), ReadGolden("gauge.hex"));
  httplib::Client http(Url());
  std::string page;
  for (int i = 0; i < 2000 && page.find("_unprinted_points_total 12\n") == std::string::npos; ++i) {
    page = http.Get("/metrics")->body;
    std::this_thread::sleep_for(milliseconds(10));
  }
  EXPECT_THAT(page, HasSubstr("_unprinted_points_total 12\n"));
  room_for(RLIM_INFINITY);
  Send(Connect(), ReadGolden("gauge.hex"));
  Await("err", "<4>tidegate-agent: points are printed again\n");
  EXPECT_EQ(Terminate(), 0);
  EXPECT_EQ(Content("out").substr(before), first + torn + "...\n" + next);
  EXPECT_THAT(Content("err"), StartsWith("<6>tidegate-agent: serving"));
  EXPECT_THAT(Content("err"), HasSubstr("dropped: packets=0 unprinted points=12 "));
}

TEST_F(AgentTest, GivesMemoryBackWhenSeriesAreGone) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the heap is not the platform's";
#endif
  const auto resident = [this] {
    size_t all = 0, pages = 0;
    std::ifstream("/proc/" + std::to_string(pid_) + "/statm") >> all >> pages;
    return pages * static_cast<size_t>(getpagesize()) >> 20;
  };
  Start({"--quiet", "--ttl", "1"});
  const UniqueFd client = Connect();
  for (int i = 0; i < 150; ++i) {
    Packet packet;
    for (int k = 0; k < 2000; ++k) {
      packet.blocks.push_back(
          {1, 0, 1700000000, "g", {}, {{0, {{"k", std::to_string(i * 2000 + k)}}, {}, {1}}}});
    }
    Send(client, bench::PacketWriter::Write(packet));
  }
  size_t most = 0;
  for (int i = 0; i < 4000 && (most < 30 || resident() > most / 2); ++i) {
    most = std::max(most, resident());
    std::this_thread::sleep_for(milliseconds(10));
  }
  EXPECT_GT(most, 30U);
  EXPECT_LE(resident(), most / 2);
  EXPECT_EQ(Terminate(), 0);
}

TEST_F(AgentTest, RefusesBadSettingsInOneLine) {
  std::ofstream(folder_ / "config") << "# not far off\nsocket-mod\xff = 0600\n";
  std::ofstream(folder_ / "sections") << "[help]\nttl = 5\n";
  const std::pair<std::vector<std::string>, const char*> kCases[] = {
      {{"--nope"}, "--nope"},
      {{"--ttl", "0"}, "--ttl"},
      {{"--socket-mode", "rw"}, "\"rw\" is no file mode, give octal digits as 0660"},
      {{"--process-label", "tid"}, "tid not in {slot,pid,none}"},
      {{"--process-label", "slot", "--label-pid"}, "--label-pid"},
      {{"--http", "9464"}, "\"9464\" is no address, give HOST:PORT as 127.0.0.1:9464"},
      {{"--forward", "http://me:secret@db:x/"}, "--forward: \"http://...@db:x/\" is no URL"},
      {{"--forward-interval", "nan"}, "--forward-interval: \"nan\" is no number of seconds"},
      {{"--merge", "--label-pid"}, "--merge: makes one series of all processes"},
      {{"--print", "xml"}, "xml not in {text,json}"},
      {{"--config", folder_ / "none"}, "none"},
      {{"--config", folder_ / "config"},
       "config:2: there is no setting \"socket-mod\\xff\", the nearest is \"socket-mode\""},
      {{"--config", folder_ / "sections"},
       "sections:1: there is no setting \"[help]\", the nearest is \"http\""},
  };
  for (const auto& [flags, text] : kCases) {
    Spawn(flags);
    EXPECT_EQ(Wait(), 2);
    const std::string error = Content("err");
    EXPECT_THAT(error, HasSubstr(text));
    EXPECT_THAT(error, StartsWith("tidegate-agent: "));
    EXPECT_EQ(error.find('\n'), error.size() - 1) << error;
  }
  socket_ += std::string(108 - socket_.size(), 'x');
  Spawn();
  EXPECT_EQ(Wait(), 2);
  EXPECT_THAT(Content("err"), HasSubstr("is no path for a socket, give one of 1 to 107 bytes"));
}

TEST_F(AgentTest, ServesOnAllAddressesAndDoubtsWhereItForwardsTo) {
  for (const auto& [path, doubt] : {std::pair("/api/v1/write", true),
                                    {"/v1/metrics/?a=b", true},
                                    {"/api/v2/write?bucket=b", false}}) {
    Start({"--http", ":0", "--drain", "0", "--forward", std::string("http://127.0.0.1:1") + path});
    const std::string port = Url().substr(Url().rfind(':'));
    for (const char* host : {"http://127.0.0.1", "http://127.0.0.2"}) {
      const httplib::Result result = httplib::Client(host + port).Get("/metrics");
      EXPECT_TRUE(result && result->status == 200) << host;
    }
    EXPECT_EQ(Content("err").find("is not known to take InfluxDB lines") != std::string::npos,
              doubt);
    Terminate();
  }
}

TEST_F(AgentTest, PrintsHostileStringsOnOneLineAndTheProcessAfterTheTags) {
  std::string bytes = GaugeNamed("a\n\xff\"b");
  bytes.replace(bytes.size() - 2, 2, "\xf8\x7f");  // NaN
  const std::string pid = std::to_string(getpid());
  for (
      const auto& [format, line] : {
          std::pair(
              "text",
              R"(1700000000 t1 gauge "a\n\xff\"b"{dc=b,host=a,account_id=acc,project_id=proj,pid=)" +
                  pid + "} nan\n"),
          std::pair(
              "json",
              R"({"timestamp":1700000000,"tenant":"t1","type":"gauge","name":"a\n)"
              "\xef\xbf\xbd"
              R"(\"b","tags":{"dc":"b","host":"a","account_id":"acc","project_id":"proj","pid":")" +
                  pid + "\"},\"value\":\"nan\"}\n"),
      }) {
    Start({"--label-pid", "--print", format});
    Send(Connect(), bytes);
    Await("out", line);
    EXPECT_EQ(Terminate(), 0);
    EXPECT_EQ(Content("out"), line);
  }
  // A journal hides a line of the log that is not UTF-8.
  Start({"--http", "127.0.0.1:0"});
  const UniqueFd client = Connect();
  Send(client, GaugeNamed("h\xff"));
  Send(client, GaugeNamed("h_"));
  Await("err", "\"h_\" stands for the gauge h\\xff in /metrics; the gauge h_ is left out");
  Terminate();
}

TEST_F(AgentTest, TakesOneMebibyteWholeAndCountsWhatIsLonger) {
  constexpr int kLimit = 1 << 20;
  Start();
  const UniqueFd client = Connect();
  const int room = 2 * kLimit;
  if (setsockopt(client.get(), SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof(room)) != 0) {
    GTEST_SKIP() << "only root may send messages of this size";
  }
  const std::string name(kLimit - 193, 'n');
  Send(client, GaugeNamed(name));
  Send(client, GaugeNamed(name + 'n'));
  Await("err", "tidegate-agent: message of 1048577 bytes is longer than 1048576\n");
  EXPECT_EQ(Terminate(), 0);
  EXPECT_EQ(Content("out"), "1700000000 t1 gauge " + name +
                                "{dc=b,host=a,account_id=acc,project_id=proj,slot=0} 1.5\n");
  EXPECT_THAT(Content("err"), HasSubstr("packets=1 series=1 points=1 errors=1\n"));
}

TEST_F(AgentTest, TakesOverAStaleSocketOnlyAndLocksAFileOfItsOwn) {
  socket_ = folder_ / "s";
  Connect(bind);  // and closes, which leaves the file
  Start();
  const pid_t live = pid_;
  ExpectRefusal("another process is listening on " + socket_);
  pid_ = live;
  Connect();  // still serving
  EXPECT_EQ(Terminate(), 0);

  close(Create("s"));
  ExpectRefusal(socket_ + " exists and is not a socket");
  EXPECT_TRUE(fs::is_regular_file(socket_));
  fs::remove(socket_);

  const UniqueFd folder(open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(flock(folder.get(), LOCK_EX), 0);  // which any user can do who may look into it
  UniqueFd lock(Create("s.lock"));             // left by one that was killed
  Start();
  EXPECT_FALSE(fs::exists(folder_ / "s.lock"));
  EXPECT_EQ(Terminate(), 0);

  lock = UniqueFd(Create("s.lock"));
  ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
  ExpectRefusal("another process keeps " + socket_ + ".lock locked");
  fs::remove(folder_ / "s.lock");
  ASSERT_EQ(mkfifo((folder_ / "s.lock").c_str(), 0600), 0);
  ExpectRefusal(socket_ + ".lock of user " + std::to_string(geteuid()) +
                " stands where the lock file has to be");
  EXPECT_TRUE(fs::is_fifo(folder_ / "s.lock"));
  EXPECT_FALSE(fs::exists(socket_));
}

// Answers 503 but for as many batches as it may take, and keeps the names of the points in those.
class GoneDatabase {
 public:
  GoneDatabase() {
    server_.Post("/write", [this](const httplib::Request& request, httplib::Response& reply) {
      const std::lock_guard<std::mutex> lock(mutex_);
      reply.status = may_take_ > 0 ? 204 : 503;
      if (may_take_ == 0) return;
      --may_take_;
      std::istringstream lines(request.body);
      for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 4, "svc.") == 0) ++names_[line.substr(0, line.find(','))];
      }
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::yield();
  }
  ~GoneDatabase() {
    server_.stop();
    thread_.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  void Take(int batches) {
    const std::lock_guard<std::mutex> lock(mutex_);
    may_take_ = batches;
  }
  int may_take() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return may_take_;
  }
  const std::map<std::string, int>& names() const { return names_; }  // once no agent runs

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
  mutable std::mutex mutex_;
  int may_take_ = 0;
  std::map<std::string, int> names_;
};

TEST_F(AgentTest, LosesNothingOfItsSpoolThoughItIsKilled) {
  constexpr int kRounds = 12;
  constexpr uint64_t kPoints = 150;
  constexpr uint64_t kHalf = 100;  // of the queue, stays in memory
  GoneDatabase database;
  const std::vector<std::string> flags = {"--http",
                                          "127.0.0.1:0",
                                          "--forward",
                                          database.url(),
                                          "--spool",
                                          folder_ / "spool",
                                          "--forward-queue-points",
                                          "200",
                                          "--forward-batch-points",
                                          "1",
                                          "--drain",
                                          "0"};
  const auto number = [&](const std::string& name) {
    const auto page = httplib::Client(Url()).Get("/metrics");
    const size_t at = page ? page->body.find("\ntidegate_agent_" + name + " ") : std::string::npos;
    return at == std::string::npos ? 0 : std::stoull(page->body.substr(page->body.find(' ', at)));
  };
  const auto spooled_at_start = [&]() -> uint64_t {
    Await("err", " points that wait, ");
    const std::string log = Content("err");
    return std::stoull(log.substr(log.find("/spool has ") + 11));
  };
  const auto await = [](const std::function<bool()>& done) {
    for (int i = 0; i < 2000 && !done(); ++i) std::this_thread::sleep_for(milliseconds(2));
    ASSERT_TRUE(done());
  };
  uint64_t spooled = 0, sent = 0, lost = 0;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    Start(flags);
    if (round > 0) {
      const uint64_t found = spooled_at_start();
      if (round % 3 == 1) {  // was killed while it had nothing to do,
        EXPECT_EQ(found, spooled);
      } else if (round % 3 == 2) {  // while it wrote,
        EXPECT_GT(found, spooled);
        lost += spooled + kPoints - found;
      } else {  // while it sent
        EXPECT_NEAR(static_cast<double>(found), static_cast<double>(spooled - 20), 1);
      }
      spooled = found;
    }
    if (round % 3 == 2) {
      database.Take(20);
      await([&] { return database.may_take() == 0; });
    } else {
      const UniqueFd client = Connect();
      for (uint64_t i = 0; i < kPoints; ++i)
        Send(client, GaugeNamed("svc." + std::to_string(sent++)));
    }
    if (round % 3 == 1) await([&] { return number("forward_spool_points") > spooled; });
    if (round % 3 == 0) {
      await([&] { return number("forward_spool_points") == spooled + kPoints - kHalf; });
      await([&] { return number("forward_queue_points") == kHalf; });
      spooled += kPoints - kHalf;
      lost += kHalf;
    }
    kill(pid_, SIGKILL);
    Wait();
  }
  database.Take(1 << 20);
  Start(flags);
  await([&] { return number("uptime_seconds") > 0 && number("forward_spool_points") == 0; });
  EXPECT_EQ(Terminate(), 0);
  EXPECT_EQ(database.names().size(), sent - lost);
  for (const auto& [name, times] : database.names()) {
    EXPECT_LT(std::stoull(name.substr(4)), sent);
    EXPECT_LE(times, 2);
  }
}

TEST_F(AgentTest, KeepsFewClientsWaitingWhileItIsStopped) {
  Start();
  kill(pid_, SIGSTOP);
  int connected = 0;
  // As one whose connection is full: it comes anew each time.
  for (int result = 0; connected < 1000; ++connected) {
    const UniqueFd client = Connect([&](int fd, const sockaddr* address, socklen_t size) {
      fcntl(fd, F_SETFL, O_NONBLOCK);
      result = connect(fd, address, size);
      return 0;
    });
    if (result != 0) break;
    Send(client, ReadGolden("gauge.hex"));
  }
  EXPECT_EQ(connected, 129);
  kill(pid_, SIGCONT);
  EXPECT_EQ(Terminate(), 0);
  EXPECT_THAT(Content("err"), HasSubstr("packets=129 series=1 points=129 errors=0\n"));
}

TEST_F(AgentTest, WaitsQuietlyForDescriptors) {
  Start({"--http", "127.0.0.1:0", "--print", "text"}, -1, 40);
  std::vector<UniqueFd> clients;
  for (int i = 0; i < 40; ++i) {
    Send(clients.emplace_back(Connect()), ReadGolden("gauge.hex"));
    // Sanitizers need a descriptor the first time that they look at an object.
    if (i == 0) Await("out", "1.5\n");
  }
  Await("err", "cannot accept a client, new clients wait");
  // Spinning would show in a second of being short of descriptors.
  clockid_t cpu = {};
  timespec before = {};
  timespec after = {};
  clock_getcpuclockid(pid_, &cpu);
  clock_gettime(cpu, &before);
  std::this_thread::sleep_for(milliseconds(1000));
  clock_gettime(cpu, &after);
  EXPECT_LT(after.tv_sec * 1000 + after.tv_nsec / 1000000,
            before.tv_sec * 1000 + before.tv_nsec / 1000000 + 200);
  const httplib::Result healthy = httplib::Client(Url()).Get("/healthz");
  EXPECT_TRUE(healthy && healthy->status == 200);  // some are left for HTTP
  EXPECT_EQ(Terminate(), 0);
  EXPECT_THAT(Content("err"), HasSubstr("packets=40 series=1 points=40 errors=0\n"));
}

}  // namespace
}  // namespace tidegate::agent
