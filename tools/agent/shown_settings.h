#pragma once

#include <map>
#include <string>

namespace tidegate::agent {

// The settings by name, for everybody's eyes: those without a value are left out; addresses have no
// user, password or query; and of a setting that is not known to be harmless it only says that it
// is set.
std::map<std::string, std::string> ShownSettings(const std::map<std::string, std::string>& texts);

}  // namespace tidegate::agent
