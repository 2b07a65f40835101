#include "agent/rule_stage.h"

#include <gmock/gmock.h>

#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "golden/golden_file.h"
#include "support/limited_allocations.h"

namespace tidegate::agent {
namespace {

using std::chrono::hours;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAreArray;

constexpr int64_t kTime = 1700000000;
using Lines = std::vector<std::string>;

std::vector<Rule> RulesFrom(std::string text) {
  return ReadRules(TakeSections("f", {"rule"}, {}, &text));
}

// A packet of lines as "3 shop.bytes{method=get} 5": wire_type, name, tags and value. A line that
// begins with a + is one more record of the block before.
Packet PacketOf(const Lines& lines, const std::string& tenant = "t", int64_t time = 0) {
  Packet packet;
  packet.tenant = tenant;
  for (const std::string& line : lines) {
    const size_t open = line.find('{');
    std::istringstream tags(line.substr(open + 1, line.find('}') - open - 1));
    if (line.front() != '+') {
      Block& block = packet.blocks.emplace_back();
      block.wire_type = static_cast<uint8_t>(line.front() - '0');
      block.name = line.substr(2, open - 2);
      block.timestamp = kTime + time;
    }
    Series& record = packet.blocks.back().series.emplace_back();
    for (std::string tag; std::getline(tags, tag, ',');) {
      record.tags.push_back({tag.substr(0, tag.find('=')), tag.substr(tag.find('=') + 1)});
    }
    record.values = {std::stod(line.substr(line.find('}') + 1))};
    ++packet.series_count;
  }
  return packet;
}

class Keeper : public PacketSink {
 public:
  void Handle(const Packet& packet, const ClientId& client) override {
    size_t points = 0;
    for (const Block& block : packet.blocks) {
      for (const Series& record : block.series) {
        std::ostringstream line;
        if (client.slot != kNoSlot) line << client.slot << ": ";
        line << block.name << '{';
        const char* separator = "";
        for (const Tag& tag : record.tags) {
          line << std::exchange(separator, ",") << tag.key << '=' << tag.value;
        }
        line << "} " << record.values.front();
        lines.push_back(line.str());
        ++points;
      }
    }
    EXPECT_EQ(points, packet.series_count);
  }

  Lines lines;
};

class RulesTest : public testing::Test {
 protected:
  RulesTest() { Make("", false); }

  // With slots, or with one series for all processes.
  void Make(const std::string& settings, bool merges_all) {
    MergeStage::Options options;
    if (!merges_all) options.apart = ProcessLabel::kSlot;
    merge_ = std::make_unique<MergeStage>(
        options, std::vector<PacketSink*>{&sink_}, &health_,
        [this](const std::string& line) { reports_.push_back(line); },
        [](const ProcessId& /*process*/) { return true; },
        [] {
          return SeriesTable::Time{RuleStage::Clock::time_point(hours(1)), kTime - 20};
        });
    const Report report = [this](const std::string& line) { reports_.push_back(line); };
    rules_ = std::make_unique<RuleStage>(merges_all, merge_.get(), &counts_, report, report);
    merges_all_ = merges_all;
    Change(settings);
    reports_.clear();
  }
  bool Change(const std::string& settings) { return rules_->Change(RulesFrom(settings), now_); }
  // As the decoder does.
  void Send(Packet packet, const ClientId& client = {1, 1, 1, kNoSlot}) {
    PacketSink* const sink = merges_all_ ? static_cast<PacketSink*>(merge_.get()) : &sink_;
    if (!rules_->IsOn() || rules_->Apply(&packet)) sink->Handle(packet, client);
    if (rules_->IsOn()) rules_->HandOn(&packet, client);
  }
  // All that has come out.
  Lines Flush() {
    merge_->Flush();
    return std::exchange(sink_.lines, {});
  }
  // Matched and dropped points of each rule.
  std::string Counts() const {
    std::string text;
    for (const RuleStatus& rule : counts_.Statuses()) {
      text += rule.name + ' ' + std::to_string(rule.matched) + ' ' + std::to_string(rule.dropped) +
              "; ";
    }
    return text;
  }

