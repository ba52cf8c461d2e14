// Typed reads of property values, array elements, KNX 2-octet floats and
// memory-image strings.

#include <LuaKnxDownloadHandler/PropertyAccess.h>

#include <KnxStack/InterfaceObject.h>

#include <gtest/gtest.h>
#include <boost/optional/optional_io.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace Korvex::luaknxdownloadhandler;
using KnxStack::BinaryData;
using KnxStack::PropertyDataType;

BinaryData Bytes(std::vector<std::uint8_t> bytes) { return BinaryData(std::move(bytes)); }

class PropertyAccessTest : public ::testing::Test {
 protected:
  PropertyAccessTest() { objects[3] = {&object}; }

  PropertyInfo Add(std::uint8_t pid, PropertyDataType pdt, std::vector<std::uint8_t> bytes) {
    object.AddProperty(pid, pdt, Bytes(std::move(bytes)));
    return {pid, 3};
  }

  KnxStack::InterfaceObject object;
  Korvex::InterfaceObjectMap objects;
};

// --- KNX 2-octet float -------------------------------------------------------

struct RawFloat {
  std::uint16_t raw;
  float expected;  // computed in single precision, as the decoder must
};

class KnxFloatTest : public PropertyAccessTest, public ::testing::WithParamInterface<RawFloat> {};

TEST_P(KnxFloatTest, DecodesWholeValueAndArrayElementInSinglePrecision) {
  const RawFloat& sample = GetParam();
  const auto high = static_cast<std::uint8_t>(sample.raw >> 8);
  const auto low = static_cast<std::uint8_t>(sample.raw & 0xFF);
  const PropertyInfo whole = Add(1, PropertyDataType::PDT_KNX_FLOAT, {high, low});
  const PropertyInfo array = Add(2, PropertyDataType::PDT_KNX_FLOAT, {0x00, 0x01, high, low});

  EXPECT_EQ(DecodeKnxFloat16(sample.raw), sample.expected);
  const auto value = GetFloat16WithId(whole, objects);
  ASSERT_TRUE(value);
  EXPECT_EQ(*value, sample.expected);
  const auto element = GetFloat16FromArrayWithId(array, 1, objects);
  ASSERT_TRUE(element);
  EXPECT_EQ(*element, sample.expected);
}

INSTANTIATE_TEST_SUITE_P(RawValues, KnxFloatTest,
                         ::testing::Values(RawFloat{0x0000, 0.0F},
                                           RawFloat{0x07FF, static_cast<float>(2047) * 0.01F},
                                           RawFloat{0x8000, static_cast<float>(-2048) * 0.01F},
                                           RawFloat{0x0C15, static_cast<float>(2090) * 0.01F},
                                           RawFloat{0x87FF, static_cast<float>(-1) * 0.01F},
                                           RawFloat{0xFFFF, static_cast<float>(-32768) * 0.01F},
                                           RawFloat{0x7FFF, 670760.9375F}));

TEST(KnxFloat, KnownValuesAreTheDecimalsTheyStandFor) {
  EXPECT_FLOAT_EQ(DecodeKnxFloat16(0x07FF), 20.47F);
  EXPECT_FLOAT_EQ(DecodeKnxFloat16(0x8000), -20.48F);
  EXPECT_FLOAT_EQ(DecodeKnxFloat16(0x0C15), 20.9F);
  EXPECT_FLOAT_EQ(DecodeKnxFloat16(0x87FF), -0.01F);
  EXPECT_FLOAT_EQ(DecodeKnxFloat16(0xFFFF), -327.68F);
  // The KNX "invalid" marker is not special: 0.01 x 2047 x 2^15 in single precision.
  EXPECT_EQ(DecodeKnxFloat16(0x7FFF), 670760.9375F);
}

// Published DPT 9 vectors, read from the shared table at test time.
struct Dpt9Vector {
  std::uint16_t raw = 0;
  double value = 0.0;
  std::string line;
};

void PrintTo(const Dpt9Vector& vector, std::ostream* os) { *os << vector.line; }

std::vector<Dpt9Vector> LoadDpt9Vectors() {
  std::vector<Dpt9Vector> vectors;
  std::ifstream file(LKDH_TEST_DATA_DIR "/knx-dpt9-vectors.csv");
  std::string line;
  bool header = true;
  while (std::getline(file, line)) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    if (header) {  // "raw_hex,value,sources"
      header = false;
      continue;
    }
    std::istringstream fields(line);
    std::string raw;
    std::string value;
    std::getline(fields, raw, ',');
    std::getline(fields, value, ',');
    Dpt9Vector vector;
    vector.raw = static_cast<std::uint16_t>(std::stoul(raw, nullptr, 16));
    vector.value = std::stod(value);
    vector.line = raw + "," + value;
    vectors.push_back(vector);
  }
  return vectors;
}

