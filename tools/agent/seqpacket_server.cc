#include "agent/seqpacket_server.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <new>
#include <system_error>
#include <utility>

#include "agent/start_lock.h"

namespace tidegate::agent {
namespace {

constexpr int kBurst = 64;               // messages of one client before the next has its turn
constexpr int kAcceptRetryMillis = 100;  // while accepting fails

// Connections that the agent has not come to: of each, the kernel keeps what its client has sent,
// also after the client has gone. More clients wait, for as long as they themselves allow.
constexpr int kBacklog = 128;

// Descriptors for the agent's own files and for HTTP clients, but not more than half of all.
constexpr rlim_t kReservedDescriptors = 200;

std::string ErrnoText() { return std::generic_category().message(errno); }

rlim_t MostClients() {
  rlimit descriptors = {};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  return descriptors.rlim_cur - std::min(descriptors.rlim_cur / 2, kReservedDescriptors);
}

int NewSocket() { return socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }

bool MakeAddress(const std::string& path, sockaddr_un* address, std::string* error) {
  *error = SeqpacketServer::CheckPath(path);
  if (!error->empty()) return false;
  *address = {};
  address->sun_family = AF_UNIX;
  std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
  return true;
}

const sockaddr* AsSockaddr(const sockaddr_un* address) {
  return reinterpret_cast<const sockaddr*>(address);
}

ClientId IdOf(int fd, uint64_t connection) {
  ucred peer = {};
  socklen_t size = sizeof(peer);
  const bool known = getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid > 0;
  return {known ? peer.pid : 0, connection, known ? StartOf(peer.pid) : 0};
}

// A file that another user has put there shall be found.
std::string Named(const std::string& path, const struct stat& info) {
  return info.st_uid == geteuid() ? path : path + " of user " + std::to_string(info.st_uid);
}

// Removes the socket file of a process that is gone; an empty place is fine as well.
bool MakeRoom(const sockaddr_un& address, std::string* error) {
  const std::string path = address.sun_path;
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) {
    if (errno == ENOENT) return true;
    *error = "cannot look at " + path + ": " + ErrnoText();
    return false;
  }
  if (!S_ISSOCK(info.st_mode)) {
    *error = Named(path, info) + " exists and is not a socket";
    return false;
  }
  const UniqueFd probe(NewSocket());
  // EAGAIN is a full listen queue, EPROTOTYPE a bound socket of another kind.
  if (connect(probe.get(), AsSockaddr(&address), sizeof(address)) == 0 || errno == EAGAIN ||
      errno == EPROTOTYPE) {
    *error = "another process is listening on " + Named(path, info);
    return false;
  }
  if (errno != ECONNREFUSED && errno != ENOENT) {
    *error = "cannot tell whether " + Named(path, info) + " is in use: " + ErrnoText();
    return false;
  }
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    *error = "cannot remove the stale socket " + Named(path, info) + ": " + ErrnoText();
    return false;
  }
  return true;
}

}  // namespace

SeqpacketServer::SeqpacketServer(MessageHandler on_message, WarningHandler on_warning,
                                 std::atomic<uint64_t>* clients, ConnectedProcesses* processes)
    : on_message_(std::move(on_message)),
      on_warning_(std::move(on_warning)),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      stop_event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      most_clients_(MostClients()),
      processes_(processes),
      client_count_(clients) {}

SeqpacketServer::~SeqpacketServer() { RemoveSocketFile(); }

std::string SeqpacketServer::CheckPath(const std::string& path) {
  constexpr size_t kMost = sizeof(sockaddr_un::sun_path) - 1;
  if (!path.empty() && path.size() <= kMost) return {};
  return "\"" + path + "\" is no path for a socket, give one of 1 to " + std::to_string(kMost) +
         " bytes";
}

bool SeqpacketServer::Listen(const std::string& path, mode_t mode, std::string* error) {
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  if (!folder.empty()) {
    std::error_code failure;
    std::filesystem::create_directories(folder, failure);
    if (failure) {
      *error = "cannot make the folder " + folder.string() + ": " + failure.message();
      return false;
    }
  }
  StartLock lock;
  if (!lock.Take(path + ".lock", error)) return false;
  if (!Bind(path, mode, error)) return false;
  if (!Watch(stop_event_.get(), true) || !Watch(listener_.get(), true)) {
    *error = "cannot watch the socket: " + ErrnoText();
    return false;
  }
  return true;
}

bool SeqpacketServer::Bind(const std::string& path, mode_t mode, std::string* error) {
  sockaddr_un address;
  if (!MakeAddress(path, &address, error) || !MakeRoom(address, error)) return false;
  listener_ = UniqueFd(NewSocket());
  std::string bound = path;  // before there is a file to remove
  struct stat info;
  if (!listener_.valid() || bind(listener_.get(), AsSockaddr(&address), sizeof(address)) != 0 ||
      lstat(path.c_str(), &info) != 0) {
    *error = "cannot make the socket " + path + ": " + ErrnoText();
    return false;
  }
  path_ = std::move(bound);
  socket_device_ = info.st_dev;
  socket_inode_ = info.st_ino;
  if (chmod(path.c_str(), mode) != 0 || listen(listener_.get(), kBacklog) != 0) {
    *error = "cannot listen on " + path + ": " + ErrnoText();
    return false;
  }
  return true;
}

