#include "agent/top_page.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "agent/shown_text.h"

namespace tidegate::agent {
namespace {

using Json = nlohmann::json;

// The empty line before it, and its head.
constexpr size_t kLinesAround = 2;

const Json& At(const Json& object, const char* key) {
  static const Json nothing;
  if (!object.is_object()) return nothing;
  const auto found = object.find(key);
  return found == object.end() ? nothing : *found;
}

double NumberAt(const Json& object, const char* key) {
  const Json& value = At(object, key);
  return value.is_number() ? value.get<double>() : 0;
}

std::string TextAt(const Json& object, const char* key) {
  const Json& value = At(object, key);
  return value.is_string() ? Harmless(value.get_ref<const std::string&>()) : "";
}

// A whole number.
std::string CountAt(const Json& object, const char* key) {
  const double value = std::clamp(NumberAt(object, key), 0.0, 1e18);
  return std::to_string(static_cast<uint64_t>(std::llround(value)));
}

// Of a time of the status, in milliseconds.
std::string AgeAt(const Json& object, const char* key, double now) {
  const double then = NumberAt(object, key);
  return then <= 0 ? "-" : AgeText((now - then) / 1000);
}

void AddWord(const std::string& word, std::string* text) {
  if (word.empty()) return;
  if (!text->empty()) *text += ' ';
  *text += word;
}

double SumOf(const Json& object) {
  double sum = 0;
  for (const Json& value : object.is_object() ? object : Json::object()) {
    if (value.is_number()) sum += value.get<double>();
  }
  return sum;
}

std::string KeyOfLoss(const Json& loss) {
  return "loss " + TextAt(loss, "number") + ' ' + TextAt(loss, "reason") + ' ' +
         TextAt(loss, "destination");
}

std::string KeyOfDestination(const Json& destination) {
  return "destination " + TextAt(destination, "name");
}

// So many rows of each that all of them together have `rows`: one after the other gets one more.
std::vector<size_t> Shares(const std::vector<size_t>& wanted, size_t rows) {
  std::vector<size_t> shares(wanted.size());
  bool given = true;
  while (given) {
    given = false;
    for (size_t i = 0; i < wanted.size(); ++i) {
      if (rows == 0 || shares[i] == wanted[i]) continue;
      ++shares[i];
      --rows;
      given = true;
    }
  }
  return shares;
}

}  // namespace

bool TopPage::Take(const std::string& text) {
  Json next = Json::parse(text, nullptr, false);
  if (next.is_discarded() || !next.is_object()) return false;
  Counts counts = CountsOf(next);
  const Json& agent = At(next, "agent");
  const bool same = !status_.is_null() && NumberAt(agent, "pid") == process();
  seconds_ =
      same ? (NumberAt(agent, "now_ms") - NumberAt(At(status_, "agent"), "now_ms")) / 1000 : 0;
  before_ = std::exchange(counts_, std::move(counts));
  status_ = std::move(next);
  return true;
}

double TopPage::process() const { return NumberAt(At(status_, "agent"), "pid"); }

TopPage::Counts TopPage::CountsOf(const Json& status) {
  Counts counts;
  for (const Json& each : At(status, "destinations")) {
    counts[KeyOfDestination(each)] = NumberAt(each, "forwarded_points");
  }
  for (const Json& each : At(status, "drops")) counts[KeyOfLoss(each)] = NumberAt(each, "count");
  return counts;
}

std::string TopPage::RateOf(const std::string& key) const {
  if (seconds_ <= 0) return "-";
  const auto now = counts_.find(key);
  const auto before = before_.find(key);
  if (now == counts_.end()) return "-";
  // One that is not listed before was 0.
  const double since = before == before_.end() ? 0 : before->second;
  return RateText(std::max(now->second - since, 0.0) / seconds_);
}

TopPage::Line TopPage::Head() const {
  const Json& agent = At(status_, "agent");
  double rate = 0;
  for (const Json& each : At(status_, "services")) rate += NumberAt(each, "points_per_s");
  std::string text = "tidegate-agent " + TextAt(agent, "version");
  text += ", process " + CountAt(agent, "pid");
  if (!TextAt(agent, "host").empty()) text += " on " + TextAt(agent, "host");
  text += ", up " + AgeText(NumberAt(agent, "uptime_s"));
  const size_t services = At(status_, "services").size();
  text += ", " + std::to_string(services) + (services == 1 ? " service, " : " services, ");
  text += RateText(rate) + " points/s";
  return {std::move(text), Line::Look::kBold};
}

TopPage::Table TopPage::Destinations() const {
  const double now = NumberAt(At(status_, "agent"), "now_ms");
  Table table = {
      "lrrrrl", {"DESTINATIONS", "points/s", "forwarded", "waiting", "dropped", "state"}, {}};
  for (const Json& each : At(status_, "destinations")) {
    const Json& up = At(each, "up");
    const bool away = up.is_boolean() && !up.get<bool>();
    std::string name = TextAt(each, "name");
    AddWord(TextAt(each, "url"), &name);
    std::string state = away ? "away" : "up";
    const std::string age = AgeAt(each, "since_ms", now);
    if (age != "-") state += " for " + age;
    const Json& refusal = At(each, "last_refusal");
    if (refusal.is_object()) {
      state += "; " + AgeAt(refusal, "at_ms", now) + " ago: " + TextAt(refusal, "text");
    }
    const double waiting = NumberAt(each, "queue_points") + NumberAt(each, "spool_points");
    const double dropped = SumOf(At(each, "dropped"));
    table.rows.push_back(
        {{std::move(name), RateOf(KeyOfDestination(each)), CountAt(each, "forwarded_points"),
          CountAt({{"n", waiting}}, "n"), CountAt({{"n", dropped}}, "n"), std::move(state)},
         away});
  }
  return table;
}

TopPage::Table TopPage::Losses() const {
  const double now = NumberAt(At(status_, "agent"), "now_ms");
  Table table = {"lrrl", {"LOST OR REFUSED", "count", "per s", "last"}, {}};
  for (const Json& each : At(status_, "drops")) {
    std::string name = TextAt(each, "number");
    AddWord(TextAt(each, "reason"), &name);
    AddWord(TextAt(each, "destination"), &name);
    std::string last = AgeAt(each, "last_ms", now);
    if (last != "-") last += " ago";
    table.rows.push_back(
        {{std::move(name), CountAt(each, "count"), RateOf(KeyOfLoss(each)), std::move(last)},
         true});
  }
  return table;
}

TopPage::Table TopPage::Services() const {
  const double now = NumberAt(At(status_, "agent"), "now_ms");
  Table table = {"llrrrrr",
                 {"SERVICES", "tenant", "process", "slot", "points/s", "interval", "last packet"},
                 {}};
  std::vector<const Json*> services;
  for (const Json& each : At(status_, "services")) services.push_back(&each);
  std::stable_sort(services.begin(), services.end(), [](const Json* a, const Json* b) {
    return NumberAt(*a, "points_per_s") > NumberAt(*b, "points_per_s");
  });
  for (const Json* each : services) {
    std::string name = TextAt(*each, "name");
    if (name != TextAt(*each, "project_id")) AddWord(TextAt(*each, "project_id"), &name);
    const Json& slot = At(*each, "slot");
    std::string last = AgeAt(*each, "last_packet_ms", now);
    if (last != "-") last += " ago";
    table.rows.push_back({{std::move(name), TextAt(*each, "tenant"), CountAt(*each, "pid"),
                           slot.is_number() ? CountAt(*each, "slot") : TextAt(*each, "slot"),
                           RateText(NumberAt(*each, "points_per_s")),
                           CountAt(*each, "interval_s") + " s", std::move(last)},
                          false});
  }
  return table;
}

TopPage::Table TopPage::LargestMetrics() const {
  Table table = {"lrl", {"METRICS WITH MOST SERIES", "series", "tenant"}, {}};
  for (const Json& each : At(status_, "top_metrics")) {
    table.rows.push_back(
        {{TextAt(each, "name"), CountAt(each, "series"), TextAt(each, "tenant")}, false});
  }
  return table;
}

TopPage::Table TopPage::Rules() const {
  Table table = {"llrl", {"RULES", "action", "matched", "idle for"}, {}};
  for (const Json& each : At(status_, "rules")) {
    table.rows.push_back({{TextAt(each, "name"), TextAt(each, "action"), CountAt(each, "matched"),
                           AgeText(NumberAt(each, "idle_s"))},
                          false});
  }
  return table;
}

TopPage::Table TopPage::Collisions() const {
  Table table = {"l", {"NAMES THAT COLLIDE"}, {}};
  for (const Json& each : At(status_, "collisions")) {
    table.rows.push_back({{TextAt(each, "text")}, false});
  }
  return table;
}

void TopPage::Append(const Table& table, size_t rows, std::vector<Line>* lines) {
  std::vector<size_t> widths;
  for (const std::string& cell : table.head) widths.push_back(ColumnsOf(cell));
  for (const Row& row : table.rows) {
    for (size_t i = 0; i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], ColumnsOf(row.cells[i]));
    }
  }
  const auto join = [&](const std::vector<std::string>& cells) {
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) {
      if (i > 0) line += "  ";
      const std::string padding(widths[i] - ColumnsOf(cells[i]), ' ');
      const bool last = i + 1 == cells.size();
      line += table.sides[i] == 'r' ? padding + cells[i] : cells[i] + (last ? "" : padding);
    }
    return line;
  };
  lines->push_back({});
  lines->push_back({join(table.head), Line::Look::kBold});
  const bool all = rows >= table.rows.size();
  for (size_t i = 0; i < (all ? table.rows.size() : rows - 1); ++i) {
    const Row& row = table.rows[i];
    lines->push_back({join(row.cells), row.red ? Line::Look::kRed : Line::Look::kPlain});
  }
  if (!all) lines->push_back({"and " + std::to_string(table.rows.size() - rows + 1) + " more"});
}

std::vector<TopPage::Line> TopPage::Lines(std::optional<size_t> rows) const {
  std::vector<Table> tables = {Destinations(),   Losses(), Services(),
                               LargestMetrics(), Rules(),  Collisions()};
  tables.erase(std::remove_if(tables.begin(), tables.end(),
                              [](const Table& table) { return table.rows.empty(); }),
               tables.end());
  // Each one that is shown has a row at least.
  while (rows && !tables.empty() && 1 + (kLinesAround + 1) * tables.size() > *rows) {
    tables.pop_back();
  }
  std::vector<size_t> wanted;
  wanted.reserve(tables.size());
  for (const Table& table : tables) wanted.push_back(table.rows.size());
  const size_t around = 1 + kLinesAround * tables.size();
  const std::vector<size_t> shares =
      rows && !tables.empty() ? Shares(wanted, *rows - around) : wanted;
  std::vector<Line> lines = {Head()};
  for (size_t i = 0; i < tables.size(); ++i) Append(tables[i], shares[i], &lines);
  if (rows && lines.size() > *rows) lines.resize(*rows);
  return lines;
}

}  // namespace tidegate::agent