  RuleStage::Clock::time_point now_{hours(1)};
  bool merges_all_ = false;
  Health health_;
  Lines reports_;
  Keeper sink_;
  RuleCounts counts_;
  std::unique_ptr<MergeStage> merge_;
  std::unique_ptr<RuleStage> rules_;
};

// Each case is a pattern, a text, and what its wildcards stand for, or "no".
TEST(GlobTest, TakesTextsApart) {
  for (const char* const test :
       {"abc abc ()", "abc abcd no", "* a (a)", "a* abc (bc)", "a*b*c aXbYbc (X)(Yb)",
        "** ab ()(ab)", "?b? abc (a)(c)", "?? a no", "*.?at* a.b.cat. (a.b)(c)(.)", "ab*ba aba no",
        "*aab aaab (a)", "a*?b axyzb (xy)(z)"}) {
    std::istringstream words(test);
    std::string pattern, text, wanted, found;
    words >> pattern >> text >> wanted;
    std::vector<std::string_view> parts;
    const bool matches = Glob(pattern).Match(text, &parts);
    for (const std::string_view part : parts) found.append("(").append(part).append(")");
    EXPECT_EQ(matches ? found.empty() ? "()" : found : "no", wanted) << test;
    EXPECT_EQ(Glob(pattern).Matches(text), matches);
  }
}

TEST_F(RulesTest, DecideInTheirOrder) {
  const Lines all = {"shop.a{k=v} 1", "shop.a{k=w} 2", "shop.a{} 3", "shop.b{k=v} 4", "other{} 5"};
  const Lines points = {"1 shop.a{k=v} 1", "+{k=w} 2", "+{} 3", "2 shop.b{k=v} 4", "3 other{} 5"};
  const struct {
    const char* settings;
    Lines out;
    const char* counts;
  } kCases[] = {
      {"[rule.r]\naction=drop\nname='shop.?'", {"other{} 5"}, "r 4 4; "},
      {"[rule.r]\naction=drop\ntag='k=*'", {"shop.a{} 3", "other{} 5"}, "r 3 3; "},
      {"[rule.r]\naction=drop\ntag=['k=v', 'k=w']", all, "r 0 0; "},
      {"[rule.r]\naction=drop\nname='*'\ntenant='u*'", all, "r 0 0; "},
      {"[rule.r]\naction=keep\nname='shop.*'\ntag='k=v'",
       {"shop.a{k=v} 1", "shop.b{k=v} 4"},
       "r 2 3; "},
      // What none of them keeps is dropped by the last one; a tenant does not hide from it.
      {"[rule.r]\naction=keep\nname='*.b'\n[rule.s]\naction=keep\ntenant=u",
       {"shop.b{k=v} 4"},
       "r 1 0; s 0 4; "},
      {"[rule.r]\naction=keep\nname='shop.*'\n[rule.s]\naction=drop\nname='*.a'\ntag='k=*'",
       {"shop.a{} 3", "shop.b{k=v} 4"},
       "r 4 1; s 2 2; "},
      {"[rule.r]\naction=rename\nname='*.?'\nto='$2$$.$1'\n[rule.s]\naction=drop\nname='b$*'",
       {"a$.shop{k=v} 1", "a$.shop{k=w} 2", "a$.shop{} 3", "other{} 5"},
       "r 4 0; s 1 1; "},
      // Points of one block under several names.
      {"[rule.r]\naction=rename\nname='*.a'\ntag='k=v'\nto='v'\n"
       "[rule.s]\naction=rename\nname='*.a'\ntag='k=w'\nto='w'",
       {"v{k=v} 1", "shop.b{k=v} 4", "other{} 5", "w{k=w} 2", "shop.a{} 3"},
       "r 1 0; s 1 0; "},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.settings);
    Change("");
    EXPECT_TRUE(Change(test.settings));
    EXPECT_FALSE(Change(test.settings));
    Send(PacketOf(points));
    EXPECT_EQ(Flush(), test.out);
    EXPECT_EQ(Counts(), test.counts);
    size_t dropped = 0;
    for (const RuleStatus& rule : counts_.Statuses()) dropped += rule.dropped;
    EXPECT_EQ(test.out.size() + dropped, points.size());
    Send(PacketOf(points));  // by plans that are there already
    EXPECT_EQ(Flush(), test.out);
  }
}

// Each example has rules, points as they are sent, an empty line, and points as they go on.
TEST_F(RulesTest, DoAsTheirPageSays) {
  const std::string page = ReadSourceFile("docs/rules.md");
  const std::string begin = "```toml\n", text = "```text\n", end = "```\n";
  size_t examples = 0;
  for (size_t at = page.find("\n## Examples\n"); (at = page.find(begin, at)) != page.npos; ++at) {
    const size_t rules = at + begin.size();
    const size_t points = page.find(text, rules) + text.size();
    std::istringstream lines(page.substr(points, page.find(end, points) - points));
    Lines sent, wanted;
    bool out = false;
    for (std::string line; std::getline(lines, line);) {
      const size_t name = line.find(' ') + 1;
      out = out || line.empty();
      if (out && !line.empty()) wanted.push_back(line.substr(name));
      if (!out) sent.push_back((line[0] == 'g' ? "1 " : "2 ") + line.substr(name));
    }
    Make(page.substr(rules, page.find(end, rules) - rules), false);
    Send(PacketOf(sent, "shop"));
    EXPECT_THAT(Flush(), UnorderedElementsAreArray(wanted));
    ++examples;
  }
  EXPECT_EQ(examples, 4u);
}

TEST_F(RulesTest, AreRefusedWithTheirLine) {
  const std::pair<const char*, const char*> kCases[] = {
      {"[rule.r]\nname=a", "f:1: \"action\" of a rule is drop, keep, rename or drop-tag"},
      {"[rule.r]\naction=drop", "f:1: a rule that drops needs"},
      {"[rule.r]\naction=keep\ntag=a", "f:3: \"tag\" is key=pattern"},
      {"[rule.r]\naction=rename\nname=a", "f:1: a rule that renames needs \"to\""},
      {"[rule.r]\naction=rename\nname='a*'\nto='$2'", "f:4: \"to\" has a $ that is none of"},
      {"[rule.r]\naction=rename\nname='*'\nto='$1$1$1$1$1$1$1$1$1$1'", "f:4: \"to\" has more"},
      {"[rule.r]\naction=rename\nto=a\nmerge=yes", "f:4: \"merge\" is"},
      {"[rule.r]\naction=rename\nto=a\ngauge=sum", "f:4: \"gauge\" needs merge"},
      {"[rule.r]\naction=drop-tag\nname=a", "f:1: a rule that drops tags needs \"drop\""},
      {"[rule.r]\naction=drop-tag\ndrop=a\ngauge=min", "f:4: \"gauge\" is last, sum or max"},
  };
  for (const auto& [bad, error] : kCases) {
    try {
      RulesFrom(bad);
      ADD_FAILURE() << bad;
    } catch (const SettingsError& failure) {
      EXPECT_THAT(failure.what(), StartsWith(error));
    }
  }
}

TEST_F(RulesTest, MergeWhatBecomesOne) {
  const std::string no_user = "[rule.r]\naction=drop-tag\nname='s.*'\ndrop=user\n";
  const std::string one_name = "[rule.r]\naction=rename\nname='s.?'\nto='s'\nmerge=true\n";
  const Lines gauges = {"1 s.g{dc=b,user=1} 5", "1 s.g{dc=b,user=2} 7", "1 s.g{dc=b} 6"};
  const struct {
    std::string settings;
    Lines in, out;
  } kCases[] = {
      {no_user + "gauge=max", gauges, {"s.g{dc=b} 7"}},
      {no_user + "gauge=last", gauges, {"s.g{dc=b} 6"}},
      {no_user + "tag='user=1'", gauges, {"s.g{dc=b} 11", "s.g{dc=b,user=2} 7"}},
      {no_user, {"2 s.r{user=1,user=2} 5", "+{user=3} 2"}, {"s.r{} 7"}},
      {one_name, {"2 s.a{} 5", "2 s.b{} 2", "2 s{} 1"}, {"s{} 8"}},
      {one_name + "gauge=max", {"1 s{} 3", "1 s.a{} 5", "1 s.b{} 7", "1 s{} 2"}, {"s{} 7"}},
      {one_name + "[rule.t]\naction=rename\nname=s\nto=z", {"2 s.a{} 5", "2 s{} 1"}, {"z{} 6"}},
      {no_user + "[rule.s]\naction=rename\nname='*.*'\nto='$2'",
       {"2 s.r{user=1} 5", "2 s.r{user=2} 2", "2 t.u{} 1"},
       {"u{} 1", "r{} 7"}},
  };
  for (const bool merges_all : {false, true}) {
    for (const auto& test : kCases) {
      SCOPED_TRACE(test.settings);
      Make(test.settings, merges_all);
      Send(PacketOf(test.in));
      EXPECT_THAT(Flush(), UnorderedElementsAreArray(test.out));
      EXPECT_THAT(reports_, IsEmpty());
    }
  }
}

// The ten gauges of a timer are merged as one, also those that are dropped.
TEST_F(RulesTest, MergeTimersBeforeTheirPartsAreDropped) {
  Lines timers;
  for (const char* const user : {"3,env=b", "1,env=a", "2,env=a"}) {
    for (const ColumnRow& column : kTimerColumns) {
      timers.push_back("1 s.t." + std::string(column.name) + "{user=" + user + "} " + *user);
    }
  }
  Make(
      "[rule.d]\naction=drop\nname='s.?.?u*'\n[rule.p]\naction=drop\nname='*.pct*'\n"
      "tag='env=a'\n[rule.r]\naction=drop-tag\ndrop=user",
      false);
  Send(PacketOf(timers));
  Lines wanted = {"s.t.min{env=a} 1", "s.t.max{env=a} 2", "s.t.avg{env=a} 1",
                  "s.t.counter{env=a} 3"};
  for (const ColumnRow& column : kTimerColumns) {
    if (column.name == "sum") continue;
    wanted.push_back("s.t." + std::string(column.name) + "{env=b} 3");
  }
  EXPECT_THAT(Flush(), UnorderedElementsAreArray(wanted));
  EXPECT_EQ(Counts(), "d 3 3; p 10 10; r 17 0; ");
  EXPECT_EQ(health_.merge_left_out_percentiles, 0u);  // rules have dropped those
}

// Each process counts for itself, also over its restart, unless there is one series for all.
TEST_F(RulesTest, KeepTheTotalsOfProcesses) {
  for (const bool merges_all : {false, true}) {
    Make("[rule.r]\naction=drop-tag\ndrop=user", merges_all);
    const auto send = [&](uint32_t slot, pid_t pid, int64_t time, int user, int total) {
      const std::string line = "3 c{user=" + std::to_string(user) + "} " + std::to_string(total);
      Send(PacketOf({line}, "t", time), {pid, 1, 1, merges_all ? kNoSlot : slot});
    };
    const auto begin = [&](uint32_t slot, pid_t pid, int64_t time, int user, int total) {
      send(slot, pid, time, user, total);
      send(slot, pid, time - 10, user, 0);
    };
    begin(0, 1, 10, 1, 5);
    begin(0, 1, 10, 2, 7);
    begin(1, 2, 10, 1, 3);
    EXPECT_THAT(Flush(), testing::Contains(merges_all ? "c{} 15" : "1: c{} 3"));
    send(0, 1, 20, 1, 6);  // the other user has nothing new
    EXPECT_EQ(Flush(), Lines{merges_all ? "c{} 16" : "0: c{} 13"});
    begin(0, 3, 30, 1, 2);  // takes the place of the first
    begin(0, 3, 30, 2, 1);
    send(1, 2, 30, 1, 4);
    const Lines all = {"c{} 20"}, apart = {"0: c{} 16", "1: c{} 4"};
    EXPECT_THAT(Flush(), UnorderedElementsAreArray(merges_all ? all : apart));
    EXPECT_EQ(health_.merge_late_points, 0u);
  }
}

TEST_F(RulesTest, TellOfNamesThatBecomeOne) {
  const std::string settings = "[rule.r]\naction=rename\nname='*.x'\nto='$1'\n";
  Make(settings, false);
  Send(PacketOf({"1 a.x{} 1", "1 b{} 2", "1 b.x{} 3", "1 a{} 4"}));
  EXPECT_THAT(Flush(), ElementsAre("a{} 1", "b{} 2", "b{} 3", "a{} 4"));
  EXPECT_THAT(reports_,
              ElementsAre(HasSubstr("\"b\" and \"b.x\""), HasSubstr("\"a\" and \"a.x\"")));
  Make(settings + "merge=true", false);
  Send(PacketOf({"1 a.x{} 1", "1 b{} 2", "1 b.x{} 3", "1 a{} 4"}));
  EXPECT_THAT(Flush(), ElementsAre("a{} 5", "b{} 5"));
  EXPECT_THAT(reports_, IsEmpty());
}

TEST_F(RulesTest, AreToldWhenTheyMatchNothing) {
  const std::string settings = "[rule.r]\naction=keep\nname=a\n[rule.s]\naction=keep\n";
  Make(settings, false);
  const auto told = [&](seconds later) {
    rules_->Tick(now_ += later);
    return std::exchange(reports_, {});
  };
  Send(PacketOf({"1 b{} 1"}));
  EXPECT_THAT(told(seconds(3599)), IsEmpty());
  EXPECT_THAT(told(seconds(1)), ElementsAre("rule r has matched nothing for an hour"));
  EXPECT_THAT(told(seconds(3599)), ElementsAre(HasSubstr("rule s ")));
  Send(PacketOf({"1 a{} 1"}));
  EXPECT_THAT(told(seconds(1)), IsEmpty());
  EXPECT_THAT(told(seconds(1)), IsEmpty());
  // Counts go on under a name; a rule that is another one has its hour again.
  Change(settings + "tenant=t");
  EXPECT_EQ(Counts(), "r 1 0; s 2 0; ");
  EXPECT_THAT(told(seconds(3599)), ElementsAre(HasSubstr("rule r ")));
  Change(settings + "tenant=u");
  EXPECT_THAT(told(seconds(3600)), ElementsAre(HasSubstr("rule s ")));
}

TEST_F(RulesTest, BoundWhatNamesAndTagsCanTake) {
  // Far more names than are kept, some of them long, through rules that all have to look at them.
  Make(
      "[rule.r]\naction=rename\nname='*a*b*c*'\nto='$1$2$3$4'\n"
      "[rule.d]\naction=drop-tag\nname='x*'\ndrop=k",
      false);
  const std::string tail(500, 'a');
  size_t sent = 0;
  for (int round = 0; round < 100; ++round) {
    Packet packet = PacketOf({"1 {} 1"}, std::string(50, 'u') + std::to_string(round));
    packet.blocks.resize(1500, packet.blocks.front());
    packet.series_count = 1500;
    for (Block& block : packet.blocks) block.name = tail + std::to_string(sent++) + "bc";
    Send(std::move(packet));
  }
  EXPECT_EQ(Flush().size(), sent);
  // As many series as fit into one packet and more become one, of which some find no room.
  Packet packet = PacketOf({"3 x{} 1"});
  Series& record = packet.blocks.front().series.front();
  record.tags = {{"k", ""}};
  packet.blocks.front().series.resize(400000, record);
  packet.series_count = 400000;
  size_t i = 0;
  for (Series& each : packet.blocks.front().series) each.tags[0].value = std::to_string(i++);
  Send(packet);
  EXPECT_THAT(Flush(), ElementsAre("x{} 0"));
  for (Series& each : packet.blocks.front().series) each.values = {2};
  packet.blocks.front().timestamp += 10;
  Send(packet);
  const size_t refused = health_.merge_refused_points.Sum();
  EXPECT_LT(refused, 400000u);
  EXPECT_THAT(Flush(), ElementsAre("x{} " + std::to_string(400000 - refused)));
}

TEST_F(RulesTest, SurviveALackOfMemoryAnywhere) {
  const std::string settings =
      "[rule.r]\naction=rename\nname='a *'\ntag='k=2*'\nto='another name that is long $1'\n"
      "[rule.s]\naction=drop-tag\nname='*long*'\ndrop=k\n[rule.d]\naction=drop\nname=b";
  const Lines points = {"1 a name that is long{k=2} 1", "+{k=1} 2", "+{k=the first but longer} 4",
                        "1 b{} 3"};
  bool failed = true;
  for (long n = 0; failed; ++n) {
    Make("", false);
    Packet packet = PacketOf(points);
    std::vector<Rule> rules = RulesFrom(settings);
    failed = !Manages(n, [&] {
      rules_->Change(std::move(rules), {});
      rules_->Apply(&packet);
      rules_->HandOn(&packet, {});
      merge_->Flush();
    });
    Change(settings);
    Flush();
    Send(PacketOf(points, "t", 10));
    EXPECT_THAT(Flush(),
                testing::UnorderedElementsAre("another name that is long name that is long{} 1",
                                              "a name that is long{} 6"));
  }
}

}  // namespace
}  // namespace tidegate::agent
