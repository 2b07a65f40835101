#include "soak/world.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

#include "metrics/metric_collector_factory.h"
#include "metrics/metric_configer.h"
#include "metrics/metric_sender.h"
#include "metrics/metric_sender_manager.h"
#include "support/environment.h"

namespace tidegate::stress {
namespace {

using METRICS::ReturnCode;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Makes a flush of these longer than one packet.
constexpr size_t kSteadySeries = 40;
constexpr size_t kSlots = 4;
constexpr std::chrono::seconds kPatience{90};

class Vendor final : public METRICS::DummyVendor {
 public:
  explicit Vendor(AgentPath& path) : path_(path) {}
  std::string GetSenderOutPath() override { return path_.Get(); }

 private:
  AgentPath& path_;
};

METRICS::CoreInitCfg CoreOf(const World::Config& config) {
  METRICS::CoreInitCfg core;
  core.force_self_monitor = true;
  core.monitor_interval = 20;
  core.monitor_flush_interval = 1;
  core.pre_encode_tags = config.pre_encode;
  core.enable_expire = config.expiry;
  core.expire_seconds = config.expire_seconds;
  return core;
}

}  // namespace

World::World(const Config& config, AgentPath& path, Ledger& ledger, Report& report,
             SlotFigures& figures)
    : config_(config),
      tenant_(config.name),
      compatible_tags_(!config.kd_tree && !config.pre_encode),
      ledger_(ledger),
      report_(report) {
  const ReturnCode code = client_.Init(std::make_unique<test::TestConfiger>(),
                                       std::make_unique<Vendor>(path), nullptr, CoreOf(config));
  report_.Check(code == ReturnCode::kOk, "a client was refused");
  if (config.kd_tree) {
    client_.collector_factory_->collector_kind_ = 1;
  }
  MakeSteady();
  for (size_t i = 0; i < kSlots; ++i) {
    const Slot::Stage stage{client_,          ledger,          report,       figures,
                            compatible_tags_, !config.kd_tree, config.expiry};
    // Every other slot is of a tenant of its own, with a flush thread of its own.
    slots_.push_back(std::make_unique<Slot>(stage, tenant_ + (i % 2 == 0 ? "" : "-more"),
                                            "slot" + std::to_string(i)));
  }
}

METRICS::MetricRegistry* World::MakeRegistry(const std::string& prefix, int flush_interval) {
  METRICS::MetricRegistryCfg cfg;
  cfg.tenant = tenant_;
  cfg.prefix = prefix;
  cfg.tags = {{"dc", "x"}};
  cfg.flush_interval = flush_interval;
  METRICS::MetricRegistry* registry = nullptr;
  const ReturnCode code = client_.CreateRegistry(registry, std::move(cfg));
  report_.Check(code == ReturnCode::kOk, "a registry was refused: " + prefix);
  return registry;
}

void World::MakeSteady() {
  METRICS::MetricRegistry* const steady = MakeRegistry("steady", 1);
  METRICS::MetricRegistry* const slow = MakeRegistry("slow", 5);
  if (steady == nullptr || slow == nullptr) {
    return;
  }
  for (int i = 0; i < kShapes; ++i) {
    AddSteady(*steady, static_cast<Shape>(i));
  }
  AddSteady(*slow, Shape::kSuffixed);
}

void World::AddSteady(METRICS::MetricRegistry& registry, Shape shape) {
  const std::string name = "shape" + std::to_string(static_cast<int>(shape));
  METRICS::Metric* const metric = MakeMetric(registry, name, shape, report_);
  if (metric == nullptr) {
    return;
  }
  const bool tags_arrive = compatible_tags_ || !IsCompatible(shape);
  steady_.push_back(std::make_unique<Channel>(
      Channel::Plan{metric, shape, "0", tags_arrive ? kSteadySeries : 1, tags_arrive, true},
      ledger_, report_));
  steady_.back()->Prime();
  steady_.back()->Bind();
}

void World::Emit(Random& random) {
  constexpr unsigned kBetweenBursts = 40;
  constexpr milliseconds kTurn{50};
  if (random() % kBetweenBursts == 0) {
    // Bursts of one time meet on one series and contend for its cells.
    const auto turn = steady_clock::now().time_since_epoch() / kTurn;
    steady_[static_cast<size_t>(turn) % steady_.size()]->Burst(random);
  } else if (random() % 2 == 0) {
    slots_[random() % slots_.size()]->Emit(random);
  } else {
    steady_[random() % steady_.size()]->Emit(random);
  }
}

bool World::Turn(Random& random, bool refill) {
  bool done = true;
  for (const std::unique_ptr<Slot>& slot : slots_) {
    done = slot->Turn(random, refill) && done;
  }
  return done;
}

bool World::IsSettled() const {
  return std::all_of(steady_.begin(), steady_.end(),
                     [](const auto& channel) { return channel->IsSettled(); });
}

void World::AwaitSettled() const {
  const auto deadline = steady_clock::now() + kPatience;
  while (!IsSettled() && steady_clock::now() < deadline) {
    std::this_thread::sleep_for(milliseconds(50));
  }
}

bool World::StopFlushThread() {
  METRICS::MetricSender* sender = nullptr;
  client_.sender_manager_->GetSender(sender, tenant_);
  if (!report_.Check(sender != nullptr, "a tenant without a sender")) {
    return false;
  }
  sender->state_.store(METRICS::MetricState::SHUTDOWN);
  sender->thread_.join();
  return sender->work_state_ != METRICS::MetricSender::WorkState::kWorking;
}

bool World::FlushAndExit(Random& random) {
  AwaitSettled();
  const bool last_flush = StopFlushThread();
  for (const std::unique_ptr<Channel>& channel : steady_) {
    if (last_flush) {
      channel->EmitOnAll(random);
    }
    channel->LetGo();
  }
  client_.FlushAndExit();
  return last_flush;
}

void World::CheckBooks() const {
  for (const std::unique_ptr<Channel>& channel : steady_) {
    channel->Complain("at the end");
    channel->CheckReceivedTotals();
  }
}

int64_t World::emissions() const {
  int64_t count = 0;
  for (const std::unique_ptr<Channel>& channel : steady_) {
    count += channel->emissions();
  }
  return count;
}

}  // namespace tidegate::stress
