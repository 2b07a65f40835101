#include "util/fork_guard.h"

namespace METRICS {
namespace {

thread_local int g_teardown_depth = 0;

}  // namespace

ForkTeardown::ForkTeardown() noexcept { ++g_teardown_depth; }

ForkTeardown::~ForkTeardown() { --g_teardown_depth; }

bool InForkTeardown() noexcept { return g_teardown_depth > 0; }

}  // namespace METRICS
