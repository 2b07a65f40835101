#include "agent/top.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/options.h"
#include "agent/packet_listener.h"
#include "agent/shown_text.h"
#include "agent/status_exchange.h"
#include "agent/terminal.h"
#include "agent/top_page.h"

namespace tidegate::agent {
namespace {

using Clock = std::chrono::steady_clock;
using Line = TopPage::Line;

constexpr int kBadFlag = 2;
constexpr std::chrono::milliseconds kInterval(1000);
constexpr std::chrono::seconds kNewsTime(10);  // that a line about a new agent stays

// One question and its answer after the other.
class Watch {
 public:
  explicit Watch(std::string socket) : socket_(std::move(socket)) {}

  // False if there is no answer now.
  bool Ask() {
    std::string text;
    const double before = page_.process();
    const bool shown = !page_.empty();
    const bool answered = AskForStatus(socket_, &text, &error_);
    if (answered && !page_.Take(text))
      error_ = "the agent's answer makes no sense";
    else if (answered)
      error_.clear();
    const Clock::time_point now = Clock::now();
    if (!error_.empty()) {
      if (shown && !gone_since_) gone_since_ = now;
      return false;
    }
    if (gone_since_ || (shown && before != page_.process())) back_since_ = now;
    gone_since_.reset();
    return true;
  }

  const TopPage& page() const { return page_; }
  const std::string& error() const { return error_; }

  // Whether the agent is there, if that is news.
  std::optional<Line> News() const {
    const auto seconds = [](Clock::time_point since) {
      return AgeText(std::chrono::duration<double>(Clock::now() - since).count());
    };
    if (gone_since_) {
      return Line{"GONE for " + seconds(*gone_since_) + ": " + Harmless(error_), Line::Look::kRed};
    }
    if (!error_.empty()) return Line{Harmless(error_), Line::Look::kRed};
    if (back_since_ && Clock::now() < *back_since_ + kNewsTime) {
      return Line{"the agent is back since " + seconds(*back_since_), Line::Look::kBold};
    }
    return std::nullopt;
  }

 private:
  const std::string socket_;
  TopPage page_;
  std::string error_;
  std::optional<Clock::time_point> gone_since_;
  std::optional<Clock::time_point> back_since_;
};

std::string Frame(const Watch& watch, size_t columns, size_t rows) {
  std::vector<Line> lines;
  if (const std::optional<Line> news = watch.News()) lines.push_back(*news);
  if (!watch.page().empty()) {
    for (Line& line : watch.page().Lines(rows - std::min(rows, lines.size()))) {
      lines.push_back(std::move(line));
    }
  }
  lines.resize(std::min(lines.size(), rows));
  std::string frame = "\x1b[H";
  for (size_t i = 0; i < lines.size(); ++i) {
    if (i > 0) frame += "\r\n";
    if (lines[i].look == Line::Look::kBold) frame += "\x1b[1m";
    if (lines[i].look == Line::Look::kRed) frame += "\x1b[31m";
    frame.append(CutTo(lines[i].text, columns)).append("\x1b[0m\x1b[K");
  }
  return frame + "\x1b[J";
}

int ShowLive(const std::string& socket) {
  Watch watch(socket);
  Terminal terminal;
  while (true) {
    watch.Ask();
    const Clock::time_point next = Clock::now() + kInterval;
    while (Clock::now() < next) {
      if (!terminal.Write(Frame(watch, terminal.columns(), terminal.rows()))) return 0;
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
      const Terminal::Event event = terminal.Wait(std::max(left, std::chrono::milliseconds(0)));
      if (event == Terminal::Event::kEnd) return 0;
    }
  }
}

int ShowOnce(const std::string& socket) {
  Watch watch(socket);
  if (!watch.Ask()) {
    std::fprintf(stderr, "tidegate-agent: %s\n", watch.error().c_str());
    return 1;
  }
  std::string text;
  for (const Line& line : watch.page().Lines(std::nullopt)) text += line.text + '\n';
  return std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0 ? 1 : 0;
}

}  // namespace

int RunTop(int argc, const char* const* argv) {
  CLI::App app("Shows an agent that runs: who sends, where points go, and what is lost.",
               "tidegate-agent top");
  std::string socket = Options().socket;
  bool once = false;
  app.add_option("--socket", socket, "Path of the agent's socket")
      ->check(PacketListener::CheckPath)
      ->type_name("PATH")
      ->capture_default_str();
  app.add_flag("--once", once, "One page of plain text; the same where no terminal is written to");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& failure) {
    if (failure.get_exit_code() == 0) return app.exit(failure);
    std::fprintf(stderr, "tidegate-agent top: %s; see --help\n", failure.what());
    return kBadFlag;
  }
  std::setlocale(LC_CTYPE, "");
  return once || isatty(STDOUT_FILENO) == 0 ? ShowOnce(socket) : ShowLive(socket);
}

}  // namespace tidegate::agent
