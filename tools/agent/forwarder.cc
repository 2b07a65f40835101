#include "agent/forwarder.h"

#include <pthread.h>

#include <algorithm>
#include <utility>

#include "agent/survives.h"

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;

using std::chrono::milliseconds;

// Every record repeats the names of its block: more takes a packet that is made to be expensive.
constexpr size_t kMaxPacketBytes = size_t{256} << 20;

// Enough to find a few points at fault in a batch. A server that refuses all of them is not asked
// for each.
constexpr int kMostSplits = 200;

// While draining there is no time for long pauses.
constexpr milliseconds kLongestDrainPause{500};

ForwardOptions WithMagic(ForwardOptions options, std::string_view magic) {
  options.spool.magic = magic;
  return options;
}

int64_t NowNanos() {
  return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

Forwarder::Forwarder(const ForwardOptions& options, std::unique_ptr<const PointFormat> format,
                     DestinationNumbers* numbers, Health* health, Report report)
    : format_(std::move(format)),
      options_(WithMagic(options, format_->SpoolMagic())),
      numbers_(numbers),
      health_(health),
      report_(std::move(report)),
      spool_(options_.spool, numbers, health, report_),
      queue_(
          options_.limits, options_.spool.folder.empty()
                               ? std::function<bool()>()
                               : [this] { return !spool_.empty() || has_spooled_parts_; }),
      poster_(MakePoster(options_.target)),
      state_(options_.target.url.shown),
      writer_(format_->MakeWriter()),
      output_(&queue_, numbers, health),
      target_(options_.target),
      random_(std::random_device()()) {
  if (!options_.spool.folder.empty()) {
    feeder_.emplace(&queue_, &spool_, format_.get(), numbers_, health_, [this] { PublishSize(); });
  }
}

Forwarder::~Forwarder() { Stop(milliseconds(0)); }

void Forwarder::Start() {
  thread_ = std::thread(&Forwarder::Run, this);
  if (feeder_) feeder_->Start();
}

void Forwarder::BeginStop(milliseconds drain) {
  if (!thread_.joinable() || draining_) return;
  drain_end_ = Clock::now() + drain;
  HandOut(true);
  draining_ = true;
  queue_.End();
}

void Forwarder::Stop(milliseconds drain) {
  if (!thread_.joinable()) return;
  BeginStop(drain);
  if (ended_.wait_until(drain_end_) != std::future_status::ready) {
    const WriteGuard lock(target_mutex_);
    poster_->Cancel();
  }
  thread_.join();
  if (feeder_) feeder_->Finish();
  DropWhatIsLeft();
}

std::unique_ptr<HttpPoster> Forwarder::MakePoster(const ForwardTarget& target) const {
  return std::make_unique<HttpPoster>(target.url, target.credentials, format_->Headers());
}

void Forwarder::Redirect(const ForwardTarget& target) {
  {
    const WriteGuard lock(target_mutex_);
    next_target_ = target;
  }
  queue_.SendNow();  // wakes the thread
}

void Forwarder::TakeTarget() {
  Survives(health_, [this] {
    const WriteGuard lock(target_mutex_);
    if (!next_target_) return;
    ReportRefused();
    poster_ = MakePoster(*next_target_);
    target_ = *std::move(next_target_);
    next_target_.reset();
    state_.SetUrl(target_.url.shown);
    failures_ = 0;
    denied_since_.reset();
    next_outage_line_ = next_refusal_line_ = {};
    queue_.SendNow();  // a pause after a failure is over
  });
}

void Forwarder::DropWhatIsLeft() {
  const uint64_t left = queue_.Clear() + sending_;
  PublishSize();
  numbers_->Dropped(ForwardDrop::kShutdown) += left;
  if (left == 0) return;
  Survives(health_, [&] {
    report_("dropped " + std::to_string(left) + " points that could not be forwarded");
  });
}

void Forwarder::Flush() {
  flushing_ = true;
  queue_.Flush();
}

bool Forwarder::IsIdle() const {
  return numbers_->held_points == 0 && sending_ == 0 && queue_.IsIdle();
}

void Forwarder::Handle(const Packet& packet, const ClientId& client) {
  left_ = packet.series_count;
  try {
    Write(packet, client);
  } catch (const std::exception&) {
    output_.Drop(ForwardDrop::kMemory, left_);
    output_.Abandon();
    throw;
  }
}

void Forwarder::Write(const Packet& packet, const ClientId& client) {
  size_t work = 0;
  for (const Block& block : packet.blocks) {
    writer_->StartBlock(packet, client, block);
    for (const Series& record : block.series) {
      const bool tried = work < kMaxPacketBytes;
      if (!tried || !writer_->Write(record, &output_)) output_.Drop(ForwardDrop::kEmpty, 1);
      --left_;
      if (tried) work += writer_->work();
    }
  }
  writer_->EndPacket(&output_);
  output_.Push();
  PublishHeld();
  PublishSize();
}

void Forwarder::HandOut(bool all) {
  if (Survives(health_, [&] { writer_->HandOut(all, &output_); })) {
    output_.Push();
  } else {
    output_.Abandon();
  }
  PublishHeld();
  PublishSize();
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
    if (!batch.empty() && batch.front().packed) {
      DeliverQueued(&batch);
    } else if (!batch.empty() && !Survives(health_, [&] { Pack(&batch); })) {
      CountLost(batch);
    }
    PublishSize();
  }
  Survives(health_, [this] { KeepSpooledParts(); });
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
  format_->AppendHealth(*health_, options_.host, NowNanos(), &lines);
  // No points: those are what clients have sent.
  CountFull(queue_.Append(lines, 0));
}

