#include "metrics/in_flight_table.h"

#include <unistd.h>

#include <utility>

#include "util/fork_guard.h"

namespace METRICS {

void InFlightCount::Delete() { delete this; }

void InFlightCount::Forget() {
  forks_.fetch_add(1);
  members_.store(members_.load() / kOwner * kOwner + kOwner);
}

InFlightTable::InFlightTable() : process_(::getpid()) {}

InFlightTable::~InFlightTable() {
  for (InFlightCount* count = newest_.load(); count != nullptr;) {
    std::exchange(count, count->older)->Drop();
  }
}

InFlightCount& InFlightTable::Find(const std::string& key) {
  const WriteGuard guard(mutex_);
  InFlightCount* const newest = newest_.load();
  for (InFlightCount* count = newest; count != nullptr; count = count->older) {
    if (count->key == key) {
      return *count;
    }
  }
  auto* const made = new InFlightCount(key);
  made->older = newest;
  newest_.store(made);
  return *made;
}

void InFlightTable::AtFork() {
  if (std::exchange(process_, ::getpid()) == ::getpid()) {
    return;
  }
  RepairGuarded(mutex_);
  for (InFlightCount* count = newest_.load(); count != nullptr; count = count->older) {
    count->Forget();
  }
}

}  // namespace METRICS
