#pragma once
// An in-memory download matching data/handler_device.lua.

#include <KnxStack/InterfaceObject.h>
#include <Korvex/IKnxDownloadHandler.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace lkdh::test {

struct HandlerDownload {
  KnxStack::InterfaceObject object;
  Korvex::InterfaceObjectMap objects;
  KnxStack::BinaryData memory;
  Korvex::CoDescriptorDataMap descriptors;
  std::map<int, KnxStack::Property*> properties;

  explicit HandlerDownload(const std::string& folderName = "Living", bool resetUserData = false,
                           bool state = true) {
    using KnxStack::PropertyDataType;
    auto bytes = [](std::vector<std::uint8_t> v) { return KnxStack::BinaryData(std::move(v)); };
    properties[51] = &object.AddProperty(51, PropertyDataType::PDT_UNSIGNED_CHAR, bytes({4}));
    properties[52] = &object.AddProperty(52, PropertyDataType::PDT_UNSIGNED_CHAR, bytes({20}));
    properties[53] = &object.AddProperty(53, PropertyDataType::PDT_UNSIGNED_CHAR, bytes({40}));
    properties[54] = &object.AddProperty(54, PropertyDataType::PDT_UNSIGNED_CHAR, bytes({80}));
    properties[55] = &object.AddProperty(55, PropertyDataType::PDT_BINARY_INFORMATION,
                                         bytes({static_cast<std::uint8_t>(resetUserData ? 1 : 0)}));
    properties[56] = &object.AddProperty(56, PropertyDataType::PDT_UNSIGNED_CHAR, bytes({1}));
    properties[57] =
        &object.AddProperty(57, PropertyDataType::PDT_UNSIGNED_LONG, bytes({0, 0, 0, 0}));
    properties[58] = &object.AddProperty(58, PropertyDataType::PDT_UNSIGNED_CHAR, bytes({1}));
    properties[59] =
        &object.AddProperty(59, PropertyDataType::PDT_UNSIGNED_CHAR, bytes({1, 0, 0, 0}));
    properties[60] =
        &object.AddProperty(60, PropertyDataType::PDT_BINARY_INFORMATION,
                            bytes({static_cast<std::uint8_t>(state ? 1 : 0), 0, 0, 0}));
    objects[0] = {&object};
    memory = KnxStack::BinaryData(folderName + std::string(1, '\0'));
    descriptors[1].communicationEnabled = true;
    descriptors[2].communicationEnabled = false;
  }
};

inline std::string HandlerScriptPath() { return LKDH_TEST_DATA_DIR "/handler_device.lua"; }

}  // namespace lkdh::test
