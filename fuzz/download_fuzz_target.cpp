// Arbitrary KNX data through a whole download, with the demo device's script
// and a script that uses every value type. Every document written must parse.
#include "FuzzInput.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <KnxStack/InterfaceObject.h>

#include <Helper/File.h>

#include <log4cplus/logger.h>
#include <boost/filesystem/operations.hpp>
#include <pugixml.hpp>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace fs = boost::filesystem;

namespace {

using KnxStack::PropertyDataType;

// The datatypes a device uses for its settings, arrays and addresses.
constexpr PropertyDataType kPdts[] = {
    PropertyDataType::PDT_UNSIGNED_CHAR,   PropertyDataType::PDT_BINARY_INFORMATION,
    PropertyDataType::PDT_UNSIGNED_LONG,   PropertyDataType::PDT_UNSIGNED_INT,
    PropertyDataType::PDT_KNX_FLOAT,       PropertyDataType::PDT_FLOAT,
    PropertyDataType::PDT_GENERIC_20,      PropertyDataType::PDT_CHAR,
    PropertyDataType::PDT_VARIABLE_LENGTH, PropertyDataType::PDT_GENERIC_03,
};

struct Handlers {
  fs::path dir;
  std::unique_ptr<Korvex::LuaKnxDownloadHandler> handlers[2];

  Handlers() {
    // Durability is not under test here, and fsync would hold every run to disk speed.
    Helper::File::detail::FileSystemOps ops{};
    ops.fsync = [](int) { return 0; };
    ops.fsyncDirectory = [](const char*) { return 0; };
    Helper::File::detail::SetFileSystemOps(ops);
    log4cplus::Logger::getInstance("KnxDownloadHandler").setLogLevel(log4cplus::OFF_LOG_LEVEL);
    log4cplus::Logger::getInstance("ovslua").setLogLevel(log4cplus::OFF_LOG_LEVEL);
    dir = fs::temp_directory_path() / fs::unique_path("lkdh-fuzz-%%%%-%%%%");
    fs::create_directories(dir);
    const std::string scripts[] = {LKDH_SOURCE_DIR "/examples/demo/demo.lua",
                                   LKDH_SOURCE_DIR "/fuzz/scripts/all_types.lua"};
    for (int i = 0; i < 2; ++i) {
      handlers[i] = std::make_unique<Korvex::LuaKnxDownloadHandler>(
          (dir / ("etsproject-" + std::to_string(i) + ".xml")).string() + ";" + scripts[i]);
      if (!handlers[i]->Loaded()) std::abort();
    }
  }
  ~Handlers() {
    boost::system::error_code ignored;
    fs::remove_all(dir, ignored);
  }
};

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path.string(), std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Handlers handlers;
  lkdh::fuzz::FuzzInput input(data, size);
  const unsigned which = input.Byte() & 1;

  // Interface objects 0..3, each with up to 32 properties whose ids mostly hit
  // the ones the scripts name.
  KnxStack::InterfaceObject objects[4];
  Korvex::InterfaceObjectMap map;
  const unsigned objectCount = 1 + input.Byte() % 4;
  for (unsigned o = 0; o < objectCount; ++o) {
    const unsigned propertyCount = input.Byte() % 33;
    for (unsigned p = 0; p < propertyCount; ++p) {
      const std::uint8_t raw = input.Byte();
      const std::uint8_t id = raw < 200 ? static_cast<std::uint8_t>(10 + raw % 80) : raw;
      const PropertyDataType pdt = kPdts[input.Byte() % (sizeof kPdts / sizeof kPdts[0])];
      const std::uint32_t elementSize = std::max<std::uint32_t>(1, KnxStack::ElementSize(pdt));
      const unsigned elements = input.Byte() % 20;
      auto bytes = input.Bytes(static_cast<std::size_t>(elements) * elementSize);
      bytes.resize(bytes.size() - bytes.size() % elementSize);
      if (objects[o].GetProperty(id) != nullptr) continue;
      auto& property = objects[o].AddProperty(id, pdt, KnxStack::BinaryData(std::move(bytes)));
      const std::uint8_t flags = input.Byte();
      property.SetReadable((flags & 0x0F) != 0);
      property.SetCountAvailable((flags & 0xF0) != 0);
    }
    map[o].push_back(&objects[o]);
  }

  Korvex::CoDescriptorDataMap descriptors;
  const unsigned descriptorCount = input.Byte() % 8;
  for (unsigned i = 0; i < descriptorCount; ++i) {
    descriptors[input.U16()].communicationEnabled = input.Bit();
  }
  const auto appData = static_cast<Korvex::IKnxDownloadHandler::AppData>(input.Byte() % 3);
  // What is left is the memory image.
  KnxStack::BinaryData memory(input.Bytes(size));

  auto& handler = *handlers.handlers[which];
  const bool written = handler.CreateFileWithKnxData(
      map, memory, [] {}, appData, descriptors);
  if (written) {
    const std::string text = ReadFile(handler.GetEtsProjectPath());
    pugi::xml_document document;
    if (!document.load_buffer(text.data(), text.size(),
                              pugi::parse_default | pugi::parse_declaration)) {
      std::abort();  // a document that does not parse is a finding
    }
    if (std::string(document.document_element().name()) != "etsproject") std::abort();
  }
  return 0;
}
