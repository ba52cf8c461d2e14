#pragma once
// What the script bridge's readers and the document builder leave out, or read
// otherwise than the script seems to mean, and why: told to an optional sink,
// so that a support engineer can learn why a parameter is missing.

#include <log4cplus/logger.h>

#include <string>
#include <string_view>

namespace Korvex::luaknxdownloadhandler {

enum class SkipReason {
  UnknownField,        // a field no reader knows
  WrongValueType,      // a field whose value is of the wrong Lua type
  UnknownValueType,    // a value type no writer knows
  UnreadableProperty,  // the property, or its element, cannot be read
  NarrowProperty,      // the property's elements hold fewer bytes than the value type reads
  WideProperty,        // the property's elements hold more bytes than the value type reads
  ShowIfHidden,        // the ShowIf function answered false
  ShowIfFailed,        // the ShowIf function could not be called or raised an error
  RecordDisabled,      // a static-data record whose EnabledProperty is not true
  TextCut,             // a text longer than its character limit
};

/// The reason in words, as the TRACE lines give it.
const char* SkipReasonText(SkipReason reason);

/// One thing skipped: of which kind ("parameter", "record", "setting"), under
/// which key, and why in words.
struct Skip {
  SkipReason reason = SkipReason::UnknownField;
  std::string_view subject;
  std::string_view key;
  std::string_view detail;
};

class Diagnostics {
 public:
  virtual ~Diagnostics() = default;
  /// Where the reports that follow come from ("folder 0/function 2").
  virtual void Enter(std::string_view slot) = 0;
  virtual void Report(const Skip& skip) = 0;
};

/// Writes each report as one TRACE line on the logger: the slot, the subject
/// with its key, the reason and the detail.
class LogDiagnostics final : public Diagnostics {
 public:
  explicit LogDiagnostics(const log4cplus::Logger& logger, std::string slot = "settings");
  void Enter(std::string_view slot) override;
  void Report(const Skip& skip) override;

 private:
  const log4cplus::Logger& m_logger;
  std::string m_slot;
};

}  // namespace Korvex::luaknxdownloadhandler
