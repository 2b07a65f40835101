#pragma once

#include <string>

#include "tidegate/options.h"

namespace METRICS {

/// Why a client cannot be made of `options`, in English; empty if it can.
std::string ReasonAgainst(const tidegate::Options& options);

}  // namespace METRICS
