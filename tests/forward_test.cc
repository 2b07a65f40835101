#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "agent/batch_queue.h"
#include "agent/destinations.h"
#include "agent/forward_url.h"
#include "agent/forwarder.h"
#include "agent/influx_format.h"
#include "agent/line_protocol.h"
#include "agent/partial_write.h"
#include "agent/recent_arrivals.h"
#include "agent/send_times.h"
#include "agent/settings_sections.h"
#include "agent/unique_fd.h"
#include "support/loopback_server.h"
#include "util/metric_lock.h"

namespace tidegate::agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

Block MakeBlock(uint8_t type, const std::string& name, const std::vector<std::string>& columns,
                std::vector<Series> series) {
  Block block;
  block.wire_type = type;
  block.timestamp = 1700000000;
  block.name = name;
  for (const std::string& column : columns) block.fields.push_back({column, 0});
  block.series = std::move(series);
  return block;
}

std::string Lines(const Block& block, ProcessLabel label = ProcessLabel::kNone) {
  LineWriter writer(label);
  Packet packet;
  packet.tenant = "t1";
  const ClientId client{42};
  writer.StartBlock(packet, client, block);
  std::string lines;
  for (const Series& record : block.series) {
    const size_t before = lines.size();
    const bool appended = writer.AppendRecord(record, &lines);
    EXPECT_EQ(appended, lines.size() > before);
  }
  return lines;
}

TEST(LineProtocolTest, WritesEachKindAsTheMappingSays) {
  std::vector<std::string> columns;
  for (int i = 0; i < 100; ++i) columns.push_back("hist:b-" + std::to_string(i));
  columns.insert(columns.end(), {"hist:sum", "hist:count"});
  const std::vector<double> values(columns.size(), 1);
  const struct {
    Block block;
    const char* lines;
  } kCases[] = {
      {MakeBlock(1, "#m#\\", {}, {{0, {{"k ", "=,\\"}}, {}, {1e300}}}),
       "\\x23m#\\x5c,tenant=t1,k\\ =\\=\\,\\x5c value=1e+300 1700000000000000000\n"},
      // Values that differ in what cannot be carried, or in its form.
      {MakeBlock(1, "", {},
                 {{0, {{"a", "\xe9\xc3\xa9"}, {"b", "\\xe9"}, {"c", "C:\\d\\\n"}}, {}, {1}}}),
       "\\x,tenant=t1,a=\\xe9\xc3\xa9,b=\\x5cxe9,c=C:\\d\\x5c\\x0a value=1 1700000000000000000\n"},
      // Keys that InfluxDB keeps for itself, and those that they become.
      {MakeBlock(
           7, "m", {"time", "exported_time", "_field"},
           {{0, {{"_measurement", "1"}, {"exported_time", "2"}, {"time", "time"}}, {}, {1, 2, 3}}}),
       "m,tenant=t1,exported__measurement=1,exported_exported_time=2,exported_time=time "
       "exported_time=1,exported_exported_time=2,exported__field=3 1700000000000000000\n"},
      {MakeBlock(7, "m", {"a", "b.c", "d"}, {{0, {}, {0, 2}, {1, -2}}, {0, {}, {1}, {9}}}),
       "m,tenant=t1 a=1,d=-2 1700000000000000000\n"
       "m,tenant=t1 b.c=9 1700000000000000000\n"},
      // Two bounds that are one in six digits.
      {MakeBlock(6, "m.h", {"hist:b-0.0", "hist:b-1.0", "hist:b-1.0", "hist:sum", "hist:count"},
                 {{0, {{"le", "x"}, {"x_y", "1"}}, {}, {2, 3, 4, 8, 9}}}),
       "m.h,tenant=t1,exported_le=x,x_y=1 b-0.0=2,b-1.0=7,sum=8,count=9 1700000000000000000\n"
       "m.h,tenant=t1,exported_le=x,x_y=1,le=1 bucket=5 1700000000000000000\n"
       "m.h,tenant=t1,exported_le=x,x_y=1,le=+Inf bucket=9 1700000000000000000\n"},
      // More than 16 MiB of bucket lines, and lines of more than 256 KiB.
      {MakeBlock(6, std::string(200 << 10, 'm'), columns, {{0, {}, {}, values}}), ""},
      {MakeBlock(7, "m", {std::string(200 << 10, 'a'), std::string(100 << 10, 'b')},
                 {{0, {}, {}, {1, 1}}}),
       ""},
      {MakeBlock(7, "m", {"a\"", "a_"}, {{0, {}, {}, {1, 2}}}),
       "m,tenant=t1 a\\x22=1,a_=2 1700000000000000000\n"},
      // What is no number is left out, with its line where nothing else is in it.
      {MakeBlock(7, "m", {"a", "b", "c"}, {{0, {}, {}, {kNan, 4, kInfinity}}}),
       "m,tenant=t1 b=4 1700000000000000000\n"},
      {MakeBlock(3, "m", {}, {{0, {}, {}, {kNan}}, {0, {}, {}, {-kInfinity}}}), ""},
  };
  for (const auto& test : kCases) EXPECT_EQ(Lines(test.block), test.lines);

  Block block = MakeBlock(1, "m", {}, {{0, {}, {}, {1}}});
  EXPECT_EQ(Lines(block, ProcessLabel::kPid), "m,tenant=t1,pid=42 value=1 1700000000000000000\n");
  block.timestamp = std::numeric_limits<int64_t>::max() / 1000;
  EXPECT_EQ(Lines(block), "");
}

