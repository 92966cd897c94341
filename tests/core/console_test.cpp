#include "core/console.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace norvel::console {
namespace {

TEST(Printable, ReplacesWhatSteersATerminalAndKeepsText) {
  const std::tuple<const char*, std::string, std::string> rows[] = {
      {"line break, tab and escape", "a\nb\tc\x1b[2Jd\r", "a?b?c?[2Jd?"},
      {"zero byte", std::string("a\0b", 3), "a?b"},
      {"DEL", "\x7e\x7f", "~?"},
      {"C1 as UTF-8: one character, one mark", "\xc2\x80\xc2\x9b\xc2\x9f", "???"},
      {"stray bytes around C1", "\x80\x9b\x9f\xa0", "???\xa0"},
      {"bytes of C1 inside characters", "\xc3\x9f \xe2\x94\x80 \xf0\x9f\x92\x9b",
       "\xc3\x9f \xe2\x94\x80 \xf0\x9f\x92\x9b"},
      {"character cut at the end", "\xe2\x94", "\xe2?"},
      {"character interrupted by an escape", "\xe2\x94\x1b[m", "\xe2??[m"},
      {"three-byte form of a C1 control", "\xe0\x82\x9b", "\xe0??"},
      {"last code point", "\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"},
      {"beyond the last code point", "\xf4\x90\x80\x80", "\xf4???"},
  };
  for (const auto& [label, text, want] : rows) {
    SCOPED_TRACE(label);
    EXPECT_EQ(printable(text), want);
  }
}

}  // namespace
}  // namespace norvel::console
