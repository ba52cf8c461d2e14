#pragma once
// Synthetic downloads of any size with a matching description script, for
// benchmarks, fuzzing seeds and scaling tests.

#include <KnxStack/InterfaceObject.h>
#include <Korvex/IKnxDownloadHandler.h>

#include <cstdint>
#include <memory>
#include <string>

namespace lkdh::bench {

struct DownloadShape {
  unsigned folders = 10;               // F, at most 255
  unsigned functionsPerFolder = 16;    // N, at most 255
  unsigned parametersPerFunction = 8;  // P, at most 100
  /// Every showIfEvery-th parameter is shown only when the slot's switch is on.
  unsigned showIfEvery = 4;
};

/// A download the plug-in can take as it is, owning its interface objects.
struct GeneratedDownload {
  DownloadShape shape;
  KnxStack::InterfaceObject device;      // index 0: limits, settings, folder arrays
  KnxStack::InterfaceObject functions;   // index 1: one element per function slot
  KnxStack::InterfaceObject staticData;  // index 2
  Korvex::InterfaceObjectMap objects;
  KnxStack::BinaryData memory;
  Korvex::CoDescriptorDataMap descriptors;
  std::string script;  // the description script's source

  GeneratedDownload() = default;
  GeneratedDownload(const GeneratedDownload&) = delete;
  GeneratedDownload& operator=(const GeneratedDownload&) = delete;
};

std::unique_ptr<GeneratedDownload> GenerateDownload(const DownloadShape& shape);

/// The same download as a JSON download dump for knx-download-host.
std::string ToDumpJson(const GeneratedDownload& download);

}  // namespace lkdh::bench
