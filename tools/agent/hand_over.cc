#include "agent/hand_over.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <optional>
#include <utility>

#include "agent/peer.h"

namespace tidegate::agent {
namespace {

// No packet begins so. The number is that of this exchange.
constexpr std::string_view kAsk = "tidegate-agent 1: give me your sockets\n";
constexpr std::string_view kOffer = "tidegate-agent 1: here they are\n";
constexpr std::string_view kTake = "tidegate-agent 1: I take them\n";
constexpr std::string_view kGive = "tidegate-agent 1: they are yours\n";

constexpr std::chrono::seconds kPatience(2);
constexpr size_t kMostSockets = 2;

// The process at the other end, if it is one of this user; else 0.
pid_t OwnPeer(int fd) {
  const std::optional<ucred> peer = PeerOf(fd);
  return peer && peer->uid == geteuid() ? peer->pid : 0;
}

bool Send(int fd, std::string_view text) {
  return send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
         static_cast<ssize_t>(text.size());
}

// Also if signals come meanwhile.
bool AwaitMessage(int fd) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  pollfd ready = {fd, POLLIN, 0};
  int count = -1;
  do {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    count = poll(&ready, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
  } while (count < 0 && errno == EINTR);
  return count > 0;
}

// A message with room for what comes along with it.
struct Envelope {
  Envelope(char* text, size_t size) : part{text, size} {
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);
  }
  iovec part;
  msghdr header = {};
  alignas(cmsghdr) char control[CMSG_SPACE(kMostSockets * sizeof(int)) +
                                CMSG_SPACE(sizeof(ucred))] = {};
};

}  // namespace

bool HandOverGiver::Answer(int fd, uint64_t number, std::string_view message) {
  if (message != kAsk && message != kTake) return false;
  const pid_t peer = OwnPeer(fd);
  if (peer == 0) return false;
  if (sockets_.empty()) return true;
  if (message == kAsk) {
    if (SendSockets(fd)) asked_by_ = number;
  } else if (asked_by_ == number && Send(fd, kGive)) {
    given_to_ = peer;
    sockets_.clear();
  }
  return true;
}

bool HandOverGiver::SendSockets(int fd) const {
  char text[kOffer.size()];
  kOffer.copy(text, sizeof(text));
  Envelope envelope(text, sizeof(text));
  int numbers[kMostSockets] = {};
  size_t count = 0;
  for (const UniqueFd& socket : sockets_) numbers[count++] = socket.get();
  envelope.header.msg_controllen = CMSG_SPACE(count * sizeof(int));
  cmsghdr* const rights = CMSG_FIRSTHDR(&envelope.header);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(count * sizeof(int));
  std::memcpy(CMSG_DATA(rights), numbers, count * sizeof(int));
  return sendmsg(fd, &envelope.header, MSG_NOSIGNAL | MSG_DONTWAIT) > 0;
}

HandOverTaker::Answer HandOverTaker::Ask(UniqueFd connection) {
  // The offer carries the credentials of its sender. Those of the connection belong to the process
  // that once began to listen.
  const int on = 1;
  setsockopt(connection.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof(on));
  connection_ = std::move(connection);
  if (!Send(connection_.get(), kAsk)) return Answer::kEnd;
  if (!AwaitMessage(connection_.get())) return Answer::kNone;
  errno = 0;
  if (ReceiveOffer()) return Answer::kOffer;
  return errno == ECONNRESET ? Answer::kEnd : Answer::kNone;
}

bool HandOverTaker::ReceiveOffer() {
  char text[kOffer.size() + 1];
  Envelope envelope(text, sizeof(text));
  const ssize_t size = recvmsg(connection_.get(), &envelope.header, MSG_CMSG_CLOEXEC);
  if (size == 0) errno = ECONNRESET;
  if (size <= 0) return false;
  ucred peer = {0, static_cast<uid_t>(-1), 0};
  std::vector<UniqueFd> sockets;
  for (cmsghdr* part = CMSG_FIRSTHDR(&envelope.header); part != nullptr;
       part = CMSG_NXTHDR(&envelope.header, part)) {
    const size_t bytes = part->cmsg_len - CMSG_LEN(0);
    if (part->cmsg_type == SCM_CREDENTIALS) std::memcpy(&peer, CMSG_DATA(part), sizeof(peer));
    if (part->cmsg_type != SCM_RIGHTS) continue;
    for (size_t at = 0; at < bytes; at += sizeof(int)) {
      int number = -1;
      std::memcpy(&number, CMSG_DATA(part) + at, sizeof(number));
      sockets.emplace_back(number);
    }
  }
  if (std::string_view(text, static_cast<size_t>(size)) != kOffer || peer.uid != geteuid() ||
      sockets.empty()) {
    return false;
  }
  services_ = std::move(sockets[0]);
  if (sockets.size() > 1) http_ = std::move(sockets[1]);
  from_ = peer.pid;
  return true;
}

bool HandOverTaker::Take() {
  char text[kGive.size() + 1];
  const int fd = connection_.get();
  if (!Send(fd, kTake)) return false;
  // The old one cannot give them later, when nobody would use them.
  if (!AwaitMessage(fd)) shutdown(fd, SHUT_RDWR);
  const ssize_t size = recv(fd, text, sizeof(text), 0);
  connection_.Reset();
  return size > 0 && std::string_view(text, static_cast<size_t>(size)) == kGive;
}

}  // namespace tidegate::agent
