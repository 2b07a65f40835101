#include "soak/slot.h"

#include <ctime>
#include <utility>

#include "metrics/impl/metric_impl.h"
#include "metrics/metric_factory.h"

namespace tidegate::stress {
namespace {

using METRICS::ReturnCode;
using std::chrono::milliseconds;

// Expiry hides a few of these, and erases them from a quarter on.
constexpr size_t kSeries = 16;
constexpr size_t kHidden = 3;
constexpr int64_t kIdleSeconds = 7300;
constexpr char kName[] = "m";  // always the same: a name is free at once
// An agent that hangs costs a flush some seconds, and a sanitizer makes ten of one.
constexpr std::chrono::seconds kPatience{90};

}  // namespace

Slot::Slot(Stage stage, std::string tenant, std::string prefix)
    : stage_(std::move(stage)), tenant_(std::move(tenant)), prefix_(std::move(prefix)) {}

void Slot::Emit(Random& random) {
  const std::shared_lock guard(gate_);
  if (open_) {
    channel_->Emit(random);
  }
}

bool Slot::Turn(Random& random, bool refill) {
  switch (step_) {
    case Step::kEmpty:
      if (refill) {
        Fill(random);
      }
      return !refill;
    case Step::kOpen:
      if (!refill || Clock::now() >= until_) {
        Leave();
      }
      return false;
    case Step::kLeft:
      AwaitSettled(random, refill);
      return false;
    case Step::kAging:
    case Step::kNapping:
      AwaitAged(random);
      return false;
    case Step::kBroken:
      break;
  }
  return true;
}

void Slot::Break(const std::string& what) {
  stage_.report.Violation(what + ": " + tenant_ + "/" + prefix_);
  step_ = Step::kBroken;
}

void Slot::Fill(Random& random) {
  METRICS::MetricRegistryCfg cfg;
  cfg.tenant = tenant_;
  cfg.prefix = prefix_;
  cfg.tags = {{"dc", "x"}};
  cfg.flush_interval = 1;
  METRICS::MetricRegistry* registry = nullptr;
  if (stage_.client.CreateRegistry(registry, std::move(cfg)) != ReturnCode::kOk) {
    Break("a registry was refused");
    return;
  }
  const int shapes = stage_.compatible ? kShapes : static_cast<int>(Shape::kCompatibleRate);
  const auto shape = static_cast<Shape>(Between(random, 0, shapes - 1));
  metric_ = MakeMetric(*registry, kName, shape, stage_.report);
  if (metric_ == nullptr) {
    step_ = Step::kBroken;
    return;
  }
  ++stage_.figures.metrics_made;
  Open(random, shape);
}

void Slot::Open(Random& random, Shape shape) {
  Channel::Plan plan{metric_, shape, std::to_string(++generation_), kSeries};
  plan.bound = random() % 2 == 0;
  channel_ = std::make_unique<Channel>(std::move(plan), stage_.ledger, stage_.report);
  counted_ = 0;
  if (stage_.expires) {
    channel_->Prime();
  }
  Enter(random);
}

void Slot::Enter(Random& random) {
  channel_->Bind();  // to hidden series, too
  const std::lock_guard guard(gate_);
  open_ = true;
  step_ = Step::kOpen;
  until_ = Clock::now() + milliseconds(Between(random, 50, 2500));
}

void Slot::Leave() {
  const std::lock_guard guard(gate_);
  open_ = false;
  channel_->LetGo();
  const int64_t emissions = channel_->emissions();
  stage_.figures.emissions += emissions - std::exchange(counted_, emissions);
  step_ = Step::kLeft;
  until_ = Clock::now() + kPatience;
}

void Slot::AwaitSettled(Random& random, bool refill) {
  if (channel_->IsSettled()) {
    if (refill) {
      Act(random);
    } else {
      Remove(random);
    }
  } else if (Clock::now() > until_) {
    channel_->Complain("long after the emitters left,");
    step_ = Step::kBroken;
  }
}

void Slot::Act(Random& random) {
  switch (random() % 6) {
    case 0:
    case 1:
      Remove(random);
      break;
    case 2:
      BlockAndReopen(random);
      break;
    case 3:
      if (stage_.expires && stage_.erases) {
        channel_->CloseAccounts();
        Age(kSeries);
        step_ = Step::kAging;
        break;
      }
      [[fallthrough]];
    case 4:
      if (stage_.expires) {
        Age(kHidden);
        step_ = Step::kNapping;
        break;
      }
      [[fallthrough]];
    default:
      ++stage_.figures.rests;
      Enter(random);
  }
}

void Slot::Remove(Random& random) {
  channel_->CloseAccounts();
  channel_.reset();
  ++stage_.figures.metrics_removed;
  METRICS::MetricRegistry& registry = *metric_->registry_;
  metric_ = nullptr;
  step_ = Step::kEmpty;
  switch (random() % 3) {
    case 0:
      stage_.report.Check(registry.RemoveMetric(kName) == ReturnCode::kOk,
                          "a metric was not removed");
      return;
    case 1:
      registry.Clear();
      [[fallthrough]];
    default:
      RemoveRegistry();
  }
}

void Slot::RemoveRegistry() {
  const ReturnCode code = stage_.client.metric_factory_->RemoveRegistry(prefix_, tenant_);
  stage_.report.Check(code == ReturnCode::kOk, "a registry was not removed");
  ++stage_.figures.registries_removed;
}

void Slot::BlockAndReopen(Random& random) {
  channel_->CloseAccounts();
  const Shape shape = channel_->plan().shape;
  METRICS::MetricFactory& factory = *stage_.client.metric_factory_;
  stage_.report.Check(factory.Block(tenant_, prefix_) == ReturnCode::kOk, "no block");
  CheckBlocked();
  stage_.report.Check(factory.UnBlock(tenant_, prefix_) == ReturnCode::kOk, "no unblock");
  ++stage_.figures.blocks;
  Open(random, shape);
}

void Slot::CheckBlocked() {
  METRICS::Metric* refused = nullptr;
  const ReturnCode made = metric_->registry_->CreateMetric(refused, "late", {}, nullptr);
  stage_.report.Check(made == ReturnCode::kObjectBlocked, "a blocked registry makes a metric");
  stage_.report.Check(channel_->Find(0) == METRICS::DummyItem(), "a blocked metric has a series");
  stage_.report.Check(metric_->impl_->GetSeriesCount() == 0, "a blocked metric keeps series");
}

void Slot::Age(size_t series) {
  for (size_t i = 0; i < series; ++i) {
    channel_->Find(i)->last_update_.store(std::time(nullptr) - kIdleSeconds);
  }
  until_ = Clock::now() + kPatience;
}

void Slot::AwaitAged(Random& random) {
  if (step_ == Step::kAging && metric_->impl_->GetSeriesCount() == 0) {
    ++stage_.figures.aged;
    Open(random, channel_->plan().shape);
    return;
  }
  if (step_ == Step::kNapping) {
    bool hidden = true;
    for (size_t i = 0; i < kHidden; ++i) {
      hidden = hidden && !channel_->Find(i)->active_.load();
    }
    if (hidden) {
      ++stage_.figures.naps;
      Enter(random);
      return;
    }
  }
  if (Clock::now() > until_) {
    Break("expiry does not see aged series");
  }
}

}  // namespace tidegate::stress
