#include "core/number_text.h"

#include <iomanip>
#include <sstream>

namespace norvel {

std::string to_fixed(double value, int decimals) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(decimals) << value;
  return text.str();
}

}  // namespace norvel
