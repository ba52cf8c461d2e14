#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include "Sha1.h"

namespace Korvex {

std::vector<std::uint32_t> CreateHash(const std::string& text) {
  detail::Sha1 sha1;
  // The whole length: a document never holds zero bytes, but a saved file might.
  sha1.Update(text.data(), text.size());
  const detail::Sha1::Digest digest = sha1.Finish();
  return std::vector<std::uint32_t>(digest.begin(), digest.end());
}

}  // namespace Korvex
