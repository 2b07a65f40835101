#include "metrics/global_resources_limit.h"

#include <atomic>

namespace METRICS {
namespace {

std::atomic<bool> g_limit_set{false};

}  // namespace

GlobalResourcesLimit g_global_resources_limit;

void SetGlobalResourcesLimit(const GlobalResourcesLimit& limit) {
  if (!g_limit_set.exchange(true)) {
    // The record is plain for its users; the one word in it is stored whole.
    __atomic_store_n(&g_global_resources_limit.max_metrics_per_registry,
                     limit.max_metrics_per_registry, __ATOMIC_RELAXED);
  }
}

const GlobalResourcesLimit& GetGlobalResourcesLimit() { return g_global_resources_limit; }

}  // namespace METRICS
