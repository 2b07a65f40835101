#include "agent/terminal.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

namespace tidegate::agent {
namespace {

// The second page of the terminal, without a cursor; and back.
constexpr char kEnter[] = "\x1b[?1049h\x1b[?25l";
constexpr char kLeave[] = "\x1b[?25h\x1b[?1049l";

winsize SizeOf(int fd) {
  winsize size = {};
  if (ioctl(fd, TIOCGWINSZ, &size) != 0) size = {};
  return size;
}

}  // namespace

Terminal::Terminal() : has_keys_(tcgetattr(STDIN_FILENO, &before_) == 0) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGTSTP, SIGWINCH}) sigaddset(&signals, number);
  std::signal(SIGHUP, SIG_DFL);  // an ignored one would never arrive
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  signals_ = UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  Enter();
}

Terminal::~Terminal() { Leave(); }

void Terminal::Enter() {
  if (has_keys_) {
    termios raw = before_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  }
  Write(kEnter);
}

void Terminal::Leave() {
  Write(kLeave);
  if (has_keys_) tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
}

size_t Terminal::columns() const {
  const winsize size = SizeOf(STDOUT_FILENO);
  return size.ws_col > 0 ? size.ws_col : 80;
}

size_t Terminal::rows() const {
  const winsize size = SizeOf(STDOUT_FILENO);
  return size.ws_row > 0 ? size.ws_row : 24;
}

bool Terminal::Write(const std::string& text) const {
  size_t at = 0;
  while (at < text.size()) {
    const ssize_t written = write(STDOUT_FILENO, text.data() + at, text.size() - at);
    if (written >= 0) {
      at += static_cast<size_t>(written);
    } else if (errno == EAGAIN) {
      pollfd ready = {STDOUT_FILENO, POLLOUT, 0};
      poll(&ready, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

Terminal::Event Terminal::Wait(std::chrono::milliseconds timeout) {
  pollfd ready[] = {{signals_.get(), POLLIN, 0}, {has_keys_ ? STDIN_FILENO : -1, POLLIN, 0}};
  if (poll(ready, std::size(ready), static_cast<int>(timeout.count())) <= 0) {
    return Event::kTimeout;
  }
  if (ready[0].revents != 0) return TakeSignal();
  return TakeKeys();
}

Terminal::Event Terminal::TakeSignal() {
  signalfd_siginfo signal = {};
  if (read(signals_.get(), &signal, sizeof(signal)) != sizeof(signal)) return Event::kTimeout;
  if (signal.ssi_signo == SIGTSTP) {
    Leave();
    raise(SIGSTOP);
    Enter();
  } else if (signal.ssi_signo != SIGWINCH) {
    return Event::kEnd;
  }
  return Event::kResized;
}

Terminal::Event Terminal::TakeKeys() {
  char keys[64];
  const ssize_t count = read(STDIN_FILENO, keys, sizeof(keys));
  if (count <= 0) return errno == EAGAIN && count < 0 ? Event::kTimeout : Event::kEnd;
  const bool quits = std::any_of(keys, keys + count, [](char c) { return c == 'q' || c == 'Q'; });
  return quits ? Event::kEnd : Event::kTimeout;
}

}  // namespace tidegate::agent
