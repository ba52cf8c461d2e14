#include "DownloadDump.h"

#include "KnxFloatEncoding.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cfloat>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <numeric>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace lkdh::host {

namespace {

using json = nlohmann::json;
using KnxStack::PropertyDataType;

// A dump file may hold a hex image of the largest memory and then some; anything
// bigger is a wrong file (or an endless device such as /dev/zero).
constexpr std::size_t kMaxDumpFileSize = 128U * 1024U * 1024U;

[[noreturn]] void Fail(const std::string& location, std::string message) {
  throw DumpError(location, std::move(message));
}

// Values in messages: scalars as written in JSON, containers and long strings by kind.
std::string Describe(const json& value) {
  switch (value.type()) {
    case json::value_t::object:
      return "an object";
    case json::value_t::array:
      return "an array";
    case json::value_t::string: {
      const auto& text = value.get_ref<const std::string&>();
      if (text.size() > 40) return "a string of " + std::to_string(text.size()) + " bytes";
      return "the string " + value.dump();
    }
    case json::value_t::null:
      return "null";
    default:
      return value.dump();
  }
}

std::string JoinKeys(std::initializer_list<const char*> keys) {
  std::string joined;
  for (const char* key : keys) {
    if (!joined.empty()) joined += ", ";
    joined += key;
  }
  return joined;
}

// An object whose keys all belong to the allowed set; any other key is a typo.
void ExpectObject(const json& value, const std::string& location,
                  std::initializer_list<const char*> allowed) {
  if (!value.is_object()) Fail(location, "expected an object, got " + Describe(value));
  for (const auto& item : value.items()) {
    const bool known = std::any_of(allowed.begin(), allowed.end(),
                                   [&](const char* key) { return item.key() == key; });
    if (!known) {
      Fail(AppendPointer(location, item.key()),
           "unknown key (allowed here: " + JoinKeys(allowed) + ")");
    }
  }
}

void ExpectArray(const json& value, const std::string& location) {
  if (!value.is_array()) Fail(location, "expected an array, got " + Describe(value));
}

const json* Find(const json& object, const char* key) {
  const auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

const json& Require(const json& object, const std::string& location, const char* key) {
  const json* value = Find(object, key);
  if (value == nullptr) Fail(location, std::string("missing required key '") + key + "'");
  return *value;
}

bool GetBool(const json& value, const std::string& location) {
  if (!value.is_boolean()) Fail(location, "expected true or false, got " + Describe(value));
  return value.get<bool>();
}

const std::string& GetString(const json& value, const std::string& location) {
  if (!value.is_string()) Fail(location, "expected a string, got " + Describe(value));
  return value.get_ref<const std::string&>();
}

// A JSON integer within lo..hi; what names the expected kind of value in messages.
std::int64_t GetInteger(const json& value, const std::string& location, std::int64_t lo,
                        std::int64_t hi, const std::string& what) {
  if (!value.is_number_integer()) {
    Fail(location, "expected an integer for " + what + ", got " + Describe(value));
  }
  const std::string range =
      " is out of range for " + what + " (" + std::to_string(lo) + ".." + std::to_string(hi) + ")";
  if (value.is_number_unsigned()) {
    const auto unsignedValue = value.get<std::uint64_t>();
    if (hi < 0 || unsignedValue > static_cast<std::uint64_t>(hi)) {
      Fail(location, value.dump() + range);
    }
    return static_cast<std::int64_t>(unsignedValue);
  }
  const auto signedValue = value.get<std::int64_t>();
  if (signedValue < lo || signedValue > hi) Fail(location, value.dump() + range);
  return signedValue;
}

// A non-negative JSON integer of any size, for addresses and sizes checked by the caller.
std::uint64_t GetCount(const json& value, const std::string& location, const std::string& what) {
  if (!value.is_number_integer()) {
    Fail(location, "expected an integer for " + what + ", got " + Describe(value));
  }
  if (!value.is_number_unsigned() && value.get<std::int64_t>() < 0) {
    Fail(location, what + " cannot be negative, got " + value.dump());
  }
  return value.get<std::uint64_t>();
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::vector<std::uint8_t> DecodeHex(const json& value, const std::string& location) {
  const std::string& text = GetString(value, location);
  if (text.size() % 2 != 0) {
    Fail(location, "odd number of hex digits (" + std::to_string(text.size()) + ")");
  }
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const int high = HexDigit(text[i]);
    const int low = HexDigit(text[i + 1]);
    if (high < 0 || low < 0) {
      Fail(location, "not a hex digit at offset " + std::to_string(high < 0 ? i : i + 1));
    }
    bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
  }
  return bytes;
}

void AppendBigEndian(std::vector<std::uint8_t>& bytes, std::uint64_t value, std::uint32_t size) {
  for (std::uint32_t i = size; i > 0; --i) {
    bytes.push_back(static_cast<std::uint8_t>(value >> (8 * (i - 1))));
  }
}

// How the items of "values" become elements of a datatype.
enum class ValueKind { Integer, Float32, KnxFloat, Boolean, Text, HexOnly };

struct ValueRule {
  ValueKind kind = ValueKind::HexOnly;
  std::int64_t lo = 0;
  std::int64_t hi = 0;
};

ValueRule RuleFor(PropertyDataType pdt) {
  using Limits8 = std::numeric_limits<std::int8_t>;
  using Limits16 = std::numeric_limits<std::int16_t>;
  using Limits32 = std::numeric_limits<std::int32_t>;
  switch (pdt) {
    case PropertyDataType::PDT_CHAR:
      return {ValueKind::Integer, Limits8::min(), Limits8::max()};
    case PropertyDataType::PDT_UNSIGNED_CHAR:
      return {ValueKind::Integer, 0, std::numeric_limits<std::uint8_t>::max()};
    case PropertyDataType::PDT_INT:
      return {ValueKind::Integer, Limits16::min(), Limits16::max()};
    case PropertyDataType::PDT_UNSIGNED_INT:
      return {ValueKind::Integer, 0, std::numeric_limits<std::uint16_t>::max()};
    case PropertyDataType::PDT_LONG:
      return {ValueKind::Integer, Limits32::min(), Limits32::max()};
    case PropertyDataType::PDT_UNSIGNED_LONG:
      return {ValueKind::Integer, 0, std::numeric_limits<std::uint32_t>::max()};
    case PropertyDataType::PDT_FLOAT:
      return {ValueKind::Float32};
    case PropertyDataType::PDT_KNX_FLOAT:
      return {ValueKind::KnxFloat};
    case PropertyDataType::PDT_BINARY_INFORMATION:
      return {ValueKind::Boolean};
    default:
      break;
  }
  const auto id = static_cast<unsigned>(pdt);
  if (id >= static_cast<unsigned>(PropertyDataType::PDT_GENERIC_01) &&
      id <= static_cast<unsigned>(PropertyDataType::PDT_GENERIC_20)) {
    return {ValueKind::Text};
  }
  return {};
}

void AppendValue(std::vector<std::uint8_t>& bytes, const json& value, const std::string& location,
                 PropertyDataType pdt, const ValueRule& rule) {
  const std::string name(KnxStack::ToString(pdt));
  const std::uint32_t size = KnxStack::ElementSize(pdt);
  switch (rule.kind) {
    case ValueKind::Integer: {
      const std::int64_t number = GetInteger(value, location, rule.lo, rule.hi, name);
      // Conversion to unsigned is modular, which yields the two's complement bytes.
      AppendBigEndian(bytes, static_cast<std::uint64_t>(number), size);
      return;
    }
    case ValueKind::Float32: {
      if (!value.is_number()) {
        Fail(location, "expected a number for " + name + ", got " + Describe(value));
      }
      const double number = value.get<double>();
      if (!(number >= -FLT_MAX && number <= FLT_MAX)) {
        Fail(location, value.dump() + " is out of range for " + name);
      }
      const float single = static_cast<float>(number);
      std::uint32_t bits = 0;
      std::memcpy(&bits, &single, sizeof bits);
      AppendBigEndian(bytes, bits, size);
      return;
    }
    case ValueKind::KnxFloat: {
      if (!value.is_number()) {
        Fail(location, "expected a number for " + name + ", got " + Describe(value));
      }
      const auto raw = EncodeKnxFloat(value.get<double>());
      if (!raw) {
        Fail(location, value.dump() + " is out of range for " + name + " (-671088.64..670760.96)");
      }
      AppendBigEndian(bytes, *raw, size);
      return;
    }
    case ValueKind::Boolean:
      AppendBigEndian(bytes, GetBool(value, location) ? 1U : 0U, size);
      return;
    case ValueKind::Text: {
      if (!value.is_string()) {
        Fail(location, "expected a string for " + name + ", got " + Describe(value));
      }
      const auto& text = value.get_ref<const std::string&>();
      if (text.size() > size) {
        const std::string shown = text.size() <= 40 ? value.dump() : "the string";
        Fail(location, shown + " is " + std::to_string(text.size()) + " bytes long; " + name +
                           " holds at most " + std::to_string(size));
      }
      bytes.insert(bytes.end(), text.begin(), text.end());
      bytes.insert(bytes.end(), size - text.size(), 0);
      return;
    }
    case ValueKind::HexOnly:
      break;
  }
  Fail(location, "unexpected value kind for " + name);
}

void ParseProperty(const json& entry, const std::string& location,
                   KnxStack::InterfaceObject& object) {
  ExpectObject(entry, location, {"id", "pdt", "values", "hex", "readable", "countAvailable"});
  const std::string idLocation = AppendPointer(location, "id");
  const auto id = static_cast<std::uint8_t>(
      GetInteger(Require(entry, location, "id"), idLocation, 0, 255, "a property id"));
  const std::string pdtLocation = AppendPointer(location, "pdt");
  const std::string& pdtName = GetString(Require(entry, location, "pdt"), pdtLocation);
  const auto pdt = KnxStack::ParsePropertyDataType(pdtName);
  if (!pdt) Fail(pdtLocation, "unknown property datatype " + entry.at("pdt").dump());
  const std::string name(KnxStack::ToString(*pdt));
  const std::uint32_t elementSize = KnxStack::ElementSize(*pdt);

  const json* values = Find(entry, "values");
  const json* hex = Find(entry, "hex");
  if (values != nullptr && hex != nullptr) Fail(location, "has both 'values' and 'hex'; give one");
  if (values == nullptr && hex == nullptr) Fail(location, "needs 'values' or 'hex'");

  std::vector<std::uint8_t> bytes;
  if (hex != nullptr) {
    const std::string hexLocation = AppendPointer(location, "hex");
    bytes = DecodeHex(*hex, hexLocation);
    if (elementSize != 0 && bytes.size() % elementSize != 0) {
      Fail(hexLocation, std::to_string(bytes.size()) + " bytes are not a whole number of " +
                            std::to_string(elementSize) + "-byte " + name + " elements");
    }
  } else {
    const std::string valuesLocation = AppendPointer(location, "values");
    const ValueRule rule = RuleFor(*pdt);
    if (rule.kind == ValueKind::HexOnly) {
      Fail(valuesLocation, name + " elements cannot be given as 'values'; use 'hex'");
    }
    ExpectArray(*values, valuesLocation);
    for (std::size_t i = 0; i < values->size(); ++i) {
      AppendValue(bytes, (*values)[i], AppendPointer(valuesLocation, std::to_string(i)), *pdt,
                  rule);
    }
  }

  bool readable = true;
  if (const json* item = Find(entry, "readable")) {
    readable = GetBool(*item, AppendPointer(location, "readable"));
  }
  bool countAvailable = true;
  if (const json* item = Find(entry, "countAvailable")) {
    countAvailable = GetBool(*item, AppendPointer(location, "countAvailable"));
  }

  if (object.GetProperty(id) != nullptr) {
    Fail(idLocation, "property " + std::to_string(id) + " appears twice in this interface object");
  }
  try {
    auto& property = object.AddProperty(id, *pdt, KnxStack::BinaryData(std::move(bytes)));
    property.SetReadable(readable);
    property.SetCountAvailable(countAvailable);
  } catch (const std::invalid_argument& error) {
    // The checks above should leave nothing for the stack to reject; report it if they missed.
    Fail(location, error.what());
  }
}

void ParseInterfaceObjects(const json& list, const std::string& location, DownloadDump& dump) {
  ExpectArray(list, location);
  for (std::size_t i = 0; i < list.size(); ++i) {
    const json& entry = list[i];
    const std::string entryLocation = AppendPointer(location, std::to_string(i));
    ExpectObject(entry, entryLocation, {"index", "properties"});
    const auto index = static_cast<std::uint32_t>(
        GetInteger(Require(entry, entryLocation, "index"), AppendPointer(entryLocation, "index"), 0,
                   std::numeric_limits<std::uint32_t>::max(), "an interface-object index"));
    const std::string propertiesLocation = AppendPointer(entryLocation, "properties");
    const json& properties = Require(entry, entryLocation, "properties");
    ExpectArray(properties, propertiesLocation);
    auto object = std::make_unique<KnxStack::InterfaceObject>();
    for (std::size_t p = 0; p < properties.size(); ++p) {
      ParseProperty(properties[p], AppendPointer(propertiesLocation, std::to_string(p)), *object);
    }
    dump.objects.push_back(std::move(object));
    dump.interfaceObjects[index].push_back(dump.objects.back().get());
  }
}

struct MemoryBlock {
  std::string location;
  std::size_t address = 0;
  std::vector<std::uint8_t> bytes;
  std::size_t End() const { return address + bytes.size(); }
};

std::string Describe(const MemoryBlock& block) {
  const std::size_t size = block.bytes.size();
  return std::to_string(size) + (size == 1 ? " byte at " : " bytes at ") +
         std::to_string(block.address);
}

void ParseMemory(const json& memory, const std::string& location, DownloadDump& dump) {
  ExpectObject(memory, location, {"size", "blocks"});
  const std::string limit = std::to_string(kMaxMemorySize) + " bytes (16 MiB)";

  std::optional<std::size_t> size;
  if (const json* item = Find(memory, "size")) {
    const std::string sizeLocation = AppendPointer(location, "size");
    const std::uint64_t value = GetCount(*item, sizeLocation, "a memory size");
    if (value > kMaxMemorySize) Fail(sizeLocation, item->dump() + " exceeds the limit of " + limit);
    size = static_cast<std::size_t>(value);
  }

  std::vector<MemoryBlock> blocks;
  if (const json* list = Find(memory, "blocks")) {
    const std::string blocksLocation = AppendPointer(location, "blocks");
    ExpectArray(*list, blocksLocation);
    for (std::size_t i = 0; i < list->size(); ++i) {
      const json& entry = (*list)[i];
      MemoryBlock block;
      block.location = AppendPointer(blocksLocation, std::to_string(i));
      ExpectObject(entry, block.location, {"address", "text", "hex"});
      const std::string addressLocation = AppendPointer(block.location, "address");
      const std::uint64_t address =
          GetCount(Require(entry, block.location, "address"), addressLocation, "an address");
      if (address > kMaxMemorySize) {
        Fail(addressLocation, std::to_string(address) + " lies beyond the limit of " + limit);
      }
      block.address = static_cast<std::size_t>(address);
      const json* text = Find(entry, "text");
      const json* hex = Find(entry, "hex");
      if (text != nullptr && hex != nullptr) {
        Fail(block.location, "has both 'text' and 'hex'; give one");
      }
      if (text == nullptr && hex == nullptr) Fail(block.location, "needs 'text' or 'hex'");
      if (text != nullptr) {
        const std::string& content = GetString(*text, AppendPointer(block.location, "text"));
        block.bytes.assign(content.begin(), content.end());
      } else {
        block.bytes = DecodeHex(*hex, AppendPointer(block.location, "hex"));
      }
      // Both terms are bounded (the address above, the bytes by the file size), so no wrap.
      if (block.End() > kMaxMemorySize) {
        Fail(block.location, "block of " + Describe(block) + " ends at " +
                                 std::to_string(block.End()) + ", beyond the limit of " + limit);
      }
      blocks.push_back(std::move(block));
    }
  }

  if (size) {
    for (const auto& block : blocks) {
      if (block.End() > *size) {
        Fail(block.location, "block of " + Describe(block) + " ends at " +
                                 std::to_string(block.End()) + ", past the memory size " +
                                 std::to_string(*size));
      }
    }
  } else {
    std::size_t end = 0;
    for (const auto& block : blocks) end = std::max(end, block.End());
    size = end;
  }

  // Sorted by address, a block overlaps an earlier one exactly when it starts
  // before the furthest end seen so far; the later one in the file is blamed.
  std::vector<std::size_t> order(blocks.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return std::make_pair(blocks[a].address, a) < std::make_pair(blocks[b].address, b);
  });
  std::optional<std::size_t> furthest;
  for (const std::size_t current : order) {
    if (blocks[current].bytes.empty()) continue;
    if (furthest && blocks[current].address < blocks[*furthest].End()) {
      const auto& first = blocks[std::min(current, *furthest)];
      const auto& second = blocks[std::max(current, *furthest)];
      Fail(second.location, "block of " + Describe(second) + " overlaps " + first.location + " (" +
                                Describe(first) + ")");
    }
    if (!furthest || blocks[current].End() > blocks[*furthest].End()) furthest = current;
  }

  std::vector<std::uint8_t> image(*size, 0);
  for (const auto& block : blocks) {
    std::copy(block.bytes.begin(), block.bytes.end(),
              image.begin() + static_cast<std::ptrdiff_t>(block.address));
  }
  dump.memory = KnxStack::BinaryData(std::move(image));
}

void ParseCoDescriptors(const json& list, const std::string& location, DownloadDump& dump) {
  ExpectArray(list, location);
  for (std::size_t i = 0; i < list.size(); ++i) {
    const json& entry = list[i];
    const std::string entryLocation = AppendPointer(location, std::to_string(i));
    ExpectObject(entry, entryLocation, {"number", "enabled"});
    const std::string numberLocation = AppendPointer(entryLocation, "number");
    const auto number = static_cast<std::uint16_t>(
        GetInteger(Require(entry, entryLocation, "number"), numberLocation, 0,
                   std::numeric_limits<std::uint16_t>::max(), "a communication-object number"));
    const bool enabled =
        GetBool(Require(entry, entryLocation, "enabled"), AppendPointer(entryLocation, "enabled"));
    if (dump.coDescriptors.count(number) != 0) {
      Fail(numberLocation, "communication object " + std::to_string(number) + " appears twice");
    }
    dump.coDescriptors[number].communicationEnabled = enabled;
  }
}

// nlohmann's messages start with "[json.exception.parse_error.101] "; the rest is the useful part.
std::string WithoutExceptionId(const char* what) {
  std::string text(what);
  if (!text.empty() && text.front() == '[') {
    const auto end = text.find("] ");
    if (end != std::string::npos) text.erase(0, end + 2);
  }
  return text;
}

}  // namespace

