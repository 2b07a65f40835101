#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

namespace tidegate {

/// How much a line of the library's log matters.
enum class LogLevel : uint8_t {
  kDebug,
  kInfo,
  kWarn,
  kError,
  kSilent,  ///< no line has it; as the level of the log it hides them all
};

/// Hides the lines below `level`, in the whole process; `LogLevel::kInfo` at the start. The same
/// level as `METRICS::g_metricsLogLevel`, which counts in the order of `LogLevel`. From any thread,
/// at any time.
__attribute__((visibility("default"))) void SetLogLevel(LogLevel level) noexcept;
__attribute__((visibility("default"))) LogLevel GetLogLevel() noexcept;

/// Takes a line of the log: its level, never `kSilent`, and its text without the prefix that the
/// line has on standard output and without the line feed at its end. The text is good for the call.
using LogSink = void (*)(void* context, LogLevel level, std::string_view text);

/// Gives the lines of the log to `sink` instead of standard output, in the whole process; null is
/// standard output again.
///
/// A sink is called on the thread that wrote the line, the library's own threads included, so by
/// several at a time, and in the order in which the thread wrote its lines. No lock of the library
/// is held then: a sink may call the library. What was written under a lock comes when the lock is
/// free. The lines of the end of a client, and of its `Init`, come when these are done; and with
/// the lines of an end, on its thread, those that threads of the library wrote meanwhile. A sink
/// must not end a client, or remove the metric that the caller uses. The lines that it causes go to
/// standard output, so that it does not call itself.
///
/// A sink that blocks holds up its caller, an emission or a flush among them. It should not throw:
/// the exception ends there, and the line goes to standard output. So does a line for which there
/// is no memory, or no more than a mebibyte of lines waits for a lock to be free.
///
/// When this returns, the sink from before runs on no other thread, and its context may go; so the
/// caller must hold nothing that it waits for. Called by a sink, it does not wait for that call. A
/// sink that is set at the end of the process is called for lines of static destructors: one whose
/// context may be gone then is replaced before. In the child of a `fork` it is still set.
///
/// From any thread. Without memory `std::bad_alloc`, and nothing has changed.
__attribute__((visibility("default"))) void SetLogSink(
    std::function<void(LogLevel level, std::string_view text)> sink);
/// The same for a function and the pointer that it is called with.
__attribute__((visibility("default"))) void SetLogSink(LogSink sink, void* context);

}  // namespace tidegate
