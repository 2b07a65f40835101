#include "testing/listening_agent.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "testing/unix_socket.h"

namespace tidegate::test {
namespace {

constexpr size_t kMaxMessage = 1 << 20;

}  // namespace

ListeningAgent::ListeningAgent(std::string path, Take take)
    : path_(std::move(path)),
      take_(std::move(take)),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      buffer_(kMaxMessage) {
  if (!wake_.valid()) throw std::system_error(errno, std::generic_category(), "eventfd");
  Restart();
}

void ListeningAgent::Restart() {
  listener_ = Bind(path_, SOCK_SEQPACKET | SOCK_NONBLOCK, SOMAXCONN);
  mood_.store(Mood::kServing);
  Answer(asked_.load());
  thread_ = std::thread(&ListeningAgent::Serve, this);
}

void ListeningAgent::Tell(Mood mood) {
  mood_.store(mood);
  ::eventfd_write(wake_.get(), 1);
}

void ListeningAgent::End(Mood mood) {
  if (!running()) return;
  Tell(mood);
  thread_.join();
}

void ListeningAgent::Serve() {
  while (true) {
    switch (mood_.load()) {
      case Mood::kServing:
        ServeOnce();
        break;
      case Mood::kStalled: {
        pollfd watched{wake_.get(), POLLIN, 0};
        ::poll(&watched, 1, -1);
        ForgetWake();
        break;
      }
      case Mood::kDraining:
        ::shutdown(listener_.get(), SHUT_RD);
        Accept();
        for (const agent::UniqueFd& client : clients_) ReadToTheEnd(client.get());
        [[fallthrough]];
      case Mood::kKilled:
        listener_.Reset();
        clients_.clear();
        Answer(kEnded);
        return;
    }
  }
}

void ListeningAgent::ForgetWake() {
  eventfd_t ignored;
  ::eventfd_read(wake_.get(), &ignored);
}

void ListeningAgent::CatchUp() {
  const uint64_t call = asked_.fetch_add(1) + 1;
  ::eventfd_write(wake_.get(), 1);
  std::unique_lock lock(mutex_);
  caught_up_.wait(lock, [&] { return answered_ >= call; });
}

void ListeningAgent::Answer(uint64_t asked) {
  const std::lock_guard guard(mutex_);
  answered_ = asked;
  caught_up_.notify_all();
}

void ListeningAgent::ReadAll() {
  const uint64_t asked = asked_.load();
  Accept();
  clients_.erase(
      std::remove_if(clients_.begin(), clients_.end(),
                     [this](const agent::UniqueFd& client) { return !ReadSome(client.get()); }),
      clients_.end());
  Answer(asked);
}

void ListeningAgent::ServeOnce() {
  std::vector<pollfd> watched{{wake_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
  for (const agent::UniqueFd& client : clients_) watched.push_back({client.get(), POLLIN, 0});
  if (::poll(watched.data(), watched.size(), -1) < 0) return;
  if (watched[0].revents != 0) {
    ForgetWake();
    return ReadAll();
  }
  std::vector<agent::UniqueFd> open;
  for (size_t i = 0; i < clients_.size(); ++i) {
    if (watched[i + 2].revents == 0 || ReadSome(clients_[i].get())) {
      open.push_back(std::move(clients_[i]));
    }
  }
  clients_ = std::move(open);
  if (watched[1].revents != 0) Accept();
}

void ListeningAgent::Accept() {
  while (true) {
    agent::UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client.valid()) return;
    clients_.push_back(std::move(client));
  }
}

bool ListeningAgent::ReadSome(int client) {
  while (mood_.load() == Mood::kServing) {
    if (!Receive(client, MSG_DONTWAIT)) return errno == EAGAIN || errno == EINTR;
    if (hang_up_) {
      ReadToTheEnd(client);
      ++hang_ups_;
      return false;
    }
  }
  return true;
}

void ListeningAgent::ReadToTheEnd(int client) {
  ::shutdown(client, SHUT_RD);
  while (Receive(client, 0) || errno == EINTR) {
  }
}

bool ListeningAgent::Receive(int client, int flags) {
  errno = 0;
  const ssize_t size = ::recv(client, buffer_.data(), buffer_.size(), flags | MSG_TRUNC);
  if (size <= 0) return false;
  hang_up_ = !take_(buffer_.data(), std::min(static_cast<size_t>(size), buffer_.size()));
  return true;
}

}  // namespace tidegate::test
