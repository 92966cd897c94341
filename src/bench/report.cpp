#include "bench/report.h"

#include <cmath>
#include <iomanip>
#include <sstream>
#include <utility>

#include "core/number_text.h"
#include "rpc/json.h"

namespace norvel::bench {

namespace {

constexpr int kWhatWidth = 20;

rpc::JsonValue row_json(const Row& row) {
  rpc::JsonValue json = rpc::JsonValue::make_object();
  json.set("what", row.what);
  json.set("threads", row.threads);
  json.set("hashes_per_second", std::round(row.hashes_per_second));
  json.set("cycles_per_hash", row.cycles_per_hash);
  json.set("checksum", row.checksum);
  return json;
}

}  // namespace

std::string table_text(const Measurement& measurement) {
  std::ostringstream text;
  const auto line = [&text](const std::string& what, const std::string& threads, const std::string& rate,
                            const std::string& cycles, const std::string& checksum) {
    text << std::left << std::setw(kWhatWidth) << what << std::right << std::setw(8) << threads << std::setw(14) << rate
         << std::setw(14) << cycles << "  " << checksum << "\n";
  };
  text << "Core clock: " << to_fixed(measurement.core_ghz, 3) << " GHz\n\n";
  line("what", "threads", "hashes/s", "cycles/hash", "checksum");
  for (const Row& row : measurement.rows) {
    line(row.what, std::to_string(row.threads), to_fixed(row.hashes_per_second, 0), to_fixed(row.cycles_per_hash, 1),
         row.checksum);
  }
  for (const std::string& name : measurement.skipped) {
    text << std::left << std::setw(kWhatWidth) << "kernel " + name << " skipped: this machine lacks it\n";
  }
  return text.str();
}

std::string json_text(const Measurement& measurement) {
  rpc::JsonValue rows{std::vector<rpc::JsonValue>()};
  for (const Row& row : measurement.rows) {
    rows.array.push_back(row_json(row));
  }
  rpc::JsonValue json = rpc::JsonValue::make_object();
  json.set("core_ghz", measurement.core_ghz);
  json.set("rows", std::move(rows));
  return json.to_string() + "\n";
}

}  // namespace norvel::bench
