#pragma once
// Test doubles for the document builder: an in-memory download whose property
// lookups are journaled, a recording script bridge whose answers each test
// sets, and a fixture that ties them to an EtsXml.

#include "CapturingAppender.h"

#include <LuaKnxDownloadHandler/EtsXml.h>
#include <LuaKnxDownloadHandler/LuxHelperBase.h>

#include <boost/optional/optional_io.hpp>

#include <KnxStack/InterfaceObject.h>
#include <Korvex/IKnxDownloadHandler.h>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <log4cplus/logger.h>
#include <pugixml.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace lkdh::test {

using KnxStack::PropertyDataType;
using Korvex::luaknxdownloadhandler::EtsXml;
using Korvex::luaknxdownloadhandler::LuaParameter;
using Korvex::luaknxdownloadhandler::LuaParameterShowIf;
using Korvex::luaknxdownloadhandler::LuaParameterShowIfPropertyIds;
using Korvex::luaknxdownloadhandler::LuxHelperBase;
using Korvex::luaknxdownloadhandler::LuxStaticData;
using Korvex::luaknxdownloadhandler::PropertyInfo;

/// What happened, in order: property lookups ("read 0.12") and bridge calls.
using Journal = std::vector<std::string>;

/// An interface object that journals every property lookup.
class JournalingObject final : public KnxStack::IInterfaceObject {
 public:
  JournalingObject(std::uint32_t index, Journal* journal) : m_index(index), m_journal(journal) {}

  const KnxStack::IProperty* GetProperty(std::uint32_t propertyId) const override {
    if (m_journal != nullptr) {
      m_journal->push_back(fmt::format("read {}.{}", m_index, propertyId));
    }
    return m_object.GetProperty(propertyId);
  }

  KnxStack::InterfaceObject& Inner() { return m_object; }

 private:
  std::uint32_t m_index;
  Journal* m_journal;
  KnxStack::InterfaceObject m_object;
};

/// The KNX data of one download, built property by property.
class Download {
 public:
  explicit Download(Journal* journal = nullptr) : m_journal(journal) {
    // Address 0 and its neighbours hold nothing, so a zero address reads "".
    m_memoryBytes.assign(16, 0);
    memory = KnxStack::BinaryData(m_memoryBytes);
  }

  KnxStack::Property& Add(std::uint32_t object, std::uint8_t pid, PropertyDataType pdt,
                          std::vector<std::uint8_t> bytes) {
    return Object(object).AddProperty(pid, pdt, KnxStack::BinaryData(std::move(bytes)));
  }

  PropertyInfo UInt8s(std::uint32_t object, std::uint8_t pid, std::vector<std::uint8_t> values) {
    Add(object, pid, PropertyDataType::PDT_UNSIGNED_CHAR, std::move(values));
    return {pid, object};
  }
  PropertyInfo Bools(std::uint32_t object, std::uint8_t pid, std::vector<std::uint8_t> values) {
    Add(object, pid, PropertyDataType::PDT_BINARY_INFORMATION, std::move(values));
    return {pid, object};
  }
  PropertyInfo UInt16s(std::uint32_t object, std::uint8_t pid,
                       const std::vector<std::uint16_t>& values,
                       PropertyDataType pdt = PropertyDataType::PDT_UNSIGNED_INT) {
    std::vector<std::uint8_t> bytes;
    for (std::uint16_t value : values) {
      bytes.push_back(static_cast<std::uint8_t>(value >> 8));
      bytes.push_back(static_cast<std::uint8_t>(value));
    }
    Add(object, pid, pdt, std::move(bytes));
    return {pid, object};
  }
  PropertyInfo UInt32s(std::uint32_t object, std::uint8_t pid,
                       const std::vector<std::uint32_t>& values,
                       PropertyDataType pdt = PropertyDataType::PDT_UNSIGNED_LONG) {
    std::vector<std::uint8_t> bytes;
    for (std::uint32_t value : values) {
      for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
      }
    }
    Add(object, pid, pdt, std::move(bytes));
    return {pid, object};
  }
  /// 20-byte text elements, zero padded, as a GENERIC_20 property holds them.
  PropertyInfo Generic20s(std::uint32_t object, std::uint8_t pid,
                          const std::vector<std::string>& texts) {
    std::vector<std::uint8_t> bytes;
    for (const std::string& text : texts) {
      std::string element = text.substr(0, 20);
      element.resize(20, '\0');
      bytes.insert(bytes.end(), element.begin(), element.end());
    }
    Add(object, pid, PropertyDataType::PDT_GENERIC_20, std::move(bytes));
    return {pid, object};
  }

  /// Puts text and a terminating zero into the memory image; returns its address.
  std::uint32_t Put(const std::string& text) {
    const auto address = static_cast<std::uint32_t>(m_memoryBytes.size());
    m_memoryBytes.insert(m_memoryBytes.end(), text.begin(), text.end());
    m_memoryBytes.push_back(0);
    memory = KnxStack::BinaryData(m_memoryBytes);
    return address;
  }

  /// An array of memory addresses, one per text.
  PropertyInfo Names(std::uint32_t object, std::uint8_t pid,
                     const std::vector<std::string>& texts) {
    std::vector<std::uint32_t> addresses;
    for (const std::string& text : texts) {
      addresses.push_back(Put(text));
    }
    return UInt32s(object, pid, addresses);
  }

  KnxStack::InterfaceObject& Object(std::uint32_t index) {
    auto& slot = m_objects[index];
    if (!slot) {
      slot = std::make_unique<JournalingObject>(index, m_journal);
      objects[index] = {slot.get()};
    }
    return slot->Inner();
  }

  Korvex::InterfaceObjectMap objects;
  KnxStack::BinaryData memory;
  Korvex::CoDescriptorDataMap descriptors;

 private:
  Journal* m_journal;
  std::vector<std::uint8_t> m_memoryBytes;
  std::map<std::uint32_t, std::unique_ptr<JournalingObject>> m_objects;
};

