#include "DownloadGenerator.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace lkdh::bench {

namespace {

using KnxStack::PropertyDataType;

constexpr unsigned kNameSize = 32;  // bytes reserved per name in the memory image

void PutBigEndian(std::vector<std::uint8_t>& out, std::uint32_t value, unsigned size) {
  for (unsigned i = size; i-- > 0;) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// Raw KNX 2-octet float of a value that needs no exponent above 1 here.
std::uint16_t KnxFloat(double value) {
  double mantissa = value * 100.0;
  unsigned exponent = 0;
  while (mantissa > 2047.0 || mantissa < -2048.0) {
    mantissa /= 2.0;
    ++exponent;
  }
  const auto m = static_cast<std::int32_t>(mantissa >= 0 ? mantissa + 0.5 : mantissa - 0.5);
  std::uint16_t raw =
      static_cast<std::uint16_t>((exponent << 11) | (static_cast<std::uint32_t>(m) & 0x7FF));
  if (m < 0) raw |= 0x8000;
  return raw;
}

struct PropertyPlan {
  unsigned object;
  std::uint8_t id;
  PropertyDataType pdt;
  std::vector<std::uint8_t> bytes;
};

class Builder {
 public:
  void Add(unsigned object, std::uint8_t id, PropertyDataType pdt,
           const std::vector<std::uint32_t>& values) {
    PropertyPlan plan{object, id, pdt, {}};
    const unsigned size = KnxStack::ElementSize(pdt);
    for (auto v : values) PutBigEndian(plan.bytes, v, size);
    plans.push_back(std::move(plan));
  }
  std::vector<PropertyPlan> plans;
};

const char* const kParameterTypes[] = {"Bool", "UInt8", "UInt16", "Float16", "Int16", "Name"};

PropertyDataType PdtOf(const std::string& type) {
  if (type == "Bool") return PropertyDataType::PDT_BINARY_INFORMATION;
  if (type == "UInt8") return PropertyDataType::PDT_UNSIGNED_CHAR;
  if (type == "Float16") return PropertyDataType::PDT_KNX_FLOAT;
  if (type == "Name") return PropertyDataType::PDT_UNSIGNED_LONG;
  return PropertyDataType::PDT_UNSIGNED_INT;
}

std::string MakeScript(const DownloadShape& shape) {
  std::string parameters;
  for (unsigned p = 0; p < shape.parametersPerFunction; ++p) {
    const std::string type = kParameterTypes[p % 6];
    std::string showIf;
    if (shape.showIfEvery != 0 && p % shape.showIfEvery == shape.showIfEvery - 1) {
      showIf =
          ", ShowIf = { PropertyIds = { { Id = prop(1, 53), Type = \"Bool\" } }, Function = "
          "shownWhenOn }";
    }
    parameters += fmt::format(
        "      {{ Key = \"P{:03}\", Type = \"{}\", Digits = 1, Property = prop(1, {}){} }},\n", p,
        type, 100 + p, showIf);
  }
  return fmt::format(R"(-- Generated description script.
local function prop(object, id) return {{ InterfaceObjectId = object, PropertyId = id }} end

function GetPropertyIds()
  return {{
    MaxFunctionPerFolder = prop(0, 10), MaxNameCharCount = prop(0, 11),
    MaxTextCharCount = prop(0, 12), MaxUrlCharCount = prop(0, 13),
    ShowRootFolder = prop(0, 20), ShowOutdoorTemp = prop(0, 21), ShowIndoorTemp = prop(0, 22),
    ShowDateTime = prop(0, 23), UseTVK = prop(0, 24), DcsType = prop(0, 25),
    UseDcsFloorcall = prop(0, 26), DcsFloorCallNameOffset = prop(0, 27),
    DcsFloorCallMelody = prop(0, 28), UseWeather = prop(0, 29), UseTimers = prop(0, 30),
    UseHeatingTimers = prop(0, 31), ResetUserData = prop(0, 32),
    NumberOfFolders = prop(0, 40), FolderNameOffset = prop(0, 41), FolderIcon = prop(0, 42),
    FolderShowOnHome = prop(0, 43), NumberFuncPerFolder = prop(0, 44),
    ChannelType = prop(1, 50), FunctionNameOffset = prop(1, 51),
  }}
end

function IsThereUrnsByPropertyIndex(typeId) return typeId == 2 end
function GetPropertyIndexForUrns(typeId) return prop(1, 52) end
function GetFunctionUrnByTypeId(typeId) return "urn:bench:function:" .. typeId end
function GetChannelUrnByTypeId(typeId) return "urn:bench:channel:" .. typeId end
function GetFunctionUrnByTypeIdAndPropertyIndex(typeId, index) return "urn:bench:function:dimmer-" .. index end
function GetChannelUrnByTypeIdAndPropertyIndex(typeId, index) return "urn:bench:channel:dimmer-" .. index end
function GetLuaTemplateIndexByTypeIdAndPropertyIndex(typeId, index) return tostring(index + 1) end

local function shownWhenOn(on) return on end

function GetParametersFromChannelTypeId(typeId)
  return {{
{}  }}
end

function GetStaticData()
  return {{
    Weather = {{ Type = "weather", EnabledProperty = prop(2, 70),
      Parameters = {{ {{ Key = "City", Type = "Text", Property = prop(2, 71) }},
                     {{ Key = "Interval", Type = "UInt8", Property = prop(2, 72) }} }} }},
    Timers = {{ Type = "timers", SubData = {{
      T1 = {{ Type = "timer", Parameters = {{ {{ Key = "Hour", Type = "UInt8", Property = prop(2, 72) }} }} }},
      T2 = {{ Type = "timer", Parameters = {{ {{ Key = "Hour", Type = "UInt8", Property = prop(2, 72) }} }} }},
    }} }},
  }}
end

function HandleDcsType(dcsType) end
)",
                     parameters);
}

}  // namespace

