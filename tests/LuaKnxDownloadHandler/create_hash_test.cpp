#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Words = std::vector<std::uint32_t>;

TEST(CreateHash, AbcGivesTheFipsDigestWords) {
  EXPECT_EQ(Korvex::CreateHash("abc"),
            (Words{0xa9993e36, 0x4706816a, 0xba3e2571, 0x7850c26c, 0x9cd0d89d}));
}

TEST(CreateHash, EmptyTextGivesTheFipsDigestWords) {
  EXPECT_EQ(Korvex::CreateHash(""),
            (Words{0xda39a3ee, 0x5e6b4b0d, 0x3255bfef, 0x95601890, 0xafd80709}));
}

TEST(CreateHash, TwoBlockMessageOf448BitsGivesTheFipsDigestWords) {
  EXPECT_EQ(Korvex::CreateHash("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            (Words{0x84983e44, 0x1c3bd26e, 0xbaae4aa1, 0xf95129e5, 0xe54670f1}));
}

TEST(CreateHash, OneMillionLettersAGivesTheFipsDigestWords) {
  EXPECT_EQ(Korvex::CreateHash(std::string(1000000, 'a')),
            (Words{0x34aa973c, 0xd4c4daa4, 0xf61eeb2b, 0xdbad2731, 0x6534016f}));
}

TEST(CreateHash, SingleZeroByteIsHashedNotTreatedAsEnd) {
  EXPECT_EQ(Korvex::CreateHash(std::string(1, '\0')),
            (Words{0x5ba93c9d, 0xb0cff93f, 0x52b521d7, 0x420e43f6, 0xeda2784f}));
}

TEST(CreateHash, EmbeddedZeroByteCountsWithTheBytesAfterIt) {
  const std::string text("a\0b", 3);
  EXPECT_EQ(Korvex::CreateHash(text),
            (Words{0x4a3dec2d, 0x1f824528, 0x0855c42d, 0xb0ee4239, 0xf917fdb8}));
  EXPECT_NE(Korvex::CreateHash(text), Korvex::CreateHash("a"));
}

TEST(CreateHash, AlwaysFiveWords) { EXPECT_EQ(Korvex::CreateHash("x").size(), 5U); }

}  // namespace
