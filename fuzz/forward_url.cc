// The URL of --forward. A URL that is accepted can be sent as it is and reads the same again. No
// line about a text that is refused holds a part that can be a password or a token.
//
// An input is one byte for where a secret is put into the text, and the text.

#include "agent/forward_url.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "fuzz/target.h"

namespace tidegate::fuzz {
namespace {

using agent::ForwardUrl;

constexpr std::string_view kSecret = "S3cR3t";

bool Holds(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

bool IsPrintable(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

// The parts that go into a request, and into the log.
void CheckParts(const ForwardUrl& url) {
  Require(!url.host.empty() && IsPrintable(url.host), "there is a host");
  Require(url.port >= 1 && url.port <= 65535, "the port is one");
  Require(url.target.front() == '/' && IsPrintable(url.target), "a target ends no line");
  Require(!Holds(url.target, "#"), "a fragment is not sent");
  Require(url.shown.find_first_of("@?#") == std::string::npos, "no user and no query is shown");
}

void CheckShown(const ForwardUrl& url) {
  ForwardUrl again;
  std::string error;
  Require(agent::ParseForwardUrl(url.shown, &again, &error), "what is shown is a URL");
  Require(again.tls == url.tls && again.host == url.host && again.port == url.port &&
              again.target == url.target.substr(0, url.target.find('?')),
          "what is shown is the same place");
  Require(again.user.empty() && again.password.empty(), "what is shown has no password");
  Require(again.shown == url.shown, "what is shown is shown again");
}

// A wrong precision is quoted, so a secret that stands in it is none.
bool IsSecret(std::string_view before, std::string_view after) {
  if (Holds(after, "@")) return true;
  const size_t query = before.find('?');
  if (query == std::string_view::npos) return false;
  const size_t parameter = std::max(query + 1, before.rfind('&') + 1);
  return !Holds(before.substr(parameter), "precision=");
}

void CheckSecret(std::string_view text, size_t at) {
  const std::string_view before = text.substr(0, at);
  const std::string_view after = text.substr(at);
  if (!IsSecret(before, after) || Holds(text, kSecret)) return;
  const std::string with = std::string(before).append(kSecret).append(after);
  ForwardUrl url;
  std::string error;
  if (agent::ParseForwardUrl(with, &url, &error)) {
    Require(!Holds(url.shown, kSecret), "what is taken is shown without its secret");
  } else {
    Require(!Holds(error, kSecret), "an error quotes no secret");
    Require(!error.empty() && !Holds(error, "\n"), "an error is one line");
  }
  Require(!Holds(agent::WithoutSecrets(with), kSecret), "a refused text is shown without secrets");
}

std::string Encoded(std::string_view text) {
  constexpr char kDigits[] = "0123456789aBcDeF";
  std::string encoded;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    encoded += {'%', kDigits[byte / 16], kDigits[byte % 16]};
  }
  return encoded;
}

// Any user and any password can be written.
void CheckCredentials(std::string_view user, std::string_view password) {
  ForwardUrl url;
  std::string error;
  const std::string text = "http://" + Encoded(user) + ":" + Encoded(password) + "@db:1/w?q=1";
  Require(agent::ParseForwardUrl(text, &url, &error), "what is encoded is taken");
  Require(url.user == user && url.password == password, "what is encoded comes back");
  Require(url.shown == "http://db:1/w" && url.target == "/w?q=1", "and changes nothing else");
}

bool ParseInput(const uint8_t* data, size_t size) {
  if (size == 0) return false;
  const std::string text(data + 1, data + size);
  const size_t at = std::min<size_t>(data[0], text.size());
  CheckSecret(text, at);
  CheckCredentials(std::string_view(text).substr(0, at), std::string_view(text).substr(at));
  ForwardUrl url;
  std::string error;
  if (!agent::ParseForwardUrl(text, &url, &error)) {
    Require(!error.empty(), "a refusal has a reason");
    return false;
  }
  CheckParts(url);
  CheckShown(url);
  return true;
}

const Registration kRegistration("forward_url", ParseInput);

}  // namespace
}  // namespace tidegate::fuzz
