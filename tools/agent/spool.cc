#include "agent/spool.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <system_error>
#include <utility>

#include "agent/survives.h"

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;

constexpr uint64_t kLargestSegment = uint64_t{8} << 20;
constexpr uint64_t kSegments = 16;

std::string ErrorText(int error) { return std::generic_category().message(error); }

bool IsShortage(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

off_t AsOffset(uint64_t number) { return static_cast<off_t>(number); }

bool ReadAll(const UniqueFd& file, uint64_t offset, char* bytes, size_t size) {
  while (size > 0) {
    const ssize_t got = pread(file.get(), bytes, size, AsOffset(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    bytes += got;
    offset += static_cast<uint64_t>(got);
    size -= static_cast<size_t>(got);
  }
  return true;
}

bool WriteAll(const UniqueFd& file, uint64_t offset, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t put = pwrite(file.get(), bytes.data(), bytes.size(), AsOffset(offset));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(put));
    offset += static_cast<uint64_t>(put);
  }
  return true;
}

}  // namespace

Spool::Spool(SpoolOptions options, DestinationNumbers* numbers, Health* health, Report report)
    : options_(std::move(options)),
      segment_bytes_(std::min(kLargestSegment, options_.bytes / kSegments)),
      numbers_(numbers),
      health_(health),
      report_(std::move(report)) {}

bool Spool::Open() {
  const WriteGuard lock(mutex_);
  if (folder_.is_open()) return true;
  std::string error;
  if (!options_.parent.empty()) mkdir(options_.parent.c_str(), 0700);  // Open tells why not
  if (!folder_.Open(options_.folder, &error)) return Failed("cannot be used", error);
  Works();
  Load();
  Publish();
  return true;
}

void Spool::Load() {
  SpoolFolder::Content content;
  std::string error;
  if (!folder_.List(&content, &error)) Failed("cannot be listed", error);
  if (!content.numbers.empty()) next_number_ = content.numbers.back() + 1;
  size_t left_alone = content.foreign.size();
  for (const uint64_t number : content.numbers) LoadSegment(number, &left_alone);
  if (left_alone > 0) {
    Damaged(left_alone, 0, std::to_string(left_alone) + " files that are not its own");
  }
  if (points_ == 0) return;
  const int64_t age = std::time(nullptr) - segments_.front().waiting.front().time;
  Tell({"has ", std::to_string(points_), " points that wait, the first for ",
        std::to_string(std::max<int64_t>(age, 0)), " s"});
}

void Spool::LoadSegment(uint64_t number, size_t* left_alone) {
  UniqueFd file = folder_.OpenSegment(number);
  struct stat info = {};
  char magic[kSegmentMagic.size()] = {};
  if (!file.valid() || fstat(file.get(), &info) != 0) {
    ++*left_alone;
    return;
  }
  const auto size = static_cast<uint64_t>(info.st_size);
  const size_t begin = std::min<uint64_t>(size, sizeof(magic));
  if (!ReadAll(file, 0, magic, begin) ||
      std::string_view(magic, begin) != options_.magic.substr(0, begin)) {
    ++*left_alone;
    return;
  }
  const ReadAt read = [&file](uint64_t offset, char* bytes, size_t count) {
    return ReadAll(file, offset, bytes, count);
  };
  SegmentContent content = ScanSegment(read, size);
  if (content.damaged > 0) {
    Damaged(content.damaged, content.damaged_points,
            "damaged parts of " + SpoolFolder::NameOf(number));
  }
  if (content.waiting.empty()) {
    folder_.Remove(number);
    return;
  }
  Segment& segment = segments_.emplace_back();
  segment.number = number;
  segment.size = size;
  segment.waiting.assign(content.waiting.begin(), content.waiting.end());
  bytes_ += size;
  for (const SpoolRecord& record : segment.waiting) points_ += record.points;
  waiting_ += segment.waiting.size();
}

bool Spool::Append(const Batch& batch) {
  const WriteGuard lock(mutex_);
  if (!folder_.is_open()) return false;
  const uint64_t size = kRecordHeadSize + batch.body.size();
  if (kSegmentMagic.size() + size > options_.bytes) {
    CountFull(batch.points);
    return true;
  }
  MakeRoom(size);
  const bool written = Write(batch);
  if (written) Works();
  if (written && segments_.back().size >= segment_bytes_) EndSegment();
  Publish();
  return written;
}

// A new segment has its magic, too.
void Spool::MakeRoom(uint64_t size) {
  while (bytes_ + (writing_ ? 0 : kSegmentMagic.size()) + size > options_.bytes) {
    uint64_t points = 0;
    for (const SpoolRecord& record : segments_.front().waiting) points += record.points;
    if (taken_ && !std::exchange(taken_lost_, true)) points -= taken_points_;
    RemoveOldest();
    CountFull(points);
  }
}

bool Spool::Write(const Batch& batch) {
  if (!writing_ && !StartSegment()) return false;
  Segment& segment = segments_.back();
  SpoolRecord record;
  record.offset = segment.size;
  const std::string head = MakeRecordHead(batch, std::time(nullptr), &record);
  segment.waiting.push_back(record);  // may throw, so it comes before anything is written
  if (!WriteAll(segment.file, record.offset, head) ||
      !WriteAll(segment.file, record.body(), batch.body)) {
    const int error = errno;
    segment.waiting.pop_back();
    // If even this fails, the next record is written over it.
    [[maybe_unused]] const int cut = ftruncate(segment.file.get(), AsOffset(segment.size));
    return Failed("cannot be written to", ErrorText(error));
  }
  segment.size += head.size() + batch.body.size();
  bytes_ += head.size() + batch.body.size();
  points_ += record.points;
  ++waiting_;
  return true;
}