/// "kind:value" of one ShowIf argument: 1 bool, 2 signed, 3 unsigned, 4 double
/// (shortest text that reads back exactly), 5 quoted string.
inline std::string DescribeArg(const ovslua::Lua::Args::Arg& arg) {
  switch (arg.GetKind()) {
    case 1:
      return std::string("1:") + (arg.GetBool() ? "true" : "false");
    case 2:
      return fmt::format("2:{}", arg.GetInt());
    case 3:
      return fmt::format("3:{}", arg.GetUnsigned());
    case 4:
      return fmt::format("4:{}", arg.GetDouble());
    case 5:
      return "5:\"" + arg.GetText() + "\"";
    default:
      return fmt::format("{}:?", arg.GetKind());
  }
}

/// A script bridge whose answers the test sets and which journals every call.
class FakeLuxHelper final : public LuxHelperBase {
 public:
  explicit FakeLuxHelper(Journal* journal = nullptr) : m_journal(journal) {}

  // Answers.
  std::map<std::string, PropertyInfo> propertyIds;
  std::map<std::uint32_t, PropertyInfo> urnSelectors;  // types whose URNs depend on a property
  std::map<std::uint32_t, std::string> functionUrns;
  std::map<std::uint32_t, std::string> channelUrns;
  std::map<std::pair<std::uint32_t, std::uint32_t>, std::string> functionUrnsByIndex;
  std::map<std::pair<std::uint32_t, std::uint32_t>, std::string> channelUrnsByIndex;
  std::map<std::pair<std::uint32_t, std::uint32_t>, std::string> templateIndices;
  std::map<std::uint32_t, std::vector<LuaParameter>> parameters;
  std::vector<LuxStaticData> staticData;
  std::map<std::int32_t, bool> showIfAnswers;  // unknown references answer false
  bool throwOnParameters = false;

  // Recordings.
  std::vector<std::uint32_t> dcsTypes;
  struct ShowIfCall {
    std::int32_t refId;
    std::vector<std::string> args;  // "key=kind:value" in position order
  };
  std::vector<ShowIfCall> showIfCalls;
  int propertyIdsCalls = 0;
  int staticDataCalls = 0;

