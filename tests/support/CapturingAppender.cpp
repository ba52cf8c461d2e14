#include "CapturingAppender.h"

#include <log4cplus/spi/loggingevent.h>

#include <ostream>

namespace lkdh::test {

std::ostream& operator<<(std::ostream& os, const LogLine& line) {
  return os << "{" << line.level << " " << line.logger << " \"" << line.message << "\"}";
}

class LogCapture::Appender : public log4cplus::Appender {
 public:
  Appender() { setName(LOG4CPLUS_TEXT("lkdh-capture")); }
  ~Appender() override { destructorImpl(); }
  void close() override {}

  std::vector<LogLine> Lines() const {
    std::lock_guard<std::mutex> lock(m_linesMutex);
    return m_lines;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(m_linesMutex);
    m_lines.clear();
  }

 protected:
  void append(const log4cplus::spi::InternalLoggingEvent& event) override {
    std::lock_guard<std::mutex> lock(m_linesMutex);
    m_lines.push_back({event.getLogLevel(), event.getLoggerName(), event.getMessage()});
  }

 private:
  mutable std::mutex m_linesMutex;
  std::vector<LogLine> m_lines;
};

LogCapture::LogCapture(std::vector<std::string> loggers)
    : m_raw(new Appender()), m_loggers(std::move(loggers)) {
  m_appender = log4cplus::SharedAppenderPtr(m_raw);
  for (const auto& name : m_loggers) {
    auto logger = log4cplus::Logger::getInstance(name);
    m_oldLevels.push_back(logger.getLogLevel());
    logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
    logger.addAppender(m_appender);
  }
}

LogCapture::~LogCapture() {
  for (std::size_t i = 0; i < m_loggers.size(); ++i) {
    auto logger = log4cplus::Logger::getInstance(m_loggers[i]);
    logger.removeAppender(m_appender);
    logger.setLogLevel(m_oldLevels[i]);
  }
}

std::vector<LogLine> LogCapture::Lines() const { return m_raw->Lines(); }

std::vector<LogLine> LogCapture::Lines(int level) const {
  std::vector<LogLine> result;
  for (auto& line : m_raw->Lines()) {
    if (line.level == level) result.push_back(line);
  }
  return result;
}

std::vector<std::string> LogCapture::Messages() const {
  std::vector<std::string> result;
  for (auto& line : m_raw->Lines()) result.push_back(line.message);
  return result;
}

void LogCapture::Clear() { m_raw->Clear(); }

}  // namespace lkdh::test