TEST(ForwardUrlTest, TakesUrlsApart) {
  ForwardUrl url;
  std::string error;
  ASSERT_TRUE(ParseForwardUrl("http://db:8428", &url, &error)) << error;
  EXPECT_EQ(url.host + "|" + std::to_string(url.port) + url.target, "db|8428/write");
  ASSERT_TRUE(ParseForwardUrl("https://me:p%40s@[::1]/api/v2/write?org=o&token=t", &url, &error));
  EXPECT_EQ(url.host + "|" + std::to_string(url.port) + url.target,
            "::1|443/api/v2/write?org=o&token=t");
  EXPECT_EQ(url.user + "|" + url.password + "|" + url.shown, "me|p@s|https://[::1]/api/v2/write");
  ASSERT_TRUE(ParseForwardUrl("http://db/?db=x", &url, &error)) << error;
  EXPECT_EQ(url.target, "/write?db=x");
  for (const char* bad : {"http://a{b}", "http://a%20b/w", "http://[1::2::3]:1", "http://a\\b"}) {
    EXPECT_FALSE(ParseForwardUrl(bad, &url, &error)) << bad;
    EXPECT_THAT(error, HasSubstr("is no name or address of a host"));
  }
}

TEST(SettingsSectionsTest, AreTakenOutWithTheirLinesAndRefusedWithThem) {
  std::string text =
      "ttl = 5\n [rule.a-1] # one\nx = a # b#c\n\n  tag=[ 'k=\\' , # first\n\"q\\\"]#\" ,]\nx=2\n"
      "[rule.b]\nurl = http://h/#p";
  const std::vector<SettingsSection> sections = TakeSections("f", {"rule"}, {"ttl"}, &text);
  ASSERT_EQ(sections.size(), 2U);
  const SettingsSection& first = sections[0];
  EXPECT_EQ(first.name + std::to_string(first.line), "a-12");
  EXPECT_THAT(first.Texts("x"), ElementsAre("a", "2"));
  EXPECT_THAT(first.Texts("tag"), ElementsAre("k=\\", "q\"]#"));
  EXPECT_EQ(first.LineOf("tag"), 5U);
  EXPECT_EQ(sections[1].Text("url"), "http://h/#p");
  EXPECT_THAT(text, testing::ContainsRegex("^ttl = 5\n +\n +\n\n +\n +\n +\n +\n +$"));

  const std::pair<const char*, const char*> kCases[] = {
      {"[rule]\n", "f:1: \"[rule.]\" has no good name"},
      {"\n[roule.a]\n", "f:2: there is no setting \"[roule.a]\", the nearest is \"[rule.NAME]\""},
      {"[rule.a b]\n", "f:1: \"[rule.a b]\" has no good name"},
      {"[rule.a]\n[rule.b]\n[rule.a]\n", "f:3: \"[rule.a]\" is in line 1 already"},
      {"[rule.a]\n\nsecret\nx = 1", "f:3: this is no setting"},
      {"[rule.a]\nx =\ny = 1", "f:2: a value is missing"},
      {"[rule.a]\nx = 'a' b", "f:2: there is something after the value"},
      {"[rule.a]\nx = \"a\\n\"", "f:2: in double quotes a backslash"},
      {"[rule.a]\nx = \"a\n\"", "f:2: a text lacks the quote"},
      {"[rule.a]\nx = [a,\nb", "f:3: a list lacks its ]"},
      {"[rule.a]\nx = ['a' b]", "f:2: the values of a list are parted by commas"},
  };
  for (auto [bad, error] : kCases) {
    std::string given = bad;
    try {
      TakeSections("f", {"rule"}, {"ttl"}, &given);
      ADD_FAILURE() << bad;
    } catch (const SettingsError& failure) {
      EXPECT_THAT(failure.what(), testing::StartsWith(error));
    }
  }
  EXPECT_THROW(static_cast<void>(first.Text("x")), SettingsError);
  EXPECT_THROW(first.CheckKeys({"x"}), SettingsError);
}

