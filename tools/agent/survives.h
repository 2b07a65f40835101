#pragma once

#include <exception>

#include "agent/health.h"

namespace tidegate::agent {

// Runs `step`, and returns false if memory ran out in it, which is counted: no thread of the agent
// ends for that. The caller counts its loss and reports nothing: a line would take memory as well,
// so one thread looks at the count.
template <typename Step>
bool Survives(Health* health, const Step& step) noexcept {
  try {
    step();
    return true;
  } catch (const std::exception&) {
    ++health->out_of_memory;
    return false;
  }
}

}  // namespace tidegate::agent