TEST(Dpt9VectorTable, IsReadable) {
  // Guards the parameterised test below against silently running no rows.
  EXPECT_GE(LoadDpt9Vectors().size(), 30U);
}

class Dpt9VectorTest : public ::testing::TestWithParam<Dpt9Vector> {};

TEST_P(Dpt9VectorTest, DecodesWithinTolerance) {
  const Dpt9Vector& vector = GetParam();
  const double decoded = DecodeKnxFloat16(vector.raw);
  const double tolerance = std::max(0.005, std::fabs(vector.value) * std::ldexp(1.0, -22));
  EXPECT_LE(std::fabs(decoded - vector.value), tolerance)
      << "raw " << vector.line << " decoded " << decoded;
}

INSTANTIATE_TEST_SUITE_P(SharedTable, Dpt9VectorTest, ::testing::ValuesIn(LoadDpt9Vectors()));

// --- whole values --------------------------------------------------------------

TEST_F(PropertyAccessTest, BooleanByteTwoReadsTrue) {
  const PropertyInfo whole = Add(1, PropertyDataType::PDT_BINARY_INFORMATION, {2});
  const PropertyInfo zero = Add(2, PropertyDataType::PDT_BINARY_INFORMATION, {0});
  const PropertyInfo array = Add(3, PropertyDataType::PDT_BINARY_INFORMATION, {0, 2});
  EXPECT_EQ(GetBoolWithId(whole, objects), boost::optional<bool>(true));
  EXPECT_EQ(GetBoolWithId(zero, objects), boost::optional<bool>(false));
  EXPECT_EQ(GetBoolFromArrayWithId(array, 1, objects), boost::optional<bool>(true));
  EXPECT_EQ(GetBoolFromArrayWithId(array, 0, objects), boost::optional<bool>(false));
}

TEST_F(PropertyAccessTest, UnsignedValuesAreBigEndian) {
  const PropertyInfo u8 = Add(1, PropertyDataType::PDT_UNSIGNED_CHAR, {200});
  const PropertyInfo u16 = Add(2, PropertyDataType::PDT_UNSIGNED_INT, {0x12, 0x34});
  const PropertyInfo u32 = Add(3, PropertyDataType::PDT_UNSIGNED_LONG, {0xFF, 0xFF, 0xFF, 0xFE});
  EXPECT_EQ(GetUInt8WithId(u8, objects), boost::optional<unsigned char>(200));
  EXPECT_EQ(GetUInt16WithId(u16, objects), boost::optional<unsigned short>(0x1234));
  EXPECT_EQ(GetUInt32WithId(u32, objects), boost::optional<unsigned int>(0xFFFFFFFEU));
}

TEST_F(PropertyAccessTest, FloatIsTheIeeeSingleOfTheBits) {
  const PropertyInfo whole = Add(1, PropertyDataType::PDT_FLOAT, {0x41, 0xAC, 0x00, 0x00});
  const PropertyInfo array =
      Add(2, PropertyDataType::PDT_FLOAT, {0x00, 0x00, 0x00, 0x00, 0xC0, 0x20, 0x00, 0x00});
  EXPECT_EQ(GetFloatWithId(whole, objects), boost::optional<float>(21.5F));
  EXPECT_EQ(GetFloatFromArrayWithId(array, 1, objects), boost::optional<float>(-2.5F));
}

TEST_F(PropertyAccessTest, PropertyInSecondObjectUnderOneIndexIsNotFound) {
  KnxStack::InterfaceObject first;
  KnxStack::InterfaceObject second;
  first.AddProperty(1, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({7}));
  second.AddProperty(2, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({9}));
  objects[5] = {&first, &second};
  EXPECT_EQ(GetUInt8WithId({1, 5}, objects), boost::optional<unsigned char>(7));
  EXPECT_FALSE(GetUInt8WithId({2, 5}, objects));
  EXPECT_FALSE(GetUInt8FromArrayWithId({2, 5}, 0, objects));
  EXPECT_EQ(GetStringWithId({2, 5}, objects, "fallback"), "fallback");
}

TEST_F(PropertyAccessTest, MissingObjectOrPropertyGivesNothing) {
  Add(1, PropertyDataType::PDT_UNSIGNED_CHAR, {1});
  EXPECT_FALSE(GetUInt8WithId({1, 4}, objects));  // no object 4
  EXPECT_FALSE(GetUInt8WithId({2, 3}, objects));  // no property 2
  EXPECT_FALSE(GetBoolWithId({2, 3}, objects));
  EXPECT_FALSE(GetFloat16WithId({2, 3}, objects));
  EXPECT_FALSE(GetUInt16FromArrayWithId({2, 3}, 0, objects));
  EXPECT_EQ(GetStringFromArrayWithId({2, 3}, 0, objects, "fallback"), "fallback");
}