  bool IsThereUrnsByPropertyIndex(std::uint32_t typeId) override {
    Note(fmt::format("IsThereUrnsByPropertyIndex({})", typeId));
    return urnSelectors.count(typeId) != 0;
  }
  PropertyInfo GetPropertyIndexForUrns(std::uint32_t typeId) override {
    Note(fmt::format("GetPropertyIndexForUrns({})", typeId));
    const auto it = urnSelectors.find(typeId);
    return it == urnSelectors.end() ? PropertyInfo{} : it->second;
  }
  boost::optional<std::string> GetFunctionUrnByTypeId(std::uint32_t typeId) override {
    Note(fmt::format("GetFunctionUrnByTypeId({})", typeId));
    return Find(functionUrns, typeId);
  }
  boost::optional<std::string> GetChannelUrnByTypeId(std::uint32_t typeId) override {
    Note(fmt::format("GetChannelUrnByTypeId({})", typeId));
    return Find(channelUrns, typeId);
  }
  boost::optional<std::string> GetFunctionUrnByTypeIdAndPropertyIndex(
      std::uint32_t typeId, std::uint32_t propertyIndex) override {
    Note(fmt::format("GetFunctionUrnByTypeIdAndPropertyIndex({}, {})", typeId, propertyIndex));
    return Find(functionUrnsByIndex, std::make_pair(typeId, propertyIndex));
  }
  boost::optional<std::string> GetChannelUrnByTypeIdAndPropertyIndex(
      std::uint32_t typeId, std::uint32_t propertyIndex) override {
    Note(fmt::format("GetChannelUrnByTypeIdAndPropertyIndex({}, {})", typeId, propertyIndex));
    return Find(channelUrnsByIndex, std::make_pair(typeId, propertyIndex));
  }
  boost::optional<std::string> GetLuaTemplateIndexByTypeIdAndPropertyIndex(
      std::uint32_t typeId, std::uint32_t propertyIndex) override {
    Note(fmt::format("GetLuaTemplateIndexByTypeIdAndPropertyIndex({}, {})", typeId, propertyIndex));
    return Find(templateIndices, std::make_pair(typeId, propertyIndex));
  }
  std::vector<LuaParameter> GetParametersFromChannelTypeId(std::uint32_t channelTypeId) override {
    Note(fmt::format("GetParametersFromChannelTypeId({})", channelTypeId));
    if (throwOnParameters) {
      throw std::runtime_error("bridge failure");
    }
    const auto it = parameters.find(channelTypeId);
    return it == parameters.end() ? std::vector<LuaParameter>{} : it->second;
  }
  std::map<std::string, PropertyInfo> GetPropertyIds() override {
    Note("GetPropertyIds()");
    ++propertyIdsCalls;
    return propertyIds;
  }
  std::vector<LuxStaticData> GetStaticData() override {
    Note("GetStaticData()");
    ++staticDataCalls;
    return staticData;
  }
  bool CallShowIfFunction(std::int32_t refId, ovslua::Lua::Args& args) override {
    ShowIfCall call{refId, {}};
    for (unsigned int position = 0; position < args.Count(); ++position) {
      call.args.push_back(std::to_string(position) + "=" + DescribeArg(args[position]));
    }
    Note(fmt::format("CallShowIfFunction({})", refId));
    showIfCalls.push_back(std::move(call));
    const auto it = showIfAnswers.find(refId);
    return it != showIfAnswers.end() && it->second;
  }
  bool HandleDcsType(std::uint32_t dcsType) override {
    Note(fmt::format("HandleDcsType({})", dcsType));
    dcsTypes.push_back(dcsType);
    return true;
  }

 private:
  void Note(std::string call) {
    if (m_journal != nullptr) {
      m_journal->push_back(std::move(call));
    }
  }
  template <typename Map, typename Key>
  static boost::optional<std::string> Find(const Map& map, const Key& key) {
    const auto it = map.find(key);
    return it == map.end() ? boost::none : boost::optional<std::string>(it->second);
  }

  Journal* m_journal;
};

/// A parameter description as the bridge would return it.
inline LuaParameter Param(std::string key, std::string type, PropertyInfo property,
                          std::int32_t digits = 0) {
  LuaParameter parameter;
  parameter.key = std::move(key);
  parameter.type = std::move(type);
  parameter.property = property;
  parameter.digits = digits;
  return parameter;
}

/// The subtree of node as the document writes it (two-space indentation).
inline std::string Print(const pugi::xml_node& node) {
  std::ostringstream stream;
  node.print(stream, "  ", pugi::format_indent);
  return stream.str();
}

/// The children of node, each printed, concatenated.
inline std::string PrintChildren(const pugi::xml_node& node) {
  std::string text;
  for (const pugi::xml_node& child : node.children()) {
    text += Print(child);
  }
  return text;
}

/// A builder over a journaled download and a recording bridge. The limits live
/// in object 0: MaxFunctionPerFolder 11, MaxNameCharCount 12, MaxTextCharCount
/// 13, MaxUrlCharCount 14.
class EtsXmlTest : public ::testing::Test {
 protected:
  void UseLimits(std::uint8_t functions = 10, std::uint8_t name = 20, std::uint8_t text = 40,
                 std::uint8_t url = 60) {
    lux.propertyIds["MaxFunctionPerFolder"] = download.UInt8s(0, 11, {functions});
    lux.propertyIds["MaxNameCharCount"] = download.UInt8s(0, 12, {name});
    lux.propertyIds["MaxTextCharCount"] = download.UInt8s(0, 13, {text});
    lux.propertyIds["MaxUrlCharCount"] = download.UInt8s(0, 14, {url});
  }

  /// Made on first use, after the test has set the download and the answers.
  EtsXml& Builder() {
    if (!m_builder) {
      m_builder = std::make_unique<EtsXml>(download.objects, download.memory, download.descriptors,
                                           &logger, &lux);
    }
    return *m_builder;
  }

  Journal journal;
  Download download{&journal};
  FakeLuxHelper lux{&journal};
  log4cplus::Logger logger = log4cplus::Logger::getInstance("KnxDownloadHandler");
  pugi::xml_document document;

 private:
  std::unique_ptr<EtsXml> m_builder;
};

}  // namespace lkdh::test
