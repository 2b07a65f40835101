#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "agent/forward_url.h"

namespace tidegate::agent {

// What became of one request.
struct HttpReply {
  int status = 0;        // 0: no reply came
  std::string text;      // of the reply, cut; without one why there is none. One printable line
  std::string location;  // of a redirect, printable
  std::chrono::seconds wait;  // what the server asks for by Retry-After; 0 if it does not
};

// Posts gzip bodies of lines to one URL, on one connection that is kept open between requests.
//
// Threads: one calls Post; Cancel may come from any. Certificates of https are verified against
// those that the machine trusts. Redirects are not followed.
class HttpPoster {
 public:
  explicit HttpPoster(const ForwardUrl& url);
  ~HttpPoster();
  HttpPoster(const HttpPoster&) = delete;
  HttpPoster& operator=(const HttpPoster&) = delete;

  // Waits for the connection, the peer's reading and its reply, `timeout` at most for each, and for
  // a connection kMaxConnectTime at most: for each address of the host and for TLS, while looking
  // the name up takes what the machine's resolver allows.
  HttpReply Post(const std::string& gzip_body, std::chrono::milliseconds timeout);

  // Ends a Post that is under way; while one is still connecting, waits until that has ended.
  void Cancel();

  static constexpr std::chrono::milliseconds kMaxConnectTime{3000};

 private:
  class Client;  // keeps the HTTP library's header out of all other files

  const std::string target_;
  const std::unique_ptr<Client> client_;
};

}  // namespace tidegate::agent