std::unique_ptr<GeneratedDownload> GenerateDownload(const DownloadShape& shape) {
  if (shape.folders > 255 || shape.functionsPerFolder > 255 || shape.parametersPerFunction > 100) {
    throw std::invalid_argument("download shape out of range");
  }
  auto download = std::make_unique<GeneratedDownload>();
  download->shape = shape;
  const unsigned folders = shape.folders;
  const unsigned perFolder = shape.functionsPerFolder;
  const unsigned slots = folders * perFolder;

  // Memory image: floor-call name, folder names, function names, static text.
  const std::uint32_t floorCallAddress = 0;
  const std::uint32_t folderBase = kNameSize;
  const std::uint32_t functionBase = folderBase + folders * kNameSize;
  const std::uint32_t textBase = functionBase + slots * kNameSize;
  std::vector<std::uint8_t> memory(textBase + 64, 0);
  auto put = [&memory](std::uint32_t address, const std::string& text) {
    std::copy(text.begin(), text.end(), memory.begin() + address);
  };
  put(floorCallAddress, "Front door");
  for (unsigned f = 0; f < folders; ++f)
    put(folderBase + f * kNameSize, fmt::format("Room {}", f + 1));
  for (unsigned k = 0; k < slots; ++k)
    put(functionBase + k * kNameSize, fmt::format("Light {}", k + 1));
  put(textBase, "Lakeside");

  Builder b;
  b.Add(0, 10, PropertyDataType::PDT_UNSIGNED_CHAR, {perFolder});
  b.Add(0, 11, PropertyDataType::PDT_UNSIGNED_CHAR, {kNameSize - 8});
  b.Add(0, 12, PropertyDataType::PDT_UNSIGNED_CHAR, {64});
  b.Add(0, 13, PropertyDataType::PDT_UNSIGNED_CHAR, {128});
  for (std::uint8_t id = 20; id <= 24; ++id)
    b.Add(0, id, PropertyDataType::PDT_BINARY_INFORMATION, {id % 2u});
  b.Add(0, 25, PropertyDataType::PDT_UNSIGNED_CHAR, {0});
  b.Add(0, 26, PropertyDataType::PDT_BINARY_INFORMATION, {1});
  b.Add(0, 27, PropertyDataType::PDT_UNSIGNED_LONG, {floorCallAddress});
  b.Add(0, 28, PropertyDataType::PDT_UNSIGNED_CHAR, {2});
  for (std::uint8_t id = 29; id <= 31; ++id)
    b.Add(0, id, PropertyDataType::PDT_BINARY_INFORMATION, {1});
  b.Add(0, 32, PropertyDataType::PDT_BINARY_INFORMATION, {0});
  b.Add(0, 40, PropertyDataType::PDT_UNSIGNED_CHAR, {folders});
  std::vector<std::uint32_t> folderNames, icons, onHome, counts;
  for (unsigned f = 0; f < folders; ++f) {
    folderNames.push_back(folderBase + f * kNameSize);
    icons.push_back(f % 40);
    onHome.push_back(f % 2);
    counts.push_back(perFolder);
  }
  b.Add(0, 41, PropertyDataType::PDT_UNSIGNED_LONG, folderNames);
  b.Add(0, 42, PropertyDataType::PDT_UNSIGNED_INT, icons);
  b.Add(0, 43, PropertyDataType::PDT_BINARY_INFORMATION, onHome);
  b.Add(0, 44, PropertyDataType::PDT_UNSIGNED_CHAR, counts);

  std::vector<std::uint32_t> channelTypes, functionNames, selectors, switches;
  for (unsigned k = 0; k < slots; ++k) {
    channelTypes.push_back(1 + k % 4);
    functionNames.push_back(functionBase + k * kNameSize);
    selectors.push_back(k % 3);
    switches.push_back(k % 2);
  }
  b.Add(1, 50, PropertyDataType::PDT_UNSIGNED_CHAR, channelTypes);
  b.Add(1, 51, PropertyDataType::PDT_UNSIGNED_LONG, functionNames);
  b.Add(1, 52, PropertyDataType::PDT_UNSIGNED_CHAR, selectors);
  b.Add(1, 53, PropertyDataType::PDT_BINARY_INFORMATION, switches);
  for (unsigned p = 0; p < shape.parametersPerFunction; ++p) {
    const std::string type = kParameterTypes[p % 6];
    std::vector<std::uint32_t> values;
    values.reserve(slots);
    for (unsigned k = 0; k < slots; ++k) {
      if (type == "Bool")
        values.push_back((k + p) % 2);
      else if (type == "UInt8")
        values.push_back((k * 7 + p) % 256);
      else if (type == "Float16")
        values.push_back(KnxFloat(18.0 + (k % 50) * 0.5));
      else if (type == "Name")
        values.push_back(functionBase + k * kNameSize);
      else
        values.push_back((k * 31 + p) % 65536);
    }
    b.Add(1, static_cast<std::uint8_t>(100 + p), PdtOf(type), values);
  }

  b.Add(2, 70, PropertyDataType::PDT_BINARY_INFORMATION, {1});
  b.Add(2, 71, PropertyDataType::PDT_UNSIGNED_LONG, {textBase});
  b.Add(2, 72, PropertyDataType::PDT_UNSIGNED_CHAR, {15});

  KnxStack::InterfaceObject* objects[] = {&download->device, &download->functions,
                                          &download->staticData};
  for (auto& plan : b.plans) {
    objects[plan.object]->AddProperty(plan.id, plan.pdt, KnxStack::BinaryData(plan.bytes));
  }
  for (unsigned i = 0; i < 3; ++i) download->objects[i] = {objects[i]};
  download->memory = KnxStack::BinaryData(std::move(memory));
  for (unsigned n = 0; n < slots * 2 && n < 65536; n += 3) {
    download->descriptors[static_cast<std::uint16_t>(n)].communicationEnabled = n % 2 == 0;
  }
  download->script = MakeScript(shape);
  return download;
}

