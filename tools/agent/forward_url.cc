#include "agent/forward_url.h"

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

namespace tidegate::agent {
namespace {

constexpr int kHttpPort = 80;
constexpr int kHttpsPort = 443;
constexpr int kLastPort = 65535;

int HexDigit(char digit) {
  int value = -1;
  std::from_chars(&digit, &digit + 1, value, 16);
  return value;
}

std::string PercentDecoded(std::string_view text) {
  std::string decoded;
  for (size_t i = 0; i < text.size(); ++i) {
    const int high = i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
    const int low = i + 2 < text.size() ? HexDigit(text[i + 2]) : -1;
    if (text[i] == '%' && high >= 0 && low >= 0) {
      decoded += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

// Takes the text before `separator`, and the separator. Without one it takes nothing, and the
// result is empty.
std::string_view TakeThrough(std::string_view* rest, size_t separator, size_t width) {
  if (separator == std::string_view::npos) return {};
  const std::string_view front = rest->substr(0, separator);
  rest->remove_prefix(separator + width);
  return front;
}

bool ParsePort(std::string_view text, int* port) {
  const char* const end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, *port);
  return failure == std::errc() && stop == end && *port >= 1 && *port <= kLastPort;
}

// host, host:port or [address]:port.
bool ParseAuthority(std::string_view authority, ForwardUrl* url, std::string* error) {
  std::string_view port;
  if (!authority.empty() && authority.front() == '[') {
    const size_t close = authority.find(']');
    if (close == std::string_view::npos) {
      *error = "\"" + std::string(authority) + "\" lacks its ]";
      return false;
    }
    url->host = authority.substr(1, close - 1);
    port = authority.substr(close + 1);
  } else {
    url->host = authority.substr(0, authority.find(':'));
    port = authority.substr(url->host.size());
  }
  if (url->host.empty()) {
    *error = "there is no host in it";
    return false;
  }
  if (!port.empty() && (port.front() != ':' || !ParsePort(port.substr(1), &url->port))) {
    *error = "\"" + std::string(port) + "\" is no port, give one as :8428";
    return false;
  }
  return true;
}

// That libcurl takes it, as otherwise no request would ever leave.
bool CheckHost(const ForwardUrl& url, std::string* error) {
  CURLU* const parts = curl_url();
  const bool good = curl_url_set(parts, CURLUPART_URL, url.Request().c_str(), 0) == CURLUE_OK;
  curl_url_cleanup(parts);
  if (!good) *error = "\"" + url.host + "\" is no name or address of a host";
  return good;
}

// The lines carry nanoseconds, which is what every receiver takes if it is not told otherwise.
bool CheckPrecision(std::string_view target, std::string* error) {
  constexpr std::string_view kName = "precision=";
  target.remove_prefix(std::min(target.find('?'), target.size()));
  while (!target.empty()) {
    target.remove_prefix(1);
    const std::string_view parameter = target.substr(0, target.find('&'));
    target.remove_prefix(parameter.size());
    if (parameter.substr(0, kName.size()) != kName || parameter == "precision=ns") continue;
    // The text after the value may be a secret after a wrong separator.
    const size_t end = parameter.find_first_not_of("abcdefghijklmnopqrstuvwxyz", kName.size());
    *error = "\"" + std::string(parameter.substr(0, end)) +
             "\" does not hold, timestamps are nanoseconds: leave it out";
    return false;
  }
  return true;
}

}  // namespace

bool ParseForwardUrl(const std::string& text, ForwardUrl* url, std::string* error,
                     DestinationKind kind) {
  if (std::any_of(text.begin(), text.end(), [](char c) { return c <= ' ' || c == '\x7f'; })) {
    *error = "it has characters that have to be written as %XX";
    return false;
  }
  std::string_view rest = text;
  const std::string_view scheme = TakeThrough(&rest, rest.find("://"), 3);
  if (scheme != "http" && scheme != "https") {
    *error = "it has to start with http:// or https://";
    return false;
  }
  url->tls = scheme == "https";
  url->port = url->tls ? kHttpsPort : kHttpPort;

  const size_t authority_end = std::min(rest.find_first_of("/?#"), rest.size());
  std::string_view authority = rest.substr(0, authority_end);
  rest.remove_prefix(authority_end);
  // Most likely that was half of a password, which must go neither to a host nor into the log.
  if (rest.find('@') != std::string_view::npos) {
    *error =
        "an @ after the host has to be written as %40, and in a password /, ? and # as %2F, "
        "%3F and %23";
    return false;
  }
  rest = rest.substr(0, rest.find('#'));
  std::string_view credentials = TakeThrough(&authority, authority.rfind('@'), 1);
  const size_t colon = std::min(credentials.find(':'), credentials.size());
  url->user = PercentDecoded(credentials.substr(0, colon));
  url->password = PercentDecoded(credentials.substr(std::min(colon + 1, credentials.size())));
  if (!ParseAuthority(authority, url, error)) return false;

  const size_t path_end = std::min(rest.find('?'), rest.size());
  url->target = path_end <= 1 ? FactsOf(kind).path : rest.substr(0, path_end);
  url->target += rest.substr(path_end);
  // A query may hold a token or a password.
  url->shown = std::string(scheme) + "://" + std::string(authority) +
               url->target.substr(0, url->target.find('?'));
  return CheckHost(*url, error) &&
         (kind != DestinationKind::kInflux || CheckPrecision(url->target, error));
}

std::string ForwardUrl::Request() const {
  const bool address = host.find(':') != std::string::npos;
  return (tls ? "https://" : "http://") + (address ? '[' + host + ']' : host) + ':' +
         std::to_string(port) + target;
}

bool IsForeignTarget(std::string_view target, DestinationKind kind) {
  using Kind = DestinationKind;
  struct End {
    std::string_view path;
    std::optional<Kind> kind;  // that takes it; none: those of OpenTelemetry, Prometheus, OpenTSDB
  };
  constexpr End kEnds[] = {
      {"/v1/metrics", Kind::kOtlp},
      {"/v1/traces", {}},
      {"/v1/logs", {}},
      {"/api/v1/write", Kind::kRemoteWrite},
      {"/api/v1/push", Kind::kRemoteWrite},
      {"/api/v1/receive", Kind::kRemoteWrite},
      {"/api/v2/write", Kind::kInflux},
      {"/influx/write", Kind::kInflux},
      {"/api/v1/import", {}},
      {"/api/v1/query", {}},
      {"/api/put", {}},
      {"/metrics", {}},
  };
  std::string_view path = target.substr(0, target.find('?'));
  while (!path.empty() && path.back() == '/') path.remove_suffix(1);
  for (const End& end : kEnds) {
    if (path.size() < end.path.size()) continue;
    if (path.substr(path.size() - end.path.size()) == end.path) return end.kind != kind;
  }
  return false;
}

std::string WithoutSecrets(const std::string& text) {
  const size_t query = text.find('?');
  const size_t at = text.rfind('@');
  if (at == std::string::npos) {
    return query == std::string::npos ? text : text.substr(0, query) + "?...";
  }
  size_t scheme = 0;
  for (const std::string_view known : {"http://", "https://"}) {
    if (text.compare(0, known.size(), known) == 0) scheme = known.size();
  }
  // With a ? before it, the @ may be in a query as well as after a password.
  return text.substr(0, scheme) + "..." +
         (query < at ? "" : text.substr(at, text.find_first_of("?#", at) - at));
}

}  // namespace tidegate::agent
