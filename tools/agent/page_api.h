#pragma once

#include <string>

#include "agent/http_request.h"
#include "agent/series_table.h"
#include "agent/status_report.h"

namespace tidegate::agent {

// The JSON that the page asks for, as docs/page_api.md describes it.
//
// Threads: any. An answer has kMaxAnswerBytes at most. Borrows both.
class PageApi {
 public:
  PageApi(SeriesTable* table, StatusReport* status) : table_(table), status_(status) {}

  // Throws std::bad_alloc.
  void Answer(const HttpRequest& request, HttpAnswer* answer) const;

 private:
  SeriesTable* const table_;
  StatusReport* const status_;
};

}  // namespace tidegate::agent
