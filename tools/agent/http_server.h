#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "agent/answer_maker.h"
#include "agent/health.h"
#include "agent/http_connections.h"
#include "agent/report.h"
#include "agent/unique_fd.h"

namespace tidegate::agent {

// The agent's pages: /metrics, /healthz, the API (docs/page_api.md), and at / the page that shows
// what the API tells. Clients are bounded by HttpConnections. Only GET and HEAD are served, ranges
// are ignored.
//
// Threads: Start and Stop from one. It has three of its own: one serves all clients, and one each
// calls `page` and `api`, so nothing else waits for these.
class HttpServer {
 public:
  // Appends the content of /metrics. If it throws, clients get status 503.
  using PageWriter = std::function<void(std::string*)>;
  // Answers a request under /api/. If it throws, likewise.
  using Api = AnswerMaker::Write;

  // Takes "host:port" apart, with brackets around a host that has colons itself; without a host it
  // means all addresses. False if it is something else.
  static bool SplitAddress(const std::string& address, std::string* host, int* port);

  // Listens at such an address, or takes `present` if that does. Sets `url` to the one of its
  // pages. None, with `error`, if that fails.
  static UniqueFd ListenAt(const std::string& address, UniqueFd present, std::string* url,
                           std::string* error);

  // `report` gets lines for the log, some ten in a second at most; `on_failure` is called on
  // another thread if the server ends without Stop. Counts in `health`, which it borrows.
  HttpServer(PageWriter page, Api api, Report report, std::function<void()> on_failure,
             Health* health, const HttpLimits& limits = {});
  ~HttpServer();  // stops, and waits for the slowest client
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Binds to an address and serves; port 0 is any free one. A socket that listens there already can
  // be given as `present`. Returns false and says why in `error`.
  bool Start(const std::string& address, std::string* error, UniqueFd present = UniqueFd());

  // Ends after the answers under way. False if they take longer than `most`. Safe twice.
  bool Stop(std::chrono::milliseconds most);

  // A further descriptor of its socket. REQUIRES: Start succeeded, and Stop was not called.
  UniqueFd ShareListener() const;

  // Where it listens, as "http://127.0.0.1:9464". REQUIRES: Start succeeded.
  const std::string& url() const { return url_; }

 private:
  using Clock = std::chrono::steady_clock;

  void Run() noexcept;
  void Serve();
  // Waits for something to do.
  void Wait();
  void AcceptSome();
  void Wake();

  const Report report_;
  const std::function<void()> on_failure_;
  AnswerMaker pages_;
  AnswerMaker answers_;
  HttpConnections connections_;
  UniqueFd listener_;
  UniqueFd wake_;  // an eventfd
  Clock::time_point accepts_from_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> ended_{false};  // the thread is about to
  std::string url_;
  std::thread thread_;
};

}  // namespace tidegate::agent
