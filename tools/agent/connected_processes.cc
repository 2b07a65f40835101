#include "agent/connected_processes.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>

#include "agent/unique_fd.h"

namespace tidegate::agent {

using METRICS::WriteGuard;

uint64_t StartOf(pid_t pid) {
  char path[32];
  std::snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
  const UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
  char text[1024];  // up to that field it has a name of 64 bytes at most, and numbers
  const ssize_t size = file.valid() ? read(file.get(), text, sizeof(text)) : 0;
  std::string_view rest(text, static_cast<size_t>(std::max<ssize_t>(size, 0)));
  // The name, which is the second field, can hold anything.
  rest.remove_prefix(std::min(rest.rfind(')'), rest.size()));
  for (int field = 2; field < 22; ++field) {
    rest.remove_prefix(std::min(rest.find(' '), rest.size()));
    rest.remove_prefix(std::min<size_t>(1, rest.size()));
  }
  uint64_t start = 0;
  std::from_chars(rest.data(), rest.data() + rest.size(), start);
  return start;
}

ConnectedProcesses::Connection::Connection(ConnectedProcesses* all, const ProcessId& process)
    : process_(process) {
  const WriteGuard lock(all->mutex_);
  ++all->connections_[process];
  all_ = all;
}

ConnectedProcesses::Connection::~Connection() {
  if (all_ == nullptr) return;
  const WriteGuard lock(all_->mutex_);
  const auto found = all_->connections_.find(process_);
  if (--found->second == 0) all_->connections_.erase(found);
}

bool ConnectedProcesses::Contains(const ProcessId& process) const {
  const WriteGuard lock(mutex_);
  return connections_.count(process) != 0;
}

}  // namespace tidegate::agent
