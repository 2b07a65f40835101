#include "agent/rule_plans.h"

#include <algorithm>

#include "agent/quoted.h"

namespace tidegate::agent {

// A rule that matters.
struct RulePlans::Step {
  size_t rule;
  bool matches;                   // false: it does not match, and matters as the last that keeps
  std::unique_ptr<Plan> renamed;  // once there was a point
};

// The rules that matter for one name, from one of them on.
struct RulePlans::Plan {
  std::string name;
  const Plan* sent = nullptr;  // that of the name that was sent, if rules have changed it
  std::vector<Step> steps;
  size_t made_by = SIZE_MAX;        // the first rule that can give this name and merges then
  std::optional<GaugeMerge> gauge;  // of such a rule
};

struct RulePlans::Tenant {
  std::vector<std::pair<size_t, bool>> rules;  // with whether they match the tenant
  std::unordered_map<std::string, std::unique_ptr<Plan>> plans;
  std::unordered_map<std::string, std::string> made;  // new names, with the first old one
};

namespace {

// With their nodes and buckets.
constexpr size_t kPlanBytes = 256;
constexpr size_t kTenantBytes = 512;

// Hashes are enough: two series with the same one are taken for one, and no others suffer.
uint64_t Mix(uint64_t hash, std::string_view text) {
  constexpr uint64_t kOdd = 0x9e3779b97f4a7c15U;
  hash = (hash ^ std::hash<std::string_view>{}(text)) * kOdd;
  return hash ^ hash >> 32;
}

bool HasTags(const Series& record, const std::vector<Rule::TagIs>& wanted) {
  return std::all_of(wanted.begin(), wanted.end(), [&](const Rule::TagIs& tag) {
    return std::any_of(record.tags.begin(), record.tags.end(), [&](const Tag& has) {
      return has.key == tag.key && tag.value.Matches(has.value);
    });
  });
}

void Merge(const Rule& rule, RulePlans::Fate* fate) {
  fate->merge = fate->merge || rule.merge;
  if (rule.gauge) fate->gauge = rule.gauge;
}

// As the points that a rule gives this name.
void MergeAsMade(const RulePlans::Plan& plan, RulePlans::Fate* fate) {
  fate->merge = true;
  if (!fate->gauge) fate->gauge = plan.gauge;
}

// Returns whether there were such tags.
bool DropTags(const std::vector<std::string>& keys, Series* record, uint64_t* source) {
  std::vector<Tag>& tags = record->tags;
  size_t kept = 0;
  for (size_t i = 0; i < tags.size(); ++i) {
    if (std::find(keys.begin(), keys.end(), tags[i].key) != keys.end()) {
      *source = Mix(Mix(*source, tags[i].key), tags[i].value);
      continue;
    }
    if (i != kept) std::swap(tags[i], tags[kept]);
    ++kept;
  }
  const bool dropped = kept < tags.size();
  tags.resize(kept);
  return dropped;
}

}  // namespace

RulePlans::RulePlans(std::vector<Rule> rules, RuleCounts::Counts counts, Report report)
    : rules_(std::move(rules)), counts_(std::move(counts)), last_keep_(rules_.size()) {
  for (size_t i = 0; i < rules_.size(); ++i) {
    if (rules_[i].action == RuleAction::kKeep) last_keep_ = i;
  }
  if (report) same_names_.emplace(std::move(report));
}

RulePlans::~RulePlans() = default;

bool RulePlans::Begin(const std::string& tenant) {
  Bound();
  if (tenant_ == nullptr || tenant != tenant_name_) tenant_ = TenantOf(tenant);
  return !tenant_->rules.empty();
}

RulePlans::Tenant* RulePlans::TenantOf(const std::string& name) {
  tenant_ = nullptr;
  tenant_name_ = name;
  const auto found = tenants_.find(name);
  if (found != tenants_.end()) return found->second.get();
  auto tenant = std::make_unique<Tenant>();
  for (size_t i = 0; i < rules_.size(); ++i) {
    const bool matches = !rules_[i].tenant || rules_[i].tenant->Matches(name);
    if (matches || i == last_keep_) tenant->rules.emplace_back(i, matches);
  }
  Tenant* const made = tenants_.emplace(name, std::move(tenant)).first->second.get();
  ++plans_;
  bytes_ += kTenantBytes + name.size() + made->rules.size() * sizeof(made->rules[0]);
  return made;
}

void RulePlans::Bound() {
  if (plans_ <= kMaxPlans && bytes_ <= kMaxBytes) return;
  tenant_ = nullptr;
  tenants_.clear();
  plans_ = 0;
  bytes_ = 0;
}

RulePlans::Plan* RulePlans::Of(const std::string& name) {
  Bound();
  if (tenant_ == nullptr) tenant_ = TenantOf(std::string(tenant_name_));
  const auto found = tenant_->plans.find(name);
  Plan* plan = found == tenant_->plans.end() ? nullptr : found->second.get();
  if (plan == nullptr) {
    plan = tenant_->plans.emplace(name, MakePlan(name, 0, nullptr)).first->second.get();
    const auto same = tenant_->made.find(name);
    if (same != tenant_->made.end()) ReportSameName(*plan, same->second);
  }
  return plan->steps.empty() && plan->made_by == SIZE_MAX ? nullptr : plan;
}

std::unique_ptr<RulePlans::Plan> RulePlans::MakePlan(const std::string& name, size_t start,
                                                     const Plan* sent) {
  auto plan = std::make_unique<Plan>();
  plan->name = name;
  plan->sent = sent;
  for (const auto& [i, matches_tenant] : tenant_->rules) {
    const Rule& rule = rules_[i];
    if (matches_tenant && rule.made && rule.made->Matches(name)) {
      plan->made_by = std::min(plan->made_by, i);
      if (!plan->gauge) plan->gauge = rule.gauge;
    }
    if (i < start) continue;
    const bool matches = matches_tenant && rule.MatchesName(name);
    if (matches || i == last_keep_) plan->steps.push_back({i, matches, nullptr});
  }
  ++plans_;
  bytes_ += kPlanBytes + 2 * name.size() + plan->steps.size() * sizeof(Step);
  return plan;
}

RulePlans::Plan* RulePlans::Renamed(const Plan& plan, Step* step) {
  const Rule& rule = rules_[step->rule];
  rule.MatchesName(plan.name, &parts_);
  const std::string name = rule.NewName(parts_);
  const Plan* const sent = plan.sent != nullptr ? plan.sent : &plan;
  step->renamed = MakePlan(name, step->rule + 1, sent);
  if (!rule.merge && same_names_) {
    // Those that got the old name are merged already.
    const std::string& old = plan.made_by < step->rule ? plan.name : sent->name;
    const std::string& first = tenant_->made.emplace(name, old).first->second;
    bytes_ += kPlanBytes + name.size() + old.size();
    const auto own = tenant_->plans.find(name);
    if (first != old) ReportSameName(*step->renamed, first);
    if (own != tenant_->plans.end()) ReportSameName(*own->second, old);
  }
  return step->renamed.get();
}

void RulePlans::ReportSameName(const Plan& plan, const std::string& other) {
  // A point that goes on under another name, or not at all, is in nobody's way.
  const bool goes_on = std::none_of(plan.steps.begin(), plan.steps.end(), [&](const Step& step) {
    const RuleAction action = rules_[step.rule].action;
    return action == RuleAction::kRename || action == RuleAction::kDrop || !step.matches;
  });
  const std::string& one = plan.sent == nullptr ? plan.name : plan.sent->name;
  if (!goes_on || one == other || same_names_->IsFull()) return;
  std::string line = "rules give one name to ";
  AppendQuoted(one, &line);
  AppendQuoted(other, &line.append(" and "));
  AppendQuoted(plan.name, &line.append(", it is "));
  same_names_->Add(line + ": points with equal tags are mixed, unless merge = true");
}

bool RulePlans::DropsAll(const Plan& plan, size_t points) {
  if (plan.steps.empty()) return false;
  const Step& first = plan.steps.front();
  const Rule& rule = rules_[first.rule];
  const bool drops = rule.action == RuleAction::kDrop && rule.tags.empty();
  const bool keeps = !first.matches;  // not, as the last that could
  if (!drops && !keeps) return false;
  RuleCount& count = *counts_[first.rule];
  if (drops) RuleCount::Add(&count.matched, points);
  RuleCount::Add(&count.dropped, points);
  return true;
}

RulePlans::Fate RulePlans::FateOf(Plan* plan, Series* record) {
  Fate fate;
  bool kept = false;
  for (size_t i = 0; i < plan->steps.size();) {
    Step& step = plan->steps[i++];
    const Rule& rule = rules_[step.rule];
    RuleCount& count = *counts_[step.rule];
    bool matches = step.matches && HasTags(*record, rule.tags);
    bool drops = false;
    switch (rule.action) {
      case RuleAction::kDrop:
        drops = matches;
        break;
      case RuleAction::kKeep:
        kept = kept || matches;
        drops = step.rule == last_keep_ && !kept;
        break;
      case RuleAction::kRename:
        if (!matches) break;
        // Points that got the old name are one with it, and get the new one as well.
        if (plan->made_by < step.rule) MergeAsMade(*plan, &fate);
        Merge(rule, &fate);
        plan = step.renamed != nullptr ? step.renamed.get() : Renamed(*plan, &step);
        i = 0;
        break;
      case RuleAction::kDropTag:
        // Also a point that has no such tag may become one with others that had.
        if (step.matches) Merge(rule, &fate);
        matches = matches && DropTags(rule.drop, record, &fate.source);
        break;
    }
    if (matches) RuleCount::Add(&count.matched, 1);
    if (drops) {
      RuleCount::Add(&count.dropped, 1);
      fate.dropped = true;
      return fate;
    }
  }
  if (plan->sent != nullptr) fate.source = Mix(fate.source, plan->sent->name);
  if (plan->made_by != SIZE_MAX) MergeAsMade(*plan, &fate);
  fate.name = &plan->name;
  return fate;
}

}  // namespace tidegate::agent
