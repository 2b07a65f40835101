#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "agent/once_log.h"
#include "agent/packet_reader.h"
#include "agent/report.h"
#include "agent/rule.h"
#include "agent/rule_counts.h"

namespace tidegate::agent {

// Decides what the rules make of a point. For each tenant and each name of a block there is a plan:
// the rules that match both, so that only tags are left to be compared for each point.
//
// Not thread-safe. Plans are kept: kMaxPlans, and kMaxBytes of them. Beyond that all are made anew.
class RulePlans {
 public:
  static constexpr size_t kMaxPlans = 100000;
  static constexpr size_t kMaxBytes = size_t{16} << 20;

  struct Plan;

  // The fate of a point.
  struct Fate {
    bool dropped = false;
    bool merge = false;                 // other series may become one with its own
    std::optional<GaugeMerge> gauge;    // by which it is then merged, if not as all are
    uint64_t source = 0;                // tells series apart that become one
    const std::string* name = nullptr;  // the one that it has now; good as long as the plan
  };

  // `counts` are those of the rules. The report of names that become one can be null.
  RulePlans(std::vector<Rule> rules, RuleCounts::Counts counts, Report report);
  ~RulePlans();
  RulePlans(const RulePlans&) = delete;
  RulePlans& operator=(const RulePlans&) = delete;

  const std::vector<Rule>& rules() const { return rules_; }

  // The calls that follow are about packets of this tenant. False if no rule matters for it.
  bool Begin(const std::string& tenant);
  // The plan for a name; null if nothing happens to its points. Good until the next Of or Begin.
  Plan* Of(const std::string& name);
  // Whether all points of that plan are dropped whatever their tags. If so, counts `points`.
  bool DropsAll(const Plan& plan, size_t points);
  // The fate of a point, which loses the tags that are dropped. Counts it.
  Fate FateOf(Plan* plan, Series* record);

 private:
  struct Step;
  struct Tenant;

  Tenant* TenantOf(const std::string& name);
  // Begins again if there are too many plans.
  void Bound();
  std::unique_ptr<Plan> MakePlan(const std::string& name, size_t start, const Plan* sent);
  // The plan of points that the step renames.
  Plan* Renamed(const Plan& plan, Step* step);
  // Points that were sent under the name `other` get that of the plan as well.
  void ReportSameName(const Plan& plan, const std::string& other);

  const std::vector<Rule> rules_;
  const RuleCounts::Counts counts_;
  std::optional<OnceLog> same_names_;
  size_t last_keep_;  // rules_.size(): there is none
  std::unordered_map<std::string, std::unique_ptr<Tenant>> tenants_;
  Tenant* tenant_ = nullptr;
  std::string tenant_name_;
  size_t plans_ = 0;
  size_t bytes_ = 0;
  std::vector<std::string_view> parts_;
};

}  // namespace tidegate::agent
