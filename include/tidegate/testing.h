#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tidegate/metric_tag.h"
#include "tidegate/options.h"
#include "tidegate/tag_view.h"

/// For the tests of a service: what it reports, without an agent and without waiting. To be linked
/// with `tidegate::metrics-testing`.
namespace tidegate::testing {

/// Tags in a question, as `{{"method", "get"}, {"status", 200}}`. A plain value.
class Tags {
 public:
  Tags() = default;
  /// As in an emission: texts or numbers.
  Tags(std::initializer_list<TagView> tags) {
    for (const TagView& tag : tags) {
      list_.emplace_back(std::string(tag.Key()), std::string(tag.Value()));
    }
  }
  /// From a list.
  Tags(std::vector<MetricTag> tags) : list_(std::move(tags)) {}

  /// As they were given.
  const std::vector<MetricTag>& List() const { return list_; }

 private:
  std::vector<MetricTag> list_;
};

/// What arrived for one series and one boundary. A plain value.
struct Point {
  std::string tenant;           ///< owner of the data
  std::string name;             ///< in full, as "shop.requests"
  std::vector<MetricTag> tags;  ///< sorted by key, those of registry and machine included
  /// "gauge", "rate", "counter", "meter", "timer", "histogram", "row" or "delta_counter". The
  /// numbers of a timer arrive as gauges that are named after it, as "shop.latency.avg", unless
  /// `METRICS::Metric::SetMultiFieldSummary` makes one point of them.
  std::string kind;
  /// The name of each value; a single number has the empty one. The buckets of a histogram are
  /// named by the bounds that they begin at, as "0.5", beside "sum" and "count".
  std::vector<std::string> fields;
  std::vector<double> values;  ///< as many as `fields`
  int64_t time = 0;            ///< the boundary, in seconds since the epoch on the test's clock
};

/// As "shop.requests{method=get} counter 3".
std::ostream& operator<<(std::ostream& out, const Point& point);

/// Takes what the clients of this process report, in the place of an agent:
///
///     tidegate::testing::Receiver receiver;
///     Shop shop(receiver.Options("shop"));
///     shop.Serve("get");
///     receiver.FlushNow();
///     EXPECT_EQ(receiver.Value("shop.requests", {{"method", "get"}}), 1);
///
/// It listens on a socket in a temporary folder, and goes on as long as it lives. Several at a time
/// and one after the other do not see each other's points.
///
/// **The clock.** While there is a receiver, the wall clock of the library stands still in this
/// process, and moves only when told to: by any receiver, for all clients of the process. It begins
/// with the system's time. With the last receiver the system's clock is back, also for clients that
/// live longer. Times that are measured (`ScopedTimer`) and the clocks of the service are not
/// touched.
///
/// Threads: all operations from any thread. In a forked child only `Options` and `SocketPath` work;
/// its clients have the system's clock, and reach the receiver of the parent by their last flush.
/// Errors: a call that cannot do its work throws, with a text that says why. SIGPIPE is ignored
/// from the first receiver on, unless the process has its own way with it.
class Receiver {
 public:
  /// How long the waiting operations wait.
  static constexpr std::chrono::milliseconds kPatience{10000};

  /// Listens. Throws `std::system_error` where there is no folder, socket or thread to be had.
  Receiver();
  /// Removes its folder. Clients that live longer find nobody, and send nothing.
  ~Receiver();
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  /// Options of a `tidegate::Metrics` that reports here; all else has its default.
  tidegate::Options Options(std::string service) const;
  /// For other clients: what their vendor has to answer.
  const std::string& SocketPath() const;

  /// Flushes all clients of the process once, and returns when what they sent here is there.
  /// Samplers, self monitoring and expiry do their part before. It moves the clock to the next full
  /// minute, which is a boundary of every interval, so that all metrics are due. Takes some
  /// hundred microseconds. Throws `std::system_error` if a thread of the library does not come to
  /// rest within 30 s, because a call into the service does not return, for example.
  void FlushNow();
  /// Moves the clock by `time`, with a flush at each boundary on the way, and expiry and self
  /// monitoring at its end. Hours take less than a second. Throws `std::invalid_argument` if `time`
  /// is negative or more than ten years, and as `FlushNow`.
  void Advance(std::chrono::seconds time);
  /// The time on the test's clock.
  std::chrono::system_clock::time_point Now() const;

  /// All points that have arrived, in the order in which they did. Like all questions it includes
  /// what was sent before the call, and what a client has sent at its end.
  std::vector<Point> Points() const;
  /// The numbers that have arrived for `field` of `name`, by their boundaries, of all series that
  /// have at least `tags`. A total begins with the 0 of the boundary before. A single number has
  /// the empty field. A timer has "min", "max", "avg", "sum", "counter" and "pct50" to "pct999", a
  /// meter "rate", a delta counter "rate" and "delta" beside its total, and a histogram what
  /// `Point::fields` says.
  std::vector<double> Values(std::string_view name, const Tags& tags = {},
                             std::string_view field = {}) const;
  /// The newest of them; none if nothing has arrived. Throws `std::invalid_argument` if several
  /// series have `tags`, and none has them alone, or if there are points, but not with `field`.
  std::optional<double> Value(std::string_view name, const Tags& tags = {},
                              std::string_view field = {}) const;

  /// For what other threads emit: calls `FlushNow` again and again until there is a value, and
  /// returns it, or none after `patience`. Each time moves the clock by a minute.
  std::optional<double> WaitFor(std::string_view name, const Tags& tags = {},
                                std::chrono::milliseconds patience = kPatience);
  /// The same until the newest value is `value`; false if it was not within `patience`.
  bool WaitFor(std::string_view name, const Tags& tags, double value,
               std::chrono::milliseconds patience = kPatience);
  /// The same for a field.
  bool WaitFor(std::string_view name, const Tags& tags, std::string_view field, double value,
               std::chrono::milliseconds patience = kPatience);
  /// The same until `done()` is true.
  bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds patience = kPatience);

  /// Forgets what has arrived.
  void Clear();

  /// How messages were no packets, in the order of arrival; empty as a rule.
  std::vector<std::string> Errors() const;

 private:
  class Inbox;

  Inbox& Mine(const char* call) const;

  std::unique_ptr<Inbox> inbox_;  // constant, but for its end
};

/// The list of all points, for the message of a test that fails.
std::ostream& operator<<(std::ostream& out, const Receiver& receiver);

}  // namespace tidegate::testing
