#include "agent/settings_sections.h"

#include <algorithm>
#include <utility>

#include "agent/nearest_name.h"

namespace tidegate::agent {
namespace {

constexpr size_t kLongestName = 64;
constexpr std::string_view kSpaces = " \t\r";
constexpr std::string_view kNameLetters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";

[[noreturn]] void RefuseAt(const std::string& file, size_t line, const std::string& why) {
  throw SettingsError(file + ':' + std::to_string(line) + ": " + why);
}

std::string_view Trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kSpaces), text.size()));
  return text.substr(0, text.find_last_not_of(kSpaces) + 1);
}

// What stands between the brackets of a line such as "[rule.x]  # comment"; nothing for any other.
std::optional<std::string_view> HeadOf(std::string_view line) {
  line = Trimmed(line.substr(0, line.find('\n')));
  const size_t end = line.find(']');
  if (line.empty() || line.front() != '[' || end == std::string_view::npos) return std::nullopt;
  const std::string_view after = Trimmed(line.substr(end + 1));
  if (!after.empty() && after.front() != '#') return std::nullopt;
  return Trimmed(line.substr(1, end - 1));
}

// The line of a section's head.
struct Head {
  std::string text;  // between the brackets
  size_t line;
  size_t at;  // where it begins in the text of the file
  size_t body;
};

std::vector<Head> FindHeads(std::string_view text) {
  std::vector<Head> heads;
  size_t line = 0;
  for (size_t at = 0; at < text.size();) {
    ++line;
    const size_t next = std::min(text.find('\n', at), text.size() - 1) + 1;
    if (const auto head = HeadOf(text.substr(at, next - at))) {
      heads.push_back({std::string(*head), line, at, next});
    }
    at = next;
  }
  return heads;
}

// Reads the lines of one section, one character after the other.
class SectionReader {
 public:
  SectionReader(std::string_view text, SettingsSection* section)
      : rest_(text), line_(section->line + 1), section_(section) {}

  void Read() {
    while (SkipBlank()) {
      Setting setting;
      setting.line = line_;
      const size_t end = rest_.find_first_of("=\n");
      setting.key = Trimmed(rest_.substr(0, end));
      if (end == std::string_view::npos || rest_[end] != '=' || setting.key.empty()) {
        Refuse("this is no setting, give one as key = value");
      }
      rest_.remove_prefix(end + 1);
      SkipSpaces();
      if (Peek() == '[') {
        ReadList(&setting.values);
      } else {
        setting.values.push_back(ReadValue("\n"));
      }
      SkipSpaces();
      if (Peek() == '#') SkipLine();
      if (Peek() != '\n' && Peek() != '\0') Refuse("there is something after the value");
      section_->settings.push_back(std::move(setting));
    }
  }

 private:
  [[noreturn]] void Refuse(const std::string& why) const { section_->Refuse(line_, why); }

  char Peek() const { return rest_.empty() ? '\0' : rest_.front(); }

  char Next() {
    const char next = Peek();
    if (!rest_.empty()) rest_.remove_prefix(1);
    if (next == '\n') ++line_;
    return next;
  }

  void SkipSpaces() {
    rest_.remove_prefix(std::min(rest_.find_first_not_of(kSpaces), rest_.size()));
  }

  void SkipLine() { rest_.remove_prefix(std::min(rest_.find('\n'), rest_.size())); }

  // Spaces, line ends and comments. False at the end.
  bool SkipBlank() {
    while (!rest_.empty()) {
      SkipSpaces();
      if (Peek() == '#') SkipLine();
      if (Peek() != '\n') break;
      Next();
    }
    return !rest_.empty();
  }

  void ReadList(std::vector<std::string>* values) {
    Next();
    while (true) {
      if (!SkipBlank()) Refuse("a list lacks its ]");
      if (Peek() == ']') break;
      values->push_back(ReadValue(",]\n"));
      if (!SkipBlank()) Refuse("a list lacks its ]");
      if (Peek() == ',') {
        Next();
      } else if (Peek() != ']') {
        Refuse("the values of a list are parted by commas");
      }
    }
    Next();
  }

  std::string ReadValue(std::string_view ends) {
    const char quote = Peek();
    if (quote == '"' || quote == '\'') return ReadQuoted();
    const size_t end = std::min(rest_.find_first_of(ends), rest_.size());
    const size_t comment = rest_.substr(0, end).find(" #");
    const std::string_view value = Trimmed(rest_.substr(0, std::min(comment, end)));
    if (value.empty() || value.front() == '#') Refuse("a value is missing");
    rest_.remove_prefix(std::min(comment, end));
    return std::string(value);
  }

