// The facade: what its types refuse, what arrives, why handles do nothing, and what they do beyond
// a block, the end of their `Metrics`, and a fork.

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <deque>
#include <memory>
#include <optional>
#include <type_traits>

#include "stress/support/sanitized.h"
#include "support/agent_socket.h"
#include "support/environment.h"
#include "tidegate/metrics.h"
#include "util/metric_clock_util.h"
#include "util/wall_clock.h"

namespace tidegate {
namespace {

using namespace tidegate::test;
using std::chrono::microseconds;
using testing::AllOf;
using testing::HasSubstr;
using Code = ReturnCode;

// What compiles.
template <class H, class Value>
using Adding = decltype(std::declval<const H&>().Add(std::declval<Value>()));
template <class H, class Value>
using Setting = decltype(std::declval<const H&>().Set(std::declval<Value>()));
template <class H, class Value>
using Observing = decltype(std::declval<const H&>().Observe(std::declval<Value>()));
template <class H, class Value>
using Calling = decltype(std::declval<const H&>()(std::declval<Value>()));

template <template <class, class> class Call, class H, class Value, class = void>
constexpr bool kTakes = false;
template <template <class, class> class Call, class H, class Value>
constexpr bool kTakes<Call, H, Value, std::void_t<Call<H, Value>>> = true;
// How many of `Values` it takes.
template <template <class, class> class Call, class H, class... Values>
constexpr int kCount = (kTakes<Call, H, Values> + ...);

template <template <class, class> class Call, class H>
constexpr bool kTakesNumbers = kCount<Call, H, int, uint64_t, int8_t, float, double> == 5 &&
                               kCount<Call, H, bool, char, wchar_t, const char*, std::string,
                                      std::nullptr_t, microseconds, MetricsType> == 0;
template <template <class, class> class Call, class H>
constexpr bool kTakesTimes = kCount<Call, H, microseconds, std::chrono::duration<float>> == 2 &&
                             kCount<Call, H, int, double, bool, const char*> == 0;
template <template <class, class> class Call, class... Hs>
constexpr bool kTakesNothing = ((kCount<Call, Hs, int, double, microseconds> == 0) && ...);

static_assert(kTakesNumbers<Adding, Counter> && kTakesNumbers<Adding, BoundCounter>);
static_assert(kTakesNumbers<Adding, Rate> && kTakesNumbers<Adding, Meter>);
static_assert(kTakesNumbers<Adding, DeltaCounter> && kTakesNumbers<Calling, GaugeField>);
static_assert(kTakesNumbers<Setting, Gauge> && kTakesNumbers<Setting, BoundGauge>);
static_assert(kTakesNumbers<Observing, Histogram> && kTakesNumbers<Observing, BoundHistogram>);
static_assert(kTakesTimes<Observing, Timer> && kTakesTimes<Observing, BoundTimer>);
static_assert(kTakesTimes<Calling, TimerField>);
static_assert(kTakesNothing<Adding, Gauge, Timer, Histogram, Row, BoundGauge, BoundTimer>);
static_assert(kTakesNothing<Setting, Counter, Timer, Histogram, Row, BoundCounter>);
static_assert(kTakesNothing<Observing, Counter, Rate, Gauge, Row, BoundCounter, BoundGauge>);
static_assert(!std::is_constructible_v<FieldValue, METRICS::MetricFieldValue>);
static_assert(!std::is_copy_constructible_v<Metrics> && !std::is_move_constructible_v<Metrics>);

const GaugeField kSize("size");
const DeltaCounterField kHits("hits");
const TimerField kTook("took");

// The one flush of each process is its last: no boundary comes within a test.
void SleepToTheEnd(METRICS::ClockHooks::State& state) {
  while (state.load() == METRICS::MetricState::READY) METRICS::SleepMillis(1);
}
const METRICS::ClockHooks kNoBoundaries{
    ::time, []() noexcept { return ::time(nullptr) * int64_t{1000000}; },
    [](int64_t, METRICS::ClockHooks::State& state, int64_t&) {
      SleepToTheEnd(state);
      return false;
    },
    [](int64_t, METRICS::ClockHooks::State& state) { SleepToTheEnd(state); }};

class FacadeTest : public testing::Test {
 protected:
  FacadeTest() { METRICS::SetClockHooks(&kNoBoundaries); }
  ~FacadeTest() override { METRICS::SetClockHooks(nullptr); }

