#include "agent/spool_feeder.h"

#include <pthread.h>

#include <utility>

#include "agent/survives.h"

namespace tidegate::agent {
namespace {

constexpr std::chrono::hours kNothingToTry(1);

}  // namespace

void SpoolFeeder::Start() { thread_ = std::thread(&SpoolFeeder::Run, this); }

void SpoolFeeder::Run() {
  pthread_setname_np(pthread_self(), "spool");
  BatchQueue::Clock::time_point next_try;
  bool open = false;
  while (!stopping_) {
    if (!open) {
      Survives(health_, [&] { open = spool_->Open(); });
      queue_->ReturnFromSpool({});
    }
    const auto now = BatchQueue::Clock::now();
    if (!open) next_try = now + spool_->options().retry;
    Batches batch = queue_->TakeToSpool(next_try, open ? now + kNothingToTry : next_try);
    if (!batch.empty() && !Keep(&batch)) {
      next_try = BatchQueue::Clock::now() + spool_->options().retry;
    }
  }
}

// A batch that is not kept is back in the queue.
bool SpoolFeeder::Keep(Batches* batch) {
  bool kept = false;
  Survives(health_, [&] {
    Batch& content = batch->front();
    if (!content.packed) {
      content.body = format_->Pack(content.body);
      content.packed = true;
    }
    kept = spool_->Append(content);
  });
  if (kept) batch->clear();
  numbers_->Dropped(ForwardDrop::kFull) += queue_->ReturnFromSpool(std::move(*batch));
  moved_();
  return kept;
}

void SpoolFeeder::Stop() {
  stopping_ = true;
  queue_->StopSpooling();
  if (thread_.joinable()) thread_.join();
}

void SpoolFeeder::Finish() {
  Stop();
  Survives(health_, [this] { spool_->Open(); });  // if there was no time for it
  Batches batch = queue_->TakeRest();
  while (!batch.empty() && Keep(&batch)) batch = queue_->TakeRest();
  Survives(health_, [this] { spool_->Close(); });
}

}  // namespace tidegate::agent