TEST(SendTimesTest, SpreadsHostsOverTheIntervalThatIsSeen) {
  using WallTime = SendTimes::WallTime;
  const WallTime boundary(seconds(1700000000));
  std::array<int, 10> hosts = {};
  for (int i = 0; i < 10000; ++i) {
    const uint64_t hash = SpreadHash("web-" + std::to_string(i), "forward");
    const WallTime next = NextSendTime(boundary, seconds(10), hash);
    ASSERT_TRUE(next > boundary && next <= boundary + seconds(10));
    ASSERT_EQ(NextSendTime(next, seconds(10), hash), next + seconds(10));
    ++hosts[static_cast<size_t>((next - boundary - milliseconds(1)) / seconds(1))];
  }
  EXPECT_THAT(hosts, testing::Each(testing::AllOf(testing::Gt(800), testing::Lt(1200))));

  const struct {
    std::vector<std::pair<int, int>> services;  // interval, and points at each flush
    int interval;
  } kCases[] = {{{{1, 1}}, 1},
                {{{10, 1000}}, 10},
                {{{10, 1000}, {60, 10}}, 10},  // as those of the library on itself
                {{{10, 100}, {60, 1000}}, 60},
                {{{15, 100}, {10, 100}}, 10},
                {{{30, 100}, {1, 1}}, 30},
                {{{60, 1}}, 60},
                {{}, 10}};
  for (const auto& test : kCases) {
    RecentArrivals arrivals;
    for (int second = 1700000040; second <= 1700000160; ++second) {
      for (const auto& [interval, points] : test.services) {
        if (second % interval == 0) arrivals.Add(second, static_cast<uint64_t>(points));
      }
      const bool early = second < 1700000100;
      ASSERT_TRUE(!early || arrivals.Interval(second) == seconds(10));
    }
    EXPECT_EQ(arrivals.Interval(1700000160), seconds(test.interval));
  }
}

TEST(SendTimesTest, BoundsTheRateAfterAnOutage) {
  SendTimes times({{}, 2}, seconds(1));
  steady_clock::time_point now;
  SendTimes::WallTime wall(seconds(1700000000));
  times.Sent(now, wall, 1000);
  EXPECT_LE(times.send_at(), now);
  times.Failed(now + seconds(7));
  times.Sent(now, wall, 100);  // at 20 a second, as none comes
  EXPECT_EQ(times.send_at(), now + seconds(5));
  times.Sent(now, wall, 1000000);
  EXPECT_EQ(times.send_at(), now + seconds(60));
  for (int i = 0; i < 60; ++i) times.Came(wall += seconds(1), 100);
  times.Sent(now, wall, 1000);
  EXPECT_EQ(times.send_at(), now + seconds(5));
  times.Emptied(now, wall);
  EXPECT_EQ(times.send_at(), now);
  times.Sent(now, wall, 1000);
  EXPECT_EQ(times.send_at(), now);
}

TEST(BatchQueueTest, HoldsPointsForTheTimeOfTheSpreadWhileThereIsRoom) {
  BatchLimits limits;
  limits.interval = seconds(3600);
  limits.queue_points = 40;
  limits.batch_points = 1;
  // Half an hour from now.
  const auto now = std::chrono::system_clock::now().time_since_epoch() + seconds(1800);
  const double part = static_cast<double>(now % seconds(3600) / milliseconds(1)) / 3600000;
  limits.send.spread = static_cast<uint64_t>(part * 4294967296.0) << 32U;
  BatchQueue queue(limits);
  const auto take = [&queue] {
    Batches batch = queue.Take(steady_clock::now());
    while (!batch.empty() && !batch.front().packed) {
      batch.front().packed = true;
      queue.ReturnPacked(std::move(batch));
      batch = queue.Take(steady_clock::now());
    }
    return !batch.empty();
  };
  EXPECT_FALSE(take());
  for (int i = 0; i < 10; ++i) queue.Append("x", 1);
  EXPECT_FALSE(take());
  for (int i = 0; i < 2; ++i) queue.Append("x", 1);
  EXPECT_TRUE(take() && take());
  EXPECT_FALSE(take());
  queue.Flush();
  EXPECT_TRUE(take());
  EXPECT_EQ(queue.Size().points, 9U);
}

