#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "agent/merge_stage.h"
#include "agent/packet_reader.h"
#include "agent/packet_sink.h"
#include "agent/report.h"
#include "agent/rule.h"
#include "agent/rule_counts.h"
#include "agent/rule_plans.h"

namespace tidegate::agent {

// Applies the rules of the settings to each packet before all sinks see it: drops points, changes
// names and tags, and hands what may become one series to the stage that merges. It changes the
// packet itself, as a copy would cost more than the decoding.
//
// Threads: all calls on the decoder's. Memory: the plans of RulePlans, and the packet in work with
// some 50 bytes for each of its points. Borrows the rest.
class RuleStage {
 public:
  using Clock = std::chrono::steady_clock;

  // A rule that matches nothing for so long is reported, once until it matches.
  static constexpr std::chrono::hours kIdle{1};

  // With `merges_all` everything goes to `merge`, otherwise what the rules make one. Changes
  // `counts` with the rules. `collision` gets a line for names that rules make one without merging.
  RuleStage(bool merges_all, MergeStage* merge, RuleCounts* counts, Report report,
            Report collision);

  // From now on these rules hold. The counts of a rule go on under its name. False if nothing
  // changes, as the rules are those that hold already. If memory runs out, all is as before.
  bool Change(std::vector<Rule> rules, Clock::time_point now);

  // Whether there are rules.
  bool IsOn() const { return plans_ != nullptr; }

  // Leaves what sinks get; false if that is nothing. Where memory runs out, the packet must go no
  // further. REQUIRES: IsOn().
  bool Apply(Packet* packet);
  // Hands on what is to be merged, and gives the packet its parts back, whose memory can be used
  // again.
  void HandOn(Packet* packet, const ClientId& client);

  // To be called once a second.
  void Tick(Clock::time_point now);

 private:
  // What becomes of a block.
  struct BlockFate {
    enum class Way { kSinks, kMerge, kNowhere };

    Way way = Way::kSinks;
    BlockChange change;
  };

  void Renew(size_t points);
  void Judge(Packet* packet, size_t i);
  void Split(Packet* packet, size_t i, RulePlans::Plan* plan);
  // The block among those made of blocks[i] whose points have that fate.
  size_t BlockFor(Packet* packet, size_t i, size_t first, const RulePlans::Fate& fate);
  void SetFate(const RulePlans::Fate& fate, BlockFate* to) const;
  void MendTimer(Packet* packet, size_t first);
  void TakeApart(Packet* packet);

  const bool merges_all_;
  MergeStage* const merge_;
  RuleCounts* const counts_;
  const Report report_;
  const Report collision_;
  std::unique_ptr<RulePlans> plans_;
  bool may_split_timers_ = false;
  std::vector<uint64_t> matched_;  // of each rule, when it was last seen to match
  std::vector<bool> told_;

  std::vector<BlockFate> fates_;  // of the blocks of the packet in work
  std::vector<size_t> timers_;    // the first blocks of those of ten gauges
  Packet merged_;
  std::vector<BlockChange> changes_;  // of its blocks, and more
  std::vector<Block> rest_;           // that are dropped
  size_t points_ = 0;                 // since fates_ and changes_ were last renewed
};

}  // namespace tidegate::agent
