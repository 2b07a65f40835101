#pragma once

#include <memory>

namespace METRICS {

/// Entries that were taken out of a table: they die with it, so without the table's lock.
using TakenEntries = std::unique_ptr<void, void (*)(void*)>;

inline TakenEntries NoEntries() {
  return {nullptr, [](void*) {}};
}

}  // namespace METRICS
