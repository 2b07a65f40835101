#include "util/stoppable_thread.h"

#include <pthread.h>

#include "util/fork_guard.h"
#include "util/log_scope.h"
#include "util/thread_slot.h"

namespace METRICS {

void StoppableThread::EnterThread(const char* name) {
  ::pthread_setname_np(::pthread_self(), name);
  DoWithoutThreadSlot();
  MarkLibraryThread();
}

bool StoppableThread::StopThread() {
  state_.store(MetricState::SHUTDOWN);
  if (InForkTeardown()) {
    Abandon(thread_);
    return false;
  }
  JoinThread();
  return true;
}

void StoppableThread::JoinThread() {
  if (thread_.joinable()) {
    thread_.join();
  }
}

}  // namespace METRICS
