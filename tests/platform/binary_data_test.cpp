#include <KnxStack/BinaryData.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using KnxStack::BinaryData;

constexpr std::size_t kMax = std::numeric_limits<std::size_t>::max();

BinaryData Bytes(std::vector<std::uint8_t> bytes) { return BinaryData(std::move(bytes)); }

TEST(BinaryData, DefaultConstructedIsEmptyAndReadsZero) {
  const BinaryData data;
  EXPECT_TRUE(data.IsEmpty());
  EXPECT_EQ(data.GetSize(), 0u);
  EXPECT_EQ(data.GetData(), nullptr);
  EXPECT_EQ(data.GetUInt8Value(0), 0u);
  EXPECT_EQ(data.GetUInt16Value(0), 0u);
  EXPECT_EQ(data.GetUInt32Value(0), 0u);
  EXPECT_EQ(data.GetStringValue(0), "");
  EXPECT_TRUE(data.GetRange(0, 10).IsEmpty());
  EXPECT_TRUE(data.ToVector().empty());
}

TEST(BinaryData, ConstructorsKeepEveryByteIncludingZeros) {
  const std::vector<std::uint8_t> bytes{0x00, 0x41, 0x00, 0xFF};
  const BinaryData fromVector(bytes);
  const BinaryData fromPointer(bytes.data(), bytes.size());
  const BinaryData fromString(std::string("\0A\0\xFF", 4));
  EXPECT_EQ(fromVector.ToVector(), bytes);
  EXPECT_EQ(fromPointer.ToVector(), bytes);
  EXPECT_EQ(fromString.ToVector(), bytes);
  EXPECT_EQ(fromVector.GetSize(), 4u);
  EXPECT_FALSE(fromVector.IsEmpty());
  ASSERT_NE(fromVector.GetData(), nullptr);
  EXPECT_EQ(fromVector.GetData()[1], 0x41);
}

TEST(BinaryData, PointerConstructorCopiesTheCallersBytes) {
  std::uint8_t bytes[] = {1, 2, 3};
  const BinaryData data(bytes, sizeof bytes);
  bytes[0] = 9;
  EXPECT_EQ(data.GetUInt8Value(0), 1u);
}

TEST(BinaryData, NullPointerWithZeroSizeIsEmpty) {
  const BinaryData data(nullptr, 0);
  EXPECT_TRUE(data.IsEmpty());
}

TEST(BinaryData, NullPointerWithNonZeroSizeIsRejected) {
  EXPECT_THROW(BinaryData(nullptr, 5), std::invalid_argument);
}

TEST(BinaryData, MultiByteValuesAreBigEndian) {
  const BinaryData data = Bytes({0x12, 0x34, 0x56, 0x78, 0x9A});
  EXPECT_EQ(data.GetUInt8Value(0), 0x12u);
  EXPECT_EQ(data.GetUInt8Value(4), 0x9Au);
  EXPECT_EQ(data.GetUInt16Value(0), 0x1234u);
  EXPECT_EQ(data.GetUInt16Value(1), 0x3456u);
  EXPECT_EQ(data.GetUInt16Value(3), 0x789Au);
  EXPECT_EQ(data.GetUInt32Value(0), 0x12345678u);
  EXPECT_EQ(data.GetUInt32Value(1), 0x3456789Au);
}

TEST(BinaryData, HighBitValuesAreNotSignExtended) {
  const BinaryData data = Bytes({0xFF, 0xFE, 0xFD, 0xFC});
  EXPECT_EQ(data.GetUInt8Value(0), 0xFFu);
  EXPECT_EQ(data.GetUInt16Value(0), 0xFFFEu);
  EXPECT_EQ(data.GetUInt32Value(0), 0xFFFEFDFCu);
}

TEST(BinaryData, UInt8PastTheEndReadsZero) {
  const BinaryData data = Bytes({0xAA, 0xBB});
  EXPECT_EQ(data.GetUInt8Value(1), 0xBBu);
  EXPECT_EQ(data.GetUInt8Value(2), 0u);
  EXPECT_EQ(data.GetUInt8Value(1000), 0u);
}