  Options ForShop() const {
    Options options;
    options.service = "shop";
    options.socket_path = agent_.path();
    return options;
  }
  // The last value of each total by name and tag values, added up over processes.
  std::map<std::string, double> Totals() {
    agent_.Stop();
    EXPECT_THAT(agent_.Errors(), testing::IsEmpty());
    std::map<std::string, double> totals;
    for (const ReceivedPacket& packet : agent_.Received()) {
      std::map<std::string, double> last;
      for (const Point& point : PointsOf({packet})) {
        std::string name = point.name;
        for (const agent::Tag& tag : point.tags) name += " " + std::string(tag.value);
        last[name] = std::max(last[name], point.values.at(0));
      }
      for (const auto& [name, value] : last) totals[name] += value;
    }
    return totals;
  }

  const TempDir folder_;
  AgentSocket agent_{folder_.File("s")};
};

TEST_F(FacadeTest, AShortLifeEndsAtTheNextBoundaryOfItsInterval) {
  constexpr int kLives = 30;
  for (int i = 0; i < kLives; ++i) Metrics(ForShop()).Gauge("load").Set(1);
  agent_.Stop();
  const std::vector<Point> points = agent_.Points();
  EXPECT_EQ(points.size(), kLives);
  for (const Point& point : points) EXPECT_LE(point.timestamp, std::time(nullptr) + 10);
}

TEST_F(FacadeTest, EachKindArrivesUnderTheNameOfItsMetric) {
  Options options = ForShop();
  options.prefix = "shop.web";
  options.tags = {{"host", "a"}};
  {
    Metrics metrics(options);
    ASSERT_TRUE(metrics) << metrics.Error();
    EXPECT_EQ(metrics.Error(), "");
    const std::string get = "get";
    const std::vector<MetricTag> list{{"method", "put"}, {"status", "200"}};
    const Counter requests = metrics.Counter("requests", {"status", "method"});
    EXPECT_EQ(requests.Add(2), Code::kOk);
    EXPECT_EQ(requests.Add(1.5, {{"method", get}, {"status", 200}}), Code::kOk);
    EXPECT_EQ(requests.Add(4u, list), Code::kOk);
    EXPECT_EQ(requests.With({{"method", get}, {"status", 200}}).Add(3), Code::kOk);
    EXPECT_EQ(requests.With(list).Add(1), Code::kOk);
    metrics.Rate("rate").Add(120);
    metrics.Meter("meter").Add(5);
    metrics.DeltaCounter("delta").Add(6);
    metrics.Gauge("queue.length").Set(7);
    MetricOptions estimated;
    estimated.estimate_percentiles = true;
    metrics.Timer("time", {}, estimated).With({}).Observe(microseconds(8));
    metrics.Histogram("sizes", {10, 20}).Observe(15);
    const Row row = metrics.Row("cache", {"shard"}, {kSize, kHits, kTook});
    EXPECT_EQ(row.Emit({kHits(9), kSize(1)}, {{"shard", 1}}), Code::kOk);
    EXPECT_EQ(row.With({{"shard", 1}}, kSize).Set(10), Code::kOk);
    EXPECT_EQ(row.With({{"shard", 1}}, kTook).Observe(microseconds(1)), Code::kOk);
    { const METRICS::ScopedTimer scope = metrics.Timer("scope").Start(); }
    EXPECT_THAT(metrics.DebugString(), HasSubstr("queue.length"));
  }
  std::map<std::string, double> totals = Totals();
  const std::pair<const char*, double> expected[] = {{"requests a - -", 2},
                                                     {"requests a get 200", 4.5},
                                                     {"requests a put 200", 5},
                                                     {"rate a", 12},
                                                     {"meter a", 5},
                                                     {"delta a", 6},
                                                     {"queue.length a", 7},
                                                     {"time.max a", 8},
                                                     {"sizes a", 1},
                                                     {"cache a 1", 10},
                                                     {"scope.counter a", 1}};
  for (const auto& [name, value] : expected) {
    EXPECT_EQ(totals[std::string("shop.web.") + name], value) << name;
  }
}

TEST_F(FacadeTest, OptionsThatAreNoGoodAreToldOnceAndHarmNobody) {
  const std::string long_path(108, 'p');
  const auto with = [this](auto change) {
    Options options = ForShop();
    change(options);
    return options;
  };
  const std::pair<Options, const char*> refused[] = {
      {with([](Options& o) { o.service = ""; }), "no name"},
      {with([](Options& o) { o.service = "a b"; }), "prefix [a b]"},
      {with([](Options& o) { o.prefix = "a{"; }), "prefix [a{]"},
      {with([](Options& o) { o.tenant = ""; }), "tenant []"},
      {with([](Options& o) { o.interval = std::chrono::seconds(7); }), "7 s"},
      {with([&](Options& o) { o.socket_path = long_path; }), "108 bytes"},
      {with([](Options& o) { o.socket_path = ""; }), "0 bytes"},
      {with([](Options& o) { o.max_series = 0; }), "max_series"},
      {with([](Options& o) {
         o.tags.assign(256, {"k", "v"});
       }),
       "255"},
      {with([](Options& o) {
         o.tags = {{"k", "{"}};
       }),
       "[k] = [{]"},
      {with([](Options& o) {
         o.tags = {{"k", "a"}, {"k", "b"}};
       }),
       "twice"},
  };
  for (const auto& [options, reason] : refused) {
    std::optional<Metrics> metrics;
    const std::string log = LogOf([&, &made = options] { metrics.emplace(made); });
    EXPECT_FALSE(*metrics);
    EXPECT_THAT(metrics->Error(), HasSubstr(reason));
    EXPECT_THAT(log, HasSubstr(metrics->Error()));
    const Counter counter = metrics->Counter("a");
    EXPECT_THAT(counter.Error(), HasSubstr(reason)) << "without a line of its own";
    EXPECT_EQ(counter.Add(1), Code::kNullptr);
    EXPECT_EQ(counter.With({}).Error(), counter.Error());
    EXPECT_EQ(metrics->Block(), Code::kObjectExit);
    EXPECT_FALSE(metrics->Init());
    EXPECT_EQ(CountOf("\n", log), 1u) << log;
  }
}

TEST_F(FacadeTest, AMetricThatCannotBeMadeSaysWhyOnceAndDoesNothing) {
  Options options = ForShop();
  options.tags = {{"host", "a"}};
  Metrics metrics(options);
  const Counter there = metrics.Counter("there", {"b", "a"});
  metrics.Histogram("bounds", {1, 2}, {"a"});
  metrics.Row("row", {}, {kSize, kHits});
  const auto counter = [&](const char* name, TagNames tags = {}, std::vector<MetricTag> own = {}) {
    return [&metrics, name, tags, own] { return metrics.Counter(name, tags, {own}); };
  };
  const auto check = [](auto make, auto emit, Code code, const char* reason) {
    std::optional<decltype(make())> handle;
    const std::string log = LogOf([&] { handle.emplace(make()); }, 3);
    EXPECT_FALSE(*handle) << reason;
    EXPECT_THAT(handle->Error(), HasSubstr(reason));
    EXPECT_THAT(log, AllOf(HasSubstr("Error"), HasSubstr(handle->Error())));
    EXPECT_EQ(CountOf("\n", log), 1u) << log;
    EXPECT_EQ(emit(*handle), code) << reason;
  };
  const auto add = [](const Counter& handle) { return handle.Add(1, {{"a", 1}}); };
  const auto add_bound = [](const Counter& handle) {
    const BoundCounter bound = handle.With({{"a", 1}});
    EXPECT_EQ(bound.Error(), handle.Error());
    EXPECT_EQ(bound.Add(1), Code::kNotSupported);
    return handle.Add(1);
  };
  check(counter(""), add, Code::kInvalidString, "the name: Invalid string. (53)");
  check(counter("a", {"a", "x y"}), add, Code::kInvalidString, "tag name [x y]");
  check(counter("a", {"host"}), add, Code::kTagConflict, "tag name [host]");
  check(counter("a", {"a", "a"}), add_bound, Code::kDuplicatedTagName, "Duplicated");
  check(counter("a", TagNames(256, "a")), add, Code::kMaxTagPair, "255");
  check(counter("a", {"a"}, {{"a", "1"}}), add, Code::kTagConflict, "tag [a]");
  check(counter("a", {}, {{"k", "{"}}), add, Code::kInvalidString, "tag [k]");
  check(counter("there", {"a"}), add, Code::kObjectExisted, "other tag names");
  check(counter("there", {"a", "b"}, {{"k", "v"}}), add, Code::kObjectExisted, "other options");
  check(
      [&] {
        return metrics.Gauge("there", {"b", "a"});
      },
      [](const Gauge& handle) { return handle.Set(1); }, Code::kObjectExisted, "another kind");
  const auto observe = [](const Histogram& handle) { return handle.Observe(1); };
  check(
      [&] {
        return metrics.Histogram("bounds", {1, 3}, {"a"});
      },
      observe, Code::kObjectExisted, "other bounds");
  check(
      [&] {
        return metrics.Histogram("a", {2, 1});
      },
      observe, Code::kMaxHistoBucket, "is not above");
  const auto emit = [](const Row& handle) { return handle.Emit({kSize(1)}); };
  check([&] { return metrics.Row("row", {}, {kSize}); }, emit, Code::kObjectExisted,
        "other fields");
  check([&] { return metrics.Row("a", {}, {}); }, emit, Code::kInvalidParamNumber, "fields");
  check([&] { return metrics.Row("a", {}, {GaugeField("x y")}); }, emit, Code::kInvalidString,
        "field [x y]");

  const Counter again = metrics.Counter("there", {"a", "b"});
  again.Add(1, {{"a", 1}});
  there.Add(1, {{"a", 1}});
  EXPECT_FALSE(Counter()) << Counter().Error();
  EXPECT_EQ(Counter().Add(1), Code::kNotSupported);
  EXPECT_EQ(BoundTimer().Observe(microseconds(1)), Code::kNotSupported);
  EXPECT_THAT(BoundTimer().Error() + Counter().With({}).Error(), HasSubstr("never given"));
  EXPECT_FALSE(there.With({{"x", 1}}));
  EXPECT_THAT(there.With({{"x", 1}}).Error(), HasSubstr("Unknown tag-name"));

  std::deque<Counter> fill;
  for (int i = 3; i < 1024; ++i) fill.push_back(metrics.Counter("n" + std::to_string(i)));
  EXPECT_TRUE(fill.back()) << fill.back().Error();
  check(counter("one.too.many"), add, Code::kMaxMetric, "1024");
  metrics.Stop();
  EXPECT_EQ(Totals()["shop.there 1 - a"], 2);
}

TEST_F(FacadeTest, HandlesTakeUpAgainAfterABlock) {
  Metrics metrics(ForShop());
  const Counter before = metrics.Counter("before");
  const BoundCounter bound = before.With({});
  EXPECT_EQ(bound.Add(100), Code::kOk);
  ASSERT_EQ(metrics.Block(), Code::kOk);
  const Counter made = metrics.Counter("made");
  const BoundCounter made_bound = made.With({});
  const BoundCounter late = before.With({});
  EXPECT_THAT(made.Error() + made_bound.Error() + late.Error(), HasSubstr("BLOCKED"));
  EXPECT_EQ(bound.Add(1), Code::kObjectBlocked);
  EXPECT_EQ(made.Add(1), Code::kObjectBlocked);
  ASSERT_EQ(metrics.UnBlock(), Code::kOk);
  for (const BoundCounter& handle : {bound, made_bound, late}) {
    EXPECT_EQ(handle.Add(2), Code::kOk) << handle.Error();
    EXPECT_EQ(handle.Error(), "");
  }
  EXPECT_EQ(before.Add(3), Code::kOk);
  EXPECT_EQ(made.Add(4), Code::kOk);
  metrics.Stop();
  EXPECT_EQ(before.Add(1), Code::kObjectExit);
  EXPECT_EQ(bound.Add(1), Code::kNotSupported);
  std::map<std::string, double> totals = Totals();
  EXPECT_EQ(totals["shop.before"], 7);
  EXPECT_EQ(totals["shop.made"], 6);
}

TEST_F(FacadeTest, SigpipeIsIgnoredUnlessTheServiceDecides) {
  const auto before = std::signal(SIGPIPE, SIG_DFL);
  Options options = ForShop();
  options.ignore_sigpipe = false;
  options.log_level = LogLevel::kWarn;
  const auto make = [&options] { Metrics metrics(options); };
  EXPECT_THAT(LogOf(make), HasSubstr("SIGPIPE ends service[shop]"));
  EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);
  options.ignore_sigpipe = true;
  EXPECT_EQ(CountOf("SIGPIPE", LogOf(make)), 0u);
  const auto own = +[](int) {};
  EXPECT_EQ(std::signal(SIGPIPE, own), SIG_IGN);
  make();
  EXPECT_EQ(std::signal(SIGPIPE, before), own);
}

// All forms of emission, on the metrics of one facade.
struct Forms {
  explicit Forms(Metrics& metrics)
      : counter(metrics.Counter("counter", {"w"})),
        bound(counter.With({{"w", "bound"}})),
        rate(metrics.Rate("rate", {"w"})),
        gauge(metrics.Gauge("gauge")),
        timer(metrics.Timer("timer", {"w"})),
        bound_timer(timer.With({})),
        histogram(metrics.Histogram("histogram", {1, 2, 3})),
        row(metrics.Row("row", {"w"}, {kSize, kHits, kTook})),
        bound_took(row.With({}, kTook)) {}

