#pragma once

#include <sys/socket.h>

#include <functional>
#include <string>

#include "agent/unique_fd.h"

namespace tidegate::test {

// The address of `path` for `call`, which is bind, connect or the like; returns its result.
int CallWithPath(const std::function<int(int, const sockaddr*, socklen_t)>& call,
                 const agent::UniqueFd& socket, const std::string& path);

// A Unix domain socket of `type` that is bound to `path`, and listens if `backlog` is not negative.
// Throws std::system_error when it cannot.
agent::UniqueFd Bind(const std::string& path, int type, int backlog);

}  // namespace tidegate::test