TEST(BatchQueueTest, IsWaitedForAfterFlushUntilItsEnd) {
  BatchQueue queue{BatchLimits()};
  queue.Flush();
  const auto until = steady_clock::now() + milliseconds(20);
  EXPECT_TRUE(queue.Take(until).empty());
  EXPECT_GE(steady_clock::now(), until);
  std::thread last([&queue] {
    std::this_thread::sleep_for(milliseconds(20));
    queue.Append("x", 1);
    queue.End();
  });
  EXPECT_FALSE(queue.Take(until + seconds(3600)).empty());
  EXPECT_TRUE(queue.Take(until + seconds(3600)).empty());
  last.join();
}

TEST(CredentialsTest, AreReadAndRefusedWithoutBeingTold) {
  char folder[] = "/tmp/forward_XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::string path = std::string(folder) + "/secret";
  const auto write = [&](const std::string& text) { std::ofstream(path) << text; };
  CredentialSettings settings;
  settings.headers = {"X-Scope: s3cret", "Api-Key:s3cret"};
  settings.bearer_file = path;
  write("s3cret\r\n");
  const Credentials read = ReadCredentials(settings);
  EXPECT_THAT(read.headers,
              ElementsAre("X-Scope: s3cret", "Api-Key:s3cret", "Authorization: Bearer s3cret"));

  const struct {
    std::function<void()> spoil;
    const char* setting;
    std::string error;
  } kCases[] = {
      {[&] { settings.headers = {"X-Scope: a\r\nX-Other: s3cret"}; }, "header",
       "the value of X-Scope has a line end or another control character"},
      {[&] { settings.headers = {"s3cret"}; }, "header", "it is no header"},
      {[&] { settings.headers = {"Bad name: s3cret"}; }, "header", "it is no header"},
      {[&] { settings.headers = {"X-Scope: "}; }, "header", "X-Scope has no value"},
      {[&] { settings.headers = {"content-length: 3"}; }, "header", "content-length is for the"},
      {[&] { settings.headers = {"authorization: s3cret"}; }, "bearer-file", "there is an Auth"},
      {[&] { write("s3cret\ns3cret"); }, "bearer-file", "cannot use the file " + path + ": it has"},
      {[&] { write("\n"); }, "bearer-file", "cannot use the file " + path + ": it is empty"},
      {[&] { write(std::string(20000, 's')); }, "bearer-file",
       "cannot use the file " + path + ": it is longer than 16 KiB"},
      {[&] { settings.bearer_file = folder; }, "bearer-file",
       std::string("cannot use the file ") + folder + ": it is no plain file"},
      {[&] { settings.password_file = path; }, "password-file", "there is no user"},
      {[&] { settings.client_key = path; }, "client-key", "there is no client-cert"},
      {[&] { settings.ca_file = path + "x"; }, "ca-file",
       "cannot use the file " + path + "x: No such file or directory"},
  };
  for (const auto& test : kCases) {
    settings = {};
    settings.bearer_file = path;
    write("s3cret");
    if (std::string(test.setting) != "bearer-file") settings.bearer_file.clear();
    test.spoil();
    try {
      ReadCredentials(settings);
      ADD_FAILURE() << test.error;
    } catch (const CredentialError& failure) {
      EXPECT_EQ(failure.setting, test.setting);
      EXPECT_THAT(failure.what(), testing::StartsWith(test.error));
      EXPECT_THAT(failure.what(), testing::Not(HasSubstr("s3cret")));
    }
  }
  std::filesystem::remove_all(folder);
}

// A server on loopback that keeps what is posted and answers as told.
class Database {
 public:
  using Answer = std::function<void(const httplib::Request&, httplib::Response&)>;

  // An answer for each request, the last one for all further ones.
  void Serve(std::vector<Answer> answers, int port = 0) {
    const auto handle = [this, answers](const httplib::Request& request, httplib::Response& reply) {
      answers[std::min(Keep(request), answers.size()) - 1](request, reply);
    };
    server_.Serve(".*", handle, port);
  }

