#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "agent/health.h"
#include "agent/name_claims.h"
#include "agent/once_log.h"
#include "agent/series_layout.h"

namespace tidegate::agent {

// The families of the page, and the owner of each of their names. Two different names can become
// the same one there: the first to come is shown, the other is reported and hidden until the first
// is gone.
//
// Not thread-safe. Adds to `bytes`, which it borrows, the memory of the names, without those of the
// agent's own numbers. If Show throws, a part of the layout is shown or hidden as a whole.
class PageNames {
 public:
  PageNames(const Health& health, Report report, size_t* bytes);

  const Families& families() const { return families_; }

  // Claims the labels of a series with this key. False if one is another tag's. `claimed` is how
  // many were not, however it ends; they are left to the caller to release.
  bool ClaimLabels(std::string_view key, SeriesMetric* metric, size_t* claimed);
  // The first `count` of them. Allocates nothing.
  void ReleaseLabels(std::string_view key, size_t count, SeriesMetric* metric);

  // Shows those parts of a layout that are hidden and whose names are free.
  void Show(SeriesLayout* layout);
  void Hide(SeriesLayout* layout);
  void Shrink() { names_.Shrink(); }

 private:
  // Who has claimed a name of the page.
  struct NameOwner {
    const SeriesMetric* metric;  // null: the agent itself
    std::string column;          // as SourceOf takes it
    bool operator==(const NameOwner& other) const {
      return metric == other.metric && column == other.column;
    }
  };

  void ReportLabel(std::string_view metric, std::string_view owner, std::string_view tag);
  // False if a name of it is another one's.
  bool ShowPart(SeriesLayout* layout, size_t i);
  bool ClaimNames(const SeriesLayout& layout, const FamilyPart& part, size_t* claimed);
  void ReleaseNames(const FamilyPart& part, size_t count);
  void ReportName(const NameOwner& owner, const NameOwner& late);

  OnceLog log_;
  NameClaims<NameOwner> names_;
  Families families_;
  // As it is claimed or released. Kept, so that what was claimed can be released without memory.
  std::string name_;
};

}  // namespace tidegate::agent
