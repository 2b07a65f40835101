#include "agent/credentials.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <tuple>

#include "agent/unique_fd.h"

namespace tidegate::agent {
namespace {

constexpr size_t kLongestSecret = size_t{16} << 10;

// They say how the agent sends a body, which is not for others to say.
constexpr const char* kOwnHeaders[] = {"Connection",     "Content-Encoding",
                                       "Content-Length", "Content-Type",
                                       "Expect",         "Host",
                                       "Keep-Alive",     "Transfer-Encoding",
                                       "Upgrade",        "X-Prometheus-Remote-Write-Version"};

bool IsControl(char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }

bool IsTokenLetter(char c) {
  constexpr std::string_view kOthers = "!#$%&'*+-.^_`|~";
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         kOthers.find(c) != std::string_view::npos;
}

bool IsNamed(std::string_view name, const char* other) {
  return name.size() == std::string_view(other).size() &&
         strncasecmp(name.data(), other, name.size()) == 0;
}

std::string_view NameOf(std::string_view header) { return header.substr(0, header.find(':')); }

[[noreturn]] void RefuseFile(const char* setting, const std::string& path, const std::string& why) {
  throw CredentialError(setting, "cannot use the file " + path + ": " + why);
}

UniqueFd Open(const char* setting, const std::string& path) {
  // Without waiting for the writer of a pipe.
  UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat info = {};
  if (!file.valid() || fstat(file.get(), &info) != 0) {
    RefuseFile(setting, path, std::generic_category().message(errno));
  }
  if (!S_ISREG(info.st_mode)) RefuseFile(setting, path, "it is no plain file");
  return file;
}

// The one line in a file.
std::string ReadSecret(const char* setting, const std::string& path) {
  const UniqueFd file = Open(setting, path);
  std::string text(kLongestSecret + 1, '\0');
  size_t size = 0;
  while (size < text.size()) {
    const ssize_t got = read(file.get(), text.data() + size, text.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) RefuseFile(setting, path, std::generic_category().message(errno));
    if (got == 0) break;
    size += static_cast<size_t>(got);
  }
  if (size > kLongestSecret) RefuseFile(setting, path, "it is longer than 16 KiB");
  text.resize(size);
  text.erase(text.find_last_not_of("\r\n") + 1);
  if (text.empty()) RefuseFile(setting, path, "it is empty");
  if (std::any_of(text.begin(), text.end(), IsControl)) {
    RefuseFile(setting, path, "it has more than one line, or control characters");
  }
  return text;
}

}  // namespace

bool CredentialSettings::operator==(const CredentialSettings& other) const {
  const auto all = [](const CredentialSettings& one) {
    return std::tie(one.headers, one.bearer_file, one.user, one.password_file, one.ca_file,
                    one.client_cert, one.client_key);
  };
  return all(*this) == all(other);
}

bool Credentials::operator==(const Credentials& other) const {
  const auto all = [](const Credentials& one) {
    return std::tie(one.headers, one.user, one.password, one.ca_file, one.client_cert,
                    one.client_key);
  };
  return all(*this) == all(other);
}

std::string CheckHeader(const std::string& text) {
  const std::string_view name = NameOf(text);
  if (name.empty() || name.size() == text.size() ||
      !std::all_of(name.begin(), name.end(), IsTokenLetter)) {
    return "it is no header, give one as \"Name: value\"";
  }
  const std::string shown(name);
  const std::string_view value = std::string_view(text).substr(name.size() + 1);
  if (value.find_first_not_of(' ') == std::string_view::npos) return shown + " has no value";
  if (std::any_of(value.begin(), value.end(), IsControl)) {
    return "the value of " + shown + " has a line end or another control character";
  }
  const bool own = std::any_of(std::begin(kOwnHeaders), std::end(kOwnHeaders),
                               [name](const char* other) { return IsNamed(name, other); });
  return own ? shown + " is for the agent to say" : "";
}

Credentials ReadCredentials(const CredentialSettings& settings) {
  Credentials read;
  for (const std::string& header : settings.headers) {
    const std::string error = CheckHeader(header);
    if (!error.empty()) throw CredentialError("header", error);
    if (!settings.bearer_file.empty() && IsNamed(NameOf(header), "Authorization")) {
      throw CredentialError("bearer-file", "there is an Authorization header already");
    }
    read.headers.push_back(header);
  }
  if (!settings.bearer_file.empty()) {
    if (!settings.user.empty()) {
      throw CredentialError("bearer-file", "a user has a password, and no token");
    }
    read.headers.push_back("Authorization: Bearer " +
                           ReadSecret("bearer-file", settings.bearer_file));
  }
  if (settings.user.find(':') != std::string::npos ||
      std::any_of(settings.user.begin(), settings.user.end(), IsControl)) {
    throw CredentialError("user", "it has a colon or a control character");
  }
  read.user = settings.user;
  if (!settings.password_file.empty()) {
    if (settings.user.empty()) throw CredentialError("password-file", "there is no user");
    read.password = ReadSecret("password-file", settings.password_file);
  }
  if (!settings.client_key.empty() && settings.client_cert.empty()) {
    throw CredentialError("client-key", "there is no client-cert");
  }
  for (const auto& [setting, path] : {std::pair("ca-file", &settings.ca_file),
                                      {"client-cert", &settings.client_cert},
                                      {"client-key", &settings.client_key}}) {
    if (!path->empty()) Open(setting, *path);
  }
  read.ca_file = settings.ca_file;
  read.client_cert = settings.client_cert;
  read.client_key = settings.client_key;
  return read;
}

}  // namespace tidegate::agent
