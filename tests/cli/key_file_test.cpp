#include "cli/key_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "crypto/hex.h"
#include "support/captured_stderr.h"
#include "support/chain_builder.h"
#include "support/ledger_samples.h"

namespace norvel::cli {
namespace {

std::string content(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

TEST(KeyFile, IsNewForItsOwnerAloneAndNeverOverwritten) {
  const TemporaryDirectory directory;
  const std::string path = directory / "key";
  const mode_t before = ::umask(0);
  const std::string address = create_key_file(path);
  ::umask(before);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(read_key_file(path).address, address);
  EXPECT_NE(create_key_file(directory / "other"), address);

  const std::string text = content(path);
  EXPECT_THROW(create_key_file(path), std::runtime_error);
  ASSERT_EQ(::symlink((directory / "nowhere").c_str(), (directory / "link").c_str()), 0);
  EXPECT_THROW(create_key_file(directory / "link"), std::runtime_error);
  EXPECT_EQ(content(path), text);
}

TEST(KeyFile, SecretIsEnoughAndEverythingElseMustFitIt) {
  const TemporaryDirectory directory;
  const SampleKey sample = sample_key(7);
  const std::string secret = crypto::bytes_to_hex(sample.private_key);
  const struct {
    const char* label;
    std::string text;
    bool fits;
  } rows[] = {
      {"alone", "secret = " + secret, true},
      {"all",
       "secret=" + secret + "\npublic = " + crypto::bytes_to_hex(sample.pubkey) + "\naddress = " + sample.address,
       true},
      {"short", "secret = " + secret.substr(1), false},
      {"not hexadecimal", "secret = x" + secret.substr(1), false},
      {"zero", "secret = " + std::string(64, '0'), false},
      {"another public key", "secret = " + secret + "\npublic = " + crypto::bytes_to_hex(sample_key(8).pubkey), false},
      {"another address", "secret = " + secret + "\naddress = " + sample_key(8).address, false},
      {"nothing", "", false},
  };
  const std::string path = directory / "key";
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    std::ofstream(path) << row.text;
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    CapturedStderr silence;
    if (row.fits) {
      EXPECT_EQ(read_key_file(path).public_key, sample.pubkey);
    } else {
      EXPECT_THROW(read_key_file(path), std::runtime_error);
    }
    EXPECT_EQ(silence.text(), "");
  }
  EXPECT_THROW(read_key_file(directory / "none"), std::runtime_error);
}

}  // namespace
}  // namespace norvel::cli
