#pragma once

#include <string>
#include <vector>

#include "tidegate/metric_tag.h"

namespace METRICS {

/// Whether key and value of `tag` are legal and not empty.
bool IsValidTag(const tidegate::MetricTag& tag);

/// The keys of `tags`, in their order.
std::vector<std::string> KeysOf(const std::vector<tidegate::MetricTag>& tags);

/// True when `key` is the key of no tag in `tags`, so that it may be added to them.
bool CheckWithInsertedTags(const std::string& key, const std::vector<tidegate::MetricTag>& tags);

/// Whether `a` and `b` hold the same keys in any order. A key that `a` repeats counts once.
bool IsTagKeySame(const std::vector<std::string>& a, const std::vector<std::string>& b);

/// Whether `a` and `b` hold the same tags in any order. A tag of `b` with an empty value also
/// matches where `a` lacks its key.
bool IsTagSame(const std::vector<tidegate::MetricTag>& a,
               const std::vector<tidegate::MetricTag>& b);

/// Whether the key of `a` equals the value of `b`.
bool MTagKeyEq(const tidegate::MetricTag& a, const tidegate::MetricTag& b);

}  // namespace METRICS
