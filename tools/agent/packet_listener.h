#pragma once

#include <sys/types.h>

#include <string>

#include "agent/unique_fd.h"

namespace tidegate::agent {

// The SOCK_SEQPACKET unix socket that services connect to: either the agent makes it at a path, or
// the service manager passes it on, and keeps it when the agent ends.
//
// Threads: one. Owns the descriptor, and the socket file of a socket that it made.
class PacketListener {
 public:
  PacketListener() = default;
  ~PacketListener() { RemoveFile(); }
  PacketListener(const PacketListener&) = delete;
  PacketListener& operator=(const PacketListener&) = delete;

  // What keeps `path` from being that of a socket; empty if nothing does.
  static std::string CheckPath(const std::string& path);

  // Opens the socket, once per object, as a file of that mode. Makes the missing folders of `path`
  // and takes the place of a socket file that nobody listens on; anything else that stands at
  // `path` is left alone and is an error. Returns false and says why in `error`.
  bool Make(const std::string& path, mode_t mode, std::string* error);

  // Takes a socket that listens already, instead of Make. Returns false and says why in `error` if
  // it is not one of this kind.
  bool Adopt(UniqueFd socket, std::string* error);

  // Does not block. -1 before the calls above.
  int fd() const { return socket_.get(); }
  // Where it listens.
  const std::string& path() const { return path_; }

  // From here on nobody can connect to a socket that was made: its file is gone, and those who wait
  // to be accepted are the last ones. One that was adopted is let go, and others wait there for
  // whoever has it next: fd() is -1 then.
  void End();

 private:
  bool Bind(const std::string& path, mode_t mode, std::string* error);
  void RemoveFile();

  UniqueFd socket_;
  std::string path_;
  bool has_file_ = false;  // there is a socket file of ours
  dev_t file_device_ = 0;  // which one at path_ it is
  ino_t file_inode_ = 0;
};

}  // namespace tidegate::agent
