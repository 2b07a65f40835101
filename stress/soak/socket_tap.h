#pragma once

namespace tidegate::stress {

class Ledger;

// From here on `ledger` is told of each connect and each send of this program; null ends that. The
// linker puts the tap in front of the two calls, see CMakeLists.txt. REQUIRES: nobody sends.
void TapSockets(Ledger* ledger);

}  // namespace tidegate::stress
