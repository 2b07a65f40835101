#include "metrics/in_flight_table.h"

#include <unistd.h>

#include <functional>
#include <memory>
#include <utility>

#include "util/fork_guard.h"

namespace METRICS {

void InFlightCount::Delete() { delete this; }

void InFlightCount::Forget() {
  forks_.fetch_add(1);
  members_.store(members_.load() / kOwner * kOwner + kOwner);
}

InFlightTable::InFlightTable() : process_(::getpid()) {}

template <class Action>
void InFlightTable::ForEach(Action action) const {
  for (const std::atomic<Entry*>& newest : newest_) {
    for (Entry* entry = newest.load(); entry != nullptr;) {
      action(*std::exchange(entry, entry->older));
    }
  }
}

InFlightTable::~InFlightTable() {
  ForEach([](Entry& entry) {
    entry.count->Drop();
    delete &entry;
  });
}

InFlightCount& InFlightTable::Find(const std::string& key, const tidegate::BoundGauge& gauge) {
  const WriteGuard guard(mutex_);
  std::atomic<Entry*>& newest = newest_[std::hash<std::string>()(key) % kChains];
  for (const Entry* entry = newest.load(); entry != nullptr; entry = entry->older) {
    if (entry->key == key) {
      return *entry->count;
    }
  }
  auto count = std::make_unique<InFlightCount>();
  newest.store(new Entry{key, gauge, count.get(), newest.load()});
  return *count.release();
}

void InFlightTable::Report() const {
  ForEach([](const Entry& entry) { entry.gauge.Set(entry.count->Now()); });
}

void InFlightTable::AtFork() {
  if (std::exchange(process_, ::getpid()) == ::getpid()) {
    return;
  }
  RepairGuarded(mutex_);
  ForEach([](const Entry& entry) { entry.count->Forget(); });
}

}  // namespace METRICS