  std::string ReadQuoted() {
    const char quote = Next();
    std::string value;
    while (Peek() != quote) {
      if (Peek() == '\n' || rest_.empty()) Refuse("a text lacks the quote at its end");
      char letter = Next();
      if (letter == '\\' && quote == '"') {
        letter = Next();
        if (letter != '"' && letter != '\\') {
          Refuse(
              "in double quotes a backslash stands before a quote or a backslash only; use "
              "single quotes");
        }
      }
      value += letter;
    }
    Next();
    return value;
  }

  std::string_view rest_;
  size_t line_;
  SettingsSection* const section_;
};

void CheckName(const SettingsSection& section, const std::vector<SettingsSection>& before) {
  const std::string shown = '[' + section.kind + '.' + section.name + ']';
  if (section.name.empty() || section.name.size() > kLongestName ||
      section.name.find_first_not_of(kNameLetters) != std::string::npos) {
    section.Refuse(section.line, '"' + shown + "\" has no good name, give one of 1 to " +
                                     std::to_string(kLongestName) + " letters, digits, - and _");
  }
  for (const SettingsSection& other : before) {
    if (other.kind != section.kind || other.name != section.name) continue;
    section.Refuse(section.line,
                   '"' + shown + "\" is in line " + std::to_string(other.line) + " already");
  }
}

}  // namespace

void SettingsSection::Refuse(size_t at, const std::string& why) const { RefuseAt(file, at, why); }

void SettingsSection::CheckKeys(const std::vector<std::string>& keys) const {
  for (const Setting& setting : settings) {
    if (std::find(keys.begin(), keys.end(), setting.key) != keys.end()) continue;
    Refuse(setting.line, NoSuchSetting(setting.key, keys));
  }
}

std::vector<std::string> SettingsSection::Texts(std::string_view key) const {
  std::vector<std::string> texts;
  for (const Setting& setting : settings) {
    if (setting.key == key) texts.insert(texts.end(), setting.values.begin(), setting.values.end());
  }
  return texts;
}

std::optional<std::string> SettingsSection::Text(std::string_view key) const {
  const Setting* found = nullptr;
  for (const Setting& setting : settings) {
    if (setting.key != key) continue;
    if (found != nullptr || setting.values.size() != 1) {
      Refuse(setting.line, "\"" + setting.key + "\" takes one value");
    }
    found = &setting;
  }
  return found == nullptr ? std::nullopt : std::optional(found->values.front());
}

size_t SettingsSection::LineOf(std::string_view key) const {
  const auto found = std::find_if(settings.begin(), settings.end(),
                                  [key](const Setting& setting) { return setting.key == key; });
  return found == settings.end() ? line : found->line;
}

std::string SettingsSection::Canonical() const {
  std::string text = '[' + kind + '.' + name + ']';
  for (const Setting& setting : settings) {
    text += '\n' + setting.key;
    for (const std::string& value : setting.values) {
      text += '\0' + value;
    }
  }
  return text;
}

std::vector<SettingsSection> TakeSections(const std::string& file,
                                          const std::vector<std::string>& kinds,
                                          const std::vector<std::string>& settings,
                                          std::string* text) {
  std::vector<SettingsSection> sections;
  const std::vector<Head> heads = FindHeads(*text);
  for (size_t i = 0; i < heads.size(); ++i) {
    const Head& head = heads[i];
    SettingsSection section;
    section.kind = head.text.substr(0, head.text.find('.'));
    if (std::find(kinds.begin(), kinds.end(), section.kind) == kinds.end()) {
      std::vector<std::string> names = settings;
      for (const std::string& kind : kinds) names.push_back('[' + kind + ".NAME]");
      RefuseAt(file, head.line, NoSuchSetting('[' + head.text + ']', names));
    }
    section.name = head.text.substr(std::min(section.kind.size() + 1, head.text.size()));
    section.file = file;
    section.line = head.line;
    CheckName(section, sections);
    const size_t end = i + 1 < heads.size() ? heads[i + 1].at : text->size();
    SectionReader(std::string_view(*text).substr(head.body, end - head.body), &section).Read();
    const auto first = text->begin();
    std::replace_if(
        first + static_cast<std::ptrdiff_t>(head.at), first + static_cast<std::ptrdiff_t>(end),
        [](char c) { return c != '\n'; }, ' ');
    sections.push_back(std::move(section));
  }
  return sections;
}

}  // namespace tidegate::agent
