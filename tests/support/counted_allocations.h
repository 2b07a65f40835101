#pragma once

#include <new>

// How many more allocations this thread may make; negative: any number. Without a constructor, as
// the first allocation may come before all of them.
static __thread long allocations_left = -1;

// Counts an allocation. True if it is one too many, and has to fail.
static inline bool IsOneTooMany() {
  if (allocations_left == 0) return true;
  if (allocations_left > 0) --allocations_left;
  return false;
}

// Whether `attempt` gets through with `left` allocations.
template <class Attempt>
bool Manages(long left, Attempt attempt) {
  bool managed = true;
  allocations_left = left;
  try {
    attempt();
  } catch (const std::bad_alloc&) {
    managed = false;
  }
  allocations_left = -1;
  return managed;
}
