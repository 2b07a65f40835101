#include "agent/rule_stage.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "agent/ends_with.h"
#include "agent/kinds.h"
#include "agent/point_printer.h"
#include "agent/quoted.h"

namespace tidegate::agent {
namespace {

constexpr size_t kRenewPoints = 1000000;

bool SameRules(const std::vector<Rule>& one, const std::vector<Rule>& other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [](const Rule& a, const Rule& b) { return a.text == b.text; });
}

bool Any(const std::vector<Rule>& rules, bool (*is)(const Rule&)) {
  return std::any_of(rules.begin(), rules.end(), is);
}

void MoveBlocks(std::vector<Block>::iterator first, std::vector<Block>* from,
                std::vector<Block>* to) {
  to->insert(to->end(), std::make_move_iterator(first), std::make_move_iterator(from->end()));
  from->erase(first, from->end());
}

}  // namespace

RuleStage::RuleStage(bool merges_all, MergeStage* merge, RuleCounts* counts, Report report,
                     Report collision)
    : merges_all_(merges_all),
      merge_(merge),
      counts_(counts),
      report_(std::move(report)),
      collision_(std::move(collision)) {}

bool RuleStage::Change(std::vector<Rule> rules, Clock::time_point now) {
  const std::vector<Rule> none;
  const std::vector<Rule>& old = plans_ == nullptr ? none : plans_->rules();
  if (SameRules(old, rules)) return false;
  const RuleCounts::Counts before = counts_->All();
  RuleCounts::Counts counts;
  std::vector<uint64_t> matched;
  std::vector<bool> told;
  for (const Rule& rule : rules) {
    auto count = std::make_shared<RuleCount>(rule.name, NameOf(rule.action));
    count->news = now;
    bool was_told = false;
    for (size_t i = 0; i < old.size(); ++i) {
      if (old[i].name != rule.name) continue;
      count->matched = before[i]->matched.load();
      count->dropped = before[i]->dropped.load();
      if (old[i].text != rule.text) continue;
      count->news = before[i]->news.load();
      was_told = told_[i];
    }
    matched.push_back(count->matched);
    told.push_back(was_told);
    counts.push_back(std::move(count));
  }
  const bool drops = Any(rules, [](const Rule& rule) {
    return rule.action == RuleAction::kDrop || rule.action == RuleAction::kKeep;
  });
  const bool merges = merges_all_ || Any(rules, [](const Rule& rule) { return rule.merge; });
  std::unique_ptr<RulePlans> plans;
  if (!rules.empty()) {
    plans =
        std::make_unique<RulePlans>(std::move(rules), counts, merges_all_ ? nullptr : collision_);
  }
  // From here on nothing can fail.
  counts_->Set(std::move(counts));
  plans_ = std::move(plans);
  matched_ = std::move(matched);
  told_ = std::move(told);
  may_split_timers_ = drops && merges;
  return true;
}

void RuleStage::Tick(Clock::time_point now) {
  if (!IsOn()) return;
  const RuleCounts::Counts counts = counts_->All();
  for (size_t i = 0; i < counts.size(); ++i) {
    RuleCount& count = *counts[i];
    const uint64_t matched = count.matched;
    if (std::exchange(matched_[i], matched) != matched) {
      count.news = now;
      told_[i] = false;
    }
    if (told_[i] || now - count.news.load() < kIdle) continue;
    told_[i] = true;
    report_("rule " + count.name + " has matched nothing for an hour");
  }
}

bool RuleStage::Apply(Packet* packet) {
  merged_.blocks.clear();
  rest_.clear();
  Renew(packet->series_count);
  const size_t sent = packet->blocks.size();
  if (sent == 0 || !plans_->Begin(packet->tenant)) return true;
  if (fates_.size() < sent) fates_.resize(sent);
  timers_.clear();
  for (size_t i = 0; may_split_timers_ && i < sent; ++i) {
    if (EndsWith(packet->blocks[i].name, ".min") && TimerBlocks(*packet, i) != 0) {
      timers_.push_back(i);
    }
  }
  for (size_t i = 0; i < sent; ++i) Judge(packet, i);
  for (const size_t first : timers_) MendTimer(packet, first);
  TakeApart(packet);
  return !packet->blocks.empty();
}

// Each fate can come to hold as much as the largest block ever had in its place.
void RuleStage::Renew(size_t points) {
  points_ += points;
  if (points_ < kRenewPoints) return;
  points_ = points;
  fates_ = {};
  changes_ = {};
}

void RuleStage::Judge(Packet* packet, size_t i) {
  Block& block = packet->blocks[i];
  BlockFate& fate = fates_[i];
  fate.change.gauge.reset();
  fate.change.sources.clear();
  fate.change.dropped = 0;
  fate.way = merges_all_ ? BlockFate::Way::kMerge : BlockFate::Way::kSinks;
  RulePlans::Plan* const plan = plans_->Of(block.name);
  if (plan == nullptr) return;
  if (plans_->DropsAll(*plan, block.series.size())) {
    fate.way = BlockFate::Way::kNowhere;
  } else if (!block.series.empty()) {
    Split(packet, i, plan);
  }
}

