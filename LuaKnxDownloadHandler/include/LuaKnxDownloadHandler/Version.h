#pragma once
// The plug-in's release, readable by a host that loaded it with dlopen:
// dlsym(module, "LuaKnxDownloadHandlerVersion") and call it.

/// The symbol's plain name, for dlsym.
#define LKDH_VERSION_SYMBOL "LuaKnxDownloadHandlerVersion"

extern "C" {

/// The type of the exported function, for the result of dlsym.
typedef const char* (*LuaKnxDownloadHandlerVersionFunction)();

/// "MAJOR.MINOR.PATCH" of this build; static text, never null.
const char* LuaKnxDownloadHandlerVersion();
}
