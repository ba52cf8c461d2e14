#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <boost/uuid/detail/sha1.hpp>

namespace Korvex {

std::vector<std::uint32_t> CreateHash(const std::string& text) {
  boost::uuids::detail::sha1 sha1;
  // The whole length: a document never holds zero bytes, but a saved file might.
  sha1.process_bytes(text.data(), text.size());
  boost::uuids::detail::sha1::digest_type digest;
  sha1.get_digest(digest);
  return std::vector<std::uint32_t>(std::begin(digest), std::end(digest));
}

}  // namespace Korvex
