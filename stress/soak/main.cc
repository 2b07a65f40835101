// A soak of the whole library: emitters on metrics of all kinds, metrics and registries that come
// and go, expiry, self monitoring, and an agent with a hard life. All that
// goes in has to come out: for every series, emitted = received + dropped with packets whose send
// failed + lost with an agent that was killed before it read them.

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "soak/agent_keeper.h"
#include "soak/channel.h"
#include "soak/ledger.h"
#include "soak/memory_watch.h"
#include "soak/slot.h"
#include "soak/socket_tap.h"
#include "soak/world.h"
#include "support/command_line.h"
#include "support/environment.h"
#include "support/report.h"

namespace tidegate::stress {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// From here on a run has to show each kind of fault, and all that may happen from there on.
constexpr int kShortForm = 12;
constexpr int kLongForm = 60;

struct Options {
  int seconds = kShortForm;
  uint64_t seed = 0;
  int emitters = 4;
  int pause = 1000;
  int expire = 1;
};

using Worlds = std::vector<std::unique_ptr<World>>;

// The threads beside the one of `main`, which looks after the agent.
class Crew {
 public:
  Crew(const Worlds& worlds, const Options& options)
      : worlds_(worlds), seed_(options.seed), pause_(options.pause) {
    for (int i = 0; i < options.emitters; ++i) {
      emitters_.emplace_back(&Crew::Emit, this, i);
    }
    stage_hand_ = std::thread(&Crew::ShiftScenes, this);
    watchman_ = std::thread(&Crew::Watch, this);
  }

  // Ends in order: the slots are emptied while emitters still run elsewhere.
  void Stop() {
    stop_scenes_.store(true);
    stage_hand_.join();
    stop_.store(true);
    for (std::thread& emitter : emitters_) {
      emitter.join();
    }
    watchman_.join();
  }

  const MemoryWatch& memory() const { return memory_; }

 private:
  void Emit(int index) {
    Random random(seed_ + 1 + static_cast<uint64_t>(index));
    while (!stop_.load(std::memory_order_relaxed)) {
      for (int i = 0; i < 20; ++i) {
        worlds_[random() % worlds_.size()]->Emit(random);
      }
      // Readers that never pause would starve the writers of the library's locks.
      std::this_thread::sleep_for(pause_);
    }
  }

  void ShiftScenes() {
    Random random(seed_);
    bool done = false;
    while (!done) {
      const bool refill = !stop_scenes_.load();
      done = !refill;
      for (const std::unique_ptr<World>& world : worlds_) {
        done = world->Turn(random, refill) && done;
      }
      std::this_thread::sleep_for(milliseconds(10));
    }
  }

  void Watch() {
    for (int tenths = 0; !stop_.load(std::memory_order_relaxed); ++tenths) {
      if (tenths % 10 == 0) {
        memory_.Sample();
      }
      std::this_thread::sleep_for(milliseconds(100));
    }
  }

  const Worlds& worlds_;
  const uint64_t seed_;
  const std::chrono::microseconds pause_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> stop_scenes_{false};
  MemoryWatch memory_;
  std::vector<std::thread> emitters_;
  std::thread stage_hand_;
  std::thread watchman_;
};

void AddFigures(const Ledger& ledger, const SlotFigures& slots, const Worlds& worlds,
                Report& report) {
  int64_t emissions = slots.emissions;
  for (const std::unique_ptr<World>& world : worlds) {
    emissions += world->emissions();
  }
  const Ledger::Figures figures = ledger.figures();
  report.Figure("emissions", emissions);
  report.Figure("points", figures.points);
  report.Figure("flushes", figures.flushes);
  report.Figure("packets", figures.packets);
  report.Figure("received", figures.received);
  report.Figure("dropped", figures.dropped);
  report.Figure("lost_in_killed_agents", figures.lost);
  report.Figure("failed_sends", figures.failed_sends);
  report.Figure("metrics_made", slots.metrics_made);
  report.Figure("metrics_removed", slots.metrics_removed);
  report.Figure("registries_removed", slots.registries_removed);
  report.Figure("blocks", slots.blocks);
  report.Figure("aged", slots.aged);
  report.Figure("naps", slots.naps);
  report.Figure("rests", slots.rests);
  report.Check(emissions > 0 && figures.received > 0, "nothing was sent at all");
}

// A run in which nothing happened proves nothing.
void CheckVariety(const Options& options, int64_t faults, int64_t last_flushes,
                  const Ledger& ledger, const SlotFigures& slots, Report& report) {
  const Ledger::Figures figures = ledger.figures();
  if (options.seconds >= kShortForm) {
    report.Check(faults >= AgentKeeper::kFaultKinds, "not every kind of fault was there");
    report.Check(figures.failed_sends > 0, "no send failed");
    report.Check(last_flushes > 0, "no client had a last flush of its own");
  }
  if (options.seconds >= kLongForm) {
    report.Check(slots.blocks > 0, "no registry was blocked");
    report.Check(slots.aged > 0, "no series expired");
    report.Check(figures.lost > 0, "no killed agent lost a packet");
  }
}

int Soak(const Options& options) {
  Report report("soak");
  report.Figure("seconds", options.seconds);
  report.Figure("seed", static_cast<int64_t>(options.seed));
  report.Figure("emitters", options.emitters);
  const test::ScopedLogLevel silent(4);
  const test::TempDir folder;
  AgentPath path;
  Ledger ledger(report);
  SlotFigures slot_figures;
  AgentKeeper keeper(folder.path(), path, ledger);
  TapSockets(&ledger);
  {
    Worlds worlds;
    for (const World::Config& config : {
             World::Config{"plain", false, false, true, options.expire},
             World::Config{"encoded", false, true, true, options.expire},
             World::Config{"trees", true, false, true, options.expire},
         }) {
      worlds.push_back(std::make_unique<World>(config, path, ledger, report, slot_figures));
    }
    Crew crew(worlds, options);
    Random random(options.seed);
    keeper.Torment(steady_clock::now() + seconds(options.seconds), random);
    crew.Stop();
    int64_t last_flushes = 0;
    for (const std::unique_ptr<World>& world : worlds) {
      last_flushes += world->FlushAndExit(random) ? 1 : 0;
    }
    keeper.End();
    ledger.Finish();
    for (const std::unique_ptr<World>& world : worlds) {
      world->CheckBooks();
    }
    AddFigures(ledger, slot_figures, worlds, report);
    report.Figure("last_flushes", last_flushes);
    report.Figure("faults", keeper.faults());
    CheckVariety(options, keeper.faults(), last_flushes, ledger, slot_figures, report);
    crew.memory().Judge(report);
  }
  TapSockets(nullptr);
  return report.Finish();
}

}  // namespace
}  // namespace tidegate::stress

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  tidegate::stress::Options options;
  tidegate::stress::CommandLine line("soak", "Soaks the whole library and keeps books on it.",
                                     options.seconds);
  line.Add("--emitters", options.emitters, "Threads that emit");
  line.Add("--pause", options.pause, "Microseconds that an emitter rests after 20 emissions");
  line.Add("--expire", options.expire,
           "Milliseconds between two passes of expiry; 0: it never rests");
  line.AddSeed();
  if (const std::optional<int> code = line.Parse(argc, argv)) {
    return *code;
  }
  options.seconds = line.seconds();
  options.seed = line.seed();
  return tidegate::stress::Soak(options);
}
