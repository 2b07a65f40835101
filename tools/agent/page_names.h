#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "agent/health.h"
#include "agent/name_claims.h"
#include "agent/once_log.h"
#include "agent/series_layout.h"

namespace tidegate::agent {

// The families of the page, and who holds which name of it. Two names can become one there: the
// first to come is shown, the other is reported and hidden until the first is gone.
//
// Not thread-safe. Adds to `bytes`, which it borrows, what the names take, those of the agent's own
// numbers not included. If Show throws, a part of the layout is shown or hidden as a whole.
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
  // Who holds a name on the page.
  struct Holder {
    const SeriesMetric* metric;  // null: the agent itself
    std::string column;          // as SourceOf takes it
    bool operator==(const Holder& other) const {
      return metric == other.metric && column == other.column;
    }
  };

  void ReportLabel(std::string_view metric, std::string_view holder, std::string_view tag);
  // False if a name of it is another one's.
  bool ShowPart(SeriesLayout* layout, size_t i);
  bool ClaimNames(const SeriesLayout& layout, const FamilyPart& part, size_t* claimed);
  void ReleaseNames(const FamilyPart& part, size_t count);
  void ReportName(const Holder& holder, const Holder& late);

  OnceLog log_;
  NameClaims<Holder> names_;
  Families families_;
  // As it is claimed or released. Kept, so that what was claimed can be released without memory.
  std::string name_;
};

}  // namespace tidegate::agent
