// Deliveries, and what becomes of points that cannot be delivered.

#include <atomic>
#include <chrono>
#include <cmath>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/forwarder_fixture.h"
#include "support/tcp_port.h"
#include "testing/temp_dir.h"

namespace tidegate::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(ForwarderTest, RetriesUntilTheDatabaseTakesIt) {
  std::atomic<steady_clock::rep> asked_to_wait{0};
  database_.Serve({Status(500), Status(429),
                   [&](const httplib::Request& /*request*/, httplib::Response& reply) {
                     asked_to_wait = steady_clock::now().time_since_epoch().count();
                     reply.status = 503;
                     reply.set_header("Retry-After", "1");
                   },
                   Status(204)});
  std::string url = Url() + "/insert/0/influx/write?db=x";
  Start(Options(url.insert(7, "me:secret@")));
  Handle(1);
  ASSERT_TRUE(Await([&] { return numbers_.forwarded_points == 1; }));
  EXPECT_GE(steady_clock::now().time_since_epoch() - steady_clock::duration(asked_to_wait.load()),
            milliseconds(990));
  forwarder_->Stop(seconds(10));
  EXPECT_THAT(database_.bodies(), ElementsAre(LineOf(1), LineOf(1), LineOf(1), LineOf(1)));
  const httplib::Request request = database_.requests().front();
  EXPECT_EQ(request.target, "/insert/0/influx/write?db=x");
  EXPECT_EQ(request.get_header_value("Content-Encoding"), "gzip");
  EXPECT_EQ(request.get_header_value("Authorization"), "Basic bWU6c2VjcmV0");
  EXPECT_EQ(numbers_.retried_points, 3U);
  EXPECT_EQ(numbers_.batches, 1U);
  EXPECT_EQ(numbers_.queue_bytes + numbers_.queue_points, 0U);
  const std::string shown = Url() + "/insert/0/influx/write";
  EXPECT_THAT(log(),
              ElementsAre("cannot forward to " + shown + ", HTTP 500: Internal Server Error; " +
                              "1 points wait, 0 dropped as the queue was full",
                          "forwards to " + shown + " again"));
}

TEST_F(ForwarderTest, DropsWhatIsRefusedAndQuotesTheServerOnce) {
  const auto redirect = [](const httplib::Request& /*request*/, httplib::Response& reply) {
    reply.set_redirect("/elsewhere?p=secret", 307);
    reply.set_content("no\nlonger\x01 here", "text/plain");
  };
  database_.Serve({redirect, Status(400, "unable to parse"), Status(204)});
  Start(Options(Url()));
  for (int value = 1; value <= 3; ++value) Handle(value);
  ASSERT_TRUE(Await([&] { return numbers_.forwarded_points == 1; }));
  EXPECT_THAT(database_.bodies(), ElementsAre(LineOf(1), LineOf(2), LineOf(3)));
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kRejected), 2U);
  EXPECT_EQ(numbers_.retried_points, 0U);
  forwarder_->Stop(seconds(20));
  const std::string refused = " points that " + Url() + "/write refused";
  EXPECT_THAT(log(), ElementsAre("dropped 1" + refused +
                                     ", HTTP 307: no longer  here (redirects are not "
                                     "followed: give /elsewhere?... as the URL)",
                                 "dropped 1 more" + refused));
}

TEST_F(ForwarderTest, CountsWhatIsDroppedOfABatch) {
  const auto partial = [](const char* lines) {
    return Status(400, std::string(R"({"error":"partial write: why dropped=)") + lines + "\"}\n");
  };
  database_.Serve({partial("2"), partial("5")});
  ForwardOptions options = Options(Url());
  options.limits.batch_points = 3;
  Start(options);
  for (int value = 1; value <= 6; ++value) Handle(value);
  forwarder_->Stop(seconds(20));
  EXPECT_EQ(numbers_.forwarded_points, 1U);
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kRejected),
            5U);  // lines of the second batch are not all points
  EXPECT_EQ(numbers_.batches, 1U);
}

