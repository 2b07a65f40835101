#include "util/log_sink.h"

#include <atomic>
#include <cassert>
#include <functional>
#include <utility>

#include "util/held_locks.h"
#include "util/metric_log_level.h"
#include "util/process_count.h"
#include "util/wait.h"

namespace METRICS {
namespace {

using tidegate::LogLevel;
using Function = std::function<void(LogLevel, std::string_view)>;

/// A sink that is set, or was and may be used again. Never freed: a thread that has read
/// `current_sink` may come late to count itself.
struct SinkRecord {
  Function call;
  ProcessCount callers;
  std::atomic<bool> taken{true};
  SinkRecord* next = nullptr;
};

std::atomic<SinkRecord*> current_sink{nullptr};
std::atomic<SinkRecord*> all_sinks{nullptr};

// The sink that this thread is in, and whether it was replaced by that call.
__thread SinkRecord* running_sink = nullptr;
__thread bool running_is_replaced = false;

SinkRecord& TakeRecord() {
  for (SinkRecord* record = all_sinks.load(); record != nullptr; record = record->next) {
    if (!record->taken.exchange(true)) {
      return *record;
    }
  }
  auto* const made = new SinkRecord();
  made->next = all_sinks.load();
  while (!all_sinks.compare_exchange_weak(made->next, made)) {
  }
  return *made;
}

/// Gives a record back that nobody finds any more, when nobody is in it.
void Release(SinkRecord& record) {
  WaitUntil([&record] { return record.callers.Get() == 0; });
  record.call = nullptr;
  record.taken.store(false);
}

void SetSink(Function&& sink) {
  SinkRecord* fresh = nullptr;
  if (sink != nullptr) {
    fresh = &TakeRecord();
    fresh->call = std::move(sink);
  }
  SinkRecord* const old = current_sink.exchange(fresh);
  if (old == nullptr) {
    return;
  }
  if (old == running_sink) {
    running_is_replaced = true;
  } else {
    Release(*old);
  }
}

/// False when `record` is no longer the sink; else calls it, and says in `taken` whether it took
/// the line.
bool CallIfCurrent(SinkRecord& record, LogLevel level, std::string_view text, bool& taken) {
  const ProcessCount::Stay stay(record.callers);
  if (current_sink.load() != &record) {  // read again after the count, as `Release` does before
    return false;
  }
  running_sink = &record;
  try {
    record.call(level, text);
    taken = true;
  } catch (...) {
    taken = false;
  }
  running_sink = nullptr;
  return true;
}

}  // namespace

bool HasLogSink() noexcept { return current_sink.load(std::memory_order_relaxed) != nullptr; }

bool InLogSink() noexcept { return running_sink != nullptr; }

bool CallLogSink(LogLevel level, std::string_view text) noexcept {
  assert(HeldLocks() == 0);
  if (InLogSink()) {
    return false;
  }
  const NoCancellation no_cancellation;
  bool taken = false;
  SinkRecord* record = nullptr;
  do {
    record = current_sink.load();
  } while (record != nullptr && !CallIfCurrent(*record, level, text, taken));
  if (std::exchange(running_is_replaced, false)) {
    Release(*record);
  }
  return taken;
}

}  // namespace METRICS

namespace tidegate {

void SetLogLevel(LogLevel level) noexcept {
  METRICS::g_metricsLogLevel.store(static_cast<uint8_t>(level), std::memory_order_relaxed);
}

LogLevel GetLogLevel() noexcept {
  const uint8_t level = METRICS::g_metricsLogLevel.load(std::memory_order_relaxed);
  return level < static_cast<uint8_t>(LogLevel::kSilent) ? static_cast<LogLevel>(level)
                                                         : LogLevel::kSilent;
}

void SetLogSink(std::function<void(LogLevel level, std::string_view text)> sink) {
  METRICS::SetSink(std::move(sink));
}

void SetLogSink(LogSink sink, void* context) {
  METRICS::SetSink(sink == nullptr ? METRICS::Function()
                                   : [sink, context](LogLevel level, std::string_view text) {
                                       sink(context, level, text);
                                     });
}

}  // namespace tidegate
