#include <KnxStack/InterfaceObject.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using KnxStack::BinaryData;
using KnxStack::InterfaceObject;
using KnxStack::IProperty;
using KnxStack::Property;
using KnxStack::PropertyDataType;

constexpr std::uint32_t kMaxU32 = std::numeric_limits<std::uint32_t>::max();

BinaryData Bytes(std::vector<std::uint8_t> bytes) { return BinaryData(std::move(bytes)); }

TEST(InterfaceObject, FindsPropertiesByIdAndNothingElse) {
  InterfaceObject object;
  object.AddProperty(10, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({1}));
  object.AddProperty(255, PropertyDataType::PDT_UNSIGNED_INT, Bytes({0x12, 0x34}));
  object.AddProperty(0, PropertyDataType::PDT_CHAR, Bytes({7}));
  EXPECT_EQ(object.GetPropertyCount(), 3u);

  const IProperty* ten = object.GetProperty(10);
  ASSERT_NE(ten, nullptr);
  EXPECT_EQ(ten->GetId(), 10u);
  const IProperty* last = object.GetProperty(255);
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->GetId(), 255u);
  ASSERT_NE(object.GetProperty(0), nullptr);
  EXPECT_EQ(object.GetProperty(0)->GetId(), 0u);

  EXPECT_EQ(object.GetProperty(11), nullptr);
  EXPECT_EQ(object.GetProperty(254), nullptr);
}

TEST(InterfaceObject, IdsAbove255AreNotTruncatedOntoExistingProperties) {
  InterfaceObject object;
  object.AddProperty(10, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({1}));
  object.AddProperty(0, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({1}));
  EXPECT_EQ(object.GetProperty(256 + 10), nullptr);
  EXPECT_EQ(object.GetProperty(256), nullptr);
  EXPECT_EQ(object.GetProperty(kMaxU32), nullptr);
}

TEST(InterfaceObject, EmptyObjectHasNoProperties) {
  const InterfaceObject object;
  EXPECT_EQ(object.GetPropertyCount(), 0u);
  EXPECT_EQ(object.GetProperty(0), nullptr);
}

TEST(InterfaceObject, DuplicateIdIsRejectedAndKeepsTheFirstProperty) {
  InterfaceObject object;
  object.AddProperty(5, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({1}));
  EXPECT_THROW(object.AddProperty(5, PropertyDataType::PDT_UNSIGNED_INT, Bytes({2, 3})),
               std::invalid_argument);
  EXPECT_EQ(object.GetPropertyCount(), 1u);
  BinaryData value;
  ASSERT_TRUE(object.GetProperty(5)->Read(value));
  EXPECT_EQ(value.ToVector(), (std::vector<std::uint8_t>{1}));
}

TEST(InterfaceObject, FailedAddLeavesTheIdFree) {
  InterfaceObject object;
  EXPECT_THROW(object.AddProperty(5, PropertyDataType::PDT_UNSIGNED_INT, Bytes({1, 2, 3})),
               std::invalid_argument);
  EXPECT_EQ(object.GetProperty(5), nullptr);
  EXPECT_NO_THROW(object.AddProperty(5, PropertyDataType::PDT_UNSIGNED_INT, Bytes({1, 2})));
}

TEST(InterfaceObject, AddPropertyReturnsTheStoredPropertyForConfiguration) {
  InterfaceObject object;
  Property& property = object.AddProperty(3, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({4}));
  property.SetReadable(false);
  BinaryData value;
  EXPECT_FALSE(object.GetProperty(3)->Read(value));
}

TEST(Property, ReadCopiesAllElementsBackToBack) {
  const Property property(1, PropertyDataType::PDT_UNSIGNED_INT, Bytes({0x00, 0x01, 0xAB, 0xCD}));
  BinaryData value;
  ASSERT_TRUE(property.Read(value));
  EXPECT_EQ(value.ToVector(), (std::vector<std::uint8_t>{0x00, 0x01, 0xAB, 0xCD}));
  EXPECT_EQ(value.GetUInt16Value(2), 0xABCDu);
  EXPECT_EQ(property.GetId(), 1u);
  EXPECT_EQ(property.GetDataType(), PropertyDataType::PDT_UNSIGNED_INT);
  EXPECT_EQ(property.GetElements(), value);
}

