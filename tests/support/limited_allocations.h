#pragma once

// As failing_new.h, where every allocation counts.

#include "support/counted_allocations.h"
#include "support/failing_new.h"

static bool NextAllocationFails() { return IsOneTooMany(); }