TEST(BinaryData, UInt16ReadsTheLastByteFollowedByZero) {
  const BinaryData data = Bytes({0xAA, 0xBB});
  EXPECT_EQ(data.GetUInt16Value(1), 0xBB00u);
  EXPECT_EQ(data.GetUInt16Value(2), 0u);
}

TEST(BinaryData, UInt32ReadsTheBytesLeftFollowedByZeros) {
  const BinaryData data = Bytes({0x11, 0x22, 0x33, 0x44, 0x55});
  EXPECT_EQ(data.GetUInt32Value(2), 0x33445500u);
  EXPECT_EQ(data.GetUInt32Value(3), 0x44550000u);
  EXPECT_EQ(data.GetUInt32Value(4), 0x55000000u);
  EXPECT_EQ(data.GetUInt32Value(5), 0u);
}

TEST(BinaryData, HugeOffsetsReadZeroWithoutWrappingToTheStart) {
  // offset + 1 or + 3 wraps to 0..2 here; a careless bound check would read the first bytes.
  const BinaryData data = Bytes({0xAB, 0xCD, 0xEF, 0x01});
  for (std::size_t offset : {kMax, kMax - 1, kMax - 2, kMax - 3}) {
    EXPECT_EQ(data.GetUInt8Value(offset), 0u) << offset;
    EXPECT_EQ(data.GetUInt16Value(offset), 0u) << offset;
    EXPECT_EQ(data.GetUInt32Value(offset), 0u) << offset;
    EXPECT_EQ(data.GetStringValue(offset), "") << offset;
    EXPECT_TRUE(data.GetRange(offset, 4).IsEmpty()) << offset;
  }
  // Offsets that wrap on a 32-bit target as well.
  for (std::size_t offset : {std::size_t{0xFFFFFFFFu}, std::size_t{0xFFFFFFFDu}}) {
    EXPECT_EQ(data.GetUInt32Value(offset), 0u) << offset;
  }
}

TEST(BinaryData, StringEndsAtTheFirstZeroByte) {
  const BinaryData data(std::string("Hello\0World\0", 12));
  EXPECT_EQ(data.GetStringValue(0), "Hello");
  EXPECT_EQ(data.GetStringValue(2), "llo");
  EXPECT_EQ(data.GetStringValue(5), "");
  EXPECT_EQ(data.GetStringValue(6), "World");
}

TEST(BinaryData, StringWithoutTerminatorEndsAtTheEndOfTheBuffer) {
  const BinaryData data(std::string("Kitchen"));
  EXPECT_EQ(data.GetStringValue(0), "Kitchen");
  EXPECT_EQ(data.GetStringValue(4), "hen");
  EXPECT_EQ(data.GetStringValue(6), "n");
}

TEST(BinaryData, StringPastTheEndIsEmpty) {
  const BinaryData data(std::string("abc"));
  EXPECT_EQ(data.GetStringValue(3), "");
  EXPECT_EQ(data.GetStringValue(100), "");
}

TEST(BinaryData, StringKeepsNonAsciiBytes) {
  const BinaryData data(
      std::string("K\xC3\xBC"
                  "che\0x",
                  8));
  EXPECT_EQ(data.GetStringValue(0),
            "K\xC3\xBC"
            "che");
}

TEST(BinaryData, StringOfARangeStopsAtTheRangeEnd) {
  // The underlying buffer goes on without a zero byte; the range must not.
  const BinaryData data(std::string("LivingRoom"));
  EXPECT_EQ(data.GetRange(0, 6).GetStringValue(0), "Living");
  EXPECT_EQ(data.GetRange(6, 2).GetStringValue(0), "Ro");
}

TEST(BinaryData, RangeHoldsTheRequestedBytes) {
  const BinaryData data = Bytes({0, 1, 2, 3, 4, 5, 6, 7});
  const BinaryData range = data.GetRange(2, 3);
  EXPECT_EQ(range.ToVector(), (std::vector<std::uint8_t>{2, 3, 4}));
  EXPECT_EQ(range.GetUInt8Value(0), 2u);
  EXPECT_EQ(range.GetUInt16Value(1), 0x0304u);
}

