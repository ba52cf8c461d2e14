#pragma once
// The content hash of a saved file, computed piece by piece so that the file's size
// never decides how much memory the comparison takes.

#include <Helper/File.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Korvex::detail {

/// Bytes read from a file per step of its hash.
constexpr std::size_t kFileHashChunk = 64 * 1024;

/// What CreateHash gives for the rest of the file reader has open, read kFileHashChunk
/// bytes at a time. False, with error telling why, when a read fails.
bool CreateFileHash(Helper::File::FileReader& reader, std::vector<std::uint32_t>& hash,
                    Helper::File::FileError& error);

/// Whether the file reader has open holds exactly text. A file of another size
/// is still read to its end, unhashed: one that fails part-way is unreadable,
/// and an unreadable saved file is kept, whatever its size. A file of the text's
/// size is compared byte for byte and hashed only from the first piece that differs.
bool SameContent(Helper::File::FileReader& reader, std::string_view text, bool& same,
                 Helper::File::FileError& error);

}  // namespace Korvex::detail
