#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tidegate::agent {

// The settings by which a destination knows the agent, and the agent the destination.
struct CredentialSettings {
  std::vector<std::string> headers;  // "Name: value"
  std::string bearer_file;           // empty, as all below: none
  std::string user;
  std::string password_file;
  std::string ca_file;
  std::string client_cert;
  std::string client_key;

  bool operator==(const CredentialSettings& other) const;
};

// A setting of those that makes no sense, or a file that cannot be read. The text never has a
// secret in it.
class CredentialError : public std::runtime_error {
 public:
  CredentialError(std::string name, const std::string& text)
      : std::runtime_error(text), setting(std::move(name)) {}
  const std::string setting;  // as "bearer-file"
};

// What a request carries by those settings, with the content of the files. The files of TLS are
// read by each new connection, so they are only named here.
struct Credentials {
  std::vector<std::string> headers;
  std::string user;  // for basic authentication; empty: none
  std::string password;
  std::string ca_file;
  std::string client_cert;
  std::string client_key;

  bool operator==(const Credentials& other) const;
};

// Reads the files. Throws CredentialError, for files of TLS too if they are not to be opened.
Credentials ReadCredentials(const CredentialSettings& settings);

// Why `text` is no line of HTTP's head that may be added to a request; empty if it is one. Never
// quotes the value.
std::string CheckHeader(const std::string& text);

}  // namespace tidegate::agent
