#include "agent/collision_log.h"

namespace tidegate::agent {

void CollisionLog::Report(const std::string& line) {
  if (!IsFull() && reported_.insert(std::hash<std::string>{}(line)).second) report_(line);
}

}  // namespace tidegate::agent
