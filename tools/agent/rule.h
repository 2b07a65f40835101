#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/glob.h"
#include "agent/merge_rules.h"
#include "agent/settings_sections.h"

namespace tidegate::agent {

enum class RuleAction : uint8_t { kDrop, kKeep, kRename, kDropTag };

// Its word in the settings, as "drop-tag".
std::string_view NameOf(RuleAction action);

// A rule of the settings for points: those that it matches, and what becomes of them.
struct Rule {
  struct TagIs {
    std::string key;
    Glob value;
  };

  // Whether a point of that name matches, apart from its tenant and its tags. With `parts`,
  // those of the name that the wildcards stand for.
  bool MatchesName(std::string_view of_block, std::vector<std::string_view>* parts = nullptr) const;
  // The name that a point gets. REQUIRES: `parts` are those of its name.
  std::string NewName(const std::vector<std::string_view>& parts) const;

  std::string name;  // as in [rule.NAME]
  RuleAction action = RuleAction::kDrop;
  std::optional<Glob> tenant;       // none: any, as with the next
  std::optional<Glob> metric;       // for the name of a block
  std::vector<TagIs> tags;          // a point has to have all of them
  std::string to;                   // of kRename; $1 is the first part, $$ a dollar
  std::vector<std::string> drop;    // of kDropTag: keys
  bool merge = false;               // of kRename: merges what gets one name; kDropTag always does
  std::optional<GaugeMerge> gauge;  // by which gauges are merged, if not as all are
  std::optional<Glob> made;         // of kRename with `merge`: all names that it can give
  std::string text;                 // the same for two rules that say the same
};

// At most so many.
inline constexpr size_t kMaxRules = 256;

// The rules of those sections that are of the kind "rule". Throws SettingsError.
std::vector<Rule> ReadRules(const std::vector<SettingsSection>& sections);

}  // namespace tidegate::agent
