#pragma once

#include <prometheus/registry.h>

/// One of the six tasks of docs/comparison.md, with the peer.
void RunTask(prometheus::Registry& registry);
