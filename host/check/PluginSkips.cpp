#include "PluginSkips.h"

#include <LuaKnxDownloadHandler/ScriptFunctions.h>

#include <log4cplus/spi/loggingevent.h>

#include <cstddef>
#include <map>
#include <mutex>
#include <regex>
#include <utility>

namespace lkdh::host {

namespace {

using Korvex::luaknxdownloadhandler::kSkipReasons;
using Korvex::luaknxdownloadhandler::SkipReason;
using Korvex::luaknxdownloadhandler::SkipReasonText;

using Korvex::luaknxdownloadhandler::kUrnSelectorSubject;

constexpr const char* kPluginLogger = "KnxDownloadHandler";
const char* const kSubjects[] = {"parameter", "record", "setting", kUrnSelectorSubject};

}  // namespace

std::optional<PluginSkip> ParsePluginSkip(const std::string& message) {
  // The reason stands after the first "': " that is followed by one.
  std::size_t at = std::string::npos;
  PluginSkip skip;
  for (const SkipReason reason : kSkipReasons) {
    const std::string marker = std::string("': ") + SkipReasonText(reason) + ": ";
    const std::size_t found = message.find(marker);
    if (found < at) {
      at = found;
      skip.reason = reason;
      skip.detail = message.substr(found + marker.size());
    }
  }
  if (at == std::string::npos) return std::nullopt;
  const std::string head = message.substr(0, at);
  std::size_t subjectAt = std::string::npos;
  for (const char* subject : kSubjects) {
    const std::size_t found = head.find(std::string(", ") + subject + " '");
    if (found < subjectAt) {
      subjectAt = found;
      skip.subject = subject;
    }
  }
  if (subjectAt == std::string::npos) return std::nullopt;
  skip.slot = head.substr(0, subjectAt);
  skip.key = head.substr(subjectAt + skip.subject.size() + 4);
  return skip;
}

class PluginSkipCapture::Appender : public log4cplus::Appender {
 public:
  Appender(log4cplus::Logger parent, log4cplus::LogLevel passOn)
      : m_parent(std::move(parent)), m_passOn(passOn) {
    setName(LOG4CPLUS_TEXT("check-script-plugin-skips"));
  }
  ~Appender() override { destructorImpl(); }
  void close() override {}

  std::vector<PluginSkip> Skips() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_skips;
  }

 protected:
  void append(const log4cplus::spi::InternalLoggingEvent& event) override {
    if (event.getLogLevel() == log4cplus::TRACE_LOG_LEVEL) {
      if (auto skip = ParsePluginSkip(event.getMessage())) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_skips.push_back(std::move(*skip));
      }
    }
    if (event.getLogLevel() >= m_passOn) m_parent.callAppenders(event);
  }

 private:
  log4cplus::Logger m_parent;
  log4cplus::LogLevel m_passOn;
  mutable std::mutex m_mutex;
  std::vector<PluginSkip> m_skips;
};

PluginSkipCapture::PluginSkipCapture()
    : m_logger(log4cplus::Logger::getInstance(kPluginLogger)),
      m_ownLevel(m_logger.getLogLevel()),
      m_additive(m_logger.getAdditivity()),
      m_raw(new Appender(m_logger.getParent(), m_logger.getChainedLogLevel())),
      m_appender(m_raw) {
  m_logger.addAppender(m_appender);
  m_logger.setAdditivity(false);
  m_logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

PluginSkipCapture::~PluginSkipCapture() {
  m_logger.setLogLevel(m_ownLevel);
  m_logger.setAdditivity(m_additive);
  m_logger.removeAppender(m_appender);
}

std::vector<PluginSkip> PluginSkipCapture::Skips() const { return m_raw->Skips(); }

void AddPluginSkipFindings(const std::vector<PluginSkip>& skips, const ScriptKnowledge& knowledge,
                           FindingList& findings) {
  static const std::regex kFunctionId(R"(^folder \d+/function \d+ \(functionId (\d+)\)$)");
  static const std::regex kRecord(R"(^static data '(.*)'$)");
  static const std::regex kIndex(R"(, none at index \d+)");
  for (const PluginSkip& skip : skips) {
    Finding finding;
    if (skip.reason == SkipReason::NarrowProperty) {
      finding.severity = Severity::Error;
    } else if (skip.reason == SkipReason::WideProperty ||
               skip.reason == SkipReason::MissingElement) {
      finding.severity = Severity::Warning;
    } else {
      continue;  // the check reads the tables with the same readers, or it is no flaw
    }
    std::smatch match;
    if (std::regex_match(skip.slot, match, kFunctionId)) {
      const auto slot = static_cast<std::uint32_t>(std::stoul(match[1].str()) - 1);
      const auto type = knowledge.slotChannelTypes.find(slot);
      finding.call = Korvex::luaknxdownloadhandler::script::kGetParameters;
      if (type != knowledge.slotChannelTypes.end()) finding.arguments = {type->second};
    } else {
      finding.call = Korvex::luaknxdownloadhandler::script::kGetStaticData;
      if (std::regex_match(skip.slot, match, kRecord))
        finding.where = ", entry '" + match[1].str() + "'";
    }
    finding.where += ", " + skip.subject + " '" + skip.key + "'";
    // The slot's index varies along the slots of one channel type; the flaw does not.
    const std::string detail =
        skip.reason == SkipReason::MissingElement
            ? std::regex_replace(skip.detail, kIndex, ", fewer than its slots need")
            : skip.detail;
    finding.message = std::string(SkipReasonText(skip.reason)) + ": " + detail;
    const auto definition = knowledge.definitions.find(finding.call);
    if (definition != knowledge.definitions.end()) {
      finding.file = definition->second.file;
      const int keyLine = LineNamingKey(finding.file, skip.key);
      finding.line = keyLine != 0 ? keyLine : definition->second.line;
    }
    findings.Add(finding);
  }
}

}  // namespace lkdh::host
