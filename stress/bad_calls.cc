#include "bad_calls.h"

#include <gtest/gtest.h>

#include <climits>
#include <utility>

#include "metrics/metric_factory.h"
#include "metrics/metric_sender_manager.h"
#include "support/cases.h"

namespace tidegate::stress {

using METRICS::HistoUtilBase;
using METRICS::Incr;
using METRICS::Metric;
using METRICS::MetricCoItemType;
using METRICS::MetricFieldCfg;
using METRICS::MetricInstanceCfg;
using METRICS::MetricRegistry;
using METRICS::MetricRegistryCfg;
using METRICS::MetricsType;
using METRICS::Store;
using METRICS::WithField;
using METRICS::WithSuffix;
using R = ReturnCode;
using Strings = std::vector<std::string>;
using Tags = std::vector<MetricTag>;
using Fields = std::vector<MetricFieldCfg>;

namespace {

const std::string kBadKeys[] = {"",
                                "a b",
                                "a,b",
                                "a\n",
                                "\xc3\xa4",
                                std::string("a\0b", 3),
                                "0123456789abcde,",
                                "a\x7f",
                                std::string(4096, 'a')};
const std::string kBadValues[] = {"", "a\n", std::string("\0", 1), "\xff", std::string(4096, 'a')};

// A name that is cut short in a trace.
std::string Shown(const std::string& text) { return "\"" + text.substr(0, 20) + "\""; }

test::TestClientOptions Options(const test::AgentSocket& agent, uint64_t quota) {
  test::TestClientOptions options = test::ReportTo(agent.path(), test::kNeverDue);
  options.core.max_total_series = quota;
  return options;
}

}  // namespace

std::string ErrorOf(R code) {
  return std::string("Error: ") + METRICS::MetricGetErrorCodeStr(code);
}

// A refusal that prints the text of its code, and leaves nothing.
Bad Refused(std::string what, R code, std::function<R()> call) {
  std::vector<std::string> lines{ErrorOf(code)};
  if (code == R::kMaxHistoBucket) {
    lines.insert(lines.begin(),
                 "Warn: Bounds of a histogram refused: there are more than 100 bounds");
  }
  return {std::move(what), std::move(call), code, std::move(lines)};
}

MetricInstanceCfg Described(std::string name, Strings tag_names, Tags const_tags,
                            HistoUtilBase* histo, Fields fields) {
  return {std::move(name), std::move(tag_names), std::move(const_tags), std::move(fields), histo};
}

MetricRegistryCfg RegistryOf(std::string tenant, std::string prefix) {
  MetricRegistryCfg cfg;
  cfg.tenant = std::move(tenant);
  cfg.prefix = std::move(prefix);
  cfg.flush_interval = 1;
  return cfg;
}

World::World(const test::AgentSocket& agent, uint64_t quota) : client_(Options(agent, quota)) {
  const long descriptors = DescriptorCount();
  registry_ = client_.Registry("p", "t1", {{"global", "g"}});
  // The agent has its end, too, before anything is counted.
  EXPECT_TRUE(test::WaitFor([&] { return DescriptorCount() == descriptors + 2; }));
  suffixed_ = client_.Metric("m", {"a", "b"});
  registry_->CreateMetric(
      row_, Described("row", {}, {}, nullptr,
                      {{"rate", MetricsType::kRate}, {"gauge", MetricsType::kGauge}}));
  registry_->CreateMetric(compatible_,
                          {MetricCoItemType::kCoItemCompatible, Described("compatible")});
  blocked_ = client_.Registry("blocked");
  blocked_metric_ = client_.Metric("m", {}, "blocked");
  blocked_->Block();
  suffixed_->WithTags({})->Emit({WithSuffix("known", Incr(1))});
  row_->WithTags({})->Emit({WithField("rate", Incr(1))});
}

R World::Create(MetricRegistryCfg cfg) {
  MetricRegistry* registry = registry_;
  const R code = client_->CreateRegistry(registry, std::move(cfg));
  EXPECT_EQ(registry == nullptr, code != R::kOk);
  return code;
}

R World::Create(MetricRegistry* registry, const MetricInstanceCfg& cfg) {
  Metric* metric = suffixed_;
  const R code = registry->CreateMetric(metric, cfg);
  EXPECT_EQ(metric == nullptr, code != R::kOk);
  return code;
}

R World::CreateBoth(MetricRegistryCfg registry, MetricInstanceCfg metric) {
  const auto [made, code] = client_->CreateMetric(std::move(registry), std::move(metric));
  EXPECT_EQ(made == nullptr, code != R::kOk);
  return code;
}

std::vector<Bad> World::Registries() {
  std::vector<Bad> table;
  const auto refuse = [&](const std::string& what, R code, auto change) {
    MetricRegistryCfg cfg = RegistryOf("new", "new");
    change(cfg);
    table.push_back(Refused("registry: " + what, code, [this, cfg] { return Create(cfg); }));
  };
  for (const std::string& key : kBadKeys) {
    refuse("tenant " + Shown(key), R::kInvalidString, [&](auto& cfg) { cfg.tenant = key; });
    refuse("tag key " + Shown(key), R::kInvalidString, [&](auto& cfg) {
      cfg.tags = {{"k", "v"}, {key, "v"}};
    });
    if (!key.empty()) {
      refuse("prefix " + Shown(key), R::kInvalidString, [&](auto& cfg) { cfg.prefix = key; });
    }
  }
  for (const std::string& value : kBadValues) {
    refuse("tag value " + Shown(value), R::kInvalidString, [&](auto& cfg) {
      cfg.tags = {{"k", value}};
    });
  }
  refuse("256 tags", R::kMaxTagPair, [](auto& cfg) { cfg.tags.assign(256, {"k", "v"}); });
  refuse("a tag twice", R::kDuplicatedTagName, [](auto& cfg) {
    cfg.tags = {{"k", "1"}, {"l", "1"}, {"k", "2"}};
  });
  for (const int interval : {0, -5, INT_MIN}) {
    refuse("interval " + std::to_string(interval), R::kNotSupported,
           [&](auto& cfg) { cfg.flush_interval = interval; });
  }
  table.push_back(Refused("registry: exists", R::kObjectExisted, [this] {
    MetricRegistry* registry = registry_;
    const R code = client_->metric_factory_->CreateRegistry(registry, RegistryOf("t1", "p"));
    EXPECT_EQ(registry, nullptr);
    return code;
  }));
  return table;
}

std::vector<Bad> World::Names() {
  std::vector<Bad> table;
  const auto refuse = [&](const std::string& what, const MetricInstanceCfg& cfg) {
    table.push_back(
        Refused(what, R::kInvalidString, [this, cfg] { return Create(registry_, cfg); }));
  };
  for (const std::string& key : kBadKeys) {
    refuse("metric " + Shown(key), Described(key));
    refuse("tag name " + Shown(key), Described("new", {"a", key}));
    refuse("constant tag " + Shown(key), Described("new", {}, {{"k", "v"}, {key, "v"}}));
    refuse("field " + Shown(key), Described("new", {}, {}, nullptr, {{key, MetricsType::kRate}}));
    table.back().lines.push_back(ErrorOf(R::kInvalidString));  // fields say it twice
  }
  for (const std::string& value : kBadValues) {
    refuse("constant value " + Shown(value), Described("new", {}, {{"k", value}}));
  }
  return table;
}

std::vector<Bad> World::Definitions() {
  static HistoUtilBase& too_fine = *new HistoUtilBase(std::vector<double>(101));
  Strings many;
  for (int i = 0; i < 256; ++i) {
    many.push_back("t" + std::to_string(i));
  }
  const auto field = [](MetricsType type) { return Fields{{"f", type}}; };
  const struct {
    const char* what;
    MetricInstanceCfg cfg;
    R code;
    bool twice = false;
  } kRefused[] = {
      {"256 tag names", Described("new", many), R::kMaxTagPair},
      {"a tag name twice", Described("new", {"a", "b", "a"}), R::kDuplicatedTagName},
      {"an inherited tag name", Described("new", {"global"}), R::kTagConflict},
      {"an inherited constant tag", Described("new", {}, {{"global", "v"}}), R::kTagConflict},
      {"a declared constant tag", Described("new", {"a"}, {{"a", "v"}}), R::kTagConflict},
      {"a constant tag twice", Described("new", {}, {{"k", "1"}, {"k", "2"}}),
       R::kDuplicatedTagName},
      {"101 bounds", Described("new", {}, {}, &too_fine), R::kMaxHistoBucket},
      {"a field of type 0", Described("new", {}, {}, nullptr, field(MetricsType::kUnknown)),
       R::kInvalidMetricType, true},
      {"a field of type 7", Described("new", {}, {}, nullptr, field(MetricsType::kMultiField)),
       R::kInvalidMetricType, true},
      {"a field of type 9", Described("new", {}, {}, nullptr, field(MetricsType::kTypeEnd)),
       R::kInvalidMetricType, true},
      {"101 bounds of a field",
       Described("new", {}, {}, nullptr, {{"f", MetricsType::kHistogram, &too_fine}}),
       R::kMaxHistoBucket, true},
      {"1030 columns", Described("new", {}, {}, nullptr, Fields(103, {"f", MetricsType::kTimer})),
       R::kFieldNumExceeded, true},
      {"a name that exists", Described("m"), R::kObjectExisted},
  };
  std::vector<Bad> table;
  for (const auto& [what, cfg, code, twice] : kRefused) {
    table.push_back(
        Refused(what, code, [this, refused = cfg] { return Create(registry_, refused); }));
    if (twice) {
      table.back().lines.push_back(ErrorOf(code));
    }
  }
  table.push_back(Refused("a blocked registry", R::kObjectBlocked,
                          [this] { return Create(blocked_, Described("new")); }));
  table.push_back({"a kind that is none",
                   [this] {
                     Metric* metric = suffixed_;
                     return registry_->CreateMetric(
                         metric, {MetricCoItemType::kCoItemUnknown, Described("new")});
                   },
                   R::kInternalError,
                   {"Warn: Error when metric init: SDK internal Error."}});
  table.push_back(
      {"no bounds", [this] { return suffixed_->SetHistogram(nullptr); }, R::kNullptr, {}});
  table.push_back(
      {"bounds of a row", [this] { return row_->SetHistogram(&too_fine); }, R::kNotSupported, {}});
  table.push_back(Refused("101 later bounds", R::kMaxHistoBucket,
                          [this] { return suffixed_->SetHistogram(&too_fine); }));
  return table;
}

// The traces that calls are known to leave, once: the second call finds them and adds nothing.
std::vector<Bad> World::Leftovers(int round) {
  const std::string tenant = "kept" + std::to_string(round);
  const auto bad_metric = [this, tenant] {
    return CreateBoth(RegistryOf(tenant, "p"), Described("a b"));
  };
  const auto bad_registry = [this] { return CreateBoth(RegistryOf("a b", "p"), Described("m")); };
  const auto blocked_metric = [this, tenant] {
    return CreateBoth(RegistryOf(tenant, "p"), Described("m"));
  };
  std::vector<Bad> table;
  table.push_back(Refused("a bad registry for a good metric", R::kInvalidString, bad_registry));
  table.push_back(Refused("a bad metric of a new registry", R::kInvalidString, bad_metric));
  // Both ends of the socket are in this process.
  table.back().left = {{"registries", 1}, {"senders", 1}, {"threads", 1}, {"descriptors", 2}};
  table.push_back(Refused("again", R::kInvalidString, bad_metric));
  table.push_back({"block it",
                   [this, tenant] { return client_->metric_factory_->Block(tenant, "p"); },
                   R::kOk,
                   {}});
  table.push_back(Refused("a metric in it", R::kObjectBlocked, blocked_metric));
  table.back().left = {{"tenants", 1}};  // without a collector
  table.push_back(Refused("again", R::kObjectBlocked, blocked_metric));
  return table;
}

std::vector<Bad> World::Emissions(int round) {
  const std::string gated = "Warn: Metric state[0:INIT, 1:READY, 2:BLOCKED, 3:SHUTDOWN] error: 2";
  const std::string too_many = "Error: Tags num greater then declared tag num, num: 3, declared: 2";
  const auto with = [this](const Tags& tags) {
    return [this, tags] { return suffixed_->WithTags(tags)->Emit({Store(1)}); };
  };
  const auto emit = [this](const std::vector<METRICS::MetricFieldValue>& values) {
    return [this, values] { return suffixed_->WithTags({})->Emit(values); };
  };
  const auto row = [this](const std::vector<METRICS::MetricFieldValue>& values) {
    return [this, values] { return row_->WithTags({})->Emit(values); };
  };
  const auto pairs = [this](const Strings& tag_pairs) {
    return [this, tag_pairs] { return compatible_->CEmit(1, Strings(tag_pairs)); };
  };
  std::vector<Bad> table = {
      {"a tag too many", with({{"a", "1"}, {"b", "1"}, {"a", "2"}}), R::kNotSupported, {too_many}},
      {"a value too many",
       [this] {
         return suffixed_->WithTagValues({"1", "2", "3"})->Emit({Store(1)});
       },
       R::kNotSupported,
       {too_many}},
      {"an undeclared tag",
       with({{"a", "1"}, {"c", "1"}}),
       R::kNotSupported,
       {ErrorOf(R::kUnknownTagName),
        "Error: GetTagValueVec error: Unknown tag-name. Tag-name must be pre-defined when create "
        "metric."}},
      {"a suffix of another type",
       emit({WithSuffix("known", Store(1))}),
       R::kOk,
       {"Warn: Suffix: known type mismatch[pre: 2 cur: 1]"}},
      {"more values than fields",
       row({WithField("rate", Incr(1)), WithField("rate", Incr(1)), WithField("rate", Incr(1))}),
       R::kInvalidParamNumber,
       {}},
      {"an unknown field", row({WithField("no", Incr(1))}), R::kOk, {"Warn: Error Field Name: no"}},
      {"a field of another type",
       row({WithField("rate", Store(1))}),
       R::kOk,
       {"Warn: Field: rate type mismatch[pre: 2 cur: 1]"}},
      {"tag pairs for a suffixed metric",
       [this] { return suffixed_->CEmit(1, {}); },
       R::kNotSupported,
       {}},
      {"a blocked metric",
       [this] { return blocked_metric_->WithTags({})->Emit({Store(1)}); },
       R::kNotSupported,
       {gated}},
      Refused("half a tag pair", R::kMaxTagPair, pairs({"k", "v", "k"})),
      Refused("256 tag pairs", R::kMaxTagPair, pairs(Strings(512, "k"))),
  };
  for (const std::string& value : kBadValues) {
    table.push_back({"tag value " + Shown(value),
                     with({{"a", "1"}, {"b", value}}),
                     R::kNotSupported,
                     {ErrorOf(R::kInvalidString), "Error: GetTagValueVec error: Invalid string."}});
    table.push_back(Refused("pair value " + Shown(value), R::kInvalidString, pairs({"k", value})));
  }
  for (const std::string& key : kBadKeys) {
    table.push_back(Refused("pair key " + Shown(key), R::kInvalidString, pairs({key, "v"})));
    if (!key.empty()) {
      table.push_back({"suffix " + Shown(key),
                       emit({WithSuffix(key, Store(1))}),
                       R::kInvalidString,
                       {ErrorOf(R::kInvalidString), ErrorOf(R::kInvalidString)}});
    }
  }
  const std::string ahead = "ahead" + std::to_string(round);
  const std::string behind = "behind" + std::to_string(round);
  table.push_back({"a bad suffix between good ones",
                   emit({WithSuffix(ahead, Store(round)), WithSuffix("a b", Store(1)),
                         WithSuffix(behind, Store(1))}),
                   R::kInvalidString,
                   {ErrorOf(R::kInvalidString), ErrorOf(R::kInvalidString)}});
  table.back().left = {{"cells", 1}};  // that of the value before it
  return table;
}

std::vector<Bad> World::Unknown() {
  METRICS::MetricFactory& factory = *client_->metric_factory_;
  return {
      {"remove a metric",
       [this] { return registry_->RemoveMetric("no"); },
       R::kObjectNotExisted,
       {}},
      {"find a metric",
       [this] {
         Metric* metric = suffixed_;
         const R code = registry_->GetMetric(metric, "no");
         EXPECT_EQ(metric, nullptr);
         return code;
       },
       R::kObjectNotExisted,
       {}},
      Refused("remove a registry", R::kObjectNotExisted,
              [&factory] { return factory.RemoveRegistry("no", "t1"); }),
      {"block a registry",
       [&factory] { return factory.Block("t1", "no"); },
       R::kObjectNotExisted,
       {}},
      {"unblock a registry",
       [&factory] { return factory.UnBlock("t1", "no"); },
       R::kObjectNotExisted,
       {}},
      {"remove a sender",
       [this] { return client_->sender_manager_->RemoveSender("no"); },
       R::kObjectNotExisted,
       {}},
  };
}

}  // namespace tidegate::stress
