#include "KnxFloatEncoding.h"

#include <cmath>

namespace lkdh::host {

std::optional<std::uint16_t> EncodeKnxFloat(double value) noexcept {
  const double scaled = value * 100.0;
  for (int exponent = 0; exponent <= 15; ++exponent) {
    // std::round rounds halves away from zero; ldexp divides exactly by 2^exponent.
    const double mantissa = std::round(std::ldexp(scaled, -exponent));
    // Written so that NaN and infinities fail the test and never reach the cast.
    if (!(mantissa >= -2048.0 && mantissa <= 2047.0)) continue;
    const int m = static_cast<int>(mantissa);
    const unsigned sign = m < 0 ? 0x8000U : 0U;
    const unsigned bits = static_cast<unsigned>(m) & 0x07FFU;
    return static_cast<std::uint16_t>(sign | (static_cast<unsigned>(exponent) << 11) | bits);
  }
  return std::nullopt;
}

}  // namespace lkdh::host
