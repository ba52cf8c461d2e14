#pragma once
// The application-program library's descriptor of one communication object.

#include <cstdint>

namespace Korvex::KnxAppPrg {

/// Flags of one communication object as ETS downloaded them. Download handlers
/// read only the first member; the rest mirrors the KNX descriptor's config byte.
struct CoDescriptorData {
  bool communicationEnabled = false;  // must stay first: handlers read only this
  bool readEnabled = false;
  bool writeEnabled = false;
  bool transmitEnabled = false;
  bool updateEnabled = false;
  std::uint8_t priority = 0;
  std::uint8_t valueType = 0;
};

}  // namespace Korvex::KnxAppPrg