TEST_F(ForwarderTest, WaitsForTheSetupOfTheDatabaseForATime) {
  database_.Serve({Status(404), Status(401), Status(204), Status(404)});
  ForwardOptions options = Options(Url());
  options.setup_time = milliseconds(300);
  Start(options);
  const auto start = steady_clock::now();
  Handle(1);
  EXPECT_TRUE(Await([&] { return numbers_.forwarded_points == 1; }));
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kRejected), 0U);
  Handle(2);
  EXPECT_TRUE(Await([&] { return numbers_.Dropped(ForwardDrop::kRejected) == 1; }));
  EXPECT_GE(steady_clock::now() - start, milliseconds(300));
  const uint64_t retried = numbers_.retried_points;
  Handle(3);
  EXPECT_TRUE(Await([&] { return numbers_.Dropped(ForwardDrop::kRejected) == 2; }));
  EXPECT_EQ(numbers_.retried_points, retried);
  EXPECT_THAT(log(), ElementsAre(HasSubstr("cannot forward to"), HasSubstr("again"),
                                 HasSubstr("dropped 1 points that")));
}

TEST_F(ForwarderTest, KeepsTheNewestWhileNobodyListens) {
  const int port = test::Port(false).number;
  ForwardOptions options = Options(UrlOf(port));
  options.limits.queue_points = 5;
  Start(options);
  for (int value = 1; value <= 20; ++value) Handle(value);
  // The first one has failed by then.
  ASSERT_TRUE(Await([&] { return !log().empty() && numbers_.queue_points <= 5; }));
  Handle(std::nan(""));
  for (int value = 21; value <= 25; ++value) Handle(value);
  ASSERT_TRUE(Await([&] { return numbers_.Dropped(ForwardDrop::kFull) == 20; }));

  database_.Serve({Status(204)}, port);
  ASSERT_TRUE(Await([&] { return numbers_.forwarded_points == 5; }));
  EXPECT_THAT(database_.bodies(),
              ElementsAre(LineOf(21), LineOf(22), LineOf(23), LineOf(24), LineOf(25)));
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kEmpty), 1U);
}

TEST_F(ForwarderTest, SpoolsAnOutageThatIsLongerThanItsQueueAndItself) {
  const test::TempDir folder;
  const int port = test::Port(false).number;
  ForwardOptions options = Options(UrlOf(port));
  options.limits.queue_points = 10;
  options.spool.folder = folder.path();
  options.spool.retry = milliseconds(1);
  options.target.timeout = seconds(3600);
  int value = 0;
  const auto run_for = [&](int values) {
    for (const int end = value + values; value < end;) {
      Handle(++value);
      ASSERT_TRUE(Await([&] { return numbers_.queue_points <= 5; }));
    }
  };
  // With a long pause, as a batch that is just being sent would come last.
  ForwardOptions patient = options;
  patient.first_pause = patient.longest_pause = seconds(3600);
  Start(patient);
  run_for(1);
  ASSERT_TRUE(Await([&] { return numbers_.retried_points > 0; }));
  run_for(49);
  forwarder_->Stop(milliseconds(0));
  EXPECT_EQ(numbers_.spool_points, 50U);

  // A database that does not answer keeps nothing from the spool.
  std::atomic<bool> answers{false};
  database_.Serve({[&](const httplib::Request& /*request*/, httplib::Response& reply) {
                     EXPECT_TRUE(Await([&] { return answers.load(); }));
                     reply.status = 503;
                   },
                   Status(204)},
                  port);
  Start(options);
  ASSERT_TRUE(Await([&] { return !database_.requests().empty(); }));
  run_for(50);
  forwarder_->Stop(milliseconds(0));
  EXPECT_EQ(numbers_.spool_points, 100U);
  answers = true;

  Start(options);
  run_for(50);
  EXPECT_TRUE(Await([&] { return numbers_.forwarded_points == 150; }));
  std::vector<std::string> lines = {LineOf(1)};
  for (int i = 1; i <= value; ++i) lines.push_back(LineOf(i));
  EXPECT_EQ(database_.bodies(), lines);
  EXPECT_EQ(health_.ForwardDropped(), 0U);
  forwarder_->Stop(seconds(20));
}

