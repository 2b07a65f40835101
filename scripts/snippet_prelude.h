// The names that the C++ blocks of the documents use and do not define: see scripts/snippets.py.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "tidegate/metrics.h"

struct Request {
  std::string method;
  std::string host;
  std::string country;
  int64_t bytes;
};
struct Reply {
  int status;
};
Reply Serve(const Request& request);
template <class Done>
void ServeLater(Done) {}

extern tidegate::Metrics metrics;
extern Request request;