TEST_F(PropertyAccessTest, UnreadablePropertyGivesNothingOrTheFallback) {
  object.AddProperty(2, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({1, 2})).SetReadable(false);
  object.AddProperty(3, PropertyDataType::PDT_VARIABLE_LENGTH, Bytes({'a', 'b'}))
      .SetReadable(false);
  EXPECT_FALSE(GetUInt8WithId({2, 3}, objects));
  EXPECT_FALSE(GetUInt8FromArrayWithId({2, 3}, 1, objects));
  EXPECT_EQ(GetStringWithId({3, 3}, objects, "fallback"), "fallback");
}

TEST_F(PropertyAccessTest, StringWithIdReturnsAnEmptyStringAsItIs) {
  const PropertyInfo empty = Add(1, PropertyDataType::PDT_VARIABLE_LENGTH, {});
  const PropertyInfo zeroFirst = Add(2, PropertyDataType::PDT_GENERIC_04, {0, 'a', 'b', 'c'});
  const PropertyInfo text = Add(3, PropertyDataType::PDT_VARIABLE_LENGTH, {' ', 'h', 'i', ' '});
  EXPECT_EQ(GetStringWithId(empty, objects, "fallback"), "");
  EXPECT_EQ(GetStringWithId(zeroFirst, objects, "fallback"), "");
  // Not trimmed either.
  EXPECT_EQ(GetStringWithId(text, objects, "fallback"), " hi ");
}

// --- array elements ------------------------------------------------------------

TEST_F(PropertyAccessTest, ArrayGettersReadAtIndexTimesElementSize) {
  const PropertyInfo u8 = Add(1, PropertyDataType::PDT_UNSIGNED_CHAR, {10, 20, 30});
  const PropertyInfo u16 =
      Add(2, PropertyDataType::PDT_UNSIGNED_INT, {0x11, 0x11, 0x22, 0x22, 0x33, 0x33});
  const PropertyInfo u32 =
      Add(3, PropertyDataType::PDT_UNSIGNED_LONG, {0, 0, 0, 1, 0xAA, 0xBB, 0xCC, 0xDD});
  std::vector<std::uint8_t> texts(40, 0);
  const std::string second = "second";
  std::copy(second.begin(), second.end(), texts.begin() + 20);
  const PropertyInfo generic = Add(4, PropertyDataType::PDT_GENERIC_20, texts);

  EXPECT_EQ(GetUInt8FromArrayWithId(u8, 2, objects), boost::optional<unsigned char>(30));
  EXPECT_EQ(GetUInt16FromArrayWithId(u16, 2, objects), boost::optional<unsigned short>(0x3333));
  EXPECT_EQ(GetUInt16FromArrayWithId(u16, 1, objects), boost::optional<unsigned short>(0x2222));
  EXPECT_EQ(GetUInt32FromArrayWithId(u32, 1, objects), boost::optional<unsigned int>(0xAABBCCDD));
  EXPECT_EQ(GetStringFromArrayWithId(generic, 1, objects, "fallback"), "second");
  EXPECT_EQ(GetStringFromArrayWithId(generic, 0, objects, "fallback"), "");
  // The whole-value reader of an array reads its first element.
  EXPECT_EQ(GetUInt16WithId(u16, objects), boost::optional<unsigned short>(0x1111));
}

TEST_F(PropertyAccessTest, UnavailableCountGivesNothing) {
  object.AddProperty(1, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({4, 5}))
      .SetCountAvailable(false);
  EXPECT_FALSE(GetUInt8FromArrayWithId({1, 3}, 0, objects));
  EXPECT_EQ(GetStringFromArrayWithId({1, 3}, 0, objects, "fallback"), "fallback");
  // The whole value does not need the count.
  EXPECT_EQ(GetUInt8WithId({1, 3}, objects), boost::optional<unsigned char>(4));
}

TEST_F(PropertyAccessTest, IndexPastTheEndReadsZero) {
  const PropertyInfo u8 = Add(1, PropertyDataType::PDT_UNSIGNED_CHAR, {5, 6});
  const PropertyInfo u32 = Add(2, PropertyDataType::PDT_UNSIGNED_LONG, {1, 2, 3, 4});
  EXPECT_EQ(GetUInt8FromArrayWithId(u8, 5, objects), boost::optional<unsigned char>(0));
  EXPECT_EQ(GetUInt32FromArrayWithId(u32, 1, objects), boost::optional<unsigned int>(0));
  EXPECT_EQ(GetBoolFromArrayWithId(u8, 2, objects), boost::optional<bool>(false));
  EXPECT_EQ(GetStringFromArrayWithId(u8, 9, objects, "fallback"), "");
  EXPECT_EQ(GetUInt8FromArrayWithId(u8, 0xFFFFFFFFU, objects), boost::optional<unsigned char>(0));
}