  int port() const { return server_.port(); }
  std::string url() const { return server_.url(); }
  std::vector<httplib::Request> requests() const {
    const Guard guard(mutex_);
    return requests_;
  }
  std::vector<std::string> bodies() const {
    std::vector<std::string> bodies;
    for (const httplib::Request& request : requests()) bodies.push_back(request.body);
    return bodies;
  }

 private:
  using Guard = METRICS::WriteGuard<METRICS::Mutex>;

  // How many there are now.
  size_t Keep(const httplib::Request& request) {
    const Guard guard(mutex_);
    requests_.push_back(request);
    return requests_.size();
  }

  mutable METRICS::Mutex mutex_;
  std::vector<httplib::Request> requests_ METRICS_GUARDED_BY(mutex_);
  test::LoopbackServer server_;
};

Database::Answer Status(int status, const std::string& body = "") {
  return [=](const httplib::Request&, httplib::Response& reply) {
    reply.status = status;
    reply.set_content(body, "text/plain");
  };
}

class ForwarderTest : public testing::Test {
 protected:
  // Batches of one point, and none of the agent's own.
  ForwardOptions Options(const std::string& url) {
    ForwardOptions options;
    std::string error;
    EXPECT_TRUE(ParseForwardUrl(url, &options.target.url, &error)) << error;
    options.limits.batch_points = 1;
    options.limits.interval = seconds(3600);
    options.first_pause = milliseconds(1);
    options.longest_pause = milliseconds(20);
    options.health_interval = seconds(3600);
    options.host = "h";
    return options;
  }
  void Make(
      const ForwardOptions& options,
      std::unique_ptr<PointFormat> format = std::make_unique<InfluxFormat>(ProcessLabel::kNone)) {
    forwarder_ = std::make_unique<Forwarder>(options, std::move(format), &numbers_, &health_,
                                             [this](const std::string& line) {
                                               const METRICS::WriteGuard guard(mutex_);
                                               log_.push_back(line);
                                             });
  }
  void Handle(double value, const std::string& name = "m") {
    HandleBlock(MakeBlock(1, name, {}, {{0, {}, {}, {value}}}));
  }
  void HandleBlock(const Block& block) {
    Packet packet;
    packet.tenant = "t";
    packet.blocks.push_back(block);
    forwarder_->Handle(packet, ClientId());
  }
  static std::string LineOf(int value) {
    return "m,tenant=t value=" + std::to_string(value) + " 1700000000000000000\n";
  }
  // For what happens on other threads: 20 seconds at most.
  static bool Await(const std::function<bool()>& condition) {
    const auto end = steady_clock::now() + seconds(20);
    while (!condition() && steady_clock::now() < end) std::this_thread::sleep_for(milliseconds(2));
    return condition();
  }
  std::vector<std::string> log() {
    const METRICS::WriteGuard guard(mutex_);
    return log_;
  }
  // One on which nobody listens.
  static int FreePort() {
    Database gone;
    gone.Serve({Status(204)});
    return gone.port();
  }
  std::string Url() const { return database_.url(); }

  Database database_;  // outlives the forwarder, whose open connection it would wait for
  Health health_;
  DestinationNumbers numbers_{&health_, "d"};
  METRICS::Mutex mutex_;
  std::vector<std::string> log_ METRICS_GUARDED_BY(mutex_);
  std::unique_ptr<Forwarder> forwarder_;
};

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
  Make(Options(url.insert(7, "me:secret@")));
  forwarder_->Start();
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
  Make(Options(Url()));
  forwarder_->Start();
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

TEST(PartialWriteTest, CountsWhatInfluxDbHasDropped) {
  const struct {
    const char* body;
    std::optional<uint64_t> lines;
  } kCases[] = {
      {R"({"error":"partial write: invalid tag key: input tag \"time\" dropped=2"})"
       "\n",
       2},
      {R"({"error":"partial write: unable to parse 'a dropped=7\\n': x \u003e y dropped=0"})", 1},
      {R"({"error":"partial write: unable to parse 'a': b\nunable to parse 'c': d dropped=0"})", 2},
      {R"({"error":"partial write: unable to parse 'a': b\nor not dropped=0"})", {}},
      {R"({"error":"partial write: unable to parse 'a': "b" dropped=0"})", {}},
      {R"({"error":"partial write: nothing dropped=0"})", {}},
      {R"({"error":"partial write: much dropped=18446744073709551616"})", {}},
      {R"({"error":"partial write: some dropped=-1"})", {}},
      {R"({"error":"partial write: some dropped="})", {}},
      {R"({"error":"partial write: some dropped=1", "more":""})", {}},
      {R"({"error":"timeout dropped=1"})", {}},
      {"partial write: x dropped=1", {}},
      {"", {}},
  };
  for (const auto& [body, lines] : kCases) EXPECT_EQ(LinesDropped(body), lines) << body;
}

