#include "core/console.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <ios>
#include <iostream>
#include <utility>

#include "core/patient_output.h"
#include "core/sync.h"

namespace norvel::console {

namespace {

Mutex& output_mutex() {
  static Mutex mutex;
  return mutex;
}

// Guarded by output_mutex(). Never destroyed: threads may write while the
// process ends.
LogSink& log_sink() {
  static LogSink& sink = *new LogSink;
  return sink;
}

void write_piece(std::ostream& stream, std::string_view text) {
  stream.clear();  // an earlier failure must not silence the pieces after it
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
  stream.flush();
  if (const LogSink& sink = log_sink()) {
    sink(text);
  }
}

// Unicode Standard, table 3-7: no longer form than needed, no surrogate, nothing
// beyond U+10FFFF. Otherwise a control could hide in a longer form.
bool second_byte_fits(uint8_t lead, std::string_view tail) {
  const auto second = tail.empty() ? uint8_t{0} : static_cast<uint8_t>(tail[0]);
  switch (lead) {
    case 0xe0:
      return second >= 0xa0;
    case 0xed:
      return second < 0xa0;
    case 0xf0:
      return second >= 0x90;
    case 0xf4:
      return second < 0x90;
    default:
      return true;
  }
}

// Bytes of the well-formed UTF-8 sequence that starts at `text[at]`; 1 for ASCII
// and for a byte that starts none.
size_t sequence_length(std::string_view text, size_t at) {
  const auto lead = static_cast<uint8_t>(text[at]);
  const size_t len = lead >= 0xf0 && lead <= 0xf4 ? 4 : lead >= 0xe0 ? 3 : lead >= 0xc2 ? 2 : 1;
  if (lead > 0xf4 || len > text.size() - at) {
    return 1;
  }
  const std::string_view tail = text.substr(at + 1, len - 1);
  const bool complete =
      std::all_of(tail.begin(), tail.end(), [](char c) { return (static_cast<uint8_t>(c) & 0xc0) == 0x80; });
  return complete && second_byte_fits(lead, tail) ? len : 1;
}

bool is_control(std::string_view sequence) {
  const auto lead = static_cast<uint8_t>(sequence[0]);
  if (sequence.size() == 1) {
    return lead < 0x20 || (lead >= 0x7f && lead < 0xa0);
  }
  return lead == 0xc2 && static_cast<uint8_t>(sequence[1]) < 0xa0;
}

}  // namespace

void open_standard_streams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) < 0) {
      // The lowest free descriptor, which is this one.
      [[maybe_unused]] const int opened = open("/dev/null", O_RDWR);
    }
  }
}

void guard_standard_streams() {
  open_standard_streams();
  // Never destroyed: the streams are flushed after everything else.
  static PatientBuffer& output = *new PatientBuffer(STDOUT_FILENO);
  static PatientBuffer& error = *new PatientBuffer(STDERR_FILENO);
  std::cout.rdbuf(&output);
  std::cerr.rdbuf(&error);
}

void write_out(std::string_view text) {
  const MutexLock lock(output_mutex());
  write_piece(std::cout, text);
}

void write_out_fixed(std::string_view text) {
  const MutexLock lock(output_mutex());
  write_piece(std::cout, text);
  std::cout.setf(std::ios::fixed, std::ios::floatfield);
}

void error_line(std::string_view text) {
  std::string line(text);
  line += '\n';
  const MutexLock lock(output_mutex());
  write_piece(std::cerr, line);
}

void set_log_sink(LogSink sink) {
  const MutexLock lock(output_mutex());
  log_sink() = std::move(sink);
}

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(std::min(text.size(), kPrintableBytesMax));
  for (size_t at = 0; at < text.size();) {
    if (at >= kPrintableBytesMax) {
      return out + "...";
    }
    const std::string_view sequence = text.substr(at, sequence_length(text, at));
    if (is_control(sequence)) {
      out += '?';
    } else {
      out += sequence;
    }
    at += sequence.size();
  }
  return out;
}

}  // namespace norvel::console
