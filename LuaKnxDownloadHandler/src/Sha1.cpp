#include "Sha1.h"

#include <algorithm>
#include <cstring>

namespace Korvex::detail {

namespace {

constexpr std::uint32_t RotateLeft(std::uint32_t value, int bits) noexcept {
  return (value << bits) | (value >> (32 - bits));
}

std::uint32_t LoadBigEndian(const unsigned char* bytes) noexcept {
  return (static_cast<std::uint32_t>(bytes[0]) << 24) |
         (static_cast<std::uint32_t>(bytes[1]) << 16) |
         (static_cast<std::uint32_t>(bytes[2]) << 8) | static_cast<std::uint32_t>(bytes[3]);
}

}  // namespace

// One round with the five words named by role rather than moved: five rounds in a
// row bring the names back to where they began, so nothing is copied between rounds.
template <typename F>
inline void Round(std::uint32_t a, std::uint32_t& b, std::uint32_t c, std::uint32_t d,
                  std::uint32_t& e, F f, std::uint32_t k, std::uint32_t word) noexcept {
  e += RotateLeft(a, 5) + f(b, c, d) + k + word;
  b = RotateLeft(b, 30);
}

void Sha1::ProcessBlock(const unsigned char* block) noexcept {
  // A 16-word window instead of the 80-word schedule: it stays in registers
  // on the panel's ARM as well as here.
  std::uint32_t w[16];
  for (int i = 0; i < 16; ++i) w[i] = LoadBigEndian(block + 4 * i);
  std::uint32_t a = m_state[0];
  std::uint32_t b = m_state[1];
  std::uint32_t c = m_state[2];
  std::uint32_t d = m_state[3];
  std::uint32_t e = m_state[4];
  const auto schedule = [&w](int t) noexcept {
    if (t < 16) return w[t];
    const std::uint32_t word =
        RotateLeft(w[(t + 13) & 15] ^ w[(t + 8) & 15] ^ w[(t + 2) & 15] ^ w[t & 15], 1);
    w[t & 15] = word;
    return word;
  };
  const auto choose = [](std::uint32_t x, std::uint32_t y, std::uint32_t z) noexcept {
    return z ^ (x & (y ^ z));
  };
  const auto parity = [](std::uint32_t x, std::uint32_t y, std::uint32_t z) noexcept {
    return x ^ y ^ z;
  };
  const auto majority = [](std::uint32_t x, std::uint32_t y, std::uint32_t z) noexcept {
    return (x & y) | (z & (x | y));
  };
  // Unrolled by five so that the window's indices are constants after unrolling.
  const auto fiveRounds = [&](auto f, std::uint32_t k, int t) noexcept {
    Round(a, b, c, d, e, f, k, schedule(t));
    Round(e, a, b, c, d, f, k, schedule(t + 1));
    Round(d, e, a, b, c, f, k, schedule(t + 2));
    Round(c, d, e, a, b, f, k, schedule(t + 3));
    Round(b, c, d, e, a, f, k, schedule(t + 4));
  };
#pragma GCC unroll 4
  for (int t = 0; t < 20; t += 5) fiveRounds(choose, 0x5A827999U, t);
#pragma GCC unroll 4
  for (int t = 20; t < 40; t += 5) fiveRounds(parity, 0x6ED9EBA1U, t);
#pragma GCC unroll 4
  for (int t = 40; t < 60; t += 5) fiveRounds(majority, 0x8F1BBCDCU, t);
#pragma GCC unroll 4
  for (int t = 60; t < 80; t += 5) fiveRounds(parity, 0xCA62C1D6U, t);
  m_state[0] += a;
  m_state[1] += b;
  m_state[2] += c;
  m_state[3] += d;
  m_state[4] += e;
}

void Sha1::Update(const void* data, std::size_t size) noexcept {
  const auto* bytes = static_cast<const unsigned char*>(data);
  m_totalBytes += size;
  if (m_buffered > 0) {
    const std::size_t take = std::min(size, m_buffer.size() - m_buffered);
    std::memcpy(m_buffer.data() + m_buffered, bytes, take);
    m_buffered += take;
    bytes += take;
    size -= take;
    if (m_buffered < m_buffer.size()) return;
    ProcessBlock(m_buffer.data());
    m_buffered = 0;
  }
  // Whole blocks straight from the caller's bytes, without copying them.
  for (; size >= 64; bytes += 64, size -= 64) ProcessBlock(bytes);
  if (size > 0) {
    std::memcpy(m_buffer.data(), bytes, size);
    m_buffered = size;
  }
}

Sha1::Digest Sha1::Finish() noexcept {
  const std::uint64_t bitLength = m_totalBytes * 8U;
  m_buffer[m_buffered++] = 0x80;
  if (m_buffered > 56) {
    std::memset(m_buffer.data() + m_buffered, 0, m_buffer.size() - m_buffered);
    ProcessBlock(m_buffer.data());
    m_buffered = 0;
  }
  std::memset(m_buffer.data() + m_buffered, 0, 56 - m_buffered);
  for (int i = 0; i < 8; ++i) {
    m_buffer[56 + i] = static_cast<unsigned char>(bitLength >> (56 - 8 * i));
  }
  ProcessBlock(m_buffer.data());
  m_buffered = 0;
  return m_state;
}

}  // namespace Korvex::detail
