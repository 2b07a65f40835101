#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "agent/credentials.h"
#include "agent/forward_url.h"

namespace tidegate::agent {

// The outcome of one request.
struct HttpReply {
  int status = 0;        // 0: no whole reply came
  std::string body;      // as it came, up to HttpPoster::kMaxReply
  std::string text;      // for people: of the body, cut, or the status; without a reply why there
                         // is none. One printable line
  std::string location;  // of a redirect, printable, without user, password and query
  std::chrono::seconds wait{0};  // what the server asks for by Retry-After; 0 if it does not
};

// What a server says, as one printable line, cut where it is long.
std::string PrintableLine(std::string_view text);

// Its status and text for people, or why there is no reply.
std::string TextOf(const HttpReply& reply);

// Posts bodies to one URL, on one connection that is kept open between requests.
//
// Threads: one calls Post; Cancel may come from any. Certificates of https are verified against
// those of the credentials' file, or the one that SSL_CERT_FILE in the environment names, or those
// that the machine trusts.
// Redirects are not followed, proxies of the environment not used. Of a reply head and body are
// bounded together, interim replies included. Throws std::bad_alloc where there is no memory for a
// client.
class HttpPoster {
 public:
  // The bytes of a reply. One whose body is longer is cut and still taken, as its status is known.
  static constexpr size_t kMaxReply = size_t{64} << 10;

  // `headers` are lines of HTTP's head, as "Content-Type: text/plain", beside those of the
  // credentials.
  HttpPoster(const ForwardUrl& url, const Credentials& credentials,
             const std::vector<std::string>& headers);
  ~HttpPoster();  // waits for nobody, not even for the look-up of a name
  HttpPoster(const HttpPoster&) = delete;
  HttpPoster& operator=(const HttpPoster&) = delete;

  // Returns within `timeout`, which is for everything: the name, connection, TLS, request and
  // reply.
  HttpReply Post(const std::string& body, std::chrono::milliseconds timeout);

  // Ends a Post that is under way, and each later one, at once.
  void Cancel();

 private:
  class Client;  // keeps the HTTP library's header out of all other files

  const std::unique_ptr<Client> client_;
};

}  // namespace tidegate::agent
