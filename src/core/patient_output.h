// Output that is given up rather than waited for.
//
// Threads: a buffer is used under its caller's lock.

#pragma once

#include <chrono>
#include <streambuf>
#include <string_view>

namespace norvel {

// Writes through to a descriptor, but for at most kPatience at a time: what its
// reader has not taken by then is dropped, and for kHaste after that nothing is
// waited for at all. Output that follows a torn piece begins on a line of its
// own.
//
// A pipe or terminal is opened anew for that, as waiting for room is not enough:
// a terminal may have less than a write needs, and its flags are shared with
// other programs. Files and sockets are written to as they are.
class PatientBuffer : public std::streambuf {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::milliseconds kPatience{1'000};
  static constexpr std::chrono::milliseconds kHaste{10'000};

  // `fd` stays the caller's and must outlive the buffer.
  explicit PatientBuffer(int fd);
  ~PatientBuffer() override;
  PatientBuffer(const PatientBuffer&) = delete;
  PatientBuffer& operator=(const PatientBuffer&) = delete;

 protected:
  std::streamsize xsputn(const char* text, std::streamsize size) override;
  int_type overflow(int_type character) override;

 private:
  bool write_all(std::string_view text, Clock::time_point deadline);

  const int own_fd_;  // -1 when the given one serves
  const int fd_;
  Clock::time_point hasty_until_{};
  bool torn_ = false;  // the last piece was dropped when a part of it had been written
};

}  // namespace norvel
