#pragma once
// What the script bridge's readers and the document builder leave out, or read
// otherwise than the script seems to mean, and why: told to an optional sink,
// so that a support engineer can learn why a parameter is missing.

#include <log4cplus/logger.h>

#include <string>
#include <string_view>

struct lua_State;

namespace Korvex::luaknxdownloadhandler {

enum class SkipReason {
  UnknownField,        // a field no reader knows
  WrongValueType,      // a field whose value is of the wrong Lua type
  UnknownValueType,    // a value type no writer knows
  UnreadableProperty,  // there is no such interface object or property
  MissingElement,      // the array property has no element at the slot's index
  NarrowProperty,      // the property's elements hold fewer bytes than the value type reads
  WideProperty,        // the property's elements hold more bytes than the value type reads
  ShowIfHidden,        // the ShowIf function answered false
  ShowIfFailed,        // the ShowIf function could not be called or raised an error
  RecordDisabled,      // a static-data record whose EnabledProperty is not true
  TextCut,             // a text longer than its character limit
  MissingField,        // a field the record needs is not there
  NumericKey,          // a numeric key in a table with named fields, which aborts the read
  OutOfRange,          // a number of which only the low bits are read
  DuplicateKey,        // two parameters of one list under the same key
  WrongKeyType,        // a key neither string nor number in a table with named fields
};

/// The reason in words, as the TRACE lines give it. Inline: check-script, which
/// may not link the plug-in, reads the plug-in's TRACE lines by these texts.
inline const char* SkipReasonText(SkipReason reason) {
  switch (reason) {
    case SkipReason::UnknownField:
      return "unknown field";
    case SkipReason::WrongValueType:
      return "value of the wrong type";
    case SkipReason::UnknownValueType:
      return "unknown value type";
    case SkipReason::UnreadableProperty:
      return "unreadable property";
    case SkipReason::MissingElement:
      return "no element for the slot";
    case SkipReason::NarrowProperty:
      return "property narrower than the value type";
    case SkipReason::WideProperty:
      return "property wider than the value type";
    case SkipReason::ShowIfHidden:
      return "hidden by ShowIf";
    case SkipReason::ShowIfFailed:
      return "ShowIf failed";
    case SkipReason::RecordDisabled:
      return "record disabled";
    case SkipReason::TextCut:
      return "text cut at its limit";
    case SkipReason::MissingField:
      return "missing field";
    case SkipReason::NumericKey:
      return "numeric key";
    case SkipReason::OutOfRange:
      return "number out of range";
    case SkipReason::DuplicateKey:
      return "key given twice";
    case SkipReason::WrongKeyType:
      return "key of the wrong type";
  }
  return "skipped";
}

/// Every reason, in the order above.
inline constexpr SkipReason kSkipReasons[] = {
    SkipReason::UnknownField,       SkipReason::WrongValueType, SkipReason::UnknownValueType,
    SkipReason::UnreadableProperty, SkipReason::MissingElement, SkipReason::NarrowProperty,
    SkipReason::WideProperty,       SkipReason::ShowIfHidden,   SkipReason::ShowIfFailed,
    SkipReason::RecordDisabled,     SkipReason::TextCut,        SkipReason::MissingField,
    SkipReason::NumericKey,         SkipReason::OutOfRange,     SkipReason::DuplicateKey,
    SkipReason::WrongKeyType};

/// The subject of the URN selector's reports; check-script tells it by this text.
inline constexpr char kUrnSelectorSubject[] = "URN selector of channel type";

/// One thing skipped: of which kind ("parameter", "record", "setting"), under
/// which key, and why in words; for a field of the record, its path in the
/// record ("Property.PropertyId", "ShowIf.PropertyIds[2].Type"), or of the
/// table a note about a key names; a parameter without Key has its place in
/// the list before it ("[4].Type", "[4]").
struct Skip {
  SkipReason reason = SkipReason::UnknownField;
  std::string_view subject;
  std::string_view key;
  std::string_view detail;
  std::string_view field{};
};

/// A Lua value as notes and check-script findings show it: its type, and what
/// it holds when that is short ("a float (53.0)", "a string ('Dimmer')", "nil").
/// A number is converted on a copy, so that the value keeps its type.
std::string DescribeLuaValue(lua_State* state, int index);

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
