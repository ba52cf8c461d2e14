// The five shared formatter objects. Defined together in this one translation
// unit so that a single static initialiser builds them, in this order, at load.
#include "Formats.h"

#include <LuaKnxDownloadHandler/PropertyAccess.h>
#include <LuaKnxDownloadHandler/Rules.h>

namespace Korvex::luaknxdownloadhandler {

boost::format s_folderFormat("Folder %d");
boost::format s_functionFormat("Function %d");
boost::format s_nameNumberFormat("%s %d");
boost::format s_wrongPropertyIdFormat(kWrongPropertyIdFormat);
boost::format s_floorCallButtonFormat("Floor call button");

namespace detail {

namespace {
// Constant-initialised, so it exists before any static initialiser could use it.
std::mutex g_sharedFormatMutex;
}  // namespace

std::mutex& SharedFormatMutex() noexcept { return g_sharedFormatMutex; }

}  // namespace detail

}  // namespace Korvex::luaknxdownloadhandler
