#include "node/node_params.h"

#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>

#include "support/chain_builder.h"

namespace norvel::node {
namespace {

Options asking(std::optional<uint32_t> retarget, std::optional<uint32_t> spacing = {}) {
  Options options;
  options.retarget_interval = retarget;
  options.target_spacing_s = spacing;
  return options;
}

TEST(NodeParams, StayThoseThatTheDirectoryWasMadeWith) {
  const TemporaryDirectory directory;
  const NodeParams made = settle_params(directory.path(), asking(1'000'000));
  EXPECT_EQ(made, (NodeParams{1'000'000, 10, 259'200}));
  EXPECT_EQ(settle_params(directory.path(), {}), made);
  EXPECT_EQ(settle_params(directory.path(), asking(1'000'000, 10)), made);
  EXPECT_THROW(settle_params(directory.path(), asking(6)), std::runtime_error);
  EXPECT_THROW(settle_params(directory.path(), asking({}, 11)), std::runtime_error);
  EXPECT_EQ(read_params(directory.path()), made);
}

TEST(NodeParams, OfADirectoryWithBlocksOnlyAreTheDefaults) {
  const TemporaryDirectory directory;
  std::ofstream(directory / "blk00000.dat") << "x";
  EXPECT_THROW(settle_params(directory.path(), asking(7)), std::runtime_error);
  EXPECT_EQ(settle_params(directory.path(), asking(6)), NodeParams());
}

TEST(NodeParams, RefuseASpanThatTheRuleCannotHold) {
  const TemporaryDirectory directory;
  EXPECT_THROW(settle_params(directory.path(), asking(65'536, 16'384)), std::runtime_error);
  EXPECT_FALSE(read_params(directory.path()));
  EXPECT_NO_THROW(settle_params(directory.path(), asking(65'535, 16'384)));
}

TEST(NodeParams, RefuseADamagedFile) {
  const TemporaryDirectory directory;
  settle_params(directory.path(), {});
  for (const char* text : {"", "retarget-interval = 6\n", "retarget-interval = 0\ntarget-spacing = 10\n",
                           "retarget-interval = 6\ntarget-spacing = 10\ndistribution-interval = 5\nother = 1\n",
                           "retarget-interval = 6\nretarget-interval = 6\ndistribution-interval = 5\n",
                           "retarget-interval = 4294967296\ntarget-spacing = 10\ndistribution-interval = 5\n"}) {
    SCOPED_TRACE(text);
    std::ofstream(directory / "params") << text;
    EXPECT_THROW(settle_params(directory.path(), {}), std::runtime_error);
  }
}

}  // namespace
}  // namespace norvel::node
