#pragma once

namespace METRICS {

/// What is to be done at the end of a thread, as a link of that thread's list. Stands in the
/// thread's own storage, without a constructor, one for each purpose.
struct ThreadEndAction {
  void (*run)();
  ThreadEndAction* next;
};

/// Has `run` called once at the end of this thread, after the destructors of its variables. False
/// when that cannot be promised: the thread's actions have run already, or the process has no key
/// left. Allocates nothing, unless the process had made 32 keys before it loaded the library.
///
/// A thread's last emissions may come from destructors of any kind. What is registered as late as
/// those of `pthread_key_create` is still called, but for the last of their four rounds.
bool AtThreadEnd(ThreadEndAction& action, void (*run)());

}  // namespace METRICS
