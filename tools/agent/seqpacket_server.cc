#include "agent/seqpacket_server.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <new>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "agent/peer.h"
#include "agent/status_exchange.h"

namespace tidegate::agent {
namespace {

constexpr int kBurst = 64;               // messages of one client before the next has its turn
constexpr int kAcceptRetryMillis = 100;  // while accepting fails

// Between two looks at whether it is done.
constexpr int kDoneMillis = 20;

// Descriptors for the agent's own files and for HTTP clients, but not more than half of all.
constexpr rlim_t kReservedDescriptors = 200;

std::string ErrnoText() { return std::generic_category().message(errno); }

rlim_t MostClients() {
  rlimit descriptors = {};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  return descriptors.rlim_cur - std::min(descriptors.rlim_cur / 2, kReservedDescriptors);
}

ClientId IdOf(int fd, uint64_t connection) {
  const std::optional<ucred> peer = PeerOf(fd);
  const bool known = peer && peer->pid > 0;
  return {known ? peer->pid : 0, connection, known ? StartOf(peer->pid) : 0};
}

}  // namespace

SeqpacketServer::SeqpacketServer(MessageHandler on_message, Report on_warning,
                                 std::atomic<uint64_t>* clients, ConnectedProcesses* processes)
    : on_message_(std::move(on_message)),
      on_warning_(std::move(on_warning)),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      stop_event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      most_clients_(MostClients()),
      processes_(processes),
      client_count_(clients) {}

bool SeqpacketServer::Listen(PacketListener* listener, std::string* error) {
  listener_ = listener;
  if (Watch(stop_event_.get(), true) && Watch(listener_->fd(), true)) return true;
  *error = "cannot watch the socket: " + ErrnoText();
  return false;
}

void SeqpacketServer::OfferSockets(UniqueFd http) {
  std::vector<UniqueFd> sockets;
  sockets.emplace_back(fcntl(listener_->fd(), F_DUPFD_CLOEXEC, 0));
  if (http.valid()) sockets.push_back(std::move(http));
  giver_.Offer(std::move(sockets));
}

bool SeqpacketServer::Run(std::string* error) {
  while (!stopped_ && handed_to() == 0) {
    if (!RunOnce(-1)) {
      *error = "cannot wait for clients: " + ErrnoText();
      return false;
    }
  }
  return true;
}

void SeqpacketServer::RunUntil(const std::function<bool()>& done) {
  while (handed_to() == 0 && !done() && RunOnce(kDoneMillis)) {
  }
}

bool SeqpacketServer::RunOnce(int timeout_millis) {
  if (accept_paused_ && timeout_millis < 0) timeout_millis = kAcceptRetryMillis;
  epoll_event events[64];
  const int count =
      epoll_wait(epoll_.get(), events, static_cast<int>(std::size(events)), timeout_millis);
  if (count < 0 && errno != EINTR) return false;
  if (accept_paused_) AcceptPending();
  for (int i = 0; i < count; ++i) {
    const int fd = events[i].data.fd;
    if (fd == stop_event_.get()) {
      stopped_ = true;
      epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);  // it would be ready all the time
    } else if (fd == listener_->fd()) {
      AcceptPending();
    } else {
      Read(fd);
    }
  }
  return true;
}

void SeqpacketServer::Read(int fd) {
  const auto client = clients_.find(fd);
  const ReadResult result = ReadSome(client->second);
  if (result == ReadResult::kMore || result == ReadResult::kIdle) return;
  if (result == ReadResult::kAsksForStatus) {
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
    answer_status_(std::move(client->second.socket));
  }
  clients_.erase(client);
  *client_count_ = clients_.size();
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
    UniqueFd client(accept4(listener_->fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!client.valid()) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      // EINVAL is the end of the queue of a listener that was shut down, EBADF one that was let go.
      PauseAccepting(errno != EAGAIN && errno != EINVAL && errno != EBADF);
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
  Watch(listener_->fd(), !pause);
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
    const std::string_view text(message.data.get(), message.size);
    if (giver_.Answer(fd, client.id.connection, text)) continue;
    if (AsksForStatus(fd, text)) return ReadResult::kAsksForStatus;
    on_message_(std::move(message));
  }
  return ReadResult::kMore;
}

void SeqpacketServer::Close() {
  if (handed_to() != 0) listener_->GiveAway();
  giver_.Offer({});
  listener_->End();
  // Clients that did not fit into the free descriptors have their turn once others are closed.
  do {
    Drain();
    AcceptPending();
  } while (!clients_.empty());
}

void SeqpacketServer::Drain() {
  for (const auto& [fd, client] : clients_) {
    // From here on it cannot send, so what is queued has an end.
    shutdown(fd, SHUT_RD);
    while (ReadSome(client) == ReadResult::kMore) {
    }
  }
  clients_.clear();
  *client_count_ = 0;
}

}  // namespace tidegate::agent
