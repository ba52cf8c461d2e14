#pragma once
// A read-only byte buffer as the KNX stack hands data around.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace KnxStack {

/// An immutable sequence of bytes. Copies and ranges share one buffer, so
/// handing a property value or a slice of the memory image around copies
/// nothing. Multi-byte values are big-endian, as KNX sends them.
///
/// Reads never touch memory outside the buffer: bytes past the end read as 0,
/// a string ends at the first zero byte or at the end, and GetRange clips to
/// what exists.
class BinaryData {
 public:
  BinaryData() noexcept = default;
  explicit BinaryData(std::vector<std::uint8_t> bytes);
  BinaryData(const std::uint8_t* data, std::size_t size);
  explicit BinaryData(const std::string& bytes);

  std::size_t GetSize() const noexcept { return m_size; }
  bool IsEmpty() const noexcept { return m_size == 0; }
  /// The first byte, or null when empty.
  const std::uint8_t* GetData() const noexcept;

  std::uint8_t GetUInt8Value(std::size_t offset) const noexcept;
  std::uint16_t GetUInt16Value(std::size_t offset) const noexcept;
  std::uint32_t GetUInt32Value(std::size_t offset) const noexcept;

  /// The bytes from offset up to the first zero byte or the end of the buffer.
  std::string GetStringValue(std::size_t offset) const;

  /// A buffer of at most length bytes from address, sharing this one's storage.
  BinaryData GetRange(std::size_t address, std::size_t length) const;

  std::vector<std::uint8_t> ToVector() const;

  friend bool operator==(const BinaryData& a, const BinaryData& b) noexcept;
  friend bool operator!=(const BinaryData& a, const BinaryData& b) noexcept { return !(a == b); }

 private:
  std::shared_ptr<const std::vector<std::uint8_t>> m_buffer;
  std::size_t m_offset = 0;
  std::size_t m_size = 0;
};

}  // namespace KnxStack