TEST_F(ForwarderTest, CountsWhatIsDroppedOfABatch) {
  const auto partial = [](const char* lines) {
    return Status(400, std::string(R"({"error":"partial write: why dropped=)") + lines + "\"}\n");
  };
  database_.Serve({partial("2"), partial("5")});
  ForwardOptions options = Options(Url());
  options.limits.batch_points = 3;
  Make(options);
  forwarder_->Start();
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
  Make(options);
  forwarder_->Start();
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
  const int port = FreePort();
  ForwardOptions options = Options("http://127.0.0.1:" + std::to_string(port));
  options.limits.queue_points = 5;
  Make(options);
  forwarder_->Start();
  for (int value = 1; value <= 20; ++value) Handle(value);
  // The first one has failed by then.
  ASSERT_TRUE(Await([&] { return !log().empty() && numbers_.queue_points <= 5; }));
  Handle(kNan);
  for (int value = 21; value <= 25; ++value) Handle(value);
  ASSERT_TRUE(Await([&] { return numbers_.Dropped(ForwardDrop::kFull) == 20; }));

  database_.Serve({Status(204)}, port);
  ASSERT_TRUE(Await([&] { return numbers_.forwarded_points == 5; }));
  EXPECT_THAT(database_.bodies(),
              ElementsAre(LineOf(21), LineOf(22), LineOf(23), LineOf(24), LineOf(25)));
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kEmpty), 1U);
}

TEST_F(ForwarderTest, SpoolsAnOutageThatIsLongerThanItsQueueAndItself) {
  char folder[] = "/tmp/forward_XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const int port = FreePort();
  ForwardOptions options = Options("http://127.0.0.1:" + std::to_string(port));
  options.limits.queue_points = 10;
  options.spool.folder = folder;
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
  Make(patient);
  forwarder_->Start();
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
  Make(options);
  forwarder_->Start();
  ASSERT_TRUE(Await([&] { return !database_.requests().empty(); }));
  run_for(50);
  forwarder_->Stop(milliseconds(0));
  EXPECT_EQ(numbers_.spool_points, 100U);
  answers = true;

  Make(options);
  forwarder_->Start();
  run_for(50);
  EXPECT_TRUE(Await([&] { return numbers_.forwarded_points == 150; }));
  std::vector<std::string> lines = {LineOf(1)};
  for (int i = 1; i <= value; ++i) lines.push_back(LineOf(i));
  EXPECT_EQ(database_.bodies(), lines);
  EXPECT_EQ(health_.ForwardDropped(), 0U);
  forwarder_->Stop(seconds(20));
  std::filesystem::remove_all(folder);
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
    char folder[] = "/tmp/forward_XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
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
    const int port = FreePort();
    ForwardOptions options = Options("http://127.0.0.1:" + std::to_string(port));
    options.limits.batch_points = 8;
    options.limits.queue_points = 80;
    if (spooled) {
      options.spool.folder = folder;
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
    std::filesystem::remove_all(folder);
  }
}

TEST_F(ForwarderTest, BoundsTheQueueByBytesToo) {
  ForwardOptions options = Options("http://127.0.0.1:1");
  options.limits.batch_points = 100;
  options.limits.queue_bytes = 100000;
  Make(options);  // and nothing is taken out
  for (int value = 0; value < 10000; ++value) Handle(value);
  EXPECT_GT(numbers_.queue_bytes, 50000U);
  EXPECT_LE(numbers_.queue_bytes, 120000U);
  EXPECT_EQ(numbers_.queue_points + numbers_.Dropped(ForwardDrop::kFull), 10000U);
}

