#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <LuaKnxDownloadHandler/Diagnostics.h>
#include <LuaKnxDownloadHandler/EtsXml.h>
#include <LuaKnxDownloadHandler/FileHash.h>

#include "HandlerLimits.h"

#include <Helper/File.h>

#include <log4cplus/loggingmacros.h>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/optional.hpp>

#include <utility>
#include <vector>

namespace Korvex {

log4cplus::Logger s_logger = log4cplus::Logger::getInstance("KnxDownloadHandler");

namespace {

// Logs a caught exception at ERROR without throwing: a download that failed for
// lack of memory may lack the memory to say so too. The line is made whole
// before it is logged, so that it is never cut short; when that fails, it is
// tried again (memory may have come free meanwhile), and last the fixed part alone.
void LogCaught(const char* head, const char* what) noexcept {
  for (int attempt = 0; attempt < 3; ++attempt) {
    try {
      std::string line(head);
      line += what;
      LOG4CPLUS_ERROR_STR(s_logger, line);
      return;
    } catch (...) {
    }
  }
  try {
    LOG4CPLUS_ERROR_STR(s_logger, head);
  } catch (...) {
    // Nothing more can be said; the result false still tells the host.
  }
}

// The bridge as one document build uses it: the diagnostics sink (or none) and
// the calls watched by the CPU-time tick. End() gives both back, on every way
// out, before the file is touched.
class BuildScope {
 public:
  BuildScope(luaknxdownloadhandler::LuxHelper& luxHelper, luaknxdownloadhandler::Diagnostics* sink)
      : m_luxHelper(luxHelper) {
    m_luxHelper.SetDiagnostics(sink);
    if (!m_luxHelper.BeginWatchedCalls() && m_luxHelper.GetInstructionLimit() != 0) {
      LOG4CPLUS_TRACE(s_logger,
                      "Script calls are counted at every instruction: no CPU-time "
                      "tick for this download.");
    }
  }
  ~BuildScope() { End(); }
  BuildScope(const BuildScope&) = delete;
  BuildScope& operator=(const BuildScope&) = delete;
  void End() noexcept {
    m_luxHelper.EndWatchedCalls();
    m_luxHelper.SetDiagnostics(nullptr);
  }

 private:
  luaknxdownloadhandler::LuxHelper& m_luxHelper;
};

}  // namespace

LuaKnxDownloadHandler::LuaKnxDownloadHandler(const std::string& configuration) {
  // Before the script's top level runs: it runs under the same limits as every call.
  const luaknxdownloadhandler::HandlerLimits limits = luaknxdownloadhandler::ReadHandlerLimits();
  m_maxDocumentBytes = limits.maxDocumentBytes;
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
    try {
      LOG4CPLUS_DEBUG(s_logger, "CreateFileWithKnxData: CO count with enabled communication flag: "
                                    << coDescriptors.size());
    } catch (...) {
      // Only a lack of memory fails it; the download itself will tell whether there is enough.
    }
  }
  if (interfaceObjects.empty()) {
    return false;
  }

  try {
    // Asked once per download: without TRACE the readers and the builder tell no one.
    boost::optional<luaknxdownloadhandler::LogDiagnostics> diagnostics;
    if (s_logger.isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) diagnostics.emplace(s_logger);
    luaknxdownloadhandler::Diagnostics* sink = diagnostics ? &*diagnostics : nullptr;
    BuildScope build(m_luxHelper, sink);
    luaknxdownloadhandler::EtsXml etsXml(interfaceObjects, memory, coDescriptors, &s_logger,
                                         &m_luxHelper);
    etsXml.SetDiagnostics(sink);
    etsXml.SetMaxDocumentBytes(m_maxDocumentBytes);
    boost::optional<std::string> document = etsXml.Create();
    build.End();  // no tick interrupts the file's system calls
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
      // Read in pieces and only if it is a regular file: a FIFO cannot stall the download
      // and a huge file cannot exhaust memory.
      Helper::File::FileReader saved;
      Helper::File::FileError readError;
      bool same = false;
      if (!saved.Open(path, readError) || !detail::SameContent(saved, *document, same, readError)) {
        // An existing file we cannot read is left alone rather than overwritten.
        LOG4CPLUS_ERROR(s_logger, "Failed to read file '" << m_etsProjectPath << "'.");
        LOG4CPLUS_ERROR(s_logger, readError);
        return false;
      }
      if (same) {
        LOG4CPLUS_DEBUG(s_logger, "etsproject is same with saved etsproject.");
        return false;
      }
    }

    LOG4CPLUS_INFO(s_logger, "save new etsproject. Path: " << m_etsProjectPath);
    static_assert(static_cast<int>(Helper::File::WriteFileMode::Replace) == 1,
                  "the project file is always replaced whole");
    Helper::File::FileError writeError;
    if (!Helper::File::write_file(path, *document, Helper::File::WriteFileMode::Replace,
                                  writeError)) {
      LOG4CPLUS_ERROR(s_logger, "Failed to write file '" << m_etsProjectPath << "'.");
      LOG4CPLUS_ERROR(s_logger, writeError);
      return false;
    }

    // The host's reset may be heavy; the document is no longer needed.
    document = boost::none;
    resetUserData();
    return true;
  } catch (const boost::filesystem::filesystem_error& e) {
    LogCaught("LuaKnxDownloadHandler::CreateFileWithKnxData filesystem_error exception: ",
              e.what());
  } catch (const std::exception& e) {
    LogCaught("LuaKnxDownloadHandler::CreateFileWithKnxData exception: ", e.what());
  } catch (...) {
    LogCaught("LuaKnxDownloadHandler::CreateFileWithKnxData unknown exception: ", "");
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
