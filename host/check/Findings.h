#pragma once
// What the script check found: one finding per flaw, with its place in the
// script. Findings that differ only in the channel type (or selector) they were
// seen for are merged, so a flaw seen for 255 channel types prints as one line.

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace lkdh::host {

enum class Severity { Error, Warning, Info };

struct Finding {
  Severity severity = Severity::Error;
  std::string file;  // empty when no place in a script is known
  int line = 0;      // 0: the file alone
  std::string call;  // the script function as called ("GetStaticData"); empty for none
  std::vector<std::int64_t> arguments;  // the call's arguments; the last one is merged
  std::string where;                    // the part of the answer: ", parameter 'State'"
  std::string message;
};

class FindingList {
 public:
  void Add(const Finding& finding);
  void Append(const FindingList& other);

  /// Printed lines of that severity.
  std::size_t Count(Severity severity) const;
  bool Empty() const noexcept { return m_groups.empty(); }

  /// "FILE:LINE: SEVERITY: CALL(ARGS)WHERE: MESSAGE", in the order in which
  /// each finding was first seen. Repeats for other arguments share a line:
  /// "GetChannelUrnByTypeId(6-255)", "GetChannelUrnByTypeIdAndPropertyIndex({1-3}, {2-255})".
  std::vector<std::string> Lines() const;

 private:
  struct Group {
    Finding finding;  // its arguments are those of the first occurrence
    std::size_t arity = 0;
    /// Each occurrence's arguments but the last, to the last arguments seen with them.
    std::map<std::vector<std::int64_t>, std::set<std::int64_t>> arguments;
  };
  struct Line {
    Severity severity;
    std::string text;
  };
  std::vector<Line> Render() const;

  std::vector<Group> m_groups;
  std::map<std::string, std::size_t> m_byKey;
};

/// The numbers as ascending ranges: "1-3, 5" for {1, 2, 3, 5}.
std::string FormatNumberSet(const std::set<std::int64_t>& numbers);

/// The candidate that name most likely misspells: the same letters in another
/// case, or else the nearest within a few edits; empty when none is close.
std::string ClosestName(const std::string& name, const std::vector<std::string>& candidates);

/// The line of file that names key as a string literal ("Key" or 'Key') outside
/// a comment line, when exactly one line does; 0 otherwise. Where a table entry
/// of the script stands, since Lua keeps no line for a table.
int LineNamingKey(const std::string& file, const std::string& key);

/// "1 error", "2 errors".
std::string CountText(std::size_t count, const std::string& singular);

}  // namespace lkdh::host