// Lines that can be split, as they are posted.
class SplitLines : public InfluxFormat {
 public:
  SplitLines() : InfluxFormat(ProcessLabel::kNone) {}
  std::string Pack(std::string_view body) const override { return std::string(body); }
  std::vector<std::string> Headers() const override { return {}; }
  std::optional<std::pair<Body, Body>> Split(std::string_view packed,
                                             uint64_t points) const override {
    if (points < 2) return std::nullopt;
    size_t end = 0;
    for (uint64_t i = 0; i < points / 2; ++i) end = packed.find('\n', end) + 1;
    return std::pair(Body{std::string(packed.substr(0, end)), points / 2},
                     Body{std::string(packed.substr(end)), points - points / 2});
  }
};

TEST_F(ForwarderTest, SplitsWhatIsRefusedAlsoWhenTheDatabaseGoesAwayMeanwhile) {
  const auto lines = [](int first, int last) {
    std::string text;
    for (int i = first; i <= last; ++i) text += LineOf(i);
    return text;
  };
  for (const bool spooled : {false, true}) {
    SCOPED_TRACE(spooled);
    const test::TempDir folder;
    const uint64_t forwarded = numbers_.forwarded_points;
    const uint64_t rejected = numbers_.Dropped(ForwardDrop::kRejected);
    Database database;
    std::atomic<bool> away{false};
    METRICS::Mutex mutex;
    std::vector<std::string> taken;  // guarded by it
    const auto answer = [&](const httplib::Request& request, httplib::Response& reply) {
      const bool bad = request.body.find("value=6 ") != std::string::npos;
      reply.status = away ? 503 : bad ? 400 : 204;
      const METRICS::WriteGuard guard(mutex);
      if (reply.status == 204) taken.push_back(request.body);
      if (request.body == lines(1, 4)) away = true;
    };
    const int port = test::Port(false).number;
    ForwardOptions options = Options(UrlOf(port));
    options.limits.batch_points = 8;
    options.limits.queue_points = 80;
    if (spooled) {
      options.spool.folder = folder.path();
      Make(options, std::make_unique<SplitLines>());
      forwarder_->Start();
      for (int value = 1; value <= 8; ++value) Handle(value);
      forwarder_->Stop(milliseconds(0));
      EXPECT_EQ(numbers_.spool_points, 8U);
    }
    database.Serve({answer}, port);
    Make(options, std::make_unique<SplitLines>());
    forwarder_->Start();
    for (int value = 1; !spooled && value <= 8; ++value) Handle(value);
    EXPECT_TRUE(Await([&] { return away && forwarder_->Status().last_refusal; }));
    EXPECT_TRUE(Await([&] { return !forwarder_->Status().up; }));
    EXPECT_EQ(forwarder_->Status().last_refusal->status, 503);
    EXPECT_EQ(numbers_.forwarded_points - forwarded, 4U);
    if (spooled) {  // the next agent gets the rest alone
      forwarder_->Stop(milliseconds(0));
      EXPECT_EQ(numbers_.spool_points, 4U);
      Make(options, std::make_unique<SplitLines>());
      forwarder_->Start();
    }
    away = false;
    EXPECT_TRUE(Await([&] { return numbers_.forwarded_points - forwarded == 7; }));
    forwarder_->Stop(seconds(20));
    EXPECT_EQ(numbers_.Dropped(ForwardDrop::kRejected) - rejected, 1U);
    const METRICS::WriteGuard guard(mutex);
    EXPECT_THAT(taken, ElementsAre(lines(1, 4), lines(5, 5), lines(7, 8)));
    EXPECT_EQ(health_.ForwardDropped(), rejected + 1);
    EXPECT_TRUE(forwarder_->Status().up);
    forwarder_.reset();
  }
}

TEST_F(ForwarderTest, SendsWhatWaitsBeforeItStops) {
  database_.Serve({Status(503), Status(204)});
  ForwardOptions options = Options(Url());
  options.limits.batch_points = 100;  // so the batch is still open
  options.first_pause = options.longest_pause = seconds(3600);
  Start(options);
  Handle(1);
  Handle(2);
  forwarder_->Stop(seconds(20));
  EXPECT_THAT(database_.bodies(), ElementsAre(LineOf(1) + LineOf(2), LineOf(1) + LineOf(2)));
  EXPECT_EQ(numbers_.forwarded_points, 2U);
}

}  // namespace
}  // namespace tidegate::agent