TEST_F(ForwarderTest, CutsLongPacketsIntoBatches) {
  database_.Serve({Status(204)});
  ForwardOptions options = Options(Url());
  options.limits.queue_points = 100;  // so a batch has ten
  options.limits.batch_points = 1000;
  Make(options);  // and nothing is taken out yet
  HandleBlock(MakeBlock(1, "m", {}, std::vector<Series>(505, {0, {}, {}, {1}})));
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kFull), 400U);  // what is open comes on top
  forwarder_->Start();
  forwarder_->Stop(seconds(20));
  // What was open becomes a batch of its own; it takes the place of the oldest one, unless that is
  // on its way already.
  const uint64_t forwarded = numbers_.forwarded_points;
  EXPECT_TRUE(forwarded == 95 || forwarded == 105) << forwarded;
  EXPECT_EQ(forwarded + numbers_.Dropped(ForwardDrop::kFull), 505U);
  EXPECT_EQ(numbers_.batches, (forwarded + 9) / 10);
}

TEST_F(ForwarderTest, LimitsTheLinesOfOnePacket) {
  Make(Options("http://127.0.0.1:1"));
  Packet packet;
  packet.blocks.push_back(MakeBlock(1, std::string((256 << 10) - 100, 'm'), {},
                                    std::vector<Series>(2000, {0, {}, {}, {1}})));
  forwarder_->Handle(packet, ClientId());
  EXPECT_NEAR(static_cast<double>(numbers_.Dropped(ForwardDrop::kEmpty)), 2000 - 1025, 10);
  // Lines that are too long take as much work, so that the next block is beyond the limit too.
  const uint64_t so_far = numbers_.Dropped(ForwardDrop::kEmpty);
  for (Series& record : packet.blocks[0].series) record.tags = {{"k", std::string(100, 'v')}};
  packet.blocks.push_back(MakeBlock(1, "next", {}, {{0, {}, {}, {1}}}));
  forwarder_->Handle(packet, ClientId());
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kEmpty), so_far + 2001);
}

TEST_F(ForwarderTest, SendsWhatWaitsBeforeItStops) {
  database_.Serve({Status(503), Status(204)});
  ForwardOptions options = Options(Url());
  options.limits.batch_points = 100;  // so the batch is still open
  options.first_pause = options.longest_pause = seconds(3600);
  Make(options);
  forwarder_->Start();
  Handle(1);
  Handle(2);
  forwarder_->Stop(seconds(20));
  EXPECT_THAT(database_.bodies(), ElementsAre(LineOf(1) + LineOf(2), LineOf(1) + LineOf(2)));
  EXPECT_EQ(numbers_.forwarded_points, 2U);
}

// A socket that listens at a free port of loopback.
UniqueFd ListenOnLoopback(int* port) {
  UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  EXPECT_EQ(bind(listener.get(), any, size) + listen(listener.get(), 1), 0);
  EXPECT_EQ(getsockname(listener.get(), any, &size), 0);
  *port = ntohs(address.sin_port);
  return listener;
}

TEST_F(ForwarderTest, StopsInTimeThoughNobodyAnswers) {
  int port = 0;
  const UniqueFd listener = ListenOnLoopback(&port);
  for (const std::string scheme : {"http", "https"}) {
    ForwardOptions options = Options(scheme + "://127.0.0.1:" + std::to_string(port));
    options.target.timeout = seconds(3600);
    Make(options);
    forwarder_->Start();
    Handle(1);
    Handle(2);
    const UniqueFd silent(accept(listener.get(), nullptr, nullptr));
    char byte = 0;
    EXPECT_EQ(recv(silent.get(), &byte, 1, MSG_PEEK), 1);
    const auto start = steady_clock::now();
    forwarder_->Stop(milliseconds(100));
    EXPECT_LT(steady_clock::now() - start, seconds(2));
    EXPECT_EQ(log().back(), "dropped 2 points that could not be forwarded");
  }
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kShutdown), 4U);
}

TEST_F(ForwarderTest, ADestinationThatHangsHoldsNobodyUp) {
  int port = 0;
  const UniqueFd silent = ListenOnLoopback(&port);
  database_.Serve({Status(204)});
  ForwardOptions works = Options(Url());
  works.name = "works";
  ForwardOptions hangs = Options("http://127.0.0.1:" + std::to_string(port));
  hangs.name = "hangs";
  hangs.target.timeout = seconds(3600);
  Log log(-1);
  Destinations all({hangs, works}, {}, &health_, &log);
  std::vector<PacketSink*> sinks;
  all.AddSinks(&sinks);
  all.Start();
  constexpr uint64_t kPoints = 200;
  Packet packet;
  packet.blocks.push_back(MakeBlock(1, "m", {}, {{0, {}, {}, {1}}}));
  for (uint64_t i = 0; i < kPoints; ++i) {
    for (PacketSink* sink : sinks) sink->Handle(packet, ClientId());
  }
  EXPECT_TRUE(Await([&] { return all.Statuses()[1].forwarded_points == kPoints; }));
  EXPECT_FALSE(all.IsIdle());
  const auto start = steady_clock::now();
  all.Stop(milliseconds(100));
  EXPECT_LT(steady_clock::now() - start, seconds(10));
  const std::vector<DestinationStatus> ends = all.Statuses();
  EXPECT_EQ(ends[0].forwarded_points, 0U);
  EXPECT_EQ(ends[0].dropped[static_cast<size_t>(ForwardDrop::kShutdown)], kPoints);
  EXPECT_EQ(ends[1].forwarded_points, kPoints);
  EXPECT_EQ(health_.ForwardDropped(), kPoints);
}

