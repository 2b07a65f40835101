#pragma once

#include <termios.h>

#include <chrono>
#include <cstddef>
#include <string>

#include "agent/unique_fd.h"

namespace tidegate::agent {

// A page of its own on the terminal of standard output, without an echo of keys. At its end the
// terminal is as it was, and shows what it showed; so it is while the program is stopped by Ctrl-Z.
//
// Threads: one, the only one of the program: SIGINT, SIGTERM, SIGHUP, SIGTSTP and SIGWINCH are
// blocked in it and end a Wait. REQUIRES: standard output is a terminal.
class Terminal {
 public:
  enum class Event { kTimeout, kResized, kEnd };

  Terminal();
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // Its size in characters, at least 1; 80 by 24 if it does not say.
  size_t columns() const;
  size_t rows() const;

  // Writes it all. False if the terminal has gone.
  bool Write(const std::string& text) const;

  // Waits for a key or a signal. kEnd after q, Ctrl-C or a signal that ends a program, and when the
  // terminal has gone; kResized also after a stop.
  Event Wait(std::chrono::milliseconds timeout);

 private:
  void Enter();
  void Leave();
  Event TakeSignal();
  Event TakeKeys();

  UniqueFd signals_;
  termios before_ = {};
  const bool has_keys_;  // standard input is a terminal, whose settings are `before_`
};

}  // namespace tidegate::agent