TEST(Property, ElementSizeAndCountFollowTheDatatype) {
  const Property chars(1, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({1, 2, 3}));
  const Property longs(2, PropertyDataType::PDT_UNSIGNED_LONG, Bytes({0, 0, 0, 1, 0, 0, 0, 2}));
  const Property block(3, PropertyDataType::PDT_CHAR_BLOCK, BinaryData(std::string(20, 'x')));
  std::uint32_t count = 99;
  EXPECT_EQ(chars.GetElementSize(), 1u);
  ASSERT_TRUE(chars.GetElementCount(count));
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(longs.GetElementSize(), 4u);
  ASSERT_TRUE(longs.GetElementCount(count));
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(block.GetElementSize(), 10u);
  ASSERT_TRUE(block.GetElementCount(count));
  EXPECT_EQ(count, 2u);
}

TEST(Property, EmptyValueHasNoElements) {
  const Property property(1, PropertyDataType::PDT_UNSIGNED_INT, BinaryData());
  std::uint32_t count = 99;
  ASSERT_TRUE(property.GetElementCount(count));
  EXPECT_EQ(count, 0u);
  BinaryData value = Bytes({1});
  ASSERT_TRUE(property.Read(value));
  EXPECT_TRUE(value.IsEmpty());
  EXPECT_TRUE(property.ReadElements(0, 0, value));
  EXPECT_FALSE(property.ReadElements(0, 1, value));
}

TEST(Property, VariableLengthHoldsOneElementOfTheWholeLength) {
  const Property property(7, PropertyDataType::PDT_VARIABLE_LENGTH,
                          BinaryData(std::string("abcde")));
  EXPECT_EQ(property.GetElementSize(), 5u);
  std::uint32_t count = 0;
  ASSERT_TRUE(property.GetElementCount(count));
  EXPECT_EQ(count, 1u);
  BinaryData value;
  ASSERT_TRUE(property.ReadElements(0, 1, value));
  EXPECT_EQ(value.GetStringValue(0), "abcde");
  EXPECT_FALSE(property.ReadElements(1, 1, value));
}

TEST(Property, EmptyVariableLengthValueHasNoElement) {
  const Property property(7, PropertyDataType::PDT_VARIABLE_LENGTH, BinaryData());
  EXPECT_EQ(property.GetElementSize(), 0u);
  std::uint32_t count = 99;
  ASSERT_TRUE(property.GetElementCount(count));
  EXPECT_EQ(count, 0u);
}

TEST(Property, ByteLengthThatIsNotAWholeNumberOfElementsIsRejected) {
  EXPECT_THROW(Property(1, PropertyDataType::PDT_UNSIGNED_INT, Bytes({1, 2, 3})),
               std::invalid_argument);
  EXPECT_THROW(Property(1, PropertyDataType::PDT_UNSIGNED_LONG, Bytes({1, 2})),
               std::invalid_argument);
  EXPECT_THROW(Property(1, PropertyDataType::PDT_DATE, Bytes({1, 2, 3, 4})), std::invalid_argument);
  EXPECT_NO_THROW(Property(1, PropertyDataType::PDT_DATE, Bytes({1, 2, 3, 4, 5, 6})));
}

TEST(Property, UnknownDatatypeIsRejected) {
  EXPECT_THROW(Property(1, static_cast<PropertyDataType>(0x25), Bytes({1})), std::invalid_argument);
  EXPECT_THROW(Property(1, static_cast<PropertyDataType>(0xFF), BinaryData()),
               std::invalid_argument);
}

