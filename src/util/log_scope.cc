#include "util/log_scope.h"

#include <atomic>
#include <cassert>
#include <cstdio>
#include <new>
#include <string_view>
#include <utility>

#include "util/log_sink.h"
#include "util/wait.h"

namespace METRICS {
namespace {

// What waits is bounded: a sender over TCP can write lines without end while it is being stopped.
constexpr size_t kMaxWaitingBytes = 1UL << 20;

__thread bool is_library_thread = false;

ProcessCount library_threads_in_sink;
ProcessCount ends_of_threads;

// What threads of the library have written during ends of threads, the newest line first.
std::atomic<WaitingLine*> late_lines{nullptr};
std::atomic<size_t> late_bytes{0};

/// Null without memory.
WaitingLine* MakeLine(tidegate::LogLevel level, size_t prefix_bytes, const char* format,
                      std::va_list args) {
  std::va_list counted;
  va_copy(counted, args);
  const int count = std::vsnprintf(nullptr, 0, format, counted);
  va_end(counted);
  if (count < 0) {
    return nullptr;
  }
  const auto bytes = static_cast<size_t>(count);
  void* const memory = ::operator new(sizeof(WaitingLine) + bytes + 1, std::nothrow);
  if (memory == nullptr) {
    return nullptr;
  }
  auto* const line = new (memory) WaitingLine{nullptr, level, prefix_bytes, bytes};
  std::vsnprintf(line->Text(), bytes + 1, format, args);
  return line;
}

void Print(WaitingLine& line) { std::fwrite(line.Text(), 1, line.bytes, stdout); }

/// Frees it, too.
void GiveToSink(WaitingLine* line) {
  std::string_view text(line->Text(), line->bytes);
  text.remove_prefix(line->prefix_bytes);
  if (!text.empty() && text.back() == '\n') {
    text.remove_suffix(1);
  }
  if (!CallLogSink(line->level, text)) {
    Print(*line);
  }
  ::operator delete(line);
}

/// Leaves a line to the thread that ends this one.
void LeaveLate(WaitingLine* line) {
  if (late_bytes.fetch_add(line->bytes) > kMaxWaitingBytes) {
    late_bytes.fetch_sub(line->bytes);
    Print(*line);
    ::operator delete(line);
    return;
  }
  line->next = late_lines.load();
  while (!late_lines.compare_exchange_weak(line->next, line)) {
  }
}

/// What was left, the oldest line first.
WaitingLine* TakeLate() {
  WaitingLine* newest = late_lines.exchange(nullptr);
  WaitingLine* oldest = nullptr;
  while (newest != nullptr) {
    late_bytes.fetch_sub(newest->bytes);
    WaitingLine* const next = std::exchange(newest->next, oldest);
    oldest = std::exchange(newest, next);
  }
  return oldest;
}

void DeliverOnLibraryThread(WaitingLine* line) {
  const ProcessCount::Stay stay(library_threads_in_sink);
  if (ends_of_threads.Get() == 0) {  // read after the count, as the other way round at an end
    GiveToSink(line);
    return;
  }
  LeaveLate(line);
  if (ends_of_threads.Get() == 0) {  // nobody may come for it any more
    for (line = TakeLate(); line != nullptr;) {
      GiveToSink(std::exchange(line, line->next));
    }
  }
}

}  // namespace

__thread LogScope* LogScope::outermost_ = nullptr;

void WaitingLines::Append(WaitingLine* line) {
  line->next = nullptr;
  (first == nullptr ? first : last->next) = line;
  last = line;
  bytes += line->bytes;
}

void LogScope::Deliver(WaitingLine* first) noexcept {
  const NoCancellation no_cancellation;
  while (first != nullptr) {
    WaitingLine* const line = std::exchange(first, first->next);
    if (is_library_thread) {
      DeliverOnLibraryThread(line);
    } else {
      GiveToSink(line);
    }
  }
}

ThreadsEndLogScope::ThreadsEndLogScope() {
  end_.emplace(ends_of_threads);
  if (!InLogSink()) {  // else other calls of the sink may wait for this one
    WaitUntil([] { return library_threads_in_sink.Get() == 0; });
  }
}

ThreadsEndLogScope::~ThreadsEndLogScope() {
  end_.reset();
  for (WaitingLine* line = TakeLate(); line != nullptr;) {
    Lines().Append(std::exchange(line, line->next));
  }
}

void MarkLibraryThread() { is_library_thread = true; }

void WriteLine(tidegate::LogLevel level, size_t prefix_bytes, const char* format,
               std::va_list args) noexcept {
  const NoCancellation no_cancellation;
  const LogScope scope;
  WaitingLines& waiting = LogScope::Lines();
  const bool to_sink = !InLogSink() && (HasLogSink() || waiting.first != nullptr);
  std::va_list printed;
  va_copy(printed, args);
  WaitingLine* const line = to_sink && waiting.bytes < kMaxWaitingBytes
                                ? MakeLine(level, prefix_bytes, format, args)
                                : nullptr;
  if (line != nullptr) {
    waiting.Append(line);
  } else {
    std::vprintf(format, printed);
  }
  va_end(printed);
}

}  // namespace METRICS
