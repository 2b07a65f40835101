#pragma once

#include <chrono>

namespace tidegate::stress {

// Sets the wall clock of this process, and of no other: it runs `ahead` of the true one. The steady
// clock stays as it is. For programs that are linked with this unit, which replaces the
// system's calls for the time; from any thread.
void SetWallClockAhead(std::chrono::seconds ahead);

}  // namespace tidegate::stress
