#include "agent/rule.h"

#include <algorithm>
#include <array>
#include <utility>

namespace tidegate::agent {
namespace {

// A name that a client makes long must not become much longer.
constexpr size_t kLongestTo = 255;
constexpr size_t kMostParts = 9;

struct ActionRow {
  std::string_view word;
  std::vector<std::string> keys;  // beside those of all actions
};

// In the order of RuleAction.
const std::array<ActionRow, 4>& Actions() {
  static const std::array<ActionRow, 4> kActions = {{
      {"drop", {}},
      {"keep", {}},
      {"rename", {"to", "merge", "gauge"}},
      {"drop-tag", {"drop", "gauge"}},
  }};
  return kActions;
}

RuleAction ActionOf(const SettingsSection& section) {
  const std::optional<std::string> word = section.Text("action");
  for (size_t i = 0; i < Actions().size(); ++i) {
    if (word == Actions()[i].word) return static_cast<RuleAction>(i);
  }
  section.Refuse(section.LineOf("action"),
                 "\"action\" of a rule is drop, keep, rename or drop-tag" +
                     (word ? ", not \"" + *word + '"' : std::string()));
}

std::optional<Glob> PatternOf(const SettingsSection& section, std::string_view key) {
  const std::optional<std::string> text = section.Text(key);
  return text ? std::optional<Glob>(*text) : std::nullopt;
}

void ReadTags(const SettingsSection& section, Rule* rule) {
  for (const Setting& setting : section.settings) {
    if (setting.key != "tag") continue;
    for (const std::string& text : setting.values) {
      const size_t equals = text.find('=');
      if (equals == 0 || equals == std::string::npos) {
        section.Refuse(setting.line, "\"tag\" is key=pattern, not \"" + text + '"');
      }
      rule->tags.push_back({text.substr(0, equals), Glob(text.substr(equals + 1))});
    }
  }
}

// Calls one of both for each piece of a `to`: a letter, or a part by its number from 1 on. Returns
// false if a dollar stands before something else.
template <typename Letter, typename Part>
bool ForEachPiece(std::string_view to, const Letter& letter, const Part& part) {
  for (size_t i = 0; i < to.size(); ++i) {
    if (to[i] != '$') {
      letter(to[i]);
      continue;
    }
    const char next = ++i < to.size() ? to[i] : '\0';
    if (next == '$') {
      letter('$');
    } else if (next >= '1' && next <= '9') {
      part(static_cast<size_t>(next - '0'));
    } else {
      return false;
    }
  }
  return true;
}

void ReadRename(const SettingsSection& section, Rule* rule) {
  rule->to = section.Text("to").value_or("");
  const size_t line = section.LineOf("to");
  if (rule->to.empty()) section.Refuse(line, "a rule that renames needs \"to\", the new name");
  const size_t wildcards = rule->metric ? rule->metric->wildcards() : 0;
  size_t parts = 0;
  size_t last = 0;
  std::string made;
  const bool good = ForEachPiece(
      rule->to, [&](char c) { made += c; },
      [&](size_t number) {
        last = std::max(last, number);
        ++parts;
        made += '*';
      });
  if (!good || last > wildcards) {
    section.Refuse(line, "\"to\" has a $ that is none of $1 to $" + std::to_string(wildcards) +
                             ", the wildcards of \"name\"; a dollar is $$");
  }
  if (rule->to.size() > kLongestTo || parts > kMostParts) {
    section.Refuse(line, "\"to\" has more than " + std::to_string(kLongestTo) + " letters or " +
                             std::to_string(kMostParts) + " parts");
  }
  const std::optional<std::string> merge = section.Text("merge");
  if (merge && *merge != "true" && *merge != "false") {
    section.Refuse(section.LineOf("merge"), "\"merge\" is true or false");
  }
  rule->merge = merge == "true";
  if (rule->merge) rule->made.emplace(made);
}

void ReadDropTag(const SettingsSection& section, Rule* rule) {
  rule->drop = section.Texts("drop");
  rule->merge = true;
  if (rule->drop.empty()) {
    section.Refuse(section.line, "a rule that drops tags needs \"drop\", their keys");
  }
}

void ReadGauge(const SettingsSection& section, Rule* rule) {
  const std::optional<std::string> word = section.Text("gauge");
  if (!word) return;
  rule->gauge = GaugeMergeOf(*word);
  if (!rule->gauge) {
    section.Refuse(section.LineOf("gauge"), "\"gauge\" is last, sum or max, not \"" + *word + '"');
  }
  if (!rule->merge) section.Refuse(section.LineOf("gauge"), "\"gauge\" needs merge = true");
}

Rule ReadRule(const SettingsSection& section) {
  Rule rule;
  rule.name = section.name;
  rule.text = section.Canonical();
  rule.action = ActionOf(section);
  std::vector<std::string> keys = {"action", "tenant", "name", "tag"};
  for (const std::string& key : Actions()[static_cast<size_t>(rule.action)].keys) {
    keys.push_back(key);
  }
  section.CheckKeys(keys);
  rule.tenant = PatternOf(section, "tenant");
  rule.metric = PatternOf(section, "name");
  ReadTags(section, &rule);
  if (rule.action == RuleAction::kDrop && !rule.tenant && !rule.metric && rule.tags.empty()) {
    section.Refuse(section.line, "a rule that drops needs \"tenant\", \"name\" or \"tag\"");
  }
  if (rule.action == RuleAction::kRename) ReadRename(section, &rule);
  if (rule.action == RuleAction::kDropTag) ReadDropTag(section, &rule);
  ReadGauge(section, &rule);
  return rule;
}

}  // namespace

std::string_view NameOf(RuleAction action) { return Actions()[static_cast<size_t>(action)].word; }

bool Rule::MatchesName(std::string_view of_block, std::vector<std::string_view>* parts) const {
  return !metric || metric->Match(of_block, parts);
}

std::string Rule::NewName(const std::vector<std::string_view>& parts) const {
  std::string made_name;
  ForEachPiece(
      to, [&](char c) { made_name += c; }, [&](size_t number) { made_name += parts[number - 1]; });
  return made_name;
}

std::vector<Rule> ReadRules(const std::vector<SettingsSection>& sections) {
  std::vector<Rule> rules;
  for (const SettingsSection& section : sections) {
    if (section.kind != "rule") continue;
    if (rules.size() == kMaxRules) {
      section.Refuse(section.line, "there are more than " + std::to_string(kMaxRules) + " rules");
    }
    rules.push_back(ReadRule(section));
  }
  return rules;
}

}  // namespace tidegate::agent
