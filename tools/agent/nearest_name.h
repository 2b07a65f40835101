#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tidegate::agent {

// That of `names` which takes the fewest letters put in, taken out or exchanged to become `text`;
// the first of several, an empty text if there are no names.
std::string NearestName(std::string_view text, const std::vector<std::string>& names);

// What an error says about the unknown setting `key`.
std::string NoSuchSetting(const std::string& key, const std::vector<std::string>& names);

}  // namespace tidegate::agent
