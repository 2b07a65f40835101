#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <ostream>
#include <system_error>
#include <thread>
#include <utility>

#include "agent/packet_reader.h"
#include "testing/listening_agent.h"
#include "testing/points.h"
#include "testing/temp_dir.h"
#include "testing/test_clock.h"
#include "tidegate/testing.h"

namespace tidegate::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Between two tries of a wait.
constexpr milliseconds kFirstNap{1};
constexpr milliseconds kLongestNap{100};

void IgnoreSigpipe() {
  struct sigaction action {};
  if (::sigaction(SIGPIPE, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
    action.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &action, nullptr);
  }
}

}  // namespace

// The messages that have arrived. They are decoded when somebody asks: the thread that receives
// must not hold up the senders, which wait for 0.1 s only.
class Receiver::Inbox {
 public:
  Inbox()
      : agent_(folder_.File("s"), [this](const char* bytes, size_t size) {
          const std::lock_guard guard(mutex_);
          messages_.emplace_back(bytes, size);
          return true;
        }) {}

  const std::string& Path() const { return agent_.path(); }
  bool InThisProcess() const { return process_ == ::getpid(); }

  void CatchUp() { agent_.CatchUp(); }

  // Calls `use` with the points.
  template <class Use>
  auto With(Use use) {
    agent_.CatchUp();
    const std::lock_guard guard(mutex_);
    Decode();
    return use(points_);
  }
  std::vector<std::string> Errors() {
    return With([this](const auto& /*points*/) { return errors_; });
  }
  void Clear() {
    With([this](std::vector<Point>& points) {
      points.clear();
      errors_.clear();
    });
  }

 private:
  void Decode() {
    for (const std::string& message : messages_) {
      agent::ReadError error;
      const agent::Packet* const packet = reader_.Read(message.data(), message.size(), &error);
      if (packet != nullptr) {
        test::AppendPoints(*packet, points_);
      } else {
        errors_.push_back(std::to_string(message.size()) + " bytes, offset " +
                          std::to_string(error.offset) + ": " + error.reason);
      }
    }
    messages_.clear();
  }

  const pid_t process_ = ::getpid();
  const test::TempDir folder_;
  const test::TestClock clock_;
  std::mutex mutex_;  // for all below but the agent
  std::vector<std::string> messages_;
  agent::PacketReader reader_;
  std::vector<Point> points_;
  std::vector<std::string> errors_;
  test::ListeningAgent agent_;  // ends first
};

Receiver::Receiver() : inbox_((IgnoreSigpipe(), std::make_unique<Inbox>())) {}

Receiver::~Receiver() {
  if (inbox_->InThisProcess()) return;
  static_cast<void>(inbox_.release());  // all that it has is the parent's
}

Receiver::Inbox& Receiver::Mine(const char* call) const {
  if (!inbox_->InThisProcess()) {
    throw std::system_error(
        std::make_error_code(std::errc::operation_not_permitted),
        std::string("Receiver::") + call + " in a forked child; ask in the process that made it");
  }
  return *inbox_;
}

tidegate::Options Receiver::Options(std::string service) const {
  tidegate::Options options;
  options.service = std::move(service);
  options.socket_path = SocketPath();
  return options;
}

const std::string& Receiver::SocketPath() const { return inbox_->Path(); }

void Receiver::FlushNow() {
  Inbox& inbox = Mine("FlushNow");
  test::TestClock::Flush();
  inbox.CatchUp();
}

void Receiver::Advance(std::chrono::seconds time) {
  Inbox& inbox = Mine("Advance");
  test::TestClock::Advance(time);
  inbox.CatchUp();
}

std::chrono::system_clock::time_point Receiver::Now() const {
  static_cast<void>(Mine("Now"));
  return std::chrono::system_clock::time_point(
      std::chrono::microseconds(test::TestClock::Micros()));
}

std::vector<Point> Receiver::Points() const {
  return Mine("Points").With([](const auto& points) { return points; });
}

std::vector<double> Receiver::Values(std::string_view name, const Tags& tags,
                                     std::string_view field) const {
  return Mine("Values").With(
      [&](const auto& points) { return test::ValuesOf(points, name, tags, field); });
}

std::optional<double> Receiver::Value(std::string_view name, const Tags& tags,
                                      std::string_view field) const {
  return Mine("Value").With(
      [&](const auto& points) { return test::ValueOf(points, name, tags, field); });
}

std::optional<double> Receiver::WaitFor(std::string_view name, const Tags& tags,
                                        milliseconds patience) {
  std::optional<double> value;
  WaitUntil(
      [&] {
        value = Value(name, tags);
        return value.has_value();
      },
      patience);
  return value;
}

bool Receiver::WaitFor(std::string_view name, const Tags& tags, double value,
                       milliseconds patience) {
  return WaitFor(name, tags, {}, value, patience);
}

bool Receiver::WaitFor(std::string_view name, const Tags& tags, std::string_view field,
                       double value, milliseconds patience) {
  return WaitUntil([&] { return Value(name, tags, field) == value; }, patience);
}

bool Receiver::WaitUntil(const std::function<bool()>& done, milliseconds patience) {
  const auto end = steady_clock::now() + patience;
  for (milliseconds nap = kFirstNap;; nap = std::min(2 * nap, kLongestNap)) {
    if (done()) return true;
    FlushNow();
    if (done()) return true;
    if (steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(nap);
  }
}

void Receiver::Clear() { Mine("Clear").Clear(); }

std::vector<std::string> Receiver::Errors() const { return Mine("Errors").Errors(); }

std::ostream& operator<<(std::ostream& out, const Receiver& receiver) {
  const std::vector<Point> points = receiver.Points();
  out << points.size() << (points.size() == 1 ? " point" : " points");
  for (const Point& point : points) out << "\n  " << point;
  for (const std::string& error : receiver.Errors()) out << "\n  no packet: " << error;
  return out;
}

}  // namespace tidegate::testing
