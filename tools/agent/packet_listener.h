#pragma once

#include <sys/types.h>
#include <sys/un.h>

#include <optional>
#include <string>

#include "agent/hand_over.h"
#include "agent/start_lock.h"
#include "agent/unique_fd.h"

namespace tidegate::agent {

// The SOCK_SEQPACKET unix socket that services connect to. The agent makes it at a path, or takes
// it over from another agent there. Or the service manager passes it on, and keeps it when the
// agent ends.
//
// Threads: one. Owns the descriptor, and the socket file unless it is the service manager's.
class PacketListener {
 public:
  PacketListener() = default;
  ~PacketListener() { RemoveFile(); }
  PacketListener(const PacketListener&) = delete;
  PacketListener& operator=(const PacketListener&) = delete;

  // The reason why `path` cannot be that of a socket; empty if it can.
  static std::string CheckPath(const std::string& path);

  // Opens the socket, once per object, as a file of that mode. Makes the missing folders of `path`,
  // and replaces a socket file that nobody listens on. Anything else at `path` is left alone and is
  // an error. But with a `taker`, which it borrows, it gets the socket of an agent that listens
  // there; that one goes on until Confirm. Returns false and says why in `error`.
  bool Make(const std::string& path, mode_t mode, HandOverTaker* taker, std::string* error);

  // To be called after Make, when nothing else can fail. Returns false and says why in `error` if
  // the agent that has listened so far keeps the socket.
  bool Confirm(std::string* error);

  // Takes a socket that listens already, instead of Make. Returns false and says why in `error` if
  // it is not one of this kind.
  bool Adopt(UniqueFd socket, std::string* error);

  // Does not block. -1 before the calls above.
  int fd() const { return socket_.get(); }
  // Where it listens.
  const std::string& path() const { return path_; }
  // False for a socket of the service manager.
  bool has_file() const { return has_file_; }

  // Another process has the socket from now on, and its file.
  void GiveAway() { has_file_ = false; }

  // From here on nobody can connect to a socket that is the agent's own: its file is gone, and the
  // clients that wait to be accepted are the last ones. A socket of someone else is closed here,
  // and clients that connect there wait for its next listener: fd() is -1 then.
  void End();

 private:
  bool Open(const std::string& path, mode_t mode, HandOverTaker* taker, std::string* error);
  bool Bind(const sockaddr_un& address, mode_t mode, std::string* error);
  // Which file is at path_.
  bool NoteFile(std::string* error);
  void RemoveFile();

  std::optional<StartLock> lock_;   // while it starts
  HandOverTaker* taker_ = nullptr;  // has something to take
  UniqueFd socket_;
  std::string path_;
  bool has_file_ = false;  // there is a socket file of ours
  dev_t file_device_ = 0;  // which one at path_ it is
  ino_t file_inode_ = 0;
};

}  // namespace tidegate::agent
