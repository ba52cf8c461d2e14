#pragma once
// The arguments a ShowIf function gets, read from a value source. Part of the
// script bridge, so that check-script calls a ShowIf function with the very
// arguments a download would pass.

#include <LuaKnxDownloadHandler/Diagnostics.h>
#include <LuaKnxDownloadHandler/LuxRecords.h>
#include <LuaKnxDownloadHandler/ValueSource.h>

#include <ovslua/Lua.h>

#include <string>
#include <vector>

namespace Korvex::luaknxdownloadhandler::detail {

/// The arguments of a ShowIf function: one per entry whose type has a kind,
/// keyed by the running count so that a skipped entry leaves no gap.
ovslua::Lua::Args MakeShowIfArgs(const std::vector<LuaParameterShowIfPropertyIds>& entries,
                                 const ValueSource& source, Diagnostics* diagnostics,
                                 const std::string& key);
ovslua::Lua::Args MakeShowIfArgs(const std::vector<LuaParameterShowIfPropertyIds>& entries,
                                 const ValueSource& source);

}  // namespace Korvex::luaknxdownloadhandler::detail