std::string ToDumpJson(const GeneratedDownload& download) {
  std::string json = "{\n  \"interfaceObjects\": [\n";
  const KnxStack::InterfaceObject* objects[] = {&download.device, &download.functions,
                                                &download.staticData};
  for (unsigned i = 0; i < 3; ++i) {
    json += fmt::format("    {{ \"index\": {}, \"properties\": [\n", i);
    bool first = true;
    for (unsigned id = 0; id < 256; ++id) {
      const auto* property = dynamic_cast<const KnxStack::Property*>(objects[i]->GetProperty(id));
      if (property == nullptr) continue;
      std::string hex;
      const auto bytes = property->GetElements().ToVector();
      hex.reserve(bytes.size() * 2);
      for (auto byte : bytes) hex += fmt::format("{:02x}", byte);
      json += fmt::format("{}      {{ \"id\": {}, \"pdt\": \"{}\", \"hex\": \"{}\" }}",
                          first ? "" : ",\n", id, KnxStack::ToString(property->GetDataType()), hex);
      first = false;
    }
    json += fmt::format("\n    ] }}{}\n", i < 2 ? "," : "");
  }
  json += "  ],\n  \"memory\": { \"blocks\": [ { \"address\": 0, \"hex\": \"";
  const auto memory = download.memory.ToVector();
  for (auto byte : memory) json += fmt::format("{:02x}", byte);
  json += "\" } ] },\n  \"coDescriptors\": [\n";
  bool first = true;
  for (const auto& [number, descriptor] : download.descriptors) {
    json += fmt::format("{}    {{ \"number\": {}, \"enabled\": {} }}", first ? "" : ",\n", number,
                        descriptor.communicationEnabled);
    first = false;
  }
  json += "\n  ]\n}\n";
  return json;
}

}  // namespace lkdh::bench
