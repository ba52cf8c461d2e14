#include <LuaKnxDownloadHandler/Version.h>

// LKDH_VERSION comes from the build: the project's version.
extern "C" const char* LuaKnxDownloadHandlerVersion() { return LKDH_VERSION; }
