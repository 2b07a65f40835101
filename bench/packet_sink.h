#pragma once

#include <cstddef>
#include <string>
#include <thread>

#include "agent/unique_fd.h"

namespace tidegate::bench {

// An agent that reads every packet of one connection and forgets it, on a thread of its own. Its
// socket is in a fresh folder, which is removed with it. Ends the process when it cannot be made.
class PacketSink {
 public:
  PacketSink();
  ~PacketSink();
  PacketSink(const PacketSink&) = delete;
  PacketSink& operator=(const PacketSink&) = delete;

  const std::string& path() const { return path_; }
  // The bytes that came in until the connection ended, which this waits for.
  size_t WaitForEnd();

 private:
  void Read();

  std::string folder_;
  std::string path_;
  agent::UniqueFd listener_;
  size_t bytes_ = 0;  // of the thread, until it is joined
  std::thread thread_;
};

}  // namespace tidegate::bench
