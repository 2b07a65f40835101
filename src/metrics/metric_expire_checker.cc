#include "metrics/metric_expire_checker.h"

#include <cassert>
#include <utility>

#include "metrics/client_parts.h"
#include "metrics/packed_values.h"
#include "metrics/series_items.h"
#include "util/fork_guard.h"
#include "util/metric_clock_util.h"
#include "util/metric_log.h"
#include "util/wait.h"
#include "util/wall_clock.h"
#include "util/within_memory.h"

namespace METRICS {
namespace {

constexpr int kScaledFrom = 11;
constexpr int kScale = 10;
constexpr double kWorthwhileShare = 0.25;
constexpr int kSliceMillis = 5;

}  // namespace

MetricExpireChecker::MetricExpireChecker(ClientParts* client) : client_(client) {}

MetricExpireChecker::~MetricExpireChecker() {
  Exit();
  client_ = nullptr;
  METRICS_LOG_DEBUG("MetricExpireChecker Destructor.\n");
}

ReturnCode MetricExpireChecker::Start(const int& seconds) {
  if (state_.load() != MetricState::INIT) {
    return ReturnCode::kOk;
  }
  check_interval_ = seconds >= kScaledFrom ? seconds / kScale : seconds;
  const std::shared_ptr<MetricCollectorFactory> factory = client_->collector_factory_;
  if (factory == nullptr) {
    METRICS_LOG_WARN("MetricExpireChecker start fialed, internal error with nullptr.\n");
    return ReturnCode::kNullptr;
  }
  const ReturnCode code = StartThread("ms_expirer", [this, factory, interval = check_interval_] {
    // The thread may be here before the store below.
    WaitUntil([this] { return state_.load() != MetricState::INIT; });
    DoCheck(factory, interval);
  });
  if (code == ReturnCode::kOk) {
    state_.exchange(MetricState::READY);
  }
  return code;
}

void MetricExpireChecker::DoCheck(std::shared_ptr<MetricCollectorFactory> factory, int interval) {
  assert(factory != nullptr);
  EnterThread("ms_expirer");
  while (Running() && factory->state_.load(std::memory_order_relaxed) == MetricState::READY) {
    const long now = WallSeconds();
    CollectorList collectors;
    const bool done = RunWithinMemory("ms_expirer", "a pass", [&] {
      collectors = factory->GetAll();
      for (const CollectorPtr& collector : collectors) {
        CheckCollector(collector, now);
      }
    });
    if (!done) {
      expired_.clear();
    }
    if (!SyncMilliStepSleep(interval, kSliceMillis, state_)) {
      return;
    }
  }
}

void MetricExpireChecker::CheckCollector(const CollectorPtr& collector, long now) {
  expired_.clear();
  size_t erasable = 0;  // all that no handle is bound to: a held series stays in the table
  ListCursor cursor;
  for (SeriesItems piece; collector->NextPiece(cursor, piece);) {
    for (std::shared_ptr<MetricCollectorItem>& item : piece) {
      const bool expired = CheckExpire(item, now);
      item->SetActive(!expired);
      if (item->IsHeld()) {
        continue;
      }
      ++erasable;
      if (expired) {
        expired_.push_back(std::move(item));
      }
    }
  }
  if (expired_.size() >= static_cast<size_t>(static_cast<double>(erasable) * kWorthwhileShare)) {
    DoClean(collector, now);
  }
  expired_.clear();  // what stays hidden is not to be kept alive through the pause
}

void MetricExpireChecker::DoClean(const CollectorPtr& collector, const long& now) {
  if (expired_.empty()) {
    return;
  }
  size_t erased = 0;
  for (const std::shared_ptr<MetricCollectorItem>& item : expired_) {
    // A series that came back, or was bound, since the walk stays.
    if (CheckExpire(item, now) && collector->EraseIdle(*item, now)) {
      ++erased;
    } else if (!CheckExpire(item, now)) {
      item->SetActive(true);
    }
  }
  METRICS_LOG_WARN("%lu of %lu Series Expired in Collecotor: %s\n", erased, expired_.size(),
                   collector->name_.c_str());
  expired_.clear();
}

void MetricExpireChecker::Exit() {
  if (Running()) {
    StopThread();
  }
}

void MetricExpireChecker::AtFork() {
  if (!Running()) {
    return;
  }
  if (!StopThread()) {
    Abandon(expired_);
  }
  client_ = nullptr;
}

}  // namespace METRICS
