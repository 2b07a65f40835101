#include "agent/forwarder.h"

#include <pthread.h>

#include <algorithm>
#include <utility>

#include "agent/gzip.h"
#include "agent/partial_write.h"
#include "agent/survives.h"

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;

using std::chrono::milliseconds;

// Lines are handed to the queue when they are so many bytes, as a packet can be long.
constexpr size_t kChunkSize = size_t{64} << 10;

// Every record repeats the names of its block: more takes a packet that is made to be expensive.
constexpr size_t kMaxPacketBytes = size_t{256} << 20;

// While draining there is no time for long pauses.
constexpr milliseconds kLongestDrainPause{500};

bool IsTaken(int status) { return status / 100 == 2; }

// The same request can succeed later.
bool IsWorthRetrying(int status) { return status == 0 || status == 429 || status / 100 == 5; }

// How many of `points`, in lines that the server did not take as a whole, it has dropped. A point
// can be more than one line, which the server counts.
uint64_t Refused(const HttpReply& reply, uint64_t points) {
  const auto dropped = reply.status == 400 ? LinesDropped(reply.body) : std::nullopt;
  return std::min(dropped.value_or(points), points);
}

std::string Shown(const HttpReply& reply) {
  if (reply.status == 0) return reply.text;
  std::string shown = "HTTP " + std::to_string(reply.status);
  if (!reply.text.empty()) shown += ": " + reply.text;
  if (!reply.location.empty()) {
    shown += " (redirects are not followed: name " + reply.location + " in --forward)";
  }
  return shown;
}

