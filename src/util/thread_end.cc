#include "util/thread_end.h"

#include <pthread.h>

namespace METRICS {
namespace {

#define METRICS_OF_THREAD __thread __attribute__((tls_model("initial-exec")))
METRICS_OF_THREAD ThreadEndAction* t_actions = nullptr;
METRICS_OF_THREAD bool t_has_ended = false;
#undef METRICS_OF_THREAD

void RunActions(void* /*unused*/) {
  t_has_ended = true;
  while (t_actions != nullptr) {
    ThreadEndAction* const action = t_actions;
    t_actions = action->next;
    action->run();
  }
}

// A destructor of a C++ variable would never run where a thread asks for it after the others.
pthread_key_t key;
const bool key_made = ::pthread_key_create(&key, &RunActions) == 0;

}  // namespace

bool AtThreadEnd(ThreadEndAction& action, void (*run)()) {
  if (t_has_ended || !key_made || ::pthread_setspecific(key, &t_actions) != 0) {
    return false;
  }
  action = {run, t_actions};
  t_actions = &action;
  return true;
}

}  // namespace METRICS
