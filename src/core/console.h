// The one door to standard output and standard error. Every piece (a line, a
// dashboard, a report) is formatted by its caller, then written and flushed
// whole under one process-wide lock, so that pieces of several threads never
// mix.
//
// Threads: safe from any thread. The lock is a leaf: nothing is called under it
// but the write itself and the log sink.

#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace norvel::console {

// Opens /dev/null on each of the three standard streams that is closed, so that
// no socket or file gets its number and with it what is printed. For main(),
// before anything else is opened or printed.
void open_standard_streams();

// The same, and puts a PatientBuffer behind standard output and standard error,
// so that a reader that has stopped reading holds nobody up.
void guard_standard_streams();

// Writes `text` to standard output and flushes. A failed write is ignored: a
// full disk behind a redirected dashboard must not stop the program.
void write_out(std::string_view text);

// As write_out, and leaves standard output in fixed notation, which later
// floating-point output inherits.
void write_out_fixed(std::string_view text);

// Writes `text` and a newline to standard error and flushes, in the same way.
void error_line(std::string_view text);

// What takes a second copy of every piece, of both streams, in the order in which
// they are written. Called under the lock: it must not write through here, and
// must neither throw nor wait. An empty one ends that.
using LogSink = std::function<void(std::string_view text)>;
void set_log_sink(LogSink sink);

// `text` with each control character replaced by "?": C0, DEL, the UTF-8 forms
// of C1 and stray bytes 0x80 to 0x9f, so that text from a remote party cannot
// steer the terminal. Cut after kPrintableBytesMax bytes, with "..." behind, so
// that it cannot fill a log either.
inline constexpr size_t kPrintableBytesMax = 2'000;
std::string printable(std::string_view text);

}  // namespace norvel::console