void Forwarder::DeliverSpooled() {
  if (spooled_.parts.empty()) {
    spooled_.splits = 0;
    if (!Survives(health_, [&] { spooled_.parts = spool_.Take(); })) {
      queue_.ReturnUnsent({}, Clock::now() + options_.first_pause);
    }
  }
  if (spooled_.parts.empty()) return;
  Survives(health_, [&] {
    if (Deliver(&spooled_)) return;
    queue_.ReturnUnsent({}, retry_at_);
    ReportOutage();
  });
  const bool gone = spooled_.parts.empty();
  // The spool keeps a batch that is whole, also if this agent ends. It knows nothing of parts.
  if (spooled_.splits == 0) spooled_.parts.clear();
  has_spooled_parts_ = !spooled_.parts.empty();
  if (!has_spooled_parts_) Survives(health_, [&] { spool_.Settle(gone); });
}

// The rest of a batch of the spool of which parts are done with goes the way of the queue.
void Forwarder::KeepSpooledParts() {
  if (spooled_.parts.empty()) return;
  CountFull(queue_.ReturnUnsent(std::move(spooled_.parts), Clock::now()));
  spool_.Settle(true);
}

void Forwarder::Pack(Batches* batch) {
  batch->front().body = format_->Pack(batch->front().body);
  batch->front().packed = true;
  CountFull(queue_.ReturnPacked(std::move(*batch)));
}

void Forwarder::DeliverQueued(Batches* batch) {
  sending_ = batch->front().points;
  Delivery delivery;
  delivery.parts.swap(*batch);
  const bool survived = Survives(health_, [&] {
    if (Deliver(&delivery)) return;
    CountFull(queue_.ReturnUnsent(std::move(delivery.parts), retry_at_));
    ReportOutage();
  });
  if (!survived) CountLost(delivery.parts);
  sending_ = 0;
}

bool Forwarder::Deliver(Delivery* delivery) {
  Batches& parts = delivery->parts;
  while (!parts.empty()) {
    TakeTarget();  // since the batch was waited for
    const HttpReply reply = Post(parts.front());
    const Verdict verdict = format_->Read(reply, parts.front().points);
    if (IsWorthRetrying(verdict.kind)) {
      for (const Batch& part : parts) numbers_->retried_points += part.points;
      retry_at_ = Clock::now() + NextPause(reply.wait);
      state_.NoteOutcome(false);
      Survives(health_, [&] {
        failure_ = TextOf(reply);
        state_.NoteRefusal(failure_, reply.status);
      });
      return false;
    }
    failures_ = 0;
    state_.NoteOutcome(true);
    if (verdict.kind == Verdict::Kind::kRefused && verdict.divisible && Split(delivery)) continue;
    queue_.Sent(parts.front().points);
    Settle(&parts, verdict, reply);
  }
  return true;
}

bool Forwarder::Split(Delivery* delivery) {
  if (delivery->splits == kMostSplits) return false;
  const Batch& whole = delivery->parts.front();
  Batches halves;
  const bool survived = Survives(health_, [&] {
    auto bodies = format_->Split(whole.body, whole.points);
    if (!bodies) return;
    for (PointFormat::Body* body : {&bodies->first, &bodies->second}) {
      Batch& half = halves.emplace_back();
      half.body = std::move(body->bytes);
      half.points = body->points;
      half.packed = true;
    }
  });
  if (!survived || halves.empty()) return false;
  ++delivery->splits;
  delivery->parts.pop_front();
  delivery->parts.splice(delivery->parts.begin(), halves);
  return true;
}

