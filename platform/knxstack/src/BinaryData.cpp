#include <KnxStack/BinaryData.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace KnxStack {

namespace {

// Empty inputs keep no buffer at all, so an empty BinaryData never holds storage.
std::shared_ptr<const std::vector<std::uint8_t>> MakeBuffer(std::vector<std::uint8_t> bytes) {
  if (bytes.empty()) return nullptr;
  return std::make_shared<const std::vector<std::uint8_t>>(std::move(bytes));
}

}  // namespace

BinaryData::BinaryData(std::vector<std::uint8_t> bytes)
    : m_buffer(MakeBuffer(std::move(bytes))), m_size(m_buffer ? m_buffer->size() : 0) {}

BinaryData::BinaryData(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return;
  if (data == nullptr) throw std::invalid_argument("BinaryData: null data with non-zero size");
  m_buffer = MakeBuffer(std::vector<std::uint8_t>(data, data + size));
  m_size = size;
}

BinaryData::BinaryData(const std::string& bytes)
    : BinaryData(std::vector<std::uint8_t>(bytes.begin(), bytes.end())) {}

const std::uint8_t* BinaryData::GetData() const noexcept {
  return m_size == 0 ? nullptr : m_buffer->data() + m_offset;
}

std::uint8_t BinaryData::GetUInt8Value(std::size_t offset) const noexcept {
  return offset < m_size ? GetData()[offset] : 0;
}

std::uint16_t BinaryData::GetUInt16Value(std::size_t offset) const noexcept {
  std::uint16_t value = 0;
  for (std::size_t i = 0; i < 2; ++i) {
    // Compare against the bytes left rather than computing offset + i, which could wrap.
    const std::uint8_t byte = (offset < m_size && i < m_size - offset) ? GetData()[offset + i] : 0;
    value = static_cast<std::uint16_t>((value << 8) | byte);
  }
  return value;
}

std::uint32_t BinaryData::GetUInt32Value(std::size_t offset) const noexcept {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    const std::uint8_t byte = (offset < m_size && i < m_size - offset) ? GetData()[offset + i] : 0;
    value = (value << 8) | byte;
  }
  return value;
}

std::string BinaryData::GetStringValue(std::size_t offset) const {
  if (offset >= m_size) return {};
  const auto* begin = GetData() + offset;
  const std::size_t available = m_size - offset;
  const void* zero = std::memchr(begin, 0, available);
  const std::size_t length =
      zero == nullptr ? available
                      : static_cast<std::size_t>(static_cast<const std::uint8_t*>(zero) - begin);
  return std::string(reinterpret_cast<const char*>(begin), length);
}

BinaryData BinaryData::GetRange(std::size_t address, std::size_t length) const {
  BinaryData range;
  if (address >= m_size || length == 0) return range;
  range.m_buffer = m_buffer;
  range.m_offset = m_offset + address;
  range.m_size = std::min(length, m_size - address);
  return range;
}

std::vector<std::uint8_t> BinaryData::ToVector() const {
  if (m_size == 0) return {};
  return std::vector<std::uint8_t>(GetData(), GetData() + m_size);
}

bool operator==(const BinaryData& a, const BinaryData& b) noexcept {
  if (a.m_size != b.m_size) return false;
  if (a.m_size == 0) return true;
  return std::memcmp(a.GetData(), b.GetData(), a.m_size) == 0;
}

}  // namespace KnxStack
