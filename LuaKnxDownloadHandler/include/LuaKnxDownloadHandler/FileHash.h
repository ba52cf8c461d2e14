#pragma once
// The content hash of a saved file, computed piece by piece so that the file's size
// never decides how much memory the comparison takes.

#include <Helper/File.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Korvex::detail {

/// Bytes read from a file per step of its hash.
constexpr std::size_t kFileHashChunk = 64 * 1024;

/// What CreateHash gives for the rest of the file reader has open, read kFileHashChunk
/// bytes at a time. False, with error telling why, when a read fails.
bool CreateFileHash(Helper::File::FileReader& reader, std::vector<std::uint32_t>& hash,
                    Helper::File::FileError& error);

/// Whether the file reader has open holds exactly a text of textSize bytes whose
/// CreateHash is textHash. Of a file of another size only the first few hundred bytes
/// are read, to be sure it can be read at all.
bool SameContent(Helper::File::FileReader& reader, std::size_t textSize,
                 const std::vector<std::uint32_t>& textHash, bool& same,
                 Helper::File::FileError& error);

}  // namespace Korvex::detail