// Counts the first part as the verdict says, and takes it out. All counts come before all texts,
// which may lack memory.
void Forwarder::Settle(Batches* parts, const Verdict& verdict, const HttpReply& reply) {
  Batches done;
  done.splice(done.begin(), *parts, parts->begin());
  const uint64_t points = done.front().points;
  const bool taken = verdict.kind == Verdict::Kind::kTaken;
  const bool refused = !taken || verdict.dropped > 0;
  const uint64_t dropped = taken ? std::min(verdict.dropped, points) : points;
  const bool delivered = !refused || dropped < points;
  numbers_->Dropped(ForwardDrop::kRejected) += dropped;
  refused_points_ += dropped;
  numbers_->forwarded_points += points - dropped;
  if (delivered) ++numbers_->batches;
  if (refused) {
    std::string words = verdict.words.empty() ? TextOf(reply) : verdict.words;
    const std::string series = format_->Describe(done.front().body);
    if (!series.empty()) words += " (for " + series + ")";
    state_.NoteRefusal(words, reply.status);
    ReportRefusal(words);
  }
  if (delivered && std::exchange(outage_reported_, false)) {
    report_("forwards to " + target_.url.shown + " again");
  }
}

DestinationStatus Forwarder::Status() const {
  DestinationStatus status;
  status.name = options_.name;
  status.type = FactsOf(options_.kind).name;
  state_.CopyTo(&status);
  status.queue_points = numbers_->queue_points + numbers_->held_points;
  status.queue_bytes = numbers_->queue_bytes + numbers_->held_bytes;
  status.queue_limit_points = queue_.limits().queue_points;
  status.spool_points = numbers_->spool_points;
  status.spool_bytes = numbers_->spool_bytes;
  status.forwarded_points = numbers_->forwarded_points;
  status.retried_points = numbers_->retried_points;
  for (size_t i = 0; i < kForwardDrops; ++i) status.dropped[i] = numbers_->dropped[i];
  return status;
}

bool Forwarder::IsWorthRetrying(Verdict::Kind kind) {
  if (kind != Verdict::Kind::kSetUp) {
    denied_since_.reset();
    return kind == Verdict::Kind::kAgain;
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

void Forwarder::ReportOutage() {
  if (!IsDue(&next_outage_line_)) return;
  outage_reported_ = true;
  report_("cannot forward to " + target_.url.shown + ", " + failure_ + "; " +
          std::to_string(queue_.Size().points + numbers_->spool_points) + " points wait, " +
          std::to_string(numbers_->Dropped(ForwardDrop::kFull)) + " dropped as the queue was full");
}

void Forwarder::ReportRefusal(const std::string& words) {
  if (!IsDue(&next_refusal_line_)) return;
  report_("dropped " + std::to_string(std::exchange(refused_points_, 0)) + " points that " +
          target_.url.shown + " refused, " + words);
}

bool Forwarder::IsDue(Clock::time_point* next_line) const {
  const Clock::time_point now = Clock::now();
  if (now < *next_line) return false;
  *next_line = now + options_.log_interval;
  return true;
}

// Doubles up to the longest pause, half of which is random, so that many agents do not come back in
// step. A server that names a time is not asked before it, and not by all at that time.
milliseconds Forwarder::NextPause(milliseconds wanted) {
  constexpr int kMostDoublings = 20;
  const int doublings = std::min(failures_++, kMostDoublings);
  milliseconds full =
      std::min<milliseconds>(options_.first_pause * (1LL << doublings), options_.longest_pause);
  milliseconds least = full / 2;
  if (!draining_) {
    full = std::max(full, wanted);
    least = std::max(least, wanted);
  }
  const milliseconds pause = least + milliseconds(std::uniform_int_distribution<milliseconds::rep>(
                                         0, full.count() / 2)(random_));
  return draining_ ? std::min(pause, kLongestDrainPause) : pause;
}

milliseconds Forwarder::Timeout() const {
  if (!draining_) return target_.timeout;
  const auto left = std::chrono::duration_cast<milliseconds>(drain_end_ - Clock::now());
  return std::clamp(left, milliseconds(1), target_.timeout);
}

void Forwarder::CountFull(uint64_t points) { numbers_->Dropped(ForwardDrop::kFull) += points; }

// Points that were kept, or counted, are no longer in there.
void Forwarder::CountLost(const Batches& batches) {
  for (const Batch& lost : batches) numbers_->Dropped(ForwardDrop::kMemory) += lost.points;
}

void Forwarder::PublishHeld() {
  const PointWriter::Held held = writer_->held();
  numbers_->held_points = held.points;
  numbers_->held_bytes = held.bytes;
}

void Forwarder::PublishSize() {
  const WriteGuard lock(publishing_);  // else an older size might be stored last
  const QueueSize size = queue_.Size();
  numbers_->queue_points = size.points;
  numbers_->queue_bytes = size.bytes;
}

}  // namespace tidegate::agent
