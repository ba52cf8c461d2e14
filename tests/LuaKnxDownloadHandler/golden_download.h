#pragma once
// The download of the golden documents: the interface objects, property values,
// memory image and descriptors that both the fake-bridge golden test and the
// description-script golden test build from. Which property means what is the
// bridge's or the script's business (data/golden_device.lua). Object 0: limits
// and device settings; object 1: folders; object 2: function slots (four per
// folder); object 3: static data.

#include "ets_xml_test_support.h"

#include <string>
#include <vector>

namespace lkdh::test {

inline void GoldenLimits(Download& download) {
  download.UInt8s(0, 11, {4});   // functions per folder
  download.UInt8s(0, 12, {16});  // name characters
  download.UInt8s(0, 13, {24});  // text characters
  download.UInt8s(0, 14, {32});  // URL characters
}

inline void GoldenDeviceSettings(Download& download) {
  download.Bools(0, 30, {1});
  download.Bools(0, 31, {0});
  download.Bools(0, 32, {1});
  download.Bools(0, 33, {1});
  download.Bools(0, 34, {0});
  download.UInt8s(0, 35, {0});  // DCS type 0 with the floor call on: the script is told 10
  download.Bools(0, 36, {1});
  download.UInt32s(0, 37, {download.Put("  Front door  ")});
  download.UInt8s(0, 38, {3});
  download.Bools(0, 39, {1});
  download.Bools(0, 40, {0});
  download.Bools(0, 41, {1});
  download.Bools(0, 42, {1});  // ResetUserData
}

inline void GoldenFolders(Download& download) {
  download.UInt8s(1, 1, {3});
  download.Names(1, 2, {"Living room", "   ", "Kitchen & dining area"});
  download.UInt16s(1, 3, {12, 0, 65535});
  download.Bools(1, 4, {1, 0, 1});
  download.UInt8s(1, 5, {3, 0, 2});
}

inline void GoldenFunctions(Download& download) {
  // Slots 0-2 belong to folder 0, 8-9 to folder 2; slot 2 has no channel type.
  download.UInt8s(2, 1, {1, 2, 0, 0, 0, 0, 0, 0, 3, 4, 0, 0});
  download.Names(2, 2,
                 {"Ceiling light", "", "", "", "", "", "", "", "Blinds", "Thermostat", "", ""});
  download.Bools(2, 10, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  download.Names(2, 11, std::vector<std::string>(12, " "));
  download.UInt8s(2, 12, {200, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  download.UInt8s(2, 13, {0, 0xC8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  download.UInt16s(2, 14, {0, 0xFF38, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  download.UInt32s(2, 15, {0, 0xFFFFFFFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  download.Names(2, 16,
                 {"", "  Free text for the second slot  ", "", "", "", "", "", "", "", "", "", ""});
  download.Names(
      2, 17,
      {"", "http://example.com/cameras/front-door/stream", "", "", "", "", "", "", "", "", "", ""});
  download.Generic20s(2, 18, {"", "GEN-20 value", "", "", "", "", "", "", "", "", "", ""});
  download.UInt16s(2, 19, {0, 0, 0, 0, 0, 0, 0, 0, 0x0C33, 0x0C33, 0, 0},
                   PropertyDataType::PDT_KNX_FLOAT);
  download.UInt32s(2, 20, {0, 0, 0, 0, 0, 0, 0, 0, 0xC1AC0000, 0, 0, 0},
                   PropertyDataType::PDT_FLOAT);
  download.UInt8s(2, 21, {0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0});  // URN selector
}

inline void GoldenStaticData(Download& download) {
  download.Bools(3, 1, {1});
  download.Bools(3, 2, {0});
  download.UInt16s(3, 3, {600});
  download.UInt32s(3, 4, {download.Put("Berlin")});
  download.UInt16s(3, 5, {0x87FF}, PropertyDataType::PDT_KNX_FLOAT);
  download.UInt32s(3, 6, {download.Put("   ")});
}

/// Builds the whole golden download into download, always in the same order,
/// so that the memory image is the same byte for byte.
inline void BuildGoldenDownload(Download& download) {
  GoldenLimits(download);
  GoldenDeviceSettings(download);
  GoldenFolders(download);
  GoldenFunctions(download);
  GoldenStaticData(download);
  download.descriptors[300].communicationEnabled = true;
  download.descriptors[1].communicationEnabled = true;
  download.descriptors[2].communicationEnabled = false;
  download.descriptors[2].writeEnabled = true;
  download.descriptors[7].communicationEnabled = true;
}

}  // namespace lkdh::test
