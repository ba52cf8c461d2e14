#pragma once
// Stack helpers shared by the script bridge's queries and its table readers.

#include <lua.hpp>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace Korvex::luaknxdownloadhandler::lux {

/// Puts the interpreter's stack back to the height it had at construction,
/// also when a panic or a reader's exception leaves a query half done.
class StackHeightGuard {
 public:
  explicit StackHeightGuard(lua_State* state) : m_state(state), m_top(lua_gettop(state)) {}
  ~StackHeightGuard() { lua_settop(m_state, m_top); }
  StackHeightGuard(const StackHeightGuard&) = delete;
  StackHeightGuard& operator=(const StackHeightGuard&) = delete;

 private:
  lua_State* m_state;
  int m_top;
};

/// Room for slots more values; Lua grows its stack only on request, so deep or
/// long tables would otherwise write past its end.
inline void EnsureStack(lua_State* state, int slots) {
  if (lua_checkstack(state, slots) == 0) {
    throw std::runtime_error("Lua stack cannot grow by " + std::to_string(slots) +
                             " slots while reading a script table.");
  }
}

/// A table at the top of the stack; anything else reads as an empty table,
/// since lua_next on a non-table is undefined behaviour.
inline bool TableOnTop(lua_State* state) {
  return state != nullptr && lua_gettop(state) > 0 && lua_type(state, -1) == LUA_TTABLE;
}

/// During a traversal: the key at -2 as text, converted in place (a numeric key
/// thereby breaks the traversal); false for a key that is neither string nor number.
inline bool KeyAsText(lua_State* state, std::string_view& key) {
  // One call: lua_tolstring answers null for any other key.
  std::size_t length = 0;
  const char* text = lua_tolstring(state, -2, &length);
  if (text == nullptr) return false;
  key = std::string_view(text, length);
  return true;
}

/// The walk of a list: calls onValue() with each value at -1; its keys are
/// never read, so any table serves, a Lua sequence included. slots: the stack
/// room the walk and its callback need, key and value included.
template <typename OnValue>
void ForEachValue(lua_State* state, int slots, OnValue&& onValue) {
  if (!TableOnTop(state)) return;
  EnsureStack(state, slots);
  lua_pushnil(state);
  while (lua_next(state, -2) != 0) {
    onValue();
    lua_pop(state, 1);
  }
}

/// The walk of a named-field table: calls onField(key) with each value at -1
/// whose key reads as text (converted in place, see KeyAsText), and
/// onOtherKey() with the key at -2 and its value at -1 for any other key,
/// which the walk skips.
template <typename OnOtherKey, typename OnField>
void ForEachField(lua_State* state, int slots, OnOtherKey&& onOtherKey, OnField&& onField) {
  ForEachValue(state, slots, [state, &onOtherKey, &onField] {
    std::string_view key;
    if (KeyAsText(state, key)) {
      onField(key);
    } else {
      onOtherKey();
    }
  });
}

template <typename OnField>
void ForEachField(lua_State* state, int slots, OnField&& onField) {
  ForEachField(
      state, slots, [] {}, std::forward<OnField>(onField));
}

}  // namespace Korvex::luaknxdownloadhandler::lux
