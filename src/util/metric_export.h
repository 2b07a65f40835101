#pragma once

/// Marks what `libtidegate_metrics.so` exports; everything else has hidden visibility.
#define METRICS_API __attribute__((visibility("default")))
