#pragma once
// Writes a download, as a host hands it to the plug-in, as a download dump: the
// text that the dump reader turns back into the same download.

#include <KnxStack/BinaryData.h>
#include <Korvex/IKnxDownloadHandler.h>

#include <string>

namespace lkdh::host {

/// The dump text (JSON) of a download. Every interface object is asked for
/// property ids 0 to 255; each property is written with the bytes of a
/// whole-value read as "hex" and a datatype of its element size, and with
/// "readable" / "countAvailable" false when those queries fail, so that the
/// plug-in reads the same values, sizes and counts from the dump. Null objects
/// are left out. Throws std::length_error when the memory image is larger than
/// a dump may hold (kMaxMemorySize).
std::string WriteDownloadDump(const Korvex::InterfaceObjectMap& interfaceObjects,
                              const KnxStack::BinaryData& memory,
                              const Korvex::CoDescriptorDataMap& coDescriptors);

}  // namespace lkdh::host