DumpError::DumpError(std::string location, std::string message)
    : std::runtime_error(location.empty() ? message : location + ": " + message),
      m_location(std::move(location)),
      m_message(std::move(message)) {}

std::string AppendPointer(const std::string& pointer, std::string_view token) {
  std::string result = pointer;
  result += '/';
  for (const char c : token) {
    if (c == '~') {
      result += "~0";
    } else if (c == '/') {
      result += "~1";
    } else if (c == '\\') {
      result += "\\\\";
    } else if (static_cast<unsigned char>(c) < 0x20 || c == '\x7f') {
      // A key's control bytes would cut or garble the message on a terminal.
      static constexpr char kHex[] = "0123456789abcdef";
      const auto byte = static_cast<unsigned char>(c);
      result += "\\u00";
      result += kHex[byte >> 4];
      result += kHex[byte & 0x0f];
    } else {
      result += c;
    }
  }
  return result;
}

DownloadDump ParseDownloadDump(std::string_view text) {
  json document;
  try {
    document = json::parse(text.begin(), text.end());
  } catch (const json::parse_error& error) {
    Fail("", "invalid JSON at byte " + std::to_string(error.byte) + ": " +
                 WithoutExceptionId(error.what()));
  } catch (const json::exception& error) {
    Fail("", "invalid JSON: " + WithoutExceptionId(error.what()));
  }

  if (!document.is_object()) {
    Fail("", "the dump must be a JSON object, got " + Describe(document));
  }
  ExpectObject(document, "", {"interfaceObjects", "memory", "coDescriptors"});
  DownloadDump dump;
  ParseInterfaceObjects(Require(document, "", "interfaceObjects"), "/interfaceObjects", dump);
  if (const json* memory = Find(document, "memory")) ParseMemory(*memory, "/memory", dump);
  if (const json* descriptors = Find(document, "coDescriptors")) {
    ParseCoDescriptors(*descriptors, "/coDescriptors", dump);
  }
  return dump;
}

DownloadDump LoadDownloadDump(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Fail("", std::string("cannot open the file: ") + std::strerror(errno));
  std::string text;
  int readError = 0;
  bool tooLarge = false;
  char buffer[65536];
  for (;;) {
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count < 0) {
      if (errno == EINTR) continue;
      readError = errno;
      break;
    }
    if (count == 0) break;
    if (text.size() + static_cast<std::size_t>(count) > kMaxDumpFileSize) {
      tooLarge = true;
      break;
    }
    text.append(buffer, static_cast<std::size_t>(count));
  }
  ::close(fd);
  if (readError != 0) Fail("", std::string("cannot read the file: ") + std::strerror(readError));
  if (tooLarge) {
    Fail("", "the file is larger than the " + std::to_string(kMaxDumpFileSize / (1024 * 1024)) +
                 " MiB a dump may have");
  }
  return ParseDownloadDump(text);
}

}  // namespace lkdh::host
