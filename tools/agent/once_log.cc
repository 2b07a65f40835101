#include "agent/once_log.h"

namespace tidegate::agent {

void OnceLog::Add(const std::string& line) {
  if (!IsFull() && reported_.insert(std::hash<std::string>{}(line)).second) report_(line);
}

}  // namespace tidegate::agent
