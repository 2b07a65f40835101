#include <gmock/gmock.h>
#include <httplib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <regex>
#include <sstream>

#include "agent/point_mapping.h"
#include "support/agent_program.h"
#include "testing/packet_writer.h"

namespace tidegate::agent {
namespace {

using std::chrono::milliseconds;
using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
namespace fs = std::filesystem;

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

TEST_F(AgentTest, AppliesTheRulesOfItsSettings) {
  const std::string config = folder_ / "config";
  const auto set = [&](const std::string& rules) {
    std::ofstream(config) << "process-label = none\n[rule.no-host]\naction = drop-tag\n"
                             "drop = host\n[rule.quiet]\naction = drop\n" +
                                 rules;
  };
  set("name = '*.debug'\n");
  Start({"--config", config});
  const UniqueFd client = Connect();
  Send(client, GaugeNamed("svc.a.debug"));
  Send(client, GaugeNamed("svc.a"));
  Await("out", "gauge svc.a{dc=b,account_id=acc,project_id=proj} 1.5\n");
  set("nam = 'svc.*'\n");
  kill(pid_, SIGHUP);
  Await("err", "not reloaded, all settings stay as they are: --config: " + config +
                   ":7: there is no setting \"nam\", the nearest is \"name\"");
  set("name = 'svc.*'\n[rule.new]\naction = keep\n");
  kill(pid_, SIGHUP);
  Await("err", "reloaded, changed: rules\n");
  Send(client, GaugeNamed("svc.b"));
  Send(client, GaugeNamed("other"));
  EXPECT_EQ(Terminate(), 0);
  EXPECT_THAT(Content("out"),
              testing::EndsWith(" other{dc=b,account_id=acc,project_id=proj} 1.5\n"));
  EXPECT_THAT(Content("out"), Not(AnyOf(HasSubstr("debug"), HasSubstr("svc.b"))));
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
  for (const ColumnRow& column : kTimerColumns) gauge("svc.lat." + std::string(column.name));
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
  Send(Connect(), test::PacketWriter::Write(packet));
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
  Start({"--quiet", "--ttl", "5"});  // all series come before the first one goes
  const UniqueFd client = Connect();
  for (int i = 0; i < 150; ++i) {
    Packet packet;
    for (int k = 0; k < 2000; ++k) {
      packet.blocks.push_back(
          {1, 0, 1700000000, "g", {}, {{0, {{"k", std::to_string(i * 2000 + k)}}, {}, {1}}}});
    }
    Send(client, test::PacketWriter::Write(packet));
  }
  size_t most = 0;
  size_t now = 0;
  for (int i = 0; i < 8000 && (most < 30 || now > most / 2); ++i) {
    std::this_thread::sleep_for(milliseconds(10));
    now = resident();
    most = std::max(most, now);
  }
  EXPECT_GE(most, 30U);
  EXPECT_LE(now, most / 2);
  EXPECT_EQ(Terminate(), 0);
}

}  // namespace
}  // namespace tidegate::agent
