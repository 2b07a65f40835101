#include "agent/fitted_names.h"

namespace tidegate::agent {
namespace {

void AppendFitted(std::string_view name, bool colons, std::string* fitted) {
  if (name.empty() || (name[0] >= '0' && name[0] <= '9')) *fitted += '_';
  for (const char c : name) {
    const bool fits = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || (colons && c == ':');
    *fitted += fits ? c : '_';
  }
}

}  // namespace

std::string MetricNameOf(std::string_view name) {
  std::string fitted;
  fitted.reserve(name.size() + 1);
  AppendFitted(name, true, &fitted);
  return fitted;
}

void AssignLabelName(std::string_view name, std::string* fitted) {
  fitted->clear();
  AppendFitted(name, false, fitted);
  if (fitted->compare(0, 2, "__") == 0) fitted->insert(0, "exported");
}

}  // namespace tidegate::agent