int64_t NowNanos() {
  return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

Forwarder::Forwarder(ForwardOptions options, Health* health, Report report)
    : options_(std::move(options)),
      health_(health),
      report_(std::move(report)),
      spool_(options_.spool, health, report_),
      queue_(
          options_.limits, options_.spool.folder.empty() ? std::function<bool()>()
                                                         : [this] { return !spool_.empty(); }),
      poster_(std::make_unique<HttpPoster>(options_.url)),
      writer_(options_.process_label),
      target_{options_.url, options_.timeout},
      random_(std::random_device()()) {
  if (!options_.spool.folder.empty()) {
    feeder_.emplace(&queue_, &spool_, health_, [this] { PublishSize(); });
  }
}

Forwarder::~Forwarder() { Stop(milliseconds(0)); }

void Forwarder::Start() {
  thread_ = std::thread(&Forwarder::Run, this);
  if (feeder_) feeder_->Start();
}

void Forwarder::Stop(milliseconds drain) {
  if (!thread_.joinable() || draining_) return;
  drain_end_ = Clock::now() + drain;
  draining_ = true;
  queue_.Flush();
  if (ended_.wait_until(drain_end_) != std::future_status::ready) {
    const WriteGuard lock(target_mutex_);
    poster_->Cancel();
  }
  thread_.join();
  if (feeder_) feeder_->Finish();
  DropWhatIsLeft();
}

void Forwarder::Redirect(const ForwardUrl& url, milliseconds timeout) {
  {
    const WriteGuard lock(target_mutex_);
    next_target_ = {url, timeout};
  }
  queue_.SendNow();  // wakes the thread
}

void Forwarder::TakeTarget() {
  Survives(health_, [this] {
    const WriteGuard lock(target_mutex_);
    if (!next_target_) return;
    ReportRefused();
    poster_ = std::make_unique<HttpPoster>(next_target_->url);
    target_ = *std::move(next_target_);
    next_target_.reset();
    failures_ = 0;
    denied_since_.reset();
    next_outage_line_ = next_refusal_line_ = {};
    queue_.SendNow();  // a pause after a failure is over
  });
}

void Forwarder::DropWhatIsLeft() {
  const uint64_t left = queue_.Clear() + sending_;
  PublishSize();
  health_->forward_dropped_shutdown += left;
  if (left == 0) return;
  Survives(health_, [&] {
    report_("dropped " + std::to_string(left) + " points that could not be forwarded");
  });
}

void Forwarder::Handle(const Packet& packet, const ClientId& client) {
  left_ = packet.series_count;
  try {
    AppendLines(packet, client);
  } catch (const std::exception&) {
    health_->forward_dropped_memory += left_;
    lines_ = std::string();
    throw;
  }
}

void Forwarder::AppendLines(const Packet& packet, const ClientId& client) {
  uint64_t points = 0;
  size_t bytes = 0;
  for (const Block& block : packet.blocks) {
    writer_.StartBlock(packet, client, block);
    for (const Series& record : block.series) {
      const size_t before = lines_.size();
      if (bytes < kMaxPacketBytes && writer_.AppendRecord(record, &lines_)) {
        ++points;
      } else {
        ++health_->forward_dropped_empty;
        --left_;
      }
      // A line that is too long takes as much to make as one that is sent.
      bytes += std::max(lines_.size() - before, writer_.tried_bytes());
      if (IsChunkFull(points)) Append(std::exchange(points, 0));
    }
  }
  Append(points);
}

void Forwarder::Append(uint64_t points) {
  if (lines_.empty()) return;
  CountFull(queue_.Append(lines_, points));
  left_ -= points;
  // One huge histogram must not be paid for until the end.
  if (lines_.capacity() > 4 * kChunkSize) {
    lines_ = std::string();
  } else {
    lines_.clear();
  }
  PublishSize();
}

// A chunk is never split, so it must not be more than a batch.
bool Forwarder::IsChunkFull(uint64_t points) const {
  const BatchLimits& limits = queue_.limits();
  return points >= limits.batch_points || lines_.size() >= std::min(kChunkSize, limits.batch_bytes);
}

void Forwarder::Run() {
  pthread_setname_np(pthread_self(), "forwarder");
  next_health_ = Clock::now() + options_.health_interval;
  while (true) {
    const bool draining = draining_;
    if (draining && Clock::now() >= drain_end_) break;
    Survives(health_, [this] { SendHealthIfDue(); });
    TakeTarget();
    Batches batch = queue_.Take(draining ? drain_end_ : next_health_);
    if (batch.empty() && queue_.IsSpooledDue()) {
      DeliverSpooled();
      continue;
    }
    if (batch.empty() && draining) break;
    if (!batch.empty() &&
        !Survives(health_, [&] { batch.front().packed ? Deliver(&batch) : Pack(&batch); })) {
      sending_ = 0;
      // Points that were kept, or counted, are no longer in there.
      if (!batch.empty()) health_->forward_dropped_memory += batch.front().points;
    }
    PublishSize();
  }
  Survives(health_, [this] { ReportRefused(); });
  end_.set_value();
}

void Forwarder::ReportRefused() {
  if (refused_points_ == 0) return;
  report_("dropped " + std::to_string(std::exchange(refused_points_, 0)) + " more points that " +
          target_.url.shown + " refused");
}

void Forwarder::SendHealthIfDue() {
  const Clock::time_point now = Clock::now();
  if (now < next_health_) return;
  next_health_ = now + options_.health_interval;
  std::string lines;
  AppendHealthLines(*health_, options_.host, NowNanos(), &lines);
  // No points: those are what clients have sent.
  CountFull(queue_.Append(lines, 0));
}

void Forwarder::DeliverSpooled() {
  Batches batch;
  if (!Survives(health_, [&] { batch = spool_.Take(); })) {
    queue_.ReturnUnsent({}, Clock::now() + options_.first_pause);
  }
  if (batch.empty()) return;
  batch.front().spooled = true;
  Survives(health_, [&] { Deliver(&batch); });
  sending_ = 0;
  Survives(health_, [&] { spool_.Settle(batch.empty()); });
}

void Forwarder::Pack(Batches* batch) {
  batch->front().body = Gzip(batch->front().body);
  batch->front().packed = true;
  CountFull(queue_.ReturnPacked(std::move(*batch)));
}

void Forwarder::Deliver(Batches* batch) {
  TakeTarget();  // since the batch was waited for
  // The spool keeps its batches, also if this agent ends.
  if (!batch->front().spooled) sending_ = batch->front().points;
  const HttpReply reply = Post(batch->front());
  sending_ = 0;
  if (WaitsForSetup(reply.status) || IsWorthRetrying(reply.status)) return Retry(batch, reply);
  const Batches done = std::move(*batch);
  const uint64_t points = done.front().points;
  const uint64_t refused = IsTaken(reply.status) ? 0 : Refused(reply, points);
  failures_ = 0;
  if (!IsTaken(reply.status)) Reject(refused, reply);
  if (!IsTaken(reply.status) && refused == points) return;
  health_->forwarded_points += points - refused;
  ++health_->forward_batches;
  if (std::exchange(outage_reported_, false)) {
    report_("forwards to " + target_.url.shown + " again");
  }
}

// A database can be there before it has been set up.
bool Forwarder::WaitsForSetup(int status) {
  if (status != 401 && status != 404) {
    denied_since_.reset();
    return false;
  }
  const Clock::time_point now = Clock::now();
  if (!denied_since_) denied_since_ = now;
  return now < *denied_since_ + options_.setup_time;
}

HttpReply Forwarder::Post(const Batch& batch) {
  HttpReply reply = {};
  if (!Survives(health_, [&] { reply = poster_->Post(batch.body, Timeout()); })) {
    reply = {};
    reply.text = "out of memory";
  }
  return reply;
}

void Forwarder::Retry(Batches* batch, const HttpReply& reply) {
  const milliseconds pause = NextPause(reply.wait);
  health_->forward_retried_points += batch->front().points;
  CountFull(queue_.ReturnUnsent(batch->front().spooled ? Batches() : std::move(*batch),
                                Clock::now() + pause));
  if (!IsDue(&next_outage_line_)) return;
  outage_reported_ = true;
  report_("cannot forward to " + target_.url.shown + ", " + Shown(reply) + "; " +
          std::to_string(queue_.Size().points + health_->forward_spool_points) + " points wait, " +
          std::to_string(health_->forward_dropped_full) + " dropped as the queue was full");
}

void Forwarder::Reject(uint64_t points, const HttpReply& reply) {
  health_->forward_dropped_rejected += points;
  refused_points_ += points;
  if (!IsDue(&next_refusal_line_)) return;
  report_("dropped " + std::to_string(std::exchange(refused_points_, 0)) + " points that " +
          target_.url.shown + " refused, " + Shown(reply));
}

bool Forwarder::IsDue(Clock::time_point* next_line) const {
  const Clock::time_point now = Clock::now();
  if (now < *next_line) return false;
  *next_line = now + options_.log_interval;
  return true;
}

// Doubles up to the longest pause and takes off up to half of it, so that many agents do not come
// back in step. A server that names a time is not asked before it.
milliseconds Forwarder::NextPause(milliseconds wanted) {
  constexpr int kMostDoublings = 20;
  const int doublings = std::min(failures_++, kMostDoublings);
  const milliseconds full =
      std::min<milliseconds>(options_.first_pause * (1LL << doublings), options_.longest_pause);
  const milliseconds cut(
      std::uniform_int_distribution<milliseconds::rep>(0, full.count() / 2)(random_));
  return draining_ ? std::min(full - cut, kLongestDrainPause) : std::max(full - cut, wanted);
}

milliseconds Forwarder::Timeout() const {
  if (!draining_) return target_.timeout;
  const auto left = std::chrono::duration_cast<milliseconds>(drain_end_ - Clock::now());
  return std::clamp(left, milliseconds(1), target_.timeout);
}

void Forwarder::CountFull(uint64_t points) { health_->forward_dropped_full += points; }

void Forwarder::PublishSize() {
  const QueueSize size = queue_.Size();
  health_->forward_queue_points = size.points;
  health_->forward_queue_bytes = size.bytes;
}

}  // namespace tidegate::agent
