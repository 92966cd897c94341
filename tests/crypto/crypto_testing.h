// What the tests in this folder share.

#pragma once

#include <exception>
#include <string>

#include "support/byte_strings.h"
#include "support/ledger_samples.h"

namespace norvel::crypto {

// The message of the std::exception that `call` throws; "(none)" when it returns.
template <typename Call>
std::string thrown_by(Call call) {
  try {
    call();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "(none)";
}

}  // namespace norvel::crypto
