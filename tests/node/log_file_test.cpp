#include "node/log_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "core/console.h"
#include "support/captured_stderr.h"
#include "support/chain_builder.h"

namespace norvel::node {
namespace {

std::string content(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

TEST(LogFile, StampsEachLineOnce) {
  bool at_line_start = true;
  const int64_t time_ms = 1'700'000'000'042;
  EXPECT_EQ(stamp_lines("a\n\nb", time_ms, at_line_start),
            "2023-11-14T22:13:20.042Z a\n2023-11-14T22:13:20.042Z \n2023-11-14T22:13:20.042Z b");
  EXPECT_EQ(stamp_lines("c\n", time_ms, at_line_start), "c\n");
  EXPECT_EQ(stamp_lines("d", 0, at_line_start), "1970-01-01T00:00:00.000Z d");
}

TEST(LogFile, TakesACopyOfTheConsoleAndFollowsARotation) {
  const TemporaryDirectory directory;
  LogFile log(directory / "log");
  std::string error;
  ASSERT_TRUE(log.reopen(error));
  const CapturedStderr quiet;
  console::set_log_sink([&](std::string_view text) { log.append(text); });
  console::error_line("one");
  ASSERT_EQ(std::rename((directory / "log").c_str(), (directory / "old").c_str()), 0);
  console::error_line("two");
  EXPECT_TRUE(log.reopen(error));
  console::error_line("three");
  console::set_log_sink({});
  console::error_line("four");
  EXPECT_EQ(quiet.text(), "one\ntwo\nthree\nfour\n");
  EXPECT_NE(content(directory / "old").find("Z one\n"), std::string::npos);
  EXPECT_NE(content(directory / "old").find("Z two\n"), std::string::npos);
  EXPECT_EQ(content(directory / "log").substr(25), "three\n");
  struct stat status = {};
  ASSERT_EQ(stat((directory / "log").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST(LogFile, OutlivesAFullDiskAndAMissingDirectory) {
  LogFile full("/dev/full");
  std::string error;
  ASSERT_TRUE(full.reopen(error));
  full.append("lost\n");
  LogFile nowhere("/nowhere/log");
  EXPECT_FALSE(nowhere.reopen(error));
  EXPECT_EQ(error, "log file /nowhere/log: No such file or directory");
  nowhere.append("lost\n");
}

}  // namespace
}  // namespace norvel::node
