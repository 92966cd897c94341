// Reading and writing a block template of 4 MB.

#include <benchmark/benchmark.h>

#include "crypto/hex.h"
#include "rpc/json.h"
#include "sample_data.h"

namespace norvel {

namespace {

constexpr size_t kTemplateBytes = 4'000'000;

rpc::JsonValue make_template() {
  const std::string hex = crypto::bytes_to_hex(bench::sample_payment().tx.serialize());
  std::vector<rpc::JsonValue> tx_data;
  for (size_t bytes = 0; bytes < kTemplateBytes; bytes += hex.size()) {
    tx_data.emplace_back(hex);
  }
  rpc::JsonValue result;
  result.set("height", 1'000);
  result.set("tx_data", std::move(tx_data));
  return result;
}

void json_parse(benchmark::State& state) {
  const std::string text = make_template().to_string();
  size_t count = 0;
  for (auto _ : state) {
    count = rpc::JsonValue::parse(text).get("tx_data").array.size();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
  state.SetLabel(std::to_string(count) + " transactions");
}
BENCHMARK(json_parse)->Unit(benchmark::kMillisecond);

void json_print(benchmark::State& state) {
  const rpc::JsonValue value = make_template();
  std::string text;
  for (auto _ : state) {
    text = value.to_string();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
  state.SetLabel(bench::digest(ByteView(reinterpret_cast<const uint8_t*>(text.data()), text.size())));
}
BENCHMARK(json_print)->Unit(benchmark::kMillisecond);

}  // namespace

}  // namespace norvel
