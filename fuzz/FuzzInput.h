#pragma once
// Reads structured values from a fuzzer's bytes; past the end everything is 0.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lkdh::fuzz {

class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

  std::uint8_t Byte() { return m_position < m_size ? m_data[m_position++] : 0; }
  std::uint16_t U16() { return static_cast<std::uint16_t>((Byte() << 8) | Byte()); }
  bool Bit() { return (Byte() & 1) != 0; }
  std::vector<std::uint8_t> Bytes(std::size_t count) {
    std::vector<std::uint8_t> bytes;
    bytes.reserve(count);
    for (std::size_t i = 0; i < count && m_position < m_size; ++i) bytes.push_back(Byte());
    return bytes;
  }
  bool Empty() const { return m_position >= m_size; }

 private:
  const std::uint8_t* m_data;
  std::size_t m_size;
  std::size_t m_position = 0;
};

}  // namespace lkdh::fuzz
