#include "metrics/registry_parts.h"

#include "metrics/registry_table.h"

namespace METRICS {

RegistryParts::RegistryParts(const std::string& tenant, const std::string& prefix,
                             ClientParts* client, int flush_interval)
    : tenant_(tenant),
      prefix_(prefix),
      client_(client),
      flush_interval_(flush_interval),
      table_(std::make_unique<RegistryTable>()) {}

RegistryParts::~RegistryParts() = default;

std::vector<tidegate::MetricTag> RegistryParts::InsertedTags() const {
  const ReadGuard guard(table_->rwlock_);
  return table_->tags_;
}

const std::vector<tidegate::MetricTag>& RegistryParts::InsertedTagsLocked() const
    METRICS_NO_THREAD_SAFETY {
  return table_->tags_;
}

}  // namespace METRICS
