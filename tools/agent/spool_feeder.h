#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

#include "agent/batch_queue.h"
#include "agent/destination_numbers.h"
#include "agent/point_format.h"
#include "agent/spool.h"

namespace tidegate::agent {

// Moves batches from a queue that is more than half full to the spool. Its own thread is the only
// one that may wait for the disk while the agent receives and sends. Where the spool cannot be
// used, they stay in the queue, and it is tried again.
//
// Threads: all from the owner's. Borrows all that it is given.
class SpoolFeeder {
 public:
  // `format` packs what is not packed yet. `moved` is called, on any of these threads, after the
  // queue has changed.
  SpoolFeeder(BatchQueue* queue, Spool* spool, const PointFormat* format,
              DestinationNumbers* numbers, Health* health, std::function<void()> moved)
      : queue_(queue),
        spool_(spool),
        format_(format),
        numbers_(numbers),
        health_(health),
        moved_(std::move(moved)) {}
  ~SpoolFeeder() { Stop(); }

  // Starts the thread, once.
  void Start();

  // Stops the thread and puts all that is left in the queue into the spool, which it closes.
  void Finish();

 private:
  void Stop();
  void Run();
  bool Keep(Batches* batch);

  BatchQueue* const queue_;
  Spool* const spool_;
  const PointFormat* const format_;
  DestinationNumbers* const numbers_;
  Health* const health_;
  const std::function<void()> moved_;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
};

}  // namespace tidegate::agent
