#include "DownloadDumpWriter.h"

#include "DumpFormat.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace lkdh::host {

namespace {

// Zero runs shorter than this stay inside a memory block rather than splitting it.
constexpr std::size_t kMinZeroGap = 8;
// Bytes per memory block, so that a line of the dump stays readable.
constexpr std::size_t kMaxBlockBytes = 32;

void AppendHex(std::string& out, const std::uint8_t* bytes, std::size_t count) {
  static constexpr char kDigits[] = "0123456789abcdef";
  out.reserve(out.size() + 2 * count);
  for (std::size_t i = 0; i < count; ++i) {
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 0x0F];
  }
}

// The host sees element sizes, not datatypes: any datatype of that size reads
// the same. Sizes without one become a single variable-length element.
const char* DatatypeForElementSize(std::uint32_t size) {
  static constexpr const char* kGeneric[] = {
      "PDT_GENERIC_01", "PDT_GENERIC_02", "PDT_GENERIC_03", "PDT_GENERIC_04", "PDT_GENERIC_05",
      "PDT_GENERIC_06", "PDT_GENERIC_07", "PDT_GENERIC_08", "PDT_GENERIC_09", "PDT_GENERIC_10",
      "PDT_GENERIC_11", "PDT_GENERIC_12", "PDT_GENERIC_13", "PDT_GENERIC_14", "PDT_GENERIC_15",
      "PDT_GENERIC_16", "PDT_GENERIC_17", "PDT_GENERIC_18", "PDT_GENERIC_19", "PDT_GENERIC_20"};
  switch (size) {
    case 1:
      return "PDT_UNSIGNED_CHAR";
    case 2:
      return "PDT_UNSIGNED_INT";
    case 4:
      return "PDT_UNSIGNED_LONG";
    default:
      break;
  }
  if (size >= 1 && size <= 20) return kGeneric[size - 1];
  return "PDT_VARIABLE_LENGTH";
}

void WriteProperty(std::string& out, const KnxStack::IProperty& property, std::uint32_t id) {
  const std::uint32_t elementSize = property.GetElementSize();
  std::uint32_t count = 0;
  const bool countAvailable = property.GetElementCount(count);
  KnxStack::BinaryData value;
  const bool readable = property.Read(value);

  std::vector<std::uint8_t> bytes;
  if (readable) {
    bytes.assign(value.GetData(), value.GetData() + value.GetSize());
  } else if (countAvailable) {
    // The reads fail anyway; zeros keep the element count the plug-in sees.
    bytes.assign(static_cast<std::size_t>(count) * elementSize, 0);
  }
  // Bytes that are no whole number of elements can only be one variable-length element.
  const char* datatype = elementSize != 0 && bytes.size() % elementSize == 0
                             ? DatatypeForElementSize(elementSize)
                             : "PDT_VARIABLE_LENGTH";

  out += "        { \"id\": " + std::to_string(id) + ", \"pdt\": \"" + datatype + "\", \"hex\": \"";
  AppendHex(out, bytes.data(), bytes.size());
  out += '"';
  if (!readable) out += ", \"readable\": false";
  if (!countAvailable) out += ", \"countAvailable\": false";
  out += " }";
}

void WriteInterfaceObjects(std::string& out, const Korvex::InterfaceObjectMap& interfaceObjects) {
  out += "  \"interfaceObjects\": [";
  bool firstObject = true;
  for (const auto& [index, objects] : interfaceObjects) {
    for (const KnxStack::IInterfaceObject* object : objects) {
      if (object == nullptr) continue;
      out += firstObject ? "\n" : ",\n";
      firstObject = false;
      out += "    { \"index\": " + std::to_string(index) + ", \"properties\": [";
      bool firstProperty = true;
      for (std::uint32_t id = 0; id <= kMaxPropertyId; ++id) {
        const KnxStack::IProperty* property = object->GetProperty(id);
        if (property == nullptr) continue;
        out += firstProperty ? "\n" : ",\n";
        firstProperty = false;
        WriteProperty(out, *property, id);
      }
      out += firstProperty ? "] }" : "\n      ] }";
    }
  }
  out += firstObject ? "],\n" : "\n  ],\n";
}

void WriteMemory(std::string& out, const KnxStack::BinaryData& memory) {
  const std::size_t size = memory.GetSize();
  if (size > kMaxMemorySize) {
    throw std::length_error("the memory image of " + std::to_string(size) +
                            " bytes is larger than a dump may hold (" +
                            std::to_string(kMaxMemorySize) + ")");
  }
  const std::uint8_t* bytes = memory.GetData();
  out += "  \"memory\": { \"size\": " + std::to_string(size) + ", \"blocks\": [";
  bool first = true;
  std::size_t at = 0;
  while (at < size) {
    if (bytes[at] == 0) {
      ++at;
      continue;
    }
    // A block runs to the last non-zero byte before a long enough gap, or its length limit.
    std::size_t end = at + 1;
    std::size_t lastNonZero = at;
    while (end < size && end - at < kMaxBlockBytes && end - lastNonZero <= kMinZeroGap) {
      if (bytes[end] != 0) lastNonZero = end;
      ++end;
    }
    const std::size_t length = lastNonZero + 1 - at;
    out += first ? "\n" : ",\n";
    first = false;
    out += "      { \"address\": " + std::to_string(at) + ", \"hex\": \"";
    AppendHex(out, bytes + at, length);
    out += "\" }";
    at += length;
  }
  out += first ? "] },\n" : "\n    ] },\n";
}

void WriteCoDescriptors(std::string& out, const Korvex::CoDescriptorDataMap& coDescriptors) {
  out += "  \"coDescriptors\": [";
  bool first = true;
  for (const auto& [number, descriptor] : coDescriptors) {
    out += first ? "\n" : ",\n";
    first = false;
    out += "    { \"number\": " + std::to_string(number) +
           ", \"enabled\": " + (descriptor.communicationEnabled ? "true" : "false") + " }";
  }
  out += first ? "]\n" : "\n  ]\n";
}

}  // namespace

std::string WriteDownloadDump(const Korvex::InterfaceObjectMap& interfaceObjects,
                              const KnxStack::BinaryData& memory,
                              const Korvex::CoDescriptorDataMap& coDescriptors) {
  std::string out = "{\n";
  WriteInterfaceObjects(out, interfaceObjects);
  WriteMemory(out, memory);
  WriteCoDescriptors(out, coDescriptors);
  out += "}\n";
  return out;
}

}  // namespace lkdh::host
