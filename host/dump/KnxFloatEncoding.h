#pragma once
// Numbers to the KNX 2-octet float (DPT 9) as the device stores them in properties.

#include <cstdint>
#include <optional>

namespace lkdh::host {

/// The raw 16-bit KNX float for value: the value times 100, as a 12-bit mantissa
/// (two's complement, sign in bit 15) with the smallest exponent 0..15 that fits.
/// Nothing when the value is too large in magnitude (or not finite).
std::optional<std::uint16_t> EncodeKnxFloat(double value) noexcept;

}  // namespace lkdh::host
