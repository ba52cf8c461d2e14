#include <LuaKnxDownloadHandler/FileHash.h>

#include <boost/uuid/detail/sha1.hpp>

#include <iterator>
#include <memory>

namespace Korvex::detail {

bool CreateFileHash(Helper::File::FileReader& reader, std::vector<std::uint32_t>& hash,
                    Helper::File::FileError& error) {
  // On the heap: the host may call from a thread with a small stack.
  const std::unique_ptr<char[]> buffer(new char[kFileHashChunk]);
  boost::uuids::detail::sha1 sha1;
  for (;;) {
    std::size_t got = 0;
    if (!reader.Read(buffer.get(), kFileHashChunk, got, error)) return false;
    if (got == 0) break;
    sha1.process_bytes(buffer.get(), got);
  }
  boost::uuids::detail::sha1::digest_type digest;
  sha1.get_digest(digest);
  hash.assign(std::begin(digest), std::end(digest));
  return true;
}

bool SameContent(Helper::File::FileReader& reader, std::size_t textSize,
                 const std::vector<std::uint32_t>& textHash, bool& same,
                 Helper::File::FileError& error) {
  if (reader.Size() != textSize) {
    // Its length alone says it differs; its first piece is still read, so that a file
    // that cannot be read at all is reported as unreadable, not replaced.
    char first[512];
    std::size_t got = 0;
    if (!reader.Read(first, sizeof first, got, error)) return false;
    same = false;
    return true;
  }
  std::vector<std::uint32_t> fileHash;
  if (!CreateFileHash(reader, fileHash, error)) return false;
  same = fileHash == textHash;
  return true;
}

}  // namespace Korvex::detail
