// The five shared formatter objects. Defined together in this one translation
// unit so that a single static initialiser builds them, in this order, at load.
#include <LuaKnxDownloadHandler/PropertyAccess.h>

namespace Korvex::luaknxdownloadhandler {

boost::format s_folderFormat("Folder %d");
boost::format s_functionFormat("Function %d");
boost::format s_nameNumberFormat("%s %d");
boost::format s_wrongPropertyIdFormat(
    "ERROR: maybe wrong property id (%d), no User should see this!");
boost::format s_floorCallButtonFormat("Floor call button");

}  // namespace Korvex::luaknxdownloadhandler