// The points of the first fate stay in the block.
void RuleStage::Split(Packet* packet, size_t i, RulePlans::Plan* plan) {
  const size_t added = packet->blocks.size();
  const size_t points = packet->blocks[i].series.size();
  const std::string* name = nullptr;  // of the points that stay
  bool merge = false;
  std::optional<GaugeMerge> gauge;
  size_t kept = 0;
  for (size_t j = 0; j < points; ++j) {
    Series& record = packet->blocks[i].series[j];
    const RulePlans::Fate fate = plans_->FateOf(plan, &record);
    if (fate.dropped) continue;
    if (name == nullptr) {
      name = fate.name;
      merge = fate.merge;
      gauge = fate.gauge;
      SetFate(fate, &fates_[i]);
    }
    if (*fate.name != *name || fate.merge != merge || fate.gauge != gauge) {
      const size_t other = BlockFor(packet, i, added, fate);
      packet->blocks[other].series.push_back(std::move(packet->blocks[i].series[j]));
      fates_[other].change.sources.push_back(fate.source);
      continue;
    }
    std::vector<Series>& series = packet->blocks[i].series;
    if (kept != j) std::swap(series[kept], series[j]);
    fates_[i].change.sources.push_back(fate.source);
    ++kept;
  }
  if (name == nullptr) {
    fates_[i].way = BlockFate::Way::kNowhere;
    return;
  }
  Block& block = packet->blocks[i];
  block.series.resize(kept);
  if (block.name != *name) block.name = *name;
}

size_t RuleStage::BlockFor(Packet* packet, size_t i, size_t first, const RulePlans::Fate& fate) {
  BlockFate wanted;
  SetFate(fate, &wanted);
  for (size_t other = first; other < packet->blocks.size(); ++other) {
    if (packet->blocks[other].name == *fate.name && fates_[other].way == wanted.way &&
        fates_[other].change.gauge == wanted.change.gauge) {
      return other;
    }
  }
  Block block;
  const Block& from = packet->blocks[i];
  block.wire_type = from.wire_type;
  block.timestamp = from.timestamp;
  block.name = *fate.name;
  block.fields = from.fields;
  packet->blocks.push_back(std::move(block));
  const size_t made = packet->blocks.size() - 1;
  if (fates_.size() <= made) fates_.resize(made + 1);
  fates_[made] = std::move(wanted);
  return made;
}

void RuleStage::SetFate(const RulePlans::Fate& fate, BlockFate* to) const {
  const bool merge = merges_all_ || fate.merge;
  to->way = merge ? BlockFate::Way::kMerge : BlockFate::Way::kSinks;
  if (merge) to->change.gauge = fate.gauge;
}

// Ten gauges of a timer that are merged need each other. So those that are dropped are merged with
// the others, and left out afterwards.
void RuleStage::MendTimer(Packet* packet, size_t first) {
  constexpr size_t kBlocks = std::size(kTimerColumns);
  std::vector<Block>& blocks = packet->blocks;
  const auto is_dropped = [&](size_t i) {
    return fates_[first + i].way == BlockFate::Way::kNowhere;
  };
  size_t like = 0;
  while (like < kBlocks && is_dropped(like)) ++like;
  if (like == kBlocks || !EndsWith(blocks[first + like].name, kTimerColumns[like].name)) return;
  const std::vector<Tag> tags = blocks[first + like].series.front().tags;
  std::string base = blocks[first + like].name;
  base.resize(base.size() - kTimerColumns[like].name.size());
  uint32_t dropped = 0;
  for (size_t i = 0; i < kBlocks; ++i) {
    const Block& block = blocks[first + i];
    if (is_dropped(i)) {
      dropped |= uint32_t{1} << i;
    } else if (fates_[first + i].way != BlockFate::Way::kMerge ||
               block.name != std::string(base).append(kTimerColumns[i].name) ||
               !(block.series.front().tags == tags)) {
      return;  // the rules treat them differently: no timer any more
    }
  }
  for (size_t i = 0; i < kBlocks; ++i) {
    if (!is_dropped(i)) continue;
    blocks[first + i].name.assign(base).append(kTimerColumns[i].name);
    blocks[first + i].series.front().tags = tags;
    fates_[first + i] = fates_[first + like];
  }
  fates_[first].change.dropped = dropped;
}

void RuleStage::TakeApart(Packet* packet) {
  std::vector<Block>& blocks = packet->blocks;
  if (changes_.size() < blocks.size()) changes_.resize(blocks.size());
  size_t kept = 0;
  packet->series_count = 0;
  merged_.series_count = 0;
  for (size_t i = 0; i < blocks.size(); ++i) {
    const auto points = static_cast<uint32_t>(blocks[i].series.size());
    if (fates_[i].way == BlockFate::Way::kMerge) {
      std::swap(changes_[merged_.blocks.size()], fates_[i].change);
      merged_.blocks.push_back(std::move(blocks[i]));
      merged_.series_count += points;
    } else if (fates_[i].way == BlockFate::Way::kSinks) {
      if (kept != i) std::swap(blocks[kept], blocks[i]);
      packet->series_count += points;
      ++kept;
    }
  }
  if (merges_all_ && merged_.blocks.empty() && !blocks.empty()) {
    // Its time still tells how far the process has reported.
    blocks.front().series.clear();
    changes_.front().sources.clear();
    merged_.blocks.push_back(std::move(blocks.front()));
  }
  MoveBlocks(blocks.begin() + static_cast<std::ptrdiff_t>(kept), &blocks, &rest_);
  if (merged_.blocks.empty()) return;
  merged_.version = packet->version;
  merged_.format_word = packet->format_word;
  merged_.tenant = packet->tenant;
  merged_.tenant_tags = packet->tenant_tags;
  merged_.sdk_version = packet->sdk_version;
}

void RuleStage::HandOn(Packet* packet, const ClientId& client) {
  if (!merged_.blocks.empty()) merge_->HandleChanged(merged_, client, changes_);
  MoveBlocks(merged_.blocks.begin(), &merged_.blocks, &packet->blocks);
  MoveBlocks(rest_.begin(), &rest_, &packet->blocks);
}

}  // namespace tidegate::agent