bool Spool::StartSegment() {
  UniqueFd file = folder_.MakeSegment(next_number_++);
  if (!file.valid()) return Failed("cannot make a file", ErrorText(errno));
  if (!WriteAll(file, 0, options_.magic)) {
    const int error = errno;
    folder_.Remove(next_number_ - 1);
    return Failed("cannot be written to", ErrorText(error));
  }
  Segment& segment = segments_.emplace_back();
  segment.number = next_number_ - 1;
  segment.size = kSegmentMagic.size();
  segment.file = std::move(file);
  bytes_ += segment.size;
  writing_ = true;
  return true;
}

void Spool::EndSegment() {
  Segment& segment = segments_.back();
  const bool flushed = fdatasync(segment.file.get()) == 0 && folder_.Sync();
  const int error = errno;
  segment.file.Reset();
  writing_ = false;
  if (!flushed) Failed("cannot be flushed", ErrorText(error));
}

Batches Spool::Take() {
  const WriteGuard lock(mutex_);
  while (waiting_ > 0) {
    Segment& segment = segments_.front();
    if (!FileOf(&segment).valid() && IsShortage(errno)) {  // the file itself may be good
      ++numbers_->spool_failures;
      return {};
    }
    const SpoolRecord& record = segment.waiting.front();
    Batches batch(1);
    batch.front().points = record.points;
    batch.front().packed = true;
    if (ReadBody(&segment, &batch.front().body)) {
      taken_ = true;
      taken_points_ = record.points;
      return batch;
    }
    const std::string name = SpoolFolder::NameOf(segment.number);
    const uint64_t points = record.points;
    PopRecord();
    Damaged(1, points, "damaged parts of " + name);
    Publish();
  }
  return {};
}

// Not valid, with errno, if it cannot be opened.
const UniqueFd& Spool::FileOf(Segment* segment) const {
  if (!segment->file.valid()) segment->file = folder_.OpenSegment(segment->number);
  return segment->file;
}

// That of the segment's first record. False if it is not what was written.
bool Spool::ReadBody(Segment* segment, std::string* body) const {
  const SpoolRecord& record = segment->waiting.front();
  body->resize(record.size);
  return ReadAll(FileOf(segment), record.body(), body->data(), body->size()) &&
         IsBodyOf(record, *body);
}

void Spool::Settle(bool gone) {
  const WriteGuard lock(mutex_);
  if (!std::exchange(taken_, false)) return;
  if (std::exchange(taken_lost_, false)) {
    if (!gone) CountFull(taken_points_);
  } else if (gone) {
    PopRecord();
  }
  Publish();
}

void Spool::PopRecord() {
  Segment& segment = segments_.front();
  const SpoolRecord record = segment.waiting.front();
  if (segment.waiting.size() == 1) return RemoveOldest();
  segment.waiting.pop_front();
  points_ -= record.points;
  --waiting_;
  // The file was closed if the segment has become full since Take.
  if (!WriteAll(FileOf(&segment), record.mark(), MarkOfDone())) {
    Failed("cannot be written to", ErrorText(errno));
  }
}

void Spool::RemoveOldest() {
  const Segment& segment = segments_.front();
  for (const SpoolRecord& record : segment.waiting) points_ -= record.points;
  waiting_ -= segment.waiting.size();
  bytes_ -= segment.size;
  const bool removed = folder_.Remove(segment.number);
  const int error = errno;
  if (segments_.size() == 1) writing_ = false;
  segments_.pop_front();
  if (!removed) Failed("cannot remove a file", ErrorText(error));
}

void Spool::Close() {
  const WriteGuard lock(mutex_);
  if (writing_) EndSegment();
  if (points_ > 0) Tell({"keeps ", std::to_string(points_), " points for the next start"});
  segments_.clear();
  taken_ = writing_ = false;
  waiting_ = 0;
  folder_ = SpoolFolder();
}

void Spool::CountFull(uint64_t points) {
  numbers_->Dropped(ForwardDrop::kSpoolFull) += points;
  dropped_ += points;
  const auto now = std::chrono::steady_clock::now();
  if (dropped_ == 0 || now < next_full_line_) return;
  next_full_line_ = now + options_.log_interval;
  Tell({"is full, dropped its oldest ", std::to_string(std::exchange(dropped_, 0)), " points"});
}

void Spool::Damaged(uint64_t pieces, uint64_t points, const std::string& what) {
  numbers_->spool_damaged += pieces;
  numbers_->Dropped(ForwardDrop::kSpoolDamaged) += points;
  if (what == last_damage_) return;
  last_damage_ = what;
  Tell({"leaves out ", what});
}

bool Spool::Failed(const char* what, const std::string& why) {
  ++numbers_->spool_failures;
  if (why == trouble_) return false;
  trouble_ = why;
  Tell({what, ": ", why, "; points wait in memory"});
  return false;
}

void Spool::Works() {
  if (trouble_.empty()) return;
  trouble_.clear();
  Tell({"can be used again"});
}

// A line for which there is no memory leaves nothing half done.
void Spool::Tell(std::initializer_list<std::string_view> texts) {
  Survives(health_, [&] {
    std::string line = "the spool " + options_.folder + " ";
    for (const std::string_view text : texts) line += text;
    report_(line);
  });
}

void Spool::Publish() {
  numbers_->spool_bytes = bytes_;
  numbers_->spool_points = points_;
}

}  // namespace tidegate::agent
