#pragma once

#include <string>
#include <vector>

#include "agent/process_slots.h"

// The numbers of processes in a file beside the socket, for the next agent. Without it each restart
// of the agent would give out new numbers, and the totals of one process would go on as another's.
// Processes come and go seldom, so the file is written seldom. Nothing waits for the disk.

namespace tidegate::agent {

// Nothing, if there is no such file of this user or as far as it makes no sense.
std::vector<ProcessSlots::Taken> ReadSlots(const std::string& path);

// Takes the place of the file at once. False, with errno, if it could not.
bool WriteSlots(const std::string& path, const std::vector<ProcessSlots::Taken>& slots);

}  // namespace tidegate::agent
