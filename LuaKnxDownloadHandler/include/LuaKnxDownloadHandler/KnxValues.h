#pragma once
// How KNX data is decoded: the 2-octet float and a text in the memory image.
// Header-only, so that check-script decodes a dump exactly as the plug-in does.

#include <KnxStack/BinaryData.h>

#include <boost/algorithm/string/trim.hpp>

#include <cstdint>
#include <string>

namespace Korvex::luaknxdownloadhandler {

/// KNX 2-octet float (DPT 9) of a raw value, in single precision. 0x7FFF, the
/// KNX "invalid" marker, decodes like any other value.
inline float DecodeKnxFloat16(std::uint16_t raw) {
  std::int32_t mantissa = raw & 0x7FF;
  if ((raw & 0x8000) != 0) {
    mantissa -= 2048;
  }
  const int exponent = (raw >> 11) & 0xF;
  // Multiplying instead of shifting: a left shift of a negative value is
  // undefined before C++20, and m x 2^e always fits in 32 bits.
  const std::int32_t scaled = mantissa * (std::int32_t{1} << exponent);
  return static_cast<float>(scaled) * 0.01F;
}

/// The text at address of the memory image: at most length bytes, up to a zero
/// byte, without leading and trailing white space.
inline std::string MemoryText(const KnxStack::BinaryData& memory, std::uint32_t address,
                              std::uint8_t length) {
  std::string text = memory.GetRange(address, length).GetStringValue(0);
  boost::algorithm::trim(text);
  return text;
}

}  // namespace Korvex::luaknxdownloadhandler
