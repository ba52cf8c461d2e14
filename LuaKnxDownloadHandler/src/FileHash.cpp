#include <LuaKnxDownloadHandler/FileHash.h>
#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include "Sha1.h"

#include <cstring>
#include <memory>

namespace Korvex::detail {

namespace {

// Reads the rest of the file a piece at a time, handing each piece to consume.
template <typename Consume>
bool ReadPieces(Helper::File::FileReader& reader, Helper::File::FileError& error,
                Consume&& consume) {
  // On the heap: the host may call from a thread with a small stack.
  const std::unique_ptr<char[]> buffer(new char[kFileHashChunk]);
  for (;;) {
    std::size_t got = 0;
    if (!reader.Read(buffer.get(), kFileHashChunk, got, error)) return false;
    if (got == 0) return true;
    consume(buffer.get(), got);
  }
}

}  // namespace

bool CreateFileHash(Helper::File::FileReader& reader, std::vector<std::uint32_t>& hash,
                    Helper::File::FileError& error) {
  Sha1 sha1;
  if (!ReadPieces(reader, error,
                  [&sha1](const char* data, std::size_t size) { sha1.Update(data, size); })) {
    return false;
  }
  const Sha1::Digest digest = sha1.Finish();
  hash.assign(digest.begin(), digest.end());
  return true;
}

bool SameContent(Helper::File::FileReader& reader, std::string_view text, bool& same,
                 Helper::File::FileError& error) {
  if (reader.Size() != text.size()) {
    // Its length alone says it differs; it is read all the same, so that a file
    // that cannot be read is reported and kept, not replaced.
    if (!ReadPieces(reader, error, [](const char*, std::size_t) {})) return false;
    same = false;
    return true;
  }
  // Pieces equal to the text at their place need no hash: equal bytes have equal
  // digests. From the first piece that differs on, both are judged by digest as before.
  std::size_t matched = 0;
  bool differs = false;
  Sha1 fileSha1;
  Sha1 textSha1;
  // The bytes matched so far are the text's: one digest state serves both.
  const auto hashMatchedAndText = [&] {
    fileSha1.Update(text.data(), matched);
    textSha1 = fileSha1;
    textSha1.Update(text.data() + matched, text.size() - matched);
  };
  const auto compare = [&](const char* data, std::size_t size) {
    if (!differs) {
      if (size <= text.size() - matched && std::memcmp(data, text.data() + matched, size) == 0) {
        matched += size;
        return;
      }
      differs = true;
      hashMatchedAndText();
    }
    fileSha1.Update(data, size);
  };
  if (!ReadPieces(reader, error, compare)) return false;
  if (!differs) {
    if (matched == text.size()) {
      same = true;
      return true;
    }
    hashMatchedAndText();  // the file ended early
  }
  same = fileSha1.Finish() == textSha1.Finish();
  return true;
}

}  // namespace Korvex::detail
