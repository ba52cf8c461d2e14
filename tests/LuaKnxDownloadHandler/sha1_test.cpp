#include "Sha1.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <boost/uuid/detail/sha1.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::uint32_t>;

// The reference: Boost's uuid SHA-1, which the saved files were compared with before.
Words BoostDigest(const std::string& text) {
  boost::uuids::detail::sha1 sha1;
  sha1.process_bytes(text.data(), text.size());
  boost::uuids::detail::sha1::digest_type digest;
  sha1.get_digest(digest);
  return Words(std::begin(digest), std::end(digest));
}

std::string RandomBytes(std::mt19937& random, std::size_t size) {
  std::uniform_int_distribution<int> byte(0, 255);
  std::string text(size, '\0');
  for (auto& c : text) c = static_cast<char>(byte(random));
  return text;
}

TEST(Sha1, EveryLengthAroundTheBlockAndPaddingBoundariesMatchesBoost) {
  std::mt19937 random(20261123);
  for (std::size_t size = 0; size <= 300; ++size) {
    const std::string text = RandomBytes(random, size);
    ASSERT_EQ(Korvex::CreateHash(text), BoostDigest(text)) << "length " << size;
  }
}

TEST(Sha1, PiecesOfAnySizeGiveTheDigestOfTheWhole) {
  std::mt19937 random(7);
  const std::string text = RandomBytes(random, 5000);
  const Words whole = BoostDigest(text);
  for (std::size_t piece : {1U, 3U, 63U, 64U, 65U, 127U, 4096U}) {
    Korvex::detail::Sha1 sha1;
    for (std::size_t offset = 0; offset < text.size(); offset += piece) {
      sha1.Update(text.data() + offset, std::min(piece, text.size() - offset));
    }
    const auto digest = sha1.Finish();
    EXPECT_EQ(Words(digest.begin(), digest.end()), whole) << "pieces of " << piece;
  }
}

TEST(Sha1, NoBytesAtAllGiveTheDigestOfTheEmptyMessage) {
  Korvex::detail::Sha1 sha1;
  sha1.Update(nullptr, 0);
  const auto digest = sha1.Finish();
  EXPECT_EQ(Words(digest.begin(), digest.end()),
            (Words{0xda39a3ee, 0x5e6b4b0d, 0x3255bfef, 0x95601890, 0xafd80709}));
}

}  // namespace
