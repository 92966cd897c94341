// Signals that were sent to one thread alone (tgkill(2)). A thread that blocks
// them keeps them to itself: the thread that is there to take signals does not
// see them.
//
// Threads: a free function without state.

#pragma once

#include <csignal>

namespace norvel {

// Whether some thread of this process keeps one of `signals`. Reads /proc, some
// 30 microseconds a thread; false where that cannot be read.
bool is_pending_in_a_thread(const sigset_t& signals);

}  // namespace norvel
