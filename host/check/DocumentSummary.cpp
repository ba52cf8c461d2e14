#include "DocumentSummary.h"

#include "PluginLoader.h"

#include <Korvex/IKnxDownloadHandler.h>
#include <LuaKnxDownloadHandler/ValueTypes.h>

#include <pugixml.hpp>

#include <stdlib.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace lkdh::host {

namespace {

namespace fs = std::filesystem;

// A private scratch directory, removed with everything in it.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    std::string pattern = (fs::temp_directory_path() / "knx-download-host-check-XXXXXX").string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("cannot create a scratch directory from " + pattern + ": " +
                               std::strerror(errno));
    }
    m_path = name.data();
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const fs::path& Path() const noexcept { return m_path; }

 private:
  fs::path m_path;
};

bool IsElement(const pugi::xml_node& node) {
  return node.type() == pugi::node_element && std::strcmp(node.name(), "element") == 0;
}

std::string TypeOf(const std::map<std::string, std::string>* types, const std::string& key) {
  if (types == nullptr) return "?";
  const auto found = types->find(key);
  return found != types->end() && !found->second.empty() ? found->second : "?";
}

void CountParameters(const pugi::xml_node& element, const std::map<std::string, std::string>* types,
                     DocumentSummary& summary) {
  for (const pugi::xml_node& parameter : element.child("parameters").children("parameter")) {
    ++summary.parameters;
    ++summary.parameterTypes[TypeOf(types, parameter.attribute("key").value())];
  }
}

void CountStaticRecord(const pugi::xml_node& element, const std::string& parent,
                       const ScriptKnowledge& knowledge, DocumentSummary& summary) {
  ++summary.staticRecords;
  const std::string name = element.attribute("name").value();
  const std::string path = parent.empty() ? name : parent + "/" + name;
  const auto types = knowledge.staticParameterTypes.find(path);
  CountParameters(element, types != knowledge.staticParameterTypes.end() ? &types->second : nullptr,
                  summary);
  for (const pugi::xml_node& nested : element.child("elements").children()) {
    if (IsElement(nested)) CountStaticRecord(nested, path, knowledge, summary);
  }
}

DocumentSummary Summarise(const pugi::xml_document& document, const ScriptKnowledge& knowledge) {
  DocumentSummary summary;
  const pugi::xml_node root = document.child("etsproject");
  for (const pugi::xml_node& element : root.child("elements").children()) {
    if (!IsElement(element)) continue;
    if (std::strcmp(element.attribute("type").value(), "location") != 0) {
      CountStaticRecord(element, "", knowledge, summary);
      continue;
    }
    ++summary.folders;
    for (const pugi::xml_node& function : element.child("elements").children()) {
      if (!IsElement(function)) continue;
      ++summary.functions;
      // functionId is the slot plus 1; the slot's channel type names the parameter list.
      const std::uint32_t slot = function.attribute("functionId").as_uint() - 1;
      const std::map<std::string, std::string>* types = nullptr;
      const auto channelType = knowledge.slotChannelTypes.find(slot);
      if (channelType != knowledge.slotChannelTypes.end()) {
        const auto found = knowledge.functionParameterTypes.find(channelType->second);
        if (found != knowledge.functionParameterTypes.end()) types = &found->second;
      }
      CountParameters(function, types, summary);
    }
  }
  for (const pugi::xml_node& co : root.child("enabledCOs").children("co")) {
    (void)co;
    ++summary.enabledCos;
  }
  return summary;
}

}  // namespace

std::optional<DocumentSummary> SummariseDocument(const std::string& pluginPath,
                                                 const std::string& scriptPath,
                                                 const DownloadDump& dump,
                                                 const ScriptKnowledge& knowledge,
                                                 std::vector<PluginSkip>& skips) {
  const ScratchDirectory scratch;
  const fs::path project = scratch.Path() / "etsproject.xml";
  {
    // Declared before the handler so that the handler is deleted before the library closes.
    PluginLibrary library(pluginPath);
    const Korvex::CreateHandlerFunction createHandler = library.CreateHandler();
    const Korvex::DeleteHandlerFunction deleteHandler = library.DeleteHandler();
    const std::string configuration = project.string() + ";" + scriptPath;
    Korvex::IKnxDownloadHandler* created = nullptr;
    try {
      created = createHandler(configuration);
    } catch (const std::exception& error) {
      throw std::runtime_error(std::string("CreateHandler failed: ") + error.what());
    }
    if (created == nullptr) throw std::runtime_error("CreateHandler returned no handler");
    const HandlerOwner handler(created, deleteHandler);
    if (!handler->Loaded()) {
      throw std::runtime_error("the plug-in's handler is not loaded (configuration '" +
                               configuration + "')");
    }
    const PluginSkipCapture capture;
    handler->CreateFileWithKnxData(
        dump.interfaceObjects, dump.memory, [] {}, Korvex::IKnxDownloadHandler::AppData_ForceWrite,
        dump.coDescriptors);
    skips = capture.Skips();
  }
  std::error_code error;
  if (!fs::exists(project, error)) return std::nullopt;
  pugi::xml_document document;
  const pugi::xml_parse_result parsed = document.load_file(project.c_str());
  if (!parsed) {
    throw std::runtime_error("the written document does not parse: " +
                             std::string(parsed.description()));
  }
  return Summarise(document, knowledge);
}

std::vector<std::string> SummaryLines(const DocumentSummary& summary) {
  const auto count = [](std::size_t number, const char* singular, const char* plural) {
    return std::to_string(number) + " " + (number == 1 ? singular : plural);
  };
  std::vector<std::string> lines;
  lines.push_back(
      "document: " + count(summary.folders, "folder", "folders") + ", " +
      count(summary.functions, "function", "functions") + ", " +
      count(summary.staticRecords, "static-data record", "static-data records") + ", " +
      count(summary.enabledCos, "enabled communication object", "enabled communication objects"));
  std::string parameters = "document: " + count(summary.parameters, "parameter", "parameters") +
                           " of functions and "
                           "static data";
  // In the order of the value types, then whatever the script's tables did not name.
  std::string byType;
  auto remaining = summary.parameterTypes;
  for (const auto& info : Korvex::luaknxdownloadhandler::kValueTypes) {
    const std::string type(info.name);
    const auto found = remaining.find(type);
    if (found == remaining.end()) continue;
    byType += (byType.empty() ? ": " : ", ") + std::to_string(found->second) + " " + type;
    remaining.erase(found);
  }
  for (const auto& [type, number] : remaining) {
    byType += (byType.empty() ? ": " : ", ") + std::to_string(number) + " " +
              (type == "?" ? std::string("of unknown type") : type);
  }
  lines.push_back(parameters + byType);
  return lines;
}

}  // namespace lkdh::host
