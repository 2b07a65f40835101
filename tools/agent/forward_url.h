#pragma once

#include <string>
#include <string_view>

#include "agent/destination_kind.h"

namespace tidegate::agent {

// Where points are forwarded to: the parts of http[s]://[user:password@]host[:port][/path][?query].
struct ForwardUrl {
  bool tls = false;
  std::string host;  // without the brackets of an IPv6 address
  int port = 0;
  std::string target;    // path and query as they go into the request
  std::string user;      // %XX decoded, as the password
  std::string password;  // empty without a user
  std::string shown;     // the URL for log lines, without user and password

  // As a request goes to it: without user and password, with the port.
  std::string Request() const;
};

// Takes `text` apart. The path is that of the kind if there is none, the port that of the scheme.
// Returns false, with one line in `error` that quotes the offending part, for what cannot be
// forwarded to.
bool ParseForwardUrl(const std::string& text, ForwardUrl* url, std::string* error,
                     DestinationKind kind = DestinationKind::kInflux);

// Whether the path of a target is known as one that takes other things than this kind.
bool IsForeignTarget(std::string_view target, DestinationKind kind);

// `text` for a line that says why it is refused: without what can be a user, a password, written
// right or wrong, or a query.
std::string WithoutSecrets(const std::string& text);

}  // namespace tidegate::agent
