// The agent and its host: settings, sockets, signals, and clients that send what they like.

#include <gmock/gmock.h>
#include <httplib.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <functional>
#include <map>
#include <thread>

#include "support/agent_program.h"
#include "support/loopback_server.h"
#include "util/metric_lock.h"

namespace tidegate::agent {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::StartsWith;
namespace fs = std::filesystem;

using AgentHostTest = AgentTest;

TEST_F(AgentHostTest, RefusesBadSettingsInOneLine) {
  std::ofstream(folder_ / "config") << "# not far off\nsocket-mod\xff = 0600\n";
  std::ofstream(folder_ / "sections") << "[help]\nttl = 5\n";
  const auto section = [this](const std::string& name, const std::string& settings) {
    std::ofstream(folder_ / name) << "[destination.a]\nurl = http://h\n" << settings;
    return std::vector<std::string>{"--config", folder_ / name};
  };
  const std::pair<std::vector<std::string>, const char*> kCases[] = {
      {{"--forward", "http://h", "--header", "A: secret\nB: c"}, "the value of A has a line end"},
      {{"--forward", "http://h", "--forward", "http://i", "--header", "A: b"},
       "--header: and the other credentials are for one destination, and flags make 2; give them "
       "in the sections"},
      {std::vector<std::string>(9, "--otlp=http://h"),
       "--otlp: there are more than 8 destinations"},
      {section("s1", "type = carbon\n"), "s1:3: type: give one of influx"},
      {section("s2", "type = influx\ntimeuot = 3\n"),
       "s2:4: there is no setting \"timeuot\", the nearest is \"timeout\""},
      {section("s3", "type = influx\n\nbatch-points = 0\n"), "s3:5: batch-points: Value 0 not in"},
      {section("s4", "type = influx\nbearer-file = /none/x\n"),
       "s4:4: bearer-file: cannot use the file /none/x: No such file or directory"},
      {section("s5",
               "type = influx\nspool=/s\n[destination.b]\ntype=influx\nurl=http://h\n"
               "spool=//s/"),
       "s5:8: spool: \"a\" has that folder"},
      {{"--nope"}, "--nope"},
      {{"--ttl", "0"}, "--ttl"},
      {{"--socket-mode", "rw"}, "\"rw\" is no file mode, give octal digits as 0660"},
      {{"--process-label", "tid"}, "tid not in {slot,pid,none}"},
      {{"--process-label", "slot", "--label-pid"}, "--label-pid"},
      {{"--http", "9464"}, "\"9464\" is no address, give HOST:PORT as 127.0.0.1:9464"},
      {{"--forward", "http://me:secret@db:x/"}, "--forward: \"http://...@db:x/\" is no URL"},
      {{"--forward-interval", "nan"}, "--forward-interval: \"nan\" is no number"},
      {{"--forward-catch-up", "1"}, "--forward-catch-up: \"1\" is too low"},
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

TEST_F(AgentHostTest, ServesOnAllAddressesAndDoubtsWhereItForwardsTo) {
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

TEST_F(AgentHostTest, PrintsHostileStringsOnOneLineAndTheProcessAfterTheTags) {
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

TEST_F(AgentHostTest, TakesOneMebibyteWholeAndCountsWhatIsLonger) {
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

TEST_F(AgentHostTest, TakesOverAStaleSocketOnlyAndLocksAFileOfItsOwn) {
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
    server_.Serve("/write", [this](const httplib::Request& request, httplib::Response& reply) {
      const METRICS::WriteGuard guard(mutex_);
      reply.status = may_take_ > 0 ? 204 : 503;
      if (may_take_ == 0) return;
      --may_take_;
      std::istringstream lines(request.body);
      for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 4, "svc.") == 0) ++names_[line.substr(0, line.find(','))];
      }
    });
  }
  std::string url() const { return server_.url(); }
  void Take(int batches) {
    const METRICS::WriteGuard guard(mutex_);
    may_take_ = batches;
  }
  int may_take() const {
    const METRICS::WriteGuard guard(mutex_);
    return may_take_;
  }
  std::map<std::string, int> names() const {
    const METRICS::WriteGuard guard(mutex_);
    return names_;
  }

 private:
  mutable METRICS::Mutex mutex_;
  int may_take_ METRICS_GUARDED_BY(mutex_) = 0;
  std::map<std::string, int> names_ METRICS_GUARDED_BY(mutex_);
  test::LoopbackServer server_;
};

TEST_F(AgentHostTest, LosesNothingOfItsSpoolThoughItIsKilled) {
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
                                          "--no-spread",
                                          "--forward-catch-up",
                                          "0",
                                          "--drain",
                                          "0"};
  const auto number = [&](const std::string& name) {
    const auto page = httplib::Client(Url()).Get("/metrics");
    const size_t at = page ? page->body.find("\ntidegate_agent_" + name) : std::string::npos;
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
    if (round % 3 == 1) await([&] { return number("forward_spool_points{") > spooled; });
    if (round % 3 == 0) {
      await([&] { return number("forward_spool_points{") == spooled + kPoints - kHalf; });
      await([&] { return number("forward_queue_points{") == kHalf; });
      spooled += kPoints - kHalf;
      lost += kHalf;
    }
    kill(pid_, SIGKILL);
    Wait();
  }
  database.Take(1 << 20);
  Start(flags);
  await([&] { return number("uptime_seconds ") > 0 && number("forward_spool_points{") == 0; });
  EXPECT_EQ(Terminate(), 0);
  EXPECT_EQ(database.names().size(), sent - lost);
  for (const auto& [name, times] : database.names()) {
    EXPECT_LT(std::stoull(name.substr(4)), sent);
    EXPECT_LE(times, 2);
  }
}

TEST_F(AgentHostTest, EndsWithTimeForADestinationThoughAnotherIsGone) {
  GoneDatabase gone, works;
  works.Take(1 << 20);
  Start({"--merge", "--merge-delay", "1", "--forward", gone.url(), "--forward", works.url(),
         "--no-spread", "--drain", "4"});
  const UniqueFd client = Connect();
  for (const auto& [name, ahead] : {std::pair("svc.sent", 1), {"svc.merged_last", 600}}) {
    const int64_t time = std::time(nullptr) + ahead;
    std::string gauge = GaugeNamed(name);
    Send(client, gauge.replace(125, sizeof(time), reinterpret_cast<const char*>(&time), 8));
  }
  Await("err", "cannot forward to");
  EXPECT_EQ(Terminate(), 0);
  EXPECT_THAT(works.names(), testing::SizeIs(2));
}

TEST_F(AgentHostTest, KeepsFewClientsWaitingWhileItIsStopped) {
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

TEST_F(AgentHostTest, WaitsQuietlyForDescriptors) {
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
