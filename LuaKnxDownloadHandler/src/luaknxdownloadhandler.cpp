#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <LuaKnxDownloadHandler/EtsXml.h>

#include "HandlerLimits.h"

#include <Helper/File.h>

#include <log4cplus/loggingmacros.h>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/operations.hpp>

#include <utility>
#include <vector>

namespace Korvex {

log4cplus::Logger s_logger = log4cplus::Logger::getInstance("KnxDownloadHandler");

LuaKnxDownloadHandler::LuaKnxDownloadHandler(const std::string& configuration) {
  // Before the script's top level runs: it runs under the same limits as every call.
  const luaknxdownloadhandler::HandlerLimits limits =
      luaknxdownloadhandler::HandlerLimits::FromEnvironment();
  m_luxHelper.SetLimits(limits.scriptMaxInstructions, limits.scriptMaxMemory);
  std::vector<std::string> fields;
  boost::algorithm::split(fields, configuration, boost::algorithm::is_any_of(";"));
  if (fields.size() >= 2) {
    m_etsProjectPath = fields[0];
    m_loaded = m_luxHelper.Load(fields[1]);
  }
}

bool LuaKnxDownloadHandler::Loaded() { return m_loaded; }

bool LuaKnxDownloadHandler::CreateFileWithKnxData(const InterfaceObjectMap& interfaceObjects,
                                                  const KnxStack::BinaryData& memory,
                                                  std::function<void()> resetUserData,
                                                  AppData appData,
                                                  const CoDescriptorDataMap& coDescriptors) {
  if (!coDescriptors.empty()) {
    LOG4CPLUS_DEBUG(s_logger, "CreateFileWithKnxData: CO count with enabled communication flag: "
                                  << coDescriptors.size());
  }
  if (interfaceObjects.empty()) {
    return false;
  }

  try {
    luaknxdownloadhandler::EtsXml etsXml(interfaceObjects, memory, coDescriptors, &s_logger,
                                         &m_luxHelper);
    boost::optional<std::string> document = etsXml.Create();
    if (!document) {
      LOG4CPLUS_DEBUG(s_logger, "No etsproject created.");
      return false;
    }

    // Asked on every run, before the file is looked at.
    const bool resetUserDataSetting = etsXml.ProperyValueByName("ResetUserData").value_or(false);

    const boost::filesystem::path path(m_etsProjectPath);
    const boost::filesystem::file_type type = boost::filesystem::status(path).type();
    const bool writeWithoutComparing = type == boost::filesystem::status_error ||
                                       type == boost::filesystem::file_not_found ||
                                       appData == AppData_ForceWrite || resetUserDataSetting;
    if (!writeWithoutComparing) {
      const std::vector<std::uint32_t> newHash = CreateHash(*document);
      std::string saved;
      if (!Helper::File::read_file(path, saved)) {
        // An existing file we cannot read is left alone rather than overwritten.
        LOG4CPLUS_ERROR(s_logger, "Failed to read file '" << m_etsProjectPath << "'.");
        return false;
      }
      if (newHash == CreateHash(saved)) {
        LOG4CPLUS_DEBUG(s_logger, "etsproject is same with saved etsproject.");
        return false;
      }
    }

    LOG4CPLUS_INFO(s_logger, "save new etsproject. Path: " << m_etsProjectPath);
    static_assert(static_cast<int>(Helper::File::WriteFileMode::Replace) == 1,
                  "the project file is always replaced whole");
    if (!Helper::File::write_file(path, *document, Helper::File::WriteFileMode::Replace)) {
      LOG4CPLUS_ERROR(s_logger, "Failed to write file '" << m_etsProjectPath << "'.");
      return false;
    }

    // The host's reset may be heavy; the document is no longer needed.
    document = boost::none;
    resetUserData();
    return true;
  } catch (const boost::filesystem::filesystem_error& e) {
    LOG4CPLUS_ERROR(
        s_logger,
        "LuaKnxDownloadHandler::CreateFileWithKnxData filesystem_error exception: " << e.what());
  } catch (const std::exception& e) {
    LOG4CPLUS_ERROR(s_logger,
                    "LuaKnxDownloadHandler::CreateFileWithKnxData exception: " << e.what());
  } catch (...) {
    LOG4CPLUS_ERROR(s_logger, "LuaKnxDownloadHandler::CreateFileWithKnxData unknown exception: ");
  }
  return false;
}

}  // namespace Korvex

Korvex::IKnxDownloadHandler* CreateHandler(const std::string& configuration) {
  return new Korvex::LuaKnxDownloadHandler(configuration);
}

void DeleteHandler(Korvex::IKnxDownloadHandler*& handler) {
  if (handler == nullptr) {
    return;
  }
  delete handler;
  handler = nullptr;
}
