// Takes what the process writes through std::cerr while it lives, so that a
// test can read it and the log stays quiet.

#pragma once

#include <iostream>
#include <sstream>
#include <string>

namespace norvel {

class CapturedStderr {
 public:
  CapturedStderr() : previous_(std::cerr.rdbuf(buffer_.rdbuf())) {}
  ~CapturedStderr() { std::cerr.rdbuf(previous_); }
  CapturedStderr(const CapturedStderr&) = delete;
  CapturedStderr& operator=(const CapturedStderr&) = delete;

  std::string text() const { return buffer_.str(); }

 private:
  std::ostringstream buffer_;
  std::streambuf* previous_;
};

}  // namespace norvel
