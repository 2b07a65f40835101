#include "agent/packet_listener.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <thread>
#include <utility>

#include "agent/socket_file.h"

namespace tidegate::agent {
namespace {

// Connections that the agent has not come to: of each, the kernel keeps what its client has sent,
// also after the client has gone. More clients wait, for as long as they themselves allow.
constexpr int kBacklog = 128;

// An agent that is asked for its socket when it just ends needs so many of them to have ended.
constexpr std::chrono::milliseconds kPause(20);
constexpr int kPauses = 250;

std::string ErrnoText() { return std::generic_category().message(errno); }

// Removes the socket file of a process that is gone; an empty place is fine as well. Connects to
// one that is there, which keeps `rival` as a connection.
bool MakeRoom(const std::string& path, UniqueFd* rival, std::string* error) {
  const SocketFileState state = LookAtSocketFile(path, rival, error);
  if (state != SocketFileState::kStale) return state == SocketFileState::kNone;
  if (unlink(path.c_str()) == 0 || errno == ENOENT) return true;
  *error = "cannot remove the stale socket " + *error + ": " + ErrnoText();
  return false;
}

bool HasOption(int fd, int name, int value) {
  int found = 0;
  socklen_t size = sizeof(found);
  return getsockopt(fd, SOL_SOCKET, name, &found, &size) == 0 && found == value;
}

}  // namespace

std::string PacketListener::CheckPath(const std::string& path) {
  constexpr size_t kMost = sizeof(sockaddr_un::sun_path) - 1;
  if (!path.empty() && path.size() <= kMost) return {};
  return "\"" + path + "\" is no path for a socket, give one of 1 to " + std::to_string(kMost) +
         " bytes";
}

bool PacketListener::Make(const std::string& path, mode_t mode, HandOverTaker* taker,
                          std::string* error) {
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  if (!folder.empty()) {
    std::error_code failure;
    std::filesystem::create_directories(folder, failure);
    if (failure) {
      *error = "cannot make the folder " + folder.string() + ": " + failure.message();
      return false;
    }
  }
  if (!lock_.emplace().Take(path + ".lock", error)) return false;
  if (!Open(path, mode, taker, error)) return false;
  if (taker_ == nullptr) lock_.reset();
  return true;
}

bool PacketListener::Open(const std::string& path, mode_t mode, HandOverTaker* taker,
                          std::string* error) {
  sockaddr_un address;
  if (!MakeSocketAddress(path, &address, error)) return false;
  for (int i = 0; i < kPauses; ++i) {
    UniqueFd rival;
    if (MakeRoom(path, &rival, error)) return Bind(address, mode, error);
    if (taker == nullptr || !rival.valid()) return false;
    const HandOverTaker::Answer answer = taker->Ask(std::move(rival));
    if (answer == HandOverTaker::Answer::kOffer) {
      taker_ = taker;
      if (!Adopt(std::move(taker->services()), error)) return false;
      path_ = path;  // the other one's may be another way to it
      return NoteFile(error);
    }
    if (answer == HandOverTaker::Answer::kNone) break;
    std::this_thread::sleep_for(kPause);
  }
  *error += ", which does not hand it over";
  return false;
}

bool PacketListener::Bind(const sockaddr_un& address, mode_t mode, std::string* error) {
  socket_ = NewSeqpacketSocket();
  path_ = address.sun_path;
  if (!socket_.valid() ||
      bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    *error = "cannot make the socket " + path_ + ": " + ErrnoText();
    return false;
  }
  if (!NoteFile(error)) return false;
  has_file_ = true;
  if (chmod(path_.c_str(), mode) != 0 || listen(socket_.get(), kBacklog) != 0) {
    *error = "cannot listen on " + path_ + ": " + ErrnoText();
    return false;
  }
  return true;
}

bool PacketListener::NoteFile(std::string* error) {
  struct stat info;
  if (lstat(path_.c_str(), &info) != 0) {
    *error = "cannot look at " + path_ + ": " + ErrnoText();
    return false;
  }
  file_device_ = info.st_dev;
  file_inode_ = info.st_ino;
  return true;
}

bool PacketListener::Confirm(std::string* error) {
  if (taker_ != nullptr) {
    has_file_ = taker_->Take();
    if (!has_file_) {
      *error = "process " + std::to_string(taker_->from()) + " keeps the socket " + path_;
      return false;
    }
  }
  lock_.reset();
  return true;
}

bool PacketListener::Adopt(UniqueFd socket, std::string* error) {
  sockaddr_un address = {};
  socklen_t size = sizeof(address);
  if (!HasOption(socket.get(), SO_DOMAIN, AF_UNIX) ||
      !HasOption(socket.get(), SO_TYPE, SOCK_SEQPACKET) ||
      !HasOption(socket.get(), SO_ACCEPTCONN, 1) ||
      getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
      fcntl(socket.get(), F_SETFL, O_NONBLOCK) != 0) {
    *error = "what was passed on is no SOCK_SEQPACKET unix socket that listens";
    return false;
  }
  const size_t most = size - std::min<size_t>(size, offsetof(sockaddr_un, sun_path));
  path_.assign(address.sun_path, strnlen(address.sun_path, most));
  socket_ = std::move(socket);
  return true;
}

void PacketListener::End() {
  if (!has_file_) return socket_.Reset();
  RemoveFile();
  shutdown(socket_.get(), SHUT_RD);
}

void PacketListener::RemoveFile() {
  if (!std::exchange(has_file_, false)) return;
  struct stat info;
  // Someone may have put another socket in its place.
  if (lstat(path_.c_str(), &info) == 0 && info.st_dev == file_device_ &&
      info.st_ino == file_inode_) {
    unlink(path_.c_str());
  }
}

}  // namespace tidegate::agent
