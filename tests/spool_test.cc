#include "agent/spool.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace tidegate::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

class SpoolTest : public testing::Test {
 protected:
  ~SpoolTest() override { fs::remove_all(folder_); }

  // As an agent that was killed before: nothing is flushed or told.
  void Restart(uint64_t bytes = 1 << 20) {
    spool_.reset();
    log_.clear();
    spool_ = Make(bytes);
    spool_->Open();
  }
  std::unique_ptr<Spool> Make(uint64_t bytes) {
    SpoolOptions options;
    options.folder = folder_ / "spool";
    options.bytes = bytes;
    return std::make_unique<Spool>(options, &numbers_, &health_,
                                   [this](const std::string& line) { log_.push_back(line); });
  }
  bool Append(const std::string& body, uint64_t points = 1) {
    Batch batch;
    batch.body = body;
    batch.points = points;
    batch.packed = true;
    return spool_->Append(batch);
  }
  // All that is left, taken out.
  std::vector<std::string> Rest() {
    std::vector<std::string> bodies;
    while (!spool_->empty()) {
      const Batches batch = spool_->Take();
      if (!batch.empty()) bodies.push_back(batch.front().body);
      spool_->Settle(true);
    }
    return bodies;
  }
  std::vector<fs::path> Segments() const {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(folder_ / "spool")) {
      if (entry.path().extension() == ".spool") files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
  }
  static std::string Content(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  static void Write(const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
  }

  char template_[18] = "/tmp/spool_XXXXXX";
  const fs::path folder_ = mkdtemp(template_);
  Health health_;
  DestinationNumbers numbers_{&health_, "d"};
  std::vector<std::string> log_;
  std::unique_ptr<Spool> spool_;
};

TEST_F(SpoolTest, KeepsItsOrderAndWhatIsLeftOverARestart) {
  Restart();
  for (const char* body : {"one", "two", "three"}) EXPECT_TRUE(Append(body, 5));
  EXPECT_EQ(spool_->Take().front().points, 5U);
  spool_->Settle(false);
  EXPECT_EQ(spool_->Take().front().body, "one");
  const std::string filling(100000, 'f');  // ends the segment while a batch of it is under way
  EXPECT_TRUE(Append(filling));
  spool_->Settle(true);
  EXPECT_THAT(log_, IsEmpty());
  Restart();
  EXPECT_TRUE(Append("four"));
  EXPECT_EQ(numbers_.spool_points, 12U);
  EXPECT_THAT(log_, ElementsAre(HasSubstr("/spool has 11 points that wait, the first for ")));
  EXPECT_THAT(Rest(), ElementsAre("two", "three", filling, "four"));
  EXPECT_THAT(Segments(), IsEmpty());
  EXPECT_EQ(numbers_.spool_points + numbers_.spool_bytes, 0U);
  struct stat info = {};
  ASSERT_EQ(stat((folder_ / "spool").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700U);
}

TEST_F(SpoolTest, DamageCostsOneRecord) {
  Restart();
  for (const char* body : {"one", "second", "three"}) Append(body);
  const fs::path segment = Segments().at(0);
  const std::string whole = Content(segment);
  const size_t begin = kSegmentMagic.size() + kRecordHeadSize + 3;
  const size_t end = begin + kRecordHeadSize + 6;
  // `kept` has what a segment of these bytes still holds.
  const auto expect = [&](const std::string& bytes, const std::vector<std::string>& kept,
                          uint64_t damaged) {
    spool_.reset();
    Write(segment, bytes);
    const uint64_t before = numbers_.spool_damaged;
    Restart();
    EXPECT_EQ(Rest(), kept);
    EXPECT_EQ(numbers_.spool_damaged - before, damaged);
    EXPECT_THAT(Segments(), IsEmpty());
  };
  for (size_t size = begin; size < end; ++size) {
    SCOPED_TRACE("cut off after " + std::to_string(size));
    expect(whole.substr(0, size), {"one"}, size > begin ? 1 : 0);
  }
  for (size_t at = begin; at < end; ++at) {
    SCOPED_TRACE("another byte at " + std::to_string(at));
    std::string bytes = whole;
    bytes[at] = static_cast<char>(bytes[at] ^ 0x5a);
    const bool in_mark = at - begin >= kRecordHeadSize - 4 && at - begin < kRecordHeadSize;
    if (in_mark) {
      expect(bytes, {"one", "second", "three"}, 0);
    } else {
      expect(bytes, {"one", "three"}, 1);
    }
  }
  EXPECT_GT(numbers_.Dropped(ForwardDrop::kSpoolDamaged), 0U);
  for (size_t size = 0; size <= kSegmentMagic.size(); ++size) expect(whole.substr(0, size), {}, 0);
}

TEST_F(SpoolTest, WaitsForADescriptor) {
  Restart();
  Append("one");
  Restart();  // now the file is not open
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none = {0, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const Batches taken = spool_->Take();
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_THAT(taken, IsEmpty());
  EXPECT_THAT(Rest(), ElementsAre("one"));
  EXPECT_EQ(numbers_.spool_failures, 1U);
}

TEST_F(SpoolTest, DropsItsOldestSegmentAboveTheBound) {
  const std::string body(1000, 'b');  // more than a segment has, so that each is one
  const uint64_t size = kSegmentMagic.size() + kRecordHeadSize + body.size();
  for (const int64_t more : {-1, 0, 1}) {
    fs::remove_all(folder_ / "spool");
    Restart(3 * size + static_cast<uint64_t>(more));
    const uint64_t before = numbers_.Dropped(ForwardDrop::kSpoolFull);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(Append(body, 7));
    EXPECT_EQ(numbers_.Dropped(ForwardDrop::kSpoolFull) - before, more < 0 ? 7U : 0U);
    EXPECT_EQ(Segments().size(), more < 0 ? 2U : 3U);
    EXPECT_TRUE(Append(std::string(4000, 'x'), 9));  // one that never has room
    EXPECT_EQ(numbers_.Dropped(ForwardDrop::kSpoolFull) - before, more < 0 ? 16U : 9U);
  }
  // One that is being sent is dropped only if that fails.
  for (const bool gone : {true, false}) {
    const uint64_t before = numbers_.Dropped(ForwardDrop::kSpoolFull);
    ASSERT_FALSE(spool_->Take().empty());
    EXPECT_TRUE(Append(body, 7));
    EXPECT_EQ(numbers_.Dropped(ForwardDrop::kSpoolFull), before);
    spool_->Settle(gone);
    EXPECT_EQ(numbers_.Dropped(ForwardDrop::kSpoolFull) - before, gone ? 0U : 7U);
  }
  EXPECT_THAT(log_, ElementsAre(HasSubstr("/spool is full, dropped its oldest 9 points")));
  EXPECT_EQ(Rest().size(), 3U);
}

TEST_F(SpoolTest, SaysOnceWhyAFolderCannotBeUsed) {
  const fs::path path = folder_ / "spool";
  std::unique_ptr<Spool> other;
  const struct {
    std::function<void()> spoil;
    const char* reason;
    std::function<void()> repair;
  } kCases[] = {
      {[&] { Write(path, ""); }, "Not a directory", [&] { fs::remove(path); }},
      {[&] { fs::create_symlink("/tmp", path); }, "Not a directory", [&] { fs::remove(path); }},
      {[&] { ASSERT_EQ(mkdir(path.c_str(), 0) + chmod(path.c_str(), 0777), 0); },
       "other users may write to it", [&] { chmod(path.c_str(), 0755); }},
      {[&] {
         fs::create_directory(path);
         fs::create_symlink("/etc/passwd", path / "lock");
       },
       "no lock file can be made in it", [&] { fs::remove(path / "lock"); }},
      {[&] {
         other = Make(1 << 20);
         EXPECT_TRUE(other->Open());
       },
       "another agent uses it", [&] { other.reset(); }},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.reason);
    spool_.reset();
    fs::remove_all(path);
    test.spoil();
    const uint64_t before = numbers_.spool_failures;
    Restart();
    EXPECT_FALSE(spool_->Open());
    EXPECT_FALSE(Append("one"));
    EXPECT_EQ(numbers_.spool_failures - before, 2U);
    test.repair();
    EXPECT_TRUE(Append("one") || spool_->Open());
    EXPECT_TRUE(Append("one"));
    EXPECT_THAT(log_, ElementsAre(HasSubstr(test.reason), HasSubstr("can be used again")));
    EXPECT_THAT(Rest(), ElementsAre("one"));
  }
}

TEST_F(SpoolTest, LeavesOtherFilesAlone) {
  Restart();
  EXPECT_TRUE(Append("one"));
  const fs::path path = folder_ / "spool";
  Write(path / "notes", "mine");
  Write(path / SpoolFolder::NameOf(7), "no segment at all");
  Write(path / "ffffffffffffffff.spool", "TGSPOOL1");
  fs::create_directory(path / SpoolFolder::NameOf(8));
  fs::create_symlink(Segments().at(0), path / SpoolFolder::NameOf(9));
  Restart();
  EXPECT_EQ(numbers_.spool_damaged, 5U);
  EXPECT_THAT(log_, ElementsAre(HasSubstr("leaves out 5 files that are not its own"),
                                HasSubstr("has 1 points that wait")));
  EXPECT_TRUE(Append("two"));
  EXPECT_THAT(Rest(), ElementsAre("one", "two"));
  EXPECT_EQ(std::distance(fs::directory_iterator(path), {}), 6);  // with the lock
}

TEST_F(SpoolTest, AFullDiskLosesNothing) {
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  // At no byte, within the first record's magic, head and body, and within the second record.
  for (const rlim_t limit : std::vector<rlim_t>{0, 5, 20, 100, 200, 1100, 2000}) {
    SCOPED_TRACE(limit);
    Restart();
    std::vector<std::string> kept;
    const rlimit full = {limit, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
    for (const char fill : {'a', 'b', 'c'}) {
      if (Append(std::string(900, fill))) kept.emplace_back(900, fill);
    }
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(kept.size(), limit / 948);
    EXPECT_THAT(log_, ElementsAre(HasSubstr("File too large; points wait in memory")));
    EXPECT_TRUE(Append("more"));
    kept.emplace_back("more");
    EXPECT_THAT(log_.back(), HasSubstr("can be used again"));
    Restart();
    EXPECT_EQ(Rest(), kept);
  }
  EXPECT_EQ(numbers_.spool_damaged, 0U);
  EXPECT_GT(numbers_.spool_failures, 10U);
}

}  // namespace
}  // namespace tidegate::agent
