#pragma once

namespace tidegate::agent {

// `tidegate-agent top ...`: shows an agent that runs, once a second in a terminal, or once in a
// pipe. `argv` begins with "top". Returns the exit status: 0; 1 if there is no agent to show; 2 if
// the arguments make no sense.
int RunTop(int argc, const char* const* argv);

}  // namespace tidegate::agent
