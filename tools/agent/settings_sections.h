#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tidegate::agent {

// Settings that make no sense. The text is one line, with the file and the number of the line.
class SettingsError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One `key = value` of a section, or `key = [value, value]`. Values are texts without quotes.
struct Setting {
  std::string key;
  std::vector<std::string> values;
  size_t line = 0;
};

// A section of the settings file, as [destination.NAME]. A key may come several times.
struct SettingsSection {
  std::string kind;  // the text before the dot
  std::string name;  // a to z, A to Z, 0 to 9, - and _, 64 of them at most
  std::string file;
  size_t line = 0;  // of its head
  std::vector<Setting> settings;

  // Throws SettingsError that says why the line `at` of the file makes no sense.
  [[noreturn]] void Refuse(size_t at, const std::string& why) const;

  // Throws SettingsError with the nearest of `keys` for a setting that is none of them.
  void CheckKeys(const std::vector<std::string>& keys) const;

  // All values of a key, in order.
  std::vector<std::string> Texts(std::string_view key) const;
  // That of a key that may have one; nothing if it has none. Throws SettingsError if it has more.
  std::optional<std::string> Text(std::string_view key) const;
  // Where a key was first set; the section's own line if it was not.
  size_t LineOf(std::string_view key) const;

  // The head with all settings, the same for two sections that say the same.
  std::string Canonical() const;
};

// Takes the sections out of the text of a settings file: their lines are empty afterwards, so that
// all other lines keep their numbers. A section ends where the next one begins. Values stand
// without quotes up to the line's end or a # after a space; in double quotes, where a backslash
// stands before a quote or a backslash; or in single quotes, as they are. A list may go over
// several lines. `file` is for errors. Throws SettingsError, for a section of no known kind with
// the nearest name of these and of `settings`, which stand outside of sections.
std::vector<SettingsSection> TakeSections(const std::string& file,
                                          const std::vector<std::string>& kinds,
                                          const std::vector<std::string>& settings,
                                          std::string* text);

}  // namespace tidegate::agent
