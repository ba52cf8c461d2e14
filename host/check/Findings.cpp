#include "Findings.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <limits>

namespace lkdh::host {

namespace {

const char* SeverityName(Severity severity) {
  switch (severity) {
    case Severity::Error:
      return "error";
    case Severity::Warning:
      return "warning";
    case Severity::Info:
      break;
  }
  return "info";
}

// Every part but the arguments: findings with equal keys differ only in the call's arguments.
std::string KeyOf(const Finding& finding) {
  const char separator = '\x1f';
  return SeverityName(finding.severity) + std::string(1, separator) + finding.file + separator +
         std::to_string(finding.line) + separator + finding.call + separator +
         std::to_string(finding.arguments.size()) + separator + finding.where + separator +
         finding.message;
}

// One argument position: a single value as it is, several as ranges, in braces
// when the call has more than one argument.
std::string ArgumentText(const std::set<std::int64_t>& values, bool several) {
  const std::string text = FormatNumberSet(values);
  return several && values.size() > 1 ? "{" + text + "}" : text;
}

std::string Lower(const std::string& text) {
  std::string lower = text;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

std::size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> previous(b.size() + 1);
  std::vector<std::size_t> current(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) previous[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    current[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t substitution = previous[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      current[j] = std::min({previous[j] + 1, current[j - 1] + 1, substitution});
    }
    std::swap(previous, current);
  }
  return previous[b.size()];
}

}  // namespace

void FindingList::Add(const Finding& finding) {
  const std::string key = KeyOf(finding);
  auto found = m_byKey.find(key);
  if (found == m_byKey.end()) {
    found = m_byKey.emplace(key, m_groups.size()).first;
    Group group;
    group.finding = finding;
    group.arity = finding.arguments.size();
    m_groups.push_back(std::move(group));
  }
  Group& group = m_groups[found->second];
  if (group.arity == 0) return;
  const std::vector<std::int64_t> prefix(finding.arguments.begin(), finding.arguments.end() - 1);
  group.arguments[prefix].insert(finding.arguments.back());
}

void FindingList::Append(const FindingList& other) {
  for (const Group& group : other.m_groups) {
    if (group.arity == 0) {
      Add(group.finding);
      continue;
    }
    Finding finding = group.finding;
    for (const auto& [prefix, lasts] : group.arguments) {
      finding.arguments = prefix;
      finding.arguments.push_back(0);
      for (const std::int64_t last : lasts) {
        finding.arguments.back() = last;
        Add(finding);
      }
    }
  }
}

std::vector<FindingList::Line> FindingList::Render() const {
  std::vector<Line> lines;
  for (const Group& group : m_groups) {
    const Finding& finding = group.finding;
    std::string head;
    if (!finding.file.empty()) {
      head += finding.file;
      if (finding.line > 0) head += ":" + std::to_string(finding.line);
      head += ": ";
    }
    head += SeverityName(finding.severity);
    head += ": ";
    std::string tail = finding.where;
    if (!finding.call.empty() || !finding.where.empty()) tail += ": ";
    tail += finding.message;

    // The argument lists of this finding's line or lines.
    std::vector<std::string> calls;
    if (finding.call.empty()) {
      calls.emplace_back();
    } else if (group.arity == 0) {
      calls.push_back(finding.call + "()");
    } else if (group.arity == 1) {
      calls.push_back(finding.call + "(" + ArgumentText(group.arguments.begin()->second, false) +
                      ")");
    } else if (group.arity == 2) {
      // Channel types that share the same selector values share a line.
      std::map<std::set<std::int64_t>, std::set<std::int64_t>> firstsByLasts;
      for (const auto& [prefix, lasts] : group.arguments) firstsByLasts[lasts].insert(prefix[0]);
      std::map<std::int64_t, std::string> ordered;
      for (const auto& [lasts, firsts] : firstsByLasts) {
        ordered.emplace(*firsts.begin(), finding.call + "(" + ArgumentText(firsts, true) + ", " +
                                             ArgumentText(lasts, true) + ")");
      }
      for (auto& entry : ordered) calls.push_back(std::move(entry.second));
    } else {
      for (const auto& [prefix, lasts] : group.arguments) {
        std::string call = finding.call + "(";
        for (const std::int64_t argument : prefix) call += std::to_string(argument) + ", ";
        calls.push_back(call + ArgumentText(lasts, true) + ")");
      }
    }
    for (const std::string& call : calls) {
      lines.push_back(Line{finding.severity, head + call + tail});
    }
  }
  return lines;
}

std::size_t FindingList::Count(Severity severity) const {
  std::size_t count = 0;
  for (const Line& line : Render()) {
    if (line.severity == severity) ++count;
  }
  return count;
}

std::vector<std::string> FindingList::Lines() const {
  std::vector<std::string> texts;
  for (Line& line : Render()) texts.push_back(std::move(line.text));
  return texts;
}

std::string FormatNumberSet(const std::set<std::int64_t>& numbers) {
  std::string text;
  for (auto it = numbers.begin(); it != numbers.end();) {
    const std::int64_t first = *it;
    std::int64_t last = first;
    auto next = std::next(it);
    while (next != numbers.end() && last != std::numeric_limits<std::int64_t>::max() &&
           *next == last + 1) {
      last = *next;
      ++next;
    }
    if (!text.empty()) text += ", ";
    text += std::to_string(first);
    if (last != first) text += "-" + std::to_string(last);
    it = next;
  }
  return text;
}

std::string ClosestName(const std::string& name, const std::vector<std::string>& candidates) {
  const std::string lowerName = Lower(name);
  for (const std::string& candidate : candidates) {
    if (Lower(candidate) == lowerName) return candidate;
  }
  // A typo is a couple of edits; short names allow fewer before they mean something else.
  const std::size_t allowed = std::max<std::size_t>(2, name.size() / 4);
  std::string best;
  std::size_t bestDistance = allowed + 1;
  for (const std::string& candidate : candidates) {
    const std::size_t distance = EditDistance(lowerName, Lower(candidate));
    if (distance < bestDistance) {
      bestDistance = distance;
      best = candidate;
    }
  }
  return best;
}

std::string CountText(std::size_t count, const std::string& singular) {
  return std::to_string(count) + " " + singular + (count == 1 ? "" : "s");
}

int LineNamingKey(const std::string& file, const std::string& key) {
  std::ifstream source(file);
  if (key.empty() || !source) return 0;
  const std::string quoted = "\"" + key + "\"";
  const std::string single = "'" + key + "'";
  int found = 0;
  int number = 0;
  for (std::string line; std::getline(source, line);) {
    ++number;
    const std::size_t code = line.find_first_not_of(" \t");
    if (code == std::string::npos || line.compare(code, 2, "--") == 0) continue;
    if (line.find(quoted) == std::string::npos && line.find(single) == std::string::npos) continue;
    if (found != 0) return 0;
    found = number;
  }
  return found;
}

}  // namespace lkdh::host
