// SIGINT and SIGTERM of norvel-miner.
//
// Both signals are blocked in every thread and let in only where the main
// thread waits, with waiting_mask(). So the handler runs at a few known places,
// where the main thread holds no lock that the handler needs, and may print and
// join threads there. Both signals stay blocked while it runs.
//
// Threads: install() before any other thread exists; everything else but
// waiting_mask() from the main thread only.

#pragma once

#include <csignal>

namespace norvel::miner::stop_signals {

// Blocks both signals and installs the handler, which prints the stopping line,
// clears g_running and stops g_miner.
void install();

// The signal mask for the main thread's waits: the original one without both
// signals. Valid for the whole run.
const sigset_t& waiting_mask();

// Runs the handler for a signal that is pending now.
void let_in();

// Sleeps one second, resuming after any signal until the second is over. Then
// runs the handler if one of both was sent to another thread alone.
void sleep_one_second();

// From here on both signals do nothing.
void ignore();

}  // namespace norvel::miner::stop_signals
