#pragma once

#include <string_view>

#include "tidegate/log.h"

namespace METRICS {

/// Whether lines go to a sink, and not to standard output.
bool HasLogSink() noexcept;

/// Gives a line to the sink. False when it has to go to standard output: there is no sink, it
/// threw, or this thread is in it already. REQUIRES: no lock of the library is held.
bool CallLogSink(tidegate::LogLevel level, std::string_view text) noexcept;

/// Whether this thread is in the sink.
bool InLogSink() noexcept;

}  // namespace METRICS