bool SeqpacketServer::Run(std::string* error) {
  bool running = true;
  while (running) {
    epoll_event events[64];
    const int count = epoll_wait(epoll_.get(), events, static_cast<int>(std::size(events)),
                                 accept_paused_ ? kAcceptRetryMillis : -1);
    if (count < 0 && errno != EINTR) {
      *error = "cannot wait for clients: " + ErrnoText();
      return false;
    }
    if (accept_paused_) AcceptPending();
    for (int i = 0; i < count; ++i) {
      const int fd = events[i].data.fd;
      if (fd == stop_event_.get()) {
        running = false;
      } else if (fd == listener_.get()) {
        AcceptPending();
      } else if (ReadSome(clients_[fd]) == ReadResult::kGone) {
        clients_.erase(fd);
        *client_count_ = clients_.size();
      }
    }
  }
  Drain();
  return true;
}

void SeqpacketServer::Stop() {
  const int saved_errno = errno;
  const uint64_t one = 1;
  // Can only fail when the event has been set more often than anyone could.
  [[maybe_unused]] const ssize_t written = write(stop_event_.get(), &one, sizeof(one));
  errno = saved_errno;
}

bool SeqpacketServer::Watch(int fd, bool ready_to_read) {
  epoll_event event = {};
  event.events = ready_to_read ? uint32_t{EPOLLIN} : 0;
  event.data.fd = fd;
  return epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event) == 0 ||
         epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

void SeqpacketServer::AcceptPending() {
  for (;;) {
    if (clients_.size() >= most_clients_) {
      errno = EMFILE;
      return PauseAccepting(true);
    }
    UniqueFd client(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!client.valid()) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      // EINVAL is the end of the queue of a listener that was shut down.
      PauseAccepting(errno != EAGAIN && errno != EINVAL);
      return;
    }
    if (!Serve(std::move(client))) Warn("cannot serve a client: ");
  }
}

bool SeqpacketServer::Serve(UniqueFd client) {
  const int fd = client.get();
  // Makes every message carry its sender's credentials, which tells an empty message from the end
  // of the connection.
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on));
  try {
    const ClientId id = IdOf(fd, ++connections_);
    clients_[fd] = {std::move(client), id, {processes_, id.process()}};
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  }
  if (!Watch(fd, true)) {
    clients_.erase(fd);
    return false;
  }
  *client_count_ = clients_.size();
  return true;
}

void SeqpacketServer::Warn(const char* trouble) noexcept {
  try {
    on_warning_(trouble + ErrnoText());
  } catch (const std::bad_alloc&) {
    on_warning_("out of memory");  // so short a string takes none
  }
}

void SeqpacketServer::PauseAccepting(bool pause) {
  if (pause == accept_paused_) return;
  if (pause) Warn("cannot accept a client, new clients wait: ");
  accept_paused_ = pause;
  Watch(listener_.get(), !pause);
}

SeqpacketServer::ReadResult SeqpacketServer::ReadSome(const Client& client) {
  const int fd = client.socket.get();
  for (int i = 0; i < kBurst; ++i) {
    // Asking for the size first is far cheaper than copying a message once more, into memory that
    // it fills.
    const ssize_t waiting = recv(fd, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    if (waiting < 0) {
      if (errno == EINTR) continue;
      return errno == EAGAIN ? ReadResult::kIdle : ReadResult::kGone;
    }
    Message message;
    message.size = std::min(static_cast<size_t>(waiting), kMaxMessageSize);
    message.data.reset(new (std::nothrow) char[message.size]);  // not set to zero
    message.sent_size = static_cast<size_t>(waiting);
    message.client = client.id;
    if (message.data == nullptr) message.size = 0;  // takes the message off the socket
    iovec part = {message.data.get(), message.size};
    // Room for the credentials and nothing else: descriptors that a client passes are dropped.
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);
    const ssize_t received = recvmsg(fd, &header, 0);
    if (received < 0 || (received == 0 && header.msg_controllen == 0)) return ReadResult::kGone;
    on_message_(std::move(message));
  }
  return ReadResult::kMore;
}

void SeqpacketServer::Drain() {
  RemoveSocketFile();
  // From here on clients can neither connect nor send, so what is queued has an end.
  shutdown(listener_.get(), SHUT_RD);
  // Clients that did not fit into the free descriptors have their turn once others are closed.
  for (AcceptPending(); !clients_.empty(); AcceptPending()) {
    for (const auto& [fd, client] : clients_) {
      shutdown(fd, SHUT_RD);
      while (ReadSome(client) == ReadResult::kMore) {
      }
    }
    clients_.clear();
    *client_count_ = 0;
  }
}

void SeqpacketServer::RemoveSocketFile() {
  if (path_.empty()) return;
  struct stat info;
  // Someone may have put another socket in its place.
  if (lstat(path_.c_str(), &info) == 0 && info.st_dev == socket_device_ &&
      info.st_ino == socket_inode_) {
    unlink(path_.c_str());
  }
  path_.clear();
}

}  // namespace tidegate::agent