TEST(BinaryData, RangeReadsPastItsEndAsZeroNotAsTheUnderlyingBuffer) {
  const BinaryData data = Bytes({0x10, 0x20, 0x30, 0x40, 0x50});
  const BinaryData range = data.GetRange(1, 2);
  EXPECT_EQ(range.GetUInt8Value(2), 0u);
  EXPECT_EQ(range.GetUInt16Value(1), 0x3000u);
  EXPECT_EQ(range.GetUInt32Value(0), 0x20300000u);
}

TEST(BinaryData, RangeClipsToTheBytesThatExist) {
  const BinaryData data = Bytes({0, 1, 2, 3, 4});
  EXPECT_EQ(data.GetRange(3, 10).ToVector(), (std::vector<std::uint8_t>{3, 4}));
  EXPECT_EQ(data.GetRange(0, 5).ToVector(), data.ToVector());
  EXPECT_EQ(data.GetRange(4, 1).ToVector(), (std::vector<std::uint8_t>{4}));
}

TEST(BinaryData, RangeStartingAtOrPastTheEndIsEmpty) {
  const BinaryData data = Bytes({0, 1, 2});
  EXPECT_TRUE(data.GetRange(3, 1).IsEmpty());
  EXPECT_TRUE(data.GetRange(50, 1).IsEmpty());
  EXPECT_TRUE(data.GetRange(1, 0).IsEmpty());
}

TEST(BinaryData, RangeWithAddressPlusLengthOverflowingClipsInsteadOfWrapping) {
  const BinaryData data = Bytes({0, 1, 2, 3, 4});
  EXPECT_EQ(data.GetRange(2, kMax).ToVector(), (std::vector<std::uint8_t>{2, 3, 4}));
  EXPECT_EQ(data.GetRange(4, kMax - 2).ToVector(), (std::vector<std::uint8_t>{4}));
  EXPECT_TRUE(data.GetRange(kMax, kMax).IsEmpty());
  EXPECT_TRUE(data.GetRange(kMax, 2).IsEmpty());
}

TEST(BinaryData, RangeSharesStorageWithItsSource) {
  const BinaryData data = Bytes({0, 1, 2, 3, 4, 5});
  const BinaryData range = data.GetRange(2, 3);
  ASSERT_NE(range.GetData(), nullptr);
  EXPECT_EQ(range.GetData(), data.GetData() + 2);
}

TEST(BinaryData, NestedRangesShareStorageAndKeepTheirOffsets) {
  const BinaryData data = Bytes({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
  const BinaryData outer = data.GetRange(3, 6);    // 3..8
  const BinaryData inner = outer.GetRange(2, 10);  // 5..8, clipped to the outer range
  EXPECT_EQ(inner.GetData(), data.GetData() + 5);
  EXPECT_EQ(inner.ToVector(), (std::vector<std::uint8_t>{5, 6, 7, 8}));
  EXPECT_TRUE(outer.GetRange(6, 1).IsEmpty());
}

TEST(BinaryData, CopiesShareStorage) {
  const BinaryData data = Bytes({7, 8, 9});
  const BinaryData copy = data;
  EXPECT_EQ(copy.GetData(), data.GetData());
  EXPECT_EQ(copy, data);
}

TEST(BinaryData, RangeOutlivesItsSource) {
  BinaryData range;
  {
    const BinaryData data(std::string("temporary buffer"));
    range = data.GetRange(10, 6);
  }
  EXPECT_EQ(range.GetStringValue(0), "buffer");
}

TEST(BinaryData, EqualityComparesContentNotStorage) {
  const BinaryData a = Bytes({1, 2, 3});
  const BinaryData b = Bytes({1, 2, 3});
  const BinaryData c = Bytes({1, 2, 4});
  const BinaryData shorter = Bytes({1, 2});
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
  EXPECT_TRUE(a != c);
  EXPECT_TRUE(a != shorter);
  EXPECT_TRUE(Bytes({9, 1, 2, 3}).GetRange(1, 3) == a);
  EXPECT_TRUE(BinaryData() == a.GetRange(3, 1));
  EXPECT_TRUE(BinaryData() == BinaryData(std::vector<std::uint8_t>{}));
}

}  // namespace
