#pragma once

#include "agent/options.h"

namespace tidegate::agent {

// `tidegate-agent --check`: says on standard output, one line each, what an agent with these
// settings would find: the socket, the address of HTTP, each destination and its spool. Each
// destination gets one empty request. Changes nothing else. Returns the exit status: 0, or 1 if
// something would not work.
int CheckSettings(const Options& options);

}  // namespace tidegate::agent
