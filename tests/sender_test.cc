#include "metrics/metric_sender.h"

#include <fcntl.h>

#include "golden/golden_file.h"
#include "support/agent_socket.h"
#include "support/environment.h"
#include "support/list_sender.h"
#include "util/wall_clock.h"

namespace tidegate::test {
namespace {

using METRICS::MetricSender;
using METRICS::MetricSenderManager;
using METRICS::MetricSenderType;
using METRICS::MetricState;
using METRICS::ReturnCode;
using METRICS::Store;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;

// The sender of "t1", once its thread has the interval and will not change it any more.
MetricSender& SenderOf(TestClient& client) {
  client.Registry("p");
  EXPECT_TRUE(WaitFor([&] { return client.Sender().interval_ == kNeverDue; }));
  return client.Sender();
}

// Sends `bytes` and returns the log. The time is bounded with a wide margin over 320 ms.
std::string Send(MetricSender& sender, std::string bytes) {
  const auto start = steady_clock::now();
  const std::string log =
      LogOf([&] { sender.SendToSocket(bytes.data(), static_cast<int>(bytes.size())); }, 0);
  EXPECT_LT(steady_clock::now() - start, milliseconds(3000));
  return log;
}

TEST(SenderTest, SurvivesEveryAbsenceOfTheAgent) {
  const TempDir dir;
  const std::string path = dir.File("s");
  TestClient client(ReportTo(path, kNeverDue));
  EXPECT_THAT(LogOf([&] { SenderOf(client); }),
              HasSubstr("]MetricUnixDomainSender ready with socket: " + path + "\n"));

  std::unique_ptr<AgentSocket> agent;
  const struct {
    const char* what;
    std::function<void()> change;
    std::vector<int> errors;
    bool delivered;
  } kSteps[] = {
      {"away at start", [] {}, {ENOTCONN, ENOTCONN}, false},
      {"comes", [&] { agent = std::make_unique<AgentSocket>(path); }, {ENOTCONN}, true},
      {"stays", [] {}, {}, true},
      {"restarts", [&] { agent->Stop(), agent->Restart(); }, {EPIPE}, true},
      {"goes", [&] { agent->Stop(); }, {EPIPE, ENOTCONN}, false},
      {"is still away", [] {}, {ENOTCONN, ENOTCONN}, false},
  };
  for (const auto& [what, change, errors, delivered] : kSteps) {
    SCOPED_TRACE(what);
    change();
    const std::string log = Send(client.Sender(), ReadGolden("gauge.hex"));
    EXPECT_EQ(::fcntl(client.Sender().sock_, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(CountOf("]Sender[t1] UDS reconnect, close old socket: ", log), errors.size());
    for (const int error : errors) {
      EXPECT_THAT(log, HasSubstr("]Sender[t1] Send fail with errno[" + std::to_string(error) +
                                 "]: " + std::strerror(error) + ", try to reconnect.\n"));
    }
    EXPECT_EQ(CountOf("]Sender[t1] Send 200 bytes in ts: 0  at attempt: 2\n", log),
              delivered && !errors.empty() ? 1u : 0u);
  }
  EXPECT_EQ(agent->Received().size(), 3u);
}

TEST(SenderTest, LastFlushFollowsTheWorkState) {
  using WorkState = MetricSender::WorkState;
  const struct {
    WorkState state;
    int64_t last_flush_ts;
    bool flushes;
  } kCases[] = {{WorkState::kIdle, 1700000000, true},
                {WorkState::kSleeping, 1700000000, true},
                {WorkState::kSlept, 1700000005, true},
                {WorkState::kWorking, 1700000005, false}};
  for (const auto& [state, last_flush_ts, flushes] : kCases) {
    SCOPED_TRACE(static_cast<int>(state));
    TestClient client(ReportTo("", std::nullopt));
    client.Registry("slow", "t1", {}, 15);
    for (const char* prefix : {"p", "slow"}) {
      client.Metric("m", {}, prefix)->WithTags({})->Emit({Store(1)});
    }
    ListSender sender(client);
    sender.interval_.store(5);
    sender.state_.store(MetricState::SHUTDOWN);
    sender.work_state_ = state;
    sender.last_flush_ts_ = last_flush_ts;
    sender.FlushAndExit();
    std::vector<int64_t> timestamps;
    for (const agent::Packet& packet : sender.list.packets) {
      timestamps.push_back(packet.blocks.at(0).timestamp);
    }
    EXPECT_THAT(timestamps, testing::UnorderedElementsAreArray(
                                flushes ? std::vector<int64_t>{1700000005, 1700000010}
                                        : std::vector<int64_t>()));
  }
}

TEST(FlushThreadTest, FlushesAtBoundariesUntilAFlushEndsItAndTellsOfMissedOnes) {
  struct Flusher : METRICS::FlushThread {
    using FlushThread::FlushAtBoundaries;
  } thread;
  thread.interval_ = 1;
  thread.state_ = MetricState::READY;
  int64_t boundary = 1000;  // the one before, long ago
  std::vector<int64_t> flushed;
  const int64_t before = METRICS::WallMillis();
  const std::string log = LogOf([&] {
    thread.FlushAtBoundaries("t1", boundary, [&] {
      EXPECT_EQ(thread.work_state_, METRICS::FlushThread::WorkState::kWorking);
      flushed.push_back(boundary);
      return flushed.size() < 2;
    });
  });
  ASSERT_EQ(flushed.size(), 2u);
  EXPECT_THAT(flushed[0] - before / 1000, testing::AnyOf(1, 2));
  EXPECT_GT(flushed[1], flushed[0]);
  EXPECT_THAT(log, HasSubstr("]Sender[t1]Last send timeout, last_timetamp: 1000, now: " +
                             std::to_string(flushed[0]) + "\n"));
  thread.state_ = MetricState::SHUTDOWN;
  int left_ms = 0;
  EXPECT_FALSE(thread.AdjustTime("t1", boundary, left_ms, 1)) << "the sleep is given up";
  EXPECT_EQ(boundary, flushed[1]);
  EXPECT_EQ(thread.AdjustSleepStep(5), 5);
  EXPECT_EQ(thread.AdjustSleepStep(6), 200);
}

TEST(SenderTest, AnUnusableIntervalEndsTheThreadButNotTheLastFlush) {
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  const long threads = ThreadCount();
  size_t packets = 0;
  for (const std::optional<int> interval :
       {std::optional(0), {-1}, {2147484}, {2147483}, std::optional<int>()}) {
    SCOPED_TRACE(interval.value_or(30));
    const bool usable = interval == 2147483 || !interval;
    TestClient client(ReportTo(agent.path(), interval));
    const std::string log = LogOf([&] {
      client.Metric("m")->WithTags({})->Emit({Store(1)});
      EXPECT_TRUE(WaitFor([&] { return usable || ThreadCount() <= threads; }));
      EXPECT_TRUE(WaitFor([&] { return client.Sender().interval_ == interval.value_or(30); }));
      client->FlushAndExit();
    });
    EXPECT_EQ(CountOf("]tenant config interval: tenant= t1, interval= ", log), interval ? 1u : 0u);
    EXPECT_EQ(CountOf("]Sender[t1] start fialed, internal error with interval less than 0.\n", log),
              usable ? 0u : 1u);
    EXPECT_TRUE(agent.WaitForPackets(++packets));
  }
}

TEST(SenderManagerTest, KeepsOneSenderPerTenant) {
  TestClient client(ReportTo("", kNeverDue));
  MetricSenderManager& manager = *client->sender_manager_;
  MetricSender* const first = &SenderOf(client);
  EXPECT_THAT(LogOf([&] { manager.CreateSender("t1", MetricSenderType::kSenderTcp); }),
              HasSubstr("]Sender of [t1] already exist, CreateSender skipped.\n"));
  EXPECT_EQ(&client.Sender(), first);
  std::unordered_map<std::string, int> intervals{{"t1", 7}, {"nobody", 9}};
  manager.UpdateSenderInterval(intervals);
  EXPECT_EQ(first->interval_, 7);
  EXPECT_EQ(manager.RemoveSender("t1"), ReturnCode::kOk);
  EXPECT_TRUE(manager.GetAllTenant().empty());
}

}  // namespace
}  // namespace tidegate::test