TEST_F(PropertyAccessTest, EmptyReaderThrows) {
  const PropertyInfo u8 = Add(1, PropertyDataType::PDT_UNSIGNED_CHAR, {5});
  EXPECT_THROW(GetValueWithId<unsigned char>(u8, objects, {}), std::bad_function_call);
  EXPECT_THROW(GetValueFromArrayWithId<unsigned char>(u8, 0, objects, {}), std::bad_function_call);
}

// --- strings in the memory image -----------------------------------------------

TEST_F(PropertyAccessTest, MemoryStringWithMissingAddressIsTheWrongPropertyIdText) {
  const BinaryData memory(std::string("Living\0", 7));
  EXPECT_EQ(GetStringWithIdFromMemory({42, 3}, 20, objects, &memory, "fallback"),
            "ERROR: maybe wrong property id (42), no User should see this!");
  EXPECT_EQ(GetStringFromArrayWithIdFromMemory({7, 3}, 20, 0, objects, &memory, "fallback"),
            "ERROR: maybe wrong property id (7), no User should see this!");
  // The formatter is reused: the second text holds only its own id.
  EXPECT_EQ(GetStringWithIdFromMemory({255, 9}, 20, objects, &memory, "fallback"),
            "ERROR: maybe wrong property id (255), no User should see this!");
}

TEST_F(PropertyAccessTest, MemoryStringIsLimitedAndTrimmed) {
  const BinaryData memory(std::string("xx  Living room  and more\0", 26));
  const PropertyInfo address = Add(1, PropertyDataType::PDT_UNSIGNED_LONG, {0, 0, 0, 2});
  EXPECT_EQ(GetStringWithIdFromMemory(address, 15, objects, &memory, "fallback"), "Living room");
  EXPECT_EQ(GetStringWithIdFromMemory(address, 255, objects, &memory, "fallback"),
            "Living room  and more");
}

TEST_F(PropertyAccessTest, BlankMemoryStringGivesTheFallback) {
  const BinaryData memory(std::string("Name\0 \t  \0", 10));
  const PropertyInfo blank = Add(1, PropertyDataType::PDT_UNSIGNED_LONG, {0, 0, 0, 5});
  const PropertyInfo outside = Add(2, PropertyDataType::PDT_UNSIGNED_LONG, {0, 0, 1, 0});
  EXPECT_EQ(GetStringWithIdFromMemory(blank, 20, objects, &memory, "fallback"), "fallback");
  EXPECT_EQ(GetStringWithIdFromMemory(outside, 20, objects, &memory, "fallback"), "fallback");
  // A limit of 0 reads nothing.
  const PropertyInfo name = Add(3, PropertyDataType::PDT_UNSIGNED_LONG, {0, 0, 0, 0});
  EXPECT_EQ(GetStringWithIdFromMemory(name, 0, objects, &memory, "fallback"), "fallback");
  EXPECT_EQ(GetStringWithIdFromMemory(name, 20, objects, &memory, "fallback"), "Name");
}

TEST_F(PropertyAccessTest, MemoryStringFromArrayUsesTheElementAtIndex) {
  const BinaryData memory(std::string("first\0second\0", 13));
  const PropertyInfo addresses =
      Add(1, PropertyDataType::PDT_UNSIGNED_LONG, {0, 0, 0, 0, 0, 0, 0, 6, 0, 0, 0, 12});
  EXPECT_EQ(GetStringFromArrayWithIdFromMemory(addresses, 20, 0, objects, &memory, "fb"), "first");
  EXPECT_EQ(GetStringFromArrayWithIdFromMemory(addresses, 20, 1, objects, &memory, "fb"), "second");
  EXPECT_EQ(GetStringFromArrayWithIdFromMemory(addresses, 20, 2, objects, &memory, "fb"), "fb");
  // Past the end the address reads 0: the first string.
  EXPECT_EQ(GetStringFromArrayWithIdFromMemory(addresses, 20, 3, objects, &memory, "fb"), "first");
}

TEST(WrongPropertyIdText, IsTheSharedFormatWithTheId) {
  EXPECT_EQ(WrongPropertyIdText(12),
            "ERROR: maybe wrong property id (12), no User should see this!");
  EXPECT_EQ(WrongPropertyIdText(0), "ERROR: maybe wrong property id (0), no User should see this!");
}

}  // namespace
