// The one door to standard output and standard error. Every piece (a line, a
// dashboard, a report) is formatted by its caller, then written and flushed
// whole under one process-wide lock, so that pieces of several threads never
// mix.
//
// Threads: safe from any thread. The lock is a leaf: nothing is called under it
// but the write itself.

#pragma once

#include <string>
#include <string_view>

namespace norvel::console {

// Writes `text` to standard output and flushes. A failed write is ignored: a
// full disk behind a redirected dashboard must not stop the program.
void write_out(std::string_view text);

// As write_out, and leaves standard output in fixed notation, which later
// floating-point output inherits.
void write_out_fixed(std::string_view text);

// Writes `text` and a newline to standard error and flushes.
void error_line(std::string_view text);

// `text` with each control character replaced by "?": C0, DEL, the UTF-8 forms
// of C1 and stray bytes 0x80 to 0x9f, so that text from a remote party cannot
// steer the terminal.
std::string printable(std::string_view text);

}  // namespace norvel::console
