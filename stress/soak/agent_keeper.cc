#include "soak/agent_keeper.h"

#include <unistd.h>

#include <algorithm>
#include <thread>
#include <utility>

namespace tidegate::stress {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

}  // namespace

AgentKeeper::AgentKeeper(std::string folder, AgentPath& path, Ledger& ledger)
    : folder_(std::move(folder)), path_(path), ledger_(ledger) {
  Start();
}

void AgentKeeper::Start() {
  // The file of the last one was stale until now.
  ::unlink(path_.Get().c_str());
  const std::string path = folder_ + "/" + std::to_string(++lives_);
  agent_ = std::make_unique<test::ListeningAgent>(path, [this](const char* bytes, size_t size) {
    ledger_.Received(bytes, size);
    return true;
  });
  path_.Set(path);
}

void AgentKeeper::End(bool drained) {
  if (drained) {
    agent_->Drain();
  } else {
    agent_->Kill();
  }
  ledger_.AgentEnded(agent_->path(), drained);
}

void AgentKeeper::Torment(steady_clock::time_point end, Random& random) {
  end_ = end;
  while (steady_clock::now() < end_) {
    // The first faults are one of each kind, in a hurry, so that the short form has them all.
    const bool first = faults_ < kFaultKinds;
    Pause(200, first ? 500 : 2500, random);
    const int kind = first ? static_cast<int>(faults_) : Between(random, 0, kFaultKinds - 1);
    Fault(kind, random);
    ++faults_;
  }
}

void AgentKeeper::Fault(int kind, Random& random) {
  switch (kind) {
    case 0:  // killed while it reads; a flush finds nobody
      End(false);
      Pause(1000, 2500, random);
      Start();
      return;
    case 1:  // killed with what came while it hung, and back at once
      agent_->Stall();
      Pause(1000, 3000, random);
      End(false);
      Start();
      return;
    case 2:  // hangs
      agent_->Stall();
      Pause(300, 4000, random);
      agent_->Resume();
      return;
    default:  // ends in order
      End();
      ::unlink(path_.Get().c_str());
      Pause(0, 1500, random);
      Start();
  }
}

void AgentKeeper::Pause(int low_ms, int high_ms, Random& random) const {
  const auto wake = steady_clock::now() + milliseconds(Between(random, low_ms, high_ms));
  std::this_thread::sleep_until(std::min(wake, end_));
}

}  // namespace tidegate::stress
