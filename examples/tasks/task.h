#pragma once

#include "tidegate/metrics.h"

/// One of the six tasks of docs/comparison.md.
void RunTask(tidegate::Metrics& metrics);
