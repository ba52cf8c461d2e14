#pragma once
// Bounds of the download dump format, shared by its reader and its writer.

#include <cstddef>

namespace lkdh::host {

/// The largest memory image a dump may describe; guards against a typo in a size.
inline constexpr std::size_t kMaxMemorySize = 16U * 1024U * 1024U;

/// The largest property id a download can hold (ids are one byte on the bus).
inline constexpr unsigned kMaxPropertyId = 255;

}  // namespace lkdh::host