TEST(Property, UnreadablePropertyFailsWholeAndElementReads) {
  Property property(1, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({1, 2}));
  property.SetReadable(false);
  BinaryData value;
  EXPECT_FALSE(property.Read(value));
  EXPECT_FALSE(property.ReadElements(0, 1, value));
  EXPECT_FALSE(property.ReadElements(0, 0, value));
  std::uint32_t count = 0;
  EXPECT_TRUE(property.GetElementCount(count));
  EXPECT_EQ(count, 2u);
  property.SetReadable(true);
  EXPECT_TRUE(property.Read(value));
}

TEST(Property, CountCanBeMadeUnavailableWithoutAffectingReads) {
  Property property(1, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({1, 2}));
  property.SetCountAvailable(false);
  std::uint32_t count = 42;
  EXPECT_FALSE(property.GetElementCount(count));
  BinaryData value;
  EXPECT_TRUE(property.Read(value));
  EXPECT_TRUE(property.ReadElements(1, 1, value));
  property.SetCountAvailable(true);
  EXPECT_TRUE(property.GetElementCount(count));
  EXPECT_EQ(count, 2u);
}

TEST(Property, ReadElementsCopiesTheRequestedSlice) {
  const Property property(1, PropertyDataType::PDT_UNSIGNED_INT,
                          Bytes({0x00, 0x0A, 0x00, 0x0B, 0x00, 0x0C, 0x00, 0x0D}));
  BinaryData value;
  ASSERT_TRUE(property.ReadElements(0, 4, value));
  EXPECT_EQ(value.GetSize(), 8u);
  ASSERT_TRUE(property.ReadElements(1, 2, value));
  EXPECT_EQ(value.ToVector(), (std::vector<std::uint8_t>{0x00, 0x0B, 0x00, 0x0C}));
  ASSERT_TRUE(property.ReadElements(3, 1, value));
  EXPECT_EQ(value.GetUInt16Value(0), 0x000Du);
  ASSERT_TRUE(property.ReadElements(4, 0, value));
  EXPECT_TRUE(value.IsEmpty());
}

TEST(Property, ReadElementsBeyondTheCountFailsAndLeavesTheBufferAlone) {
  const Property property(1, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({1, 2, 3}));
  BinaryData value = Bytes({9});
  EXPECT_FALSE(property.ReadElements(0, 4, value));
  EXPECT_FALSE(property.ReadElements(2, 2, value));
  EXPECT_FALSE(property.ReadElements(3, 1, value));
  EXPECT_FALSE(property.ReadElements(4, 0, value));
  EXPECT_EQ(value.ToVector(), (std::vector<std::uint8_t>{9}));
}

TEST(Property, ReadElementsWithStartPlusCountWrappingFails) {
  // 2 + 0xFFFFFFFF wraps to 1, which a naive bound check would accept.
  const Property property(1, PropertyDataType::PDT_UNSIGNED_CHAR, Bytes({1, 2, 3}));
  BinaryData value;
  EXPECT_FALSE(property.ReadElements(2, kMaxU32, value));
  EXPECT_FALSE(property.ReadElements(kMaxU32, 2, value));
  EXPECT_FALSE(property.ReadElements(kMaxU32, kMaxU32, value));
  EXPECT_FALSE(property.ReadElements(2, kMaxU32 - 1, value));
  EXPECT_FALSE(property.ReadElements(3, kMaxU32 - 2, value));
}

TEST(Property, ReadSharesTheStoredBytes) {
  const Property property(1, PropertyDataType::PDT_UNSIGNED_LONG, Bytes({1, 2, 3, 4, 5, 6, 7, 8}));
  BinaryData whole;
  BinaryData second;
  ASSERT_TRUE(property.Read(whole));
  ASSERT_TRUE(property.ReadElements(1, 1, second));
  EXPECT_EQ(whole.GetData(), property.GetElements().GetData());
  EXPECT_EQ(second.GetData(), property.GetElements().GetData() + 4);
}

}  // namespace
