#pragma once

namespace METRICS {

// How many locks of the library this thread holds, where assertions are on: whoever calls out of
// the library asserts that there is none.
#ifdef NDEBUG
inline void CountHeldLocks(int /*more*/) {}
inline int HeldLocks() { return 0; }
#else
inline thread_local int held_locks = 0;
inline void CountHeldLocks(int more) { held_locks += more; }
inline int HeldLocks() { return held_locks; }
#endif

}  // namespace METRICS
