#pragma once

#include <functional>
#include <string>

namespace tidegate::agent {

// Takes a line for the log of the agent, as `Log::Report` does.
using Report = std::function<void(const std::string& line)>;

}  // namespace tidegate::agent