// What a hostile server answers: `again` follows over and over, after each pause; if it is empty,
// the connection ends.
struct HostileReply {
  std::string start, again;
  int pause_ms;
  const char* told;
};

void Answer(int client, const HostileReply& reply) {
  char request[4096];
  if (recv(client, request, sizeof(request), 0) <= 0) return;
  std::string again = reply.again;
  while (reply.pause_ms == 0 && !again.empty() && again.size() < 65536) again += again;
  bool sent = send(client, reply.start.data(), reply.start.size(), MSG_NOSIGNAL) >= 0;
  while (sent && !again.empty()) {
    sent = send(client, again.data(), again.size(), MSG_NOSIGNAL) > 0;
    std::this_thread::sleep_for(milliseconds(reply.pause_ms));
  }
}

TEST_F(ForwarderTest, BoundsEveryReplyInBytesAndTime) {
  const std::string chunked = "HTTP/1.1 500 No\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::vector<HostileReply> replies = {
      {"HTTP/1.1 204 No Content\r\n", "X-a: b\r\n", 0, "the head of the reply does not end"},
      {"HTTP/1.1 204 No Content\r\nX-a: ", "b", 0, "too long"},
      {"", "HTTP/1.1 100 Continue\r\n\r\n", 0, "the head of the reply does not end"},
      {"", "HTTP/1.1 100 Continue\r\n\r\n", 10, "no reply in time"},
      {"HTTP/1.1 204 No Content\r\nX-a: ", "b", 10, "no reply in time"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 9999\r\n\r\n", "b", 10, "no reply in time"},
      {chunked, "1\r\na\r\n", 0, "HTTP 500: aaa"},
      {chunked + "1;", "x", 0, "no reply in time"},
      {chunked + "ffffffffffffffffffffff\r\n", "x", 0, "the connection broke"},
      {"HTTP/1.1 204 No Content\r\nX-", "", 0, "the connection broke"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", "", 0, "the connection broke"},
      {"\x16\x03\x01 HTTP\r\n\r\n", "", 0, "the reply is not HTTP"},
      {"HTTP/9.7 two hundred\r\n\r\n", "", 0, "the reply is not HTTP"},
  };
  int port = 0;
  const UniqueFd listener = ListenOnLoopback(&port);
  ForwardOptions options = Options("http://127.0.0.1:" + std::to_string(port));
  options.target.timeout = seconds(1);  // far more than a slow machine takes to answer
  options.log_interval = milliseconds(0);
  Make(options);
  struct rusage before = {};
  getrusage(RUSAGE_SELF, &before);
  forwarder_->Start();
  Handle(1);
  const auto start = steady_clock::now();
  for (const HostileReply& reply : replies) {
    Answer(UniqueFd(accept(listener.get(), nullptr, nullptr)).get(), reply);
  }
  EXPECT_LT(steady_clock::now() - start, seconds(30));
  // And one connection for both of these.
  const UniqueFd client(accept(listener.get(), nullptr, nullptr));
  for (uint64_t points = 1; points <= 2; ++points) {
    Answer(client.get(), {"HTTP/1.1 204 No Content\r\n\r\n", "", 0, ""});
    EXPECT_TRUE(Await([&] { return numbers_.forwarded_points == points; }));
    Handle(2);
  }
  forwarder_->Stop(milliseconds(0));
  struct rusage after = {};
  getrusage(RUSAGE_SELF, &after);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 24 << 10);  // a sanitizer keeps what was freed
  EXPECT_EQ(numbers_.retried_points, replies.size());
  for (size_t i = 0; i < replies.size(); ++i) EXPECT_THAT(log()[i], HasSubstr(replies[i].told));
}

}  // namespace
}  // namespace tidegate::agent
