#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <utility>

#include "agent/packet_sink.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// When a process started, in clock ticks from the boot (field 22 of /proc/PID/stat); 0 if that is
// not to be seen, because it has ended or is hidden from this user. Waits for nothing.
uint64_t StartOf(pid_t pid);

// Which processes have a connection. Safe from any number of threads. As large as there are
// connections.
class ConnectedProcesses {
 public:
  // One connection of a process, as long as it lives.
  class Connection {
   public:
    Connection() = default;
    Connection(ConnectedProcesses* all, const ProcessId& process);  // std::bad_alloc: not counted
    Connection(Connection&& other) noexcept
        : all_(std::exchange(other.all_, nullptr)), process_(other.process_) {}
    Connection& operator=(Connection&& other) noexcept {
      std::swap(all_, other.all_);
      std::swap(process_, other.process_);
      return *this;
    }
    ~Connection();

   private:
    ConnectedProcesses* all_ = nullptr;
    ProcessId process_;
  };

  bool Contains(const ProcessId& process) const;

 private:
  mutable METRICS::Mutex mutex_;
  std::unordered_map<ProcessId, size_t> connections_ METRICS_GUARDED_BY(mutex_);  // how many
};

}  // namespace tidegate::agent
