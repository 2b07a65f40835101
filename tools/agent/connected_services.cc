#include "agent/connected_services.h"

#include <algorithm>
#include <string_view>
#include <tuple>
#include <utility>

#include "agent/point_mapping.h"

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;

constexpr int64_t kMaxInterval = 60;  // the longest that a service can have
constexpr std::chrono::seconds kSlack(5);

std::string Cut(std::string_view text) {
  return std::string(text.substr(0, ConnectedServices::kMaxTextBytes));
}

constexpr size_t kMaxNames = 1000;  // that are looked at for what they have in common

// Shortens `prefix` to the parts that the name begins with as well, unless there are none.
void KeepCommon(std::string_view name, std::string* prefix) {
  size_t end = 0;  // of the last part in common
  for (size_t i = 0; i <= prefix->size() && i <= name.size(); ++i) {
    const bool prefix_ends = i == prefix->size() || (*prefix)[i] == '.';
    const bool name_ends = i == name.size() || name[i] == '.';
    if (prefix_ends && name_ends) end = i;
    if (prefix_ends != name_ends ||
        (i < name.size() && i < prefix->size() && name[i] != (*prefix)[i])) {
      break;
    }
  }
  if (end > 0) prefix->resize(end);
}

// Without its last part.
std::string_view BaseOf(std::string_view name) { return name.substr(0, name.rfind('.')); }

}  // namespace

void ConnectedServices::Handle(const Packet& packet, const ClientId& client) {
  const WriteGuard lock(mutex_);
  Entry* const entry = EntryOf(packet, client);
  if (entry == nullptr) return;
  Service& service = entry->service;
  service.slot = client.slot;
  service.last_packet_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count();
  entry->last_packet = Clock::now();
  for (const Block& block : packet.blocks) {
    if (entry->names < kMaxNames) {
      ++entry->names;
      if (service.name.empty()) service.name = Cut(BaseOf(block.name));
      KeepCommon(block.name, &service.name);
    }
    if (block.timestamp > entry->newest) {
      const auto step =
          static_cast<uint64_t>(block.timestamp) - static_cast<uint64_t>(entry->newest);
      service.interval = static_cast<int64_t>(std::min<uint64_t>(step, kMaxInterval));
      const bool first = entry->newest == INT64_MIN;
      if (first) service.interval = 0;
      service.points_per_second =
          first ? 0 : static_cast<double>(entry->points) / static_cast<double>(service.interval);
      entry->newest = block.timestamp;
      entry->points = 0;
    }
    entry->points += block.series.size();
  }
}

ConnectedServices::Entry* ConnectedServices::EntryOf(const Packet& packet, const ClientId& client) {
  const std::string tenant = Cut(packet.tenant);
  const std::string account = Cut(HeaderValue(packet, kHeaderKeys[0]));
  const std::string project = Cut(HeaderValue(packet, kHeaderKeys[1]));
  const auto found = processes_.find(client.process());
  if (found != processes_.end()) {
    for (Entry& entry : found->second) {
      const Service& service = entry.service;
      if (service.tenant == tenant && service.account_id == account &&
          service.project_id == project) {
        return &entry;
      }
    }
  }
  if (count_ >= kMost) return nullptr;
  Entry entry;
  entry.service.tenant = tenant;
  entry.service.account_id = account;
  entry.service.project_id = project;
  entry.service.pid = client.pid;
  Entries& entries = found != processes_.end() ? found->second : processes_[client.process()];
  entries.push_back(std::move(entry));
  ++count_;
  return &entries.back();
}

void ConnectedServices::Sweep() {
  const WriteGuard lock(mutex_);
  for (auto next = processes_.begin(); next != processes_.end();) {
    if (is_live_(next->first)) {
      ++next;
      continue;
    }
    count_ -= next->second.size();
    next = processes_.erase(next);
  }
}

std::vector<ConnectedServices::Service> ConnectedServices::All() const {
  std::vector<Service> all;
  const Clock::time_point now = Clock::now();
  {
    const WriteGuard lock(mutex_);
    all.reserve(count_);
    for (const auto& [process, entries] : processes_) {
      for (const Entry& entry : entries) {
        all.push_back(entry.service);
        // Of one that has gone silent.
        if (now - entry.last_packet > 2 * std::chrono::seconds(entry.service.interval) + kSlack) {
          all.back().points_per_second = 0;
        }
      }
    }
  }
  std::sort(all.begin(), all.end(), [](const Service& a, const Service& b) {
    return std::tie(a.tenant, a.name, a.slot, a.pid) < std::tie(b.tenant, b.name, b.slot, b.pid);
  });
  return all;
}

}  // namespace tidegate::agent
