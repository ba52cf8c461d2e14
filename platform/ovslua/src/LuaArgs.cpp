#include <ovslua/Lua.h>

#include <charconv>
#include <string>
#include <system_error>
#include <utility>

namespace ovslua {

using Arg = Lua::Args::Arg;

Arg Arg::FromBool(bool value) {
  Arg arg;
  arg.m_kind = Boolean;
  arg.m_value.b = value;
  return arg;
}

Arg Arg::FromInt(std::int64_t value) {
  Arg arg;
  arg.m_kind = Integer;
  arg.m_value.i = value;
  return arg;
}

Arg Arg::FromUnsigned(std::uint64_t value) {
  Arg arg;
  arg.m_kind = Unsigned;
  arg.m_value.u = value;
  return arg;
}

Arg Arg::FromDouble(double value) {
  Arg arg;
  arg.m_kind = Number;
  arg.m_value.d = value;
  return arg;
}

Arg Arg::FromString(std::string value) {
  Arg arg;
  arg.m_kind = String;
  arg.m_text = std::move(value);
  return arg;
}

Arg Arg::OfKind(int kind) {
  Arg arg;
  arg.m_kind = kind;
  return arg;
}

Arg::operator bool() const noexcept {
  switch (m_kind) {
    case Boolean:
      return m_value.b;
    case Integer:
      return m_value.i != 0;
    case Unsigned:
      return m_value.u != 0;
    case Number:
      return m_value.d != 0.0;
    case String:
      return !m_text.empty();
    default:
      return false;
  }
}

Arg::operator std::string() const {
  switch (m_kind) {
    case Boolean:
      return m_value.b ? "true" : "false";
    case Integer:
      return std::to_string(m_value.i);
    case Unsigned:
      return std::to_string(m_value.u);
    case Number: {
      // Shortest text that reads back as the same double: 0.1 stays "0.1".
      char buffer[64];
      const auto result = std::to_chars(buffer, buffer + sizeof buffer, m_value.d);
      if (result.ec != std::errc()) return {};
      return std::string(buffer, result.ptr);
    }
    case String:
      return m_text;
    default:
      return {};
  }
}

Lua::Args& Lua::Args::operator+=(unsigned int& value) { return *this += Arg::FromUnsigned(value); }

Lua::Args& Lua::Args::operator+=(Arg&& arg) {
  m_args[std::to_string(m_args.size())] = std::move(arg);
  return *this;
}

Arg& Lua::Args::operator[](unsigned int position) {
  const auto entry = m_args.find(std::to_string(position));
  if (entry != m_args.end()) return entry->second;
  // A caller may have written into the default entry before; never hand that on.
  m_none = Arg();
  return m_none;
}

const Arg& Lua::Args::operator[](unsigned int position) const {
  const auto entry = m_args.find(std::to_string(position));
  if (entry != m_args.end()) return entry->second;
  // m_none may carry a caller's earlier write; a constant list answers a pristine one.
  static const Arg none;
  return none;
}

}  // namespace ovslua
