#pragma once
// Captures log4cplus events so that tests can check exact log lines.

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>

#include <mutex>
#include <string>
#include <vector>

namespace lkdh::test {

struct LogLine {
  int level = 0;       // log4cplus level: 10000 DEBUG, 20000 INFO, 40000 ERROR
  std::string logger;  // logger name
  std::string message;
  bool operator==(const LogLine& other) const {
    return level == other.level && logger == other.logger && message == other.message;
  }
};

std::ostream& operator<<(std::ostream& os, const LogLine& line);

/// Attaches a capturing appender to the named loggers for its lifetime and
/// sets them to TRACE; restores their levels and detaches on destruction.
class LogCapture {
 public:
  explicit LogCapture(std::vector<std::string> loggers = {"KnxDownloadHandler", "ovslua"});
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> Lines() const;
  /// Lines at exactly that level.
  std::vector<LogLine> Lines(int level) const;
  /// Messages of every line, in order.
  std::vector<std::string> Messages() const;
  void Clear();

 private:
  class Appender;
  log4cplus::SharedAppenderPtr m_appender;
  Appender* m_raw;
  std::vector<std::string> m_loggers;
  std::vector<int> m_oldLevels;
};

}  // namespace lkdh::test
