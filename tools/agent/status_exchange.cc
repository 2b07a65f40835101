#include "agent/status_exchange.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <optional>
#include <system_error>

#include "agent/peer.h"
#include "agent/socket_file.h"
#include "agent/survives.h"

namespace tidegate::agent {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// No packet begins so. The number is that of this exchange.
constexpr std::string_view kAsk = "tidegate-agent 1: tell me your status\n";

constexpr milliseconds kTimeToRead(2000);
constexpr milliseconds kTimeToAnswer(3000);
constexpr milliseconds kWait(100);  // between two looks whether it is stopped

// A message that fits into any socket's buffer, and how much text an asker takes.
constexpr size_t kPiece = size_t{32} << 10;
constexpr size_t kMostText = size_t{64} << 20;

// Also if signals come meanwhile.
bool Await(int fd, int16_t events, Clock::time_point end) {
  pollfd ready = {fd, events, 0};
  int count = -1;
  do {
    const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
    count = poll(&ready, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
  } while (count < 0 && errno == EINTR);
  return count > 0;
}

}  // namespace

bool AsksForStatus(int fd, std::string_view message) {
  if (message != kAsk) return false;
  const std::optional<ucred> peer = PeerOf(fd);
  return peer && (peer->uid == 0 || peer->uid == geteuid());
}

void StatusTeller::Take(UniqueFd connection) noexcept {
  Survives(health_, [&] { askers_.Push(std::move(connection), kAskerBytes / 2); });
}

void StatusTeller::Stop() {
  stopped_ = true;
  askers_.Close();
  if (thread_.joinable()) thread_.join();
}

void StatusTeller::Run() {
  pthread_setname_np(pthread_self(), "status");
  while (!stopped_) {
    UniqueFd asker;
    if (askers_.Pop(&asker, kTimeToAnswer) != BoundedQueue<UniqueFd>::Result::kItem) continue;
    Survives(health_, [&] {
      std::string text;
      make_(&text);
      Send(asker.get(), text);
    });
  }
}

void StatusTeller::Send(int fd, std::string_view text) const {
  const Clock::time_point end = Clock::now() + kTimeToRead;
  while (!text.empty() && !stopped_ && Clock::now() < end) {
    const std::string_view piece = text.substr(0, kPiece);
    if (send(fd, piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) {
      text.remove_prefix(piece.size());
    } else if (errno == EAGAIN || errno == EINTR) {
      Await(fd, POLLOUT, std::min(end, Clock::now() + kWait));
    } else {
      return;
    }
  }
}

bool AskForStatus(const std::string& path, std::string* text, std::string* error) {
  UniqueFd connection;
  const SocketFileState state = LookAtSocketFile(path, &connection, error);
  if (state == SocketFileState::kNone || state == SocketFileState::kStale) {
    *error = "no agent listens on " + path;
    return false;
  }
  if (state == SocketFileState::kOther) return false;
  if (!connection.valid()) {
    *error = "the agent on " + path + " accepts no connection";
    return false;
  }
  const Clock::time_point end = Clock::now() + kTimeToAnswer;
  bool whole = send(connection.get(), kAsk.data(), kAsk.size(), MSG_NOSIGNAL) > 0;
  text->clear();
  std::string piece(kPiece, '\0');
  while (whole && text->size() < kMostText) {
    whole = Await(connection.get(), POLLIN, end);
    if (!whole) break;
    const ssize_t size = recv(connection.get(), piece.data(), piece.size(), 0);
    if (size == 0) break;
    whole = size > 0;
    if (whole) text->append(piece, 0, static_cast<size_t>(size));
  }
  if (whole && !text->empty()) return true;
  *error = "the agent on " + path + " does not answer; it answers root and its own user";
  return false;
}

}  // namespace tidegate::agent
