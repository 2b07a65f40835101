#pragma once

#include <cstddef>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace tidegate::agent {

// The page of `tidegate-agent top`, made of the status of an agent: what it is, where points go,
// what was lost, who sends, and which metrics have most series. Rates of counts are those between
// two statuses.
//
// Threads: one. All texts of the status are shown as harmless ones; what is missing or of another
// type is left out. Throws std::bad_alloc alone.
class TopPage {
 public:
  struct Line {
    std::string text;
    enum class Look { kPlain, kBold, kRed } look = Look::kPlain;
  };

  // NOLINTNEXTLINE(bugprone-exception-escape): what it sees is an assertion about JSON
  TopPage() = default;
  TopPage(const TopPage&) = delete;
  TopPage& operator=(const TopPage&) = delete;

  // False, and nothing is changed, if `text` is no JSON.
  bool Take(const std::string& text);
  bool empty() const { return status_.is_null(); }

  // The process id of the agent, 0 if it is not known.
  double process() const;

  // All lines; or so many that they fit into `rows`, which leaves out the last lines of long lists.
  std::vector<Line> Lines(std::optional<size_t> rows) const;

 private:
  using Json = nlohmann::json;
  using Counts = std::map<std::string, double>;

  struct Row {
    std::vector<std::string> cells;
    bool red = false;
  };
  struct Table {
    std::string sides;              // of each column: l or r
    std::vector<std::string> head;  // its title is that of the table
    std::vector<Row> rows;
  };

  Line Head() const;
  Table Destinations() const;
  Table Losses() const;
  Table Services() const;
  Table LargestMetrics() const;
  Table Rules() const;
  Table Collisions() const;
  // Per second since the status before, as a text; "-" if that is not known.
  std::string RateOf(const std::string& key) const;
  static Counts CountsOf(const Json& status);
  static void Append(const Table& table, size_t rows, std::vector<Line>* lines);

  Json status_;
  Counts counts_;
  Counts before_;
  double seconds_ = 0;  // between the two; 0: there are not two of one agent
};

}  // namespace tidegate::agent
