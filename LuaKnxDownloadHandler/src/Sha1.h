#pragma once
// SHA-1 over whole 64-byte blocks. Boost's uuid SHA-1 feeds its state one byte
// at a time, which made hashing the two texts of an unchanged download slower
// than writing a changed one; this computes the same digest a block at a time.

#include <array>
#include <cstddef>
#include <cstdint>

namespace Korvex::detail {

class Sha1 {
 public:
  using Digest = std::array<std::uint32_t, 5>;

  /// Adds bytes to the message; may be called any number of times.
  void Update(const void* data, std::size_t size) noexcept;
  /// The digest words h0..h4 of everything added; the object is spent afterwards.
  Digest Finish() noexcept;

 private:
  void ProcessBlock(const unsigned char* block) noexcept;

  Digest m_state{0x67452301U, 0xEFCDAB89U, 0x98BADCFEU, 0x10325476U, 0xC3D2E1F0U};
  std::array<unsigned char, 64> m_buffer{};
  std::size_t m_buffered = 0;
  std::uint64_t m_totalBytes = 0;
};

}  // namespace Korvex::detail