  // How much has been added to the counter, as far as was answered.
  int Emit(int turn) const {
    const std::string w = std::to_string(turn % 50);
    rate.Add(1, {{"w", turn}});
    gauge.Set(turn);
    timer.Observe(microseconds(turn), {{"w", w}});
    bound_timer.Observe(microseconds(turn));
    histogram.Observe(turn % 5);
    row.Emit({kHits(1), kTook(microseconds(1))}, {{"w", w}});
    bound_took.Observe(microseconds(turn));
    { const METRICS::ScopedTimer scope = timer.Start(); }
    { const METRICS::ScopedTimer scope = bound_timer.Start(); }
    const BoundCounter passing = counter.With({{"w", w}});
    return (counter.Add(1, {{"w", w}}) == Code::kOk) +
           (counter.Add(1, std::vector<MetricTag>{{"w", w}}) == Code::kOk) +
           (counter.Add(1) == Code::kOk) + (bound.Add(1) == Code::kOk) +
           (passing.Add(1) == Code::kOk);
  }

  Counter counter;
  BoundCounter bound;
  Rate rate;
  Gauge gauge;
  Timer timer;
  BoundTimer bound_timer;
  Histogram histogram;
  Row row;
  BoundTimer bound_took;
};

double CounterOf(const std::map<std::string, double>& totals) {
  double sum = 0;
  for (const auto& [name, total] : totals) sum += CountOf("shop.counter ", name) == 1 ? total : 0;
  return sum;
}

// What an emission has in its hands once it has read its slot.
struct Caught : Rate, BoundCounter {
  explicit Caught(const Forms& forms) : Rate(forms.rate), BoundCounter(forms.bound) {}
  METRICS::Metric& Metric() const { return *Rate::Get(); }
  METRICS::BoundSeries& Series() const { return BoundCounter::Series(); }
};

TEST_F(FacadeTest, EmissionsThatRaceWithTheEndAreHarmlessAndExact) {
  constexpr int kThreads = 4;
  static std::optional<Forms> beyond;  // as a static object of a service has it
  METRICS::Metric* caught = nullptr;
  METRICS::BoundSeries* caught_series = nullptr;
  std::atomic<int> added{0};
  {
    Metrics metrics(ForShop());
    beyond.emplace(metrics);
    caught = &Caught(*beyond).Metric();
    caught_series = &Caught(*beyond).Series();
    Workers workers;
    workers.Start(kThreads, [&](int) {
      for (int i = 0; i < 100; ++i) added += beyond->Emit(i);
    });
    std::this_thread::sleep_for(
        std::chrono::milliseconds(100));  // what is emitted meanwhile counts
    metrics.Stop();
    metrics.Stop();
    EXPECT_EQ(metrics.Counter("late").Add(1), Code::kObjectExit);
    EXPECT_EQ(beyond->Emit(1), 0);
    workers.Stop();
  }
  EXPECT_EQ(beyond->Emit(1), 0);
  EXPECT_EQ(caught->Emit({{"w", "1"}}, METRICS::Incr(1)), Code::kNotSupported);
  EXPECT_EQ(caught_series->Emit(1), Code::kObjectExit);
  EXPECT_FALSE(beyond->counter);
  EXPECT_FALSE(beyond->bound);
  EXPECT_THAT(beyond->counter.Error() + beyond->bound.Error(), HasSubstr("ended"));
  const Counter last = beyond->counter;
  const Forms& destroyed = *beyond;  // before a static object that emits on it in its destructor
  beyond.reset();
  EXPECT_EQ(destroyed.counter.Add(1), Code::kNotSupported);
  EXPECT_EQ(destroyed.bound.Add(1), Code::kNotSupported);
  EXPECT_EQ(last.Add(1, {{"w", "x"}}), Code::kObjectExit);
  EXPECT_GT(added, 0);
  // Each thread may have been in the middle of one emission.
  const double lost = added - CounterOf(Totals());
  EXPECT_TRUE(lost >= 0 && lost <= kThreads) << lost << " of " << added;
}

TEST_F(FacadeTest, EmissionsThatRaceWithBlocksFindTheirWayBack) {
  std::optional<Metrics> metrics(ForShop());
  const Forms forms(*metrics);
  Workers workers;
  std::atomic<int> turn{0};
  workers.Start(3, [&](int) { forms.Emit(turn++); });
  workers.Start(1, [&](int) {
    metrics->Counter("n" + std::to_string(turn % 1000), {"w"}).With({{"w", 1}}).Add(1);
    metrics->Block();
    metrics->UnBlock();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // many blocks
  workers.Stop();
  metrics->Block();
  metrics->UnBlock();
  EXPECT_EQ(forms.Emit(1), 5);
  metrics.reset();
  EXPECT_EQ(CounterOf(Totals()), 5);
}

// Forks children that `live`, and expects each to answer 0.
template <class Live>
void ForkChildren(int count, Live live) {
  std::signal(SIGCHLD, SIG_DFL);
  std::vector<pid_t> children;
  for (int i = 0; i < count; ++i) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(60);  // ends what hangs
      ::_exit(live(i));
    }
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = -1;
    EXPECT_TRUE(::waitpid(child, &status, 0) == child && status == 0) << status;
  }
}

TEST_F(FacadeTest, AForkedChildGoesOnWithTheHandlesOfItsParent) {
  if (stress::kSanitized) GTEST_SKIP() << "its runtime does not survive a fork with live threads";
  constexpr int kChildren = 12;
  auto metrics = std::make_unique<Metrics>(ForShop());
  auto forms = std::make_unique<Forms>(*metrics);
  // Whatever these are doing when it forks.
  std::atomic<int> added{0};
  Workers workers;
  workers.Start(2, [&](int) {
    for (int i = 0; i < 20; ++i) added += forms->Emit(i);
    metrics->Counter("n" + std::to_string(added % 1000));
  });
  ForkChildren(kChildren, [&](int number) {
    if (number % 4 == 3) {  // one that does not go on with it
      if (number % 8 == 3) forms.reset();
      metrics.reset();
      forms.reset();
      return 0;
    }
    metrics->AtFork();
    if (forms->Emit(1) != 0 || forms->bound || metrics->Counter("early")) return 1;
    if (!metrics->Init() || !*metrics || !metrics->Init()) return 2;
    const Counter own = metrics->Counter("own", {"child"});
    if (own.Add(number, {{"child", number}}) != Code::kOk) return 3;
    for (int turn = 0; turn < 10; ++turn) {
      if (forms->Emit(turn) != 5) return 4;
    }
    if (number % 4 == 2) {  // a generation further
      const pid_t grandchild = ::fork();
      if (grandchild == 0) {
        metrics->AtFork();
        ::_exit(metrics->Init() && forms->Emit(1) == 5 ? (metrics->Stop(), 0) : 5);
      }
      int status = -1;
      if (::waitpid(grandchild, &status, 0) != grandchild || status != 0) return 6;
    }
    metrics.reset();
    return forms->Emit(1) == 0 ? 0 : 7;
  });
  workers.Stop();
  EXPECT_EQ(forms->Emit(1), 5) << "the parent goes on";
  metrics.reset();
  const std::map<std::string, double> totals = Totals();
  for (int child = 0; child < kChildren; ++child) {
    if (child % 4 == 3) continue;
    EXPECT_EQ(totals.at("shop.own " + std::to_string(child)), child);
  }
  EXPECT_EQ(CounterOf(totals), added + 5 + 9 * 50 + 3 * 5);
}

}  // namespace
}  // namespace tidegate
