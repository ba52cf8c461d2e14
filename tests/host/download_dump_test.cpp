#include "DownloadDump.h"
#include "KnxFloatEncoding.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace {

using KnxStack::BinaryData;
using KnxStack::IInterfaceObject;
using KnxStack::IProperty;
using lkdh::host::DownloadDump;
using lkdh::host::DumpError;
using lkdh::host::EncodeKnxFloat;
using lkdh::host::LoadDownloadDump;
using lkdh::host::ParseDownloadDump;
using Bytes = std::vector<std::uint8_t>;

const std::string kExamplePath = LKDH_TEST_DATA_DIR "/example_dump.json";

const IProperty& PropertyOf(const IInterfaceObject& object, std::uint32_t id) {
  const IProperty* property = object.GetProperty(id);
  if (property == nullptr) throw std::runtime_error("no property " + std::to_string(id));
  return *property;
}

Bytes ElementsOf(const IProperty& property) {
  BinaryData value;
  if (!property.Read(value)) throw std::runtime_error("property not readable");
  return value.ToVector();
}

// The dump of one interface object at index 0 holding the given property entries.
std::string WithProperties(const std::string& properties) {
  return R"({"interfaceObjects": [{"index": 0, "properties": [)" + properties + "]}]}";
}

// Elements of property 1 in a dump made of one property entry.
Bytes ParsedElements(const std::string& property) {
  const DownloadDump dump = ParseDownloadDump(WithProperties(property));
  return ElementsOf(PropertyOf(*dump.interfaceObjects.at(0).at(0), 1));
}

// The full text of the DumpError the dump raises, or a note that none was raised.
std::string ErrorOf(const std::string& json) {
  try {
    ParseDownloadDump(json);
  } catch (const DumpError& error) {
    return error.what();
  }
  return "(no error)";
}

TEST(DownloadDump, ExampleFileGivesOneObjectAtIndexZero) {
  const DownloadDump dump = LoadDownloadDump(kExamplePath);
  ASSERT_EQ(dump.objects.size(), 1U);
  ASSERT_EQ(dump.interfaceObjects.size(), 1U);
  ASSERT_EQ(dump.interfaceObjects.count(0), 1U);
  ASSERT_EQ(dump.interfaceObjects.at(0).size(), 1U);
  EXPECT_EQ(dump.interfaceObjects.at(0)[0], dump.objects[0].get());
  EXPECT_EQ(dump.objects[0]->GetPropertyCount(), 7U);
}

TEST(DownloadDump, ExampleFileElementsAreBigEndianAndPadded) {
  const DownloadDump dump = LoadDownloadDump(kExamplePath);
  const IInterfaceObject& object = *dump.interfaceObjects.at(0)[0];

  const IProperty& chars = PropertyOf(object, 51);
  EXPECT_EQ(chars.GetElementSize(), 1U);
  std::uint32_t count = 0;
  ASSERT_TRUE(chars.GetElementCount(count));
  EXPECT_EQ(count, 3U);
  EXPECT_EQ(ElementsOf(chars), (Bytes{3, 2, 0}));

  const IProperty& longs = PropertyOf(object, 52);
  EXPECT_EQ(longs.GetElementSize(), 4U);
  ASSERT_TRUE(longs.GetElementCount(count));
  EXPECT_EQ(count, 2U);
  EXPECT_EQ(ElementsOf(longs), (Bytes{0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x10, 0x40}));

  EXPECT_EQ(ElementsOf(PropertyOf(object, 53)), (Bytes{0x0C, 0x15}));

  const IProperty& names = PropertyOf(object, 54);
  EXPECT_EQ(names.GetElementSize(), 20U);
  ASSERT_TRUE(names.GetElementCount(count));
  EXPECT_EQ(count, 2U);
  Bytes expectedNames{'K', 'i', 't', 'c', 'h', 'e', 'n'};
  expectedNames.resize(40, 0);
  EXPECT_EQ(ElementsOf(names), expectedNames);

  EXPECT_EQ(ElementsOf(PropertyOf(object, 55)), (Bytes{1, 0}));
}

TEST(DownloadDump, ExampleFileReadableAndCountFlagsAreApplied) {
  const DownloadDump dump = LoadDownloadDump(kExamplePath);
  const IInterfaceObject& object = *dump.interfaceObjects.at(0)[0];
  BinaryData value;
  std::uint32_t count = 0;

  const IProperty& unreadable = PropertyOf(object, 56);
  EXPECT_FALSE(unreadable.Read(value));
  EXPECT_FALSE(unreadable.ReadElements(0, 1, value));
  ASSERT_TRUE(unreadable.GetElementCount(count));
  EXPECT_EQ(count, 1U);

  const IProperty& uncounted = PropertyOf(object, 57);
  EXPECT_FALSE(uncounted.GetElementCount(count));
  ASSERT_TRUE(uncounted.Read(value));
  EXPECT_EQ(value.ToVector(), (Bytes{1}));

  // Properties without the flags stay readable and counted.
  EXPECT_TRUE(PropertyOf(object, 51).ReadElements(1, 2, value));
  EXPECT_EQ(value.ToVector(), (Bytes{2, 0}));
}

TEST(DownloadDump, ExampleFileMemoryIsZeroFilledAroundTheBlocks) {
  const DownloadDump dump = LoadDownloadDump(kExamplePath);
  EXPECT_EQ(dump.memory.GetSize(), 65536U);
  EXPECT_EQ(dump.memory.GetStringValue(4096), "  Living room  ");
  EXPECT_EQ(dump.memory.GetUInt8Value(4095), 0U);
  EXPECT_EQ(dump.memory.GetUInt8Value(4096 + 15), 0U);
  EXPECT_EQ(dump.memory.GetStringValue(4160), "Kitchen");
  EXPECT_EQ(dump.memory.GetUInt8Value(65535), 0U);
  std::size_t nonZero = 0;
  for (const std::uint8_t byte : dump.memory.ToVector()) nonZero += byte != 0 ? 1 : 0;
  EXPECT_EQ(nonZero, 15U + 7U);  // both texts, blanks included, and nothing else
}

TEST(DownloadDump, ExampleFileDescriptorsKeepTheirEnabledFlag) {
  const DownloadDump dump = LoadDownloadDump(kExamplePath);
  ASSERT_EQ(dump.coDescriptors.size(), 2U);
  EXPECT_TRUE(dump.coDescriptors.at(1).communicationEnabled);
  EXPECT_FALSE(dump.coDescriptors.at(5).communicationEnabled);
}

TEST(DownloadDump, SameIndexIsAppendedInFileOrder) {
  const DownloadDump dump = ParseDownloadDump(R"({"interfaceObjects": [
      {"index": 3, "properties": [{"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": [10]}]},
      {"index": 1, "properties": []},
      {"index": 3, "properties": [{"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": [20]}]},
      {"index": 4294967295, "properties": []}]})");
  ASSERT_EQ(dump.objects.size(), 4U);
  ASSERT_EQ(dump.interfaceObjects.size(), 3U);
  const auto& three = dump.interfaceObjects.at(3);
  ASSERT_EQ(three.size(), 2U);
  EXPECT_EQ(ElementsOf(PropertyOf(*three[0], 1)), (Bytes{10}));
  EXPECT_EQ(ElementsOf(PropertyOf(*three[1], 1)), (Bytes{20}));
  ASSERT_EQ(dump.interfaceObjects.at(1).size(), 1U);
  EXPECT_EQ(dump.interfaceObjects.at(1)[0]->GetProperty(1), nullptr);
  EXPECT_EQ(dump.interfaceObjects.at(4294967295U).size(), 1U);
}

TEST(DownloadDump, MovingKeepsTheMapPointingAtTheObjects) {
  DownloadDump dump = LoadDownloadDump(kExamplePath);
  const IInterfaceObject* object = dump.objects[0].get();
  const DownloadDump moved = std::move(dump);
  EXPECT_EQ(moved.interfaceObjects.at(0)[0], object);
  EXPECT_EQ(moved.objects[0].get(), object);
}

TEST(DownloadDump, MinimalDumpHasNoMemoryAndNoDescriptors) {
  const DownloadDump dump = ParseDownloadDump(R"({"interfaceObjects": []})");
  EXPECT_TRUE(dump.objects.empty());
  EXPECT_TRUE(dump.interfaceObjects.empty());
  EXPECT_TRUE(dump.memory.IsEmpty());
  EXPECT_TRUE(dump.coDescriptors.empty());
}

TEST(KnxFloatEncoding, KnownValues) {
  EXPECT_EQ(EncodeKnxFloat(20.9), 0x0C15);
  EXPECT_EQ(EncodeKnxFloat(-30), 0x8A24);
  EXPECT_EQ(EncodeKnxFloat(0), 0x0000);
  EXPECT_EQ(EncodeKnxFloat(-0.0), 0x0000);
  EXPECT_EQ(EncodeKnxFloat(20.47), 0x07FF);
  EXPECT_EQ(EncodeKnxFloat(-20.48), 0x8000);
  EXPECT_EQ(EncodeKnxFloat(-0.01), 0x87FF);
  EXPECT_EQ(EncodeKnxFloat(0.01), 0x0001);
  EXPECT_EQ(EncodeKnxFloat(21), 0x0C1A);
  EXPECT_EQ(EncodeKnxFloat(20.48), 0x0C00);  // 2048 needs exponent 1
}

TEST(KnxFloatEncoding, RoundsHalvesAwayFromZero) {
  // 0.005 * 100 is 0.5 (as close as a double gets), which rounds to mantissa 1.
  EXPECT_EQ(EncodeKnxFloat(0.005), 0x0001);
  EXPECT_EQ(EncodeKnxFloat(-0.005), 0x87FF);
  // 20.49 -> 2049 -> 1024.5 at exponent 1 -> 1025.
  EXPECT_EQ(EncodeKnxFloat(20.49), 0x0C01);
}

TEST(KnxFloatEncoding, LimitsOfExponentFifteen) {
  EXPECT_EQ(EncodeKnxFloat(670760.96), 0x7FFF);
  EXPECT_EQ(EncodeKnxFloat(-671088.64), 0xF800);
  EXPECT_EQ(EncodeKnxFloat(671000), std::nullopt);
  EXPECT_EQ(EncodeKnxFloat(-680000), std::nullopt);
  EXPECT_EQ(EncodeKnxFloat(1e308), std::nullopt);
  EXPECT_EQ(EncodeKnxFloat(-1e308), std::nullopt);
}

TEST(DownloadDump, KnxFloatValuesAreEncoded) {
  EXPECT_EQ(ParsedElements(R"({"id": 1, "pdt": "PDT_KNX_FLOAT",
                               "values": [20.9, -30, 0, 20.47, -20.48, -0.01]})"),
            (Bytes{0x0C, 0x15, 0x8A, 0x24, 0x00, 0x00, 0x07, 0xFF, 0x80, 0x00, 0x87, 0xFF}));
}

TEST(DownloadDump, IntegerValuesUseTwosComplementBigEndian) {
  EXPECT_EQ(ParsedElements(R"({"id": 1, "pdt": "PDT_CHAR", "values": [-128, 127, -1]})"),
            (Bytes{0x80, 0x7F, 0xFF}));
  EXPECT_EQ(ParsedElements(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": [0, 255]})"),
            (Bytes{0x00, 0xFF}));
  EXPECT_EQ(ParsedElements(R"({"id": 1, "pdt": "PDT_INT", "values": [-32768, 32767, -2]})"),
            (Bytes{0x80, 0x00, 0x7F, 0xFF, 0xFF, 0xFE}));
  EXPECT_EQ(ParsedElements(R"({"id": 1, "pdt": "PDT_UNSIGNED_INT", "values": [65535, 258]})"),
            (Bytes{0xFF, 0xFF, 0x01, 0x02}));
  EXPECT_EQ(ParsedElements(R"({"id": 1, "pdt": "PDT_LONG", "values": [-2147483648, -1]})"),
            (Bytes{0x80, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(ParsedElements(R"({"id": 1, "pdt": "PDT_UNSIGNED_LONG", "values": [4294967295]})"),
            (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(DownloadDump, FloatValuesAreIeeeSinglesBigEndian) {
  EXPECT_EQ(ParsedElements(R"({"id": 1, "pdt": "PDT_FLOAT", "values": [1.5, -2, 0]})"),
            (Bytes{0x3F, 0xC0, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}));
}

TEST(DownloadDump, TextValuesAreZeroPaddedAndMayFillTheElement) {
  EXPECT_EQ(ParsedElements(R"({"id": 1, "pdt": "PDT_GENERIC_01", "values": ["a", ""]})"),
            (Bytes{'a', 0}));
  EXPECT_EQ(ParsedElements(R"({"id": 1, "pdt": "PDT_GENERIC_04", "values": ["\u00e4\u00f6"]})"),
            (Bytes{0xC3, 0xA4, 0xC3, 0xB6}));
  EXPECT_EQ(ParsedElements(R"({"id": 1, "pdt": "PDT_GENERIC_03", "values": ["ab"]})"),
            (Bytes{'a', 'b', 0}));
}

TEST(DownloadDump, HexGivesRawElementsOfAnyDatatype) {
  EXPECT_EQ(ParsedElements(R"({"id": 1, "pdt": "PDT_DATE", "hex": "0102030A0b0C"})"),
            (Bytes{1, 2, 3, 0x0A, 0x0B, 0x0C}));
  EXPECT_TRUE(ParsedElements(R"({"id": 1, "pdt": "PDT_UNSIGNED_LONG", "hex": ""})").empty());
  EXPECT_TRUE(ParsedElements(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": []})").empty());

  const DownloadDump dump = ParseDownloadDump(
      WithProperties(R"({"id": 1, "pdt": "PDT_VARIABLE_LENGTH", "hex": "010203"})"));
  const IProperty& variable = PropertyOf(*dump.interfaceObjects.at(0)[0], 1);
  std::uint32_t count = 0;
  ASSERT_TRUE(variable.GetElementCount(count));
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(variable.GetElementSize(), 3U);
}

TEST(DownloadDump, MemorySizeDefaultsToTheEndOfTheHighestBlock) {
  const DownloadDump dump = ParseDownloadDump(R"({"interfaceObjects": [],
      "memory": {"blocks": [{"address": 10, "hex": "ff"}, {"address": 2, "text": "ab"}]}})");
  EXPECT_EQ(dump.memory.ToVector(), (Bytes{0, 0, 'a', 'b', 0, 0, 0, 0, 0, 0, 0xFF}));
}

TEST(DownloadDump, MemoryWithoutBlocksIsZeroFilledOrEmpty) {
  EXPECT_EQ(
      ParseDownloadDump(R"({"interfaceObjects": [], "memory": {"size": 3}})").memory.ToVector(),
      (Bytes{0, 0, 0}));
  EXPECT_TRUE(ParseDownloadDump(R"({"interfaceObjects": [], "memory": {}})").memory.IsEmpty());
}

TEST(DownloadDump, AdjacentAndEmptyBlocksDoNotOverlap) {
  const DownloadDump dump = ParseDownloadDump(R"({"interfaceObjects": [],
      "memory": {"size": 4, "blocks": [{"address": 2, "hex": "0304"}, {"address": 0, "hex": "0102"},
                                       {"address": 1, "text": ""}, {"address": 4, "hex": ""}]}})");
  EXPECT_EQ(dump.memory.ToVector(), (Bytes{1, 2, 3, 4}));
}

TEST(DownloadDump, TextBlocksKeepEmbeddedZeros) {
  const DownloadDump dump = ParseDownloadDump(
      R"({"interfaceObjects": [], "memory": {"blocks": [{"address": 0, "text": "a\u0000b"}]}})");
  EXPECT_EQ(dump.memory.ToVector(), (Bytes{'a', 0, 'b'}));
}

TEST(DownloadDump, ErrorCarriesLocationAndMessageSeparately) {
  try {
    ParseDownloadDump(
        WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": [1, 300]})"));
    FAIL() << "no error";
  } catch (const DumpError& error) {
    EXPECT_EQ(error.Location(), "/interfaceObjects/0/properties/0/values/1");
    EXPECT_EQ(error.Message(), "300 is out of range for PDT_UNSIGNED_CHAR (0..255)");
    EXPECT_EQ(
        std::string(error.what()),
        "/interfaceObjects/0/properties/0/values/1: 300 is out of range for PDT_UNSIGNED_CHAR "
        "(0..255)");
  }
}

struct BadDump {
  const char* name;
  std::string json;
  std::string error;
};

std::ostream& operator<<(std::ostream& os, const BadDump& bad) { return os << bad.name; }

class BadDumpTest : public ::testing::TestWithParam<BadDump> {};

TEST_P(BadDumpTest, IsRejectedWithItsLocation) {
  EXPECT_EQ(ErrorOf(GetParam().json), GetParam().error) << GetParam().json;
}

const std::string kP = "/interfaceObjects/0/properties/0";

// A dump whose memory object is the given text.
std::string WithMemory(const std::string& memory) {
  return R"({"interfaceObjects": [], "memory": )" + memory + "}";
}

INSTANTIATE_TEST_SUITE_P(
    Values, BadDumpTest,
    ::testing::Values(
        BadDump{"UnsignedCharTooLarge",
                WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": [1, 300]})"),
                kP + "/values/1: 300 is out of range for PDT_UNSIGNED_CHAR (0..255)"},
        BadDump{"UnsignedCharNegative",
                WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": [-1]})"),
                kP + "/values/0: -1 is out of range for PDT_UNSIGNED_CHAR (0..255)"},
        BadDump{"CharTooSmall", WithProperties(R"({"id": 1, "pdt": "PDT_CHAR", "values": [-129]})"),
                kP + "/values/0: -129 is out of range for PDT_CHAR (-128..127)"},
        BadDump{"IntTooLarge", WithProperties(R"({"id": 1, "pdt": "PDT_INT", "values": [32768]})"),
                kP + "/values/0: 32768 is out of range for PDT_INT (-32768..32767)"},
        BadDump{"UnsignedIntTooLarge",
                WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_INT", "values": [65536]})"),
                kP + "/values/0: 65536 is out of range for PDT_UNSIGNED_INT (0..65535)"},
        BadDump{
            "LongTooLarge",
            WithProperties(R"({"id": 1, "pdt": "PDT_LONG", "values": [2147483648]})"),
            kP + "/values/0: 2147483648 is out of range for PDT_LONG (-2147483648..2147483647)"},
        BadDump{"UnsignedLongFarTooLarge",
                WithProperties(
                    R"({"id": 1, "pdt": "PDT_UNSIGNED_LONG", "values": [18446744073709551615]})"),
                kP + "/values/0: 18446744073709551615 is out of range for PDT_UNSIGNED_LONG "
                     "(0..4294967295)"},
        BadDump{"FractionForAnInteger",
                WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": [3.5]})"),
                kP + "/values/0: expected an integer for PDT_UNSIGNED_CHAR, got 3.5"},
        BadDump{"StringForAnInteger",
                WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_INT", "values": [1, "2"]})"),
                kP + "/values/1: expected an integer for PDT_UNSIGNED_INT, got the string \"2\""},
        BadDump{"BooleanForAnInteger",
                WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": [true]})"),
                kP + "/values/0: expected an integer for PDT_UNSIGNED_CHAR, got true"},
        BadDump{"NumberForBinaryInformation",
                WithProperties(R"({"id": 1, "pdt": "PDT_BINARY_INFORMATION", "values": [1]})"),
                kP + "/values/0: expected true or false, got 1"},
        BadDump{"NullForAFloat",
                WithProperties(R"({"id": 1, "pdt": "PDT_FLOAT", "values": [null]})"),
                kP + "/values/0: expected a number for PDT_FLOAT, got null"},
        BadDump{"FloatTooLarge",
                WithProperties(R"({"id": 1, "pdt": "PDT_FLOAT", "values": [1e39]})"),
                kP + "/values/0: 1e+39 is out of range for PDT_FLOAT"},
        BadDump{"KnxFloatTooLarge",
                WithProperties(R"({"id": 1, "pdt": "PDT_KNX_FLOAT", "values": [0, 700000]})"),
                kP + "/values/1: 700000 is out of range for PDT_KNX_FLOAT (-671088.64..670760.96)"},
        BadDump{"ArrayForAKnxFloat",
                WithProperties(R"({"id": 1, "pdt": "PDT_KNX_FLOAT", "values": [[1]]})"),
                kP + "/values/0: expected a number for PDT_KNX_FLOAT, got an array"},
        BadDump{"TextTooLong",
                WithProperties(R"({"id": 1, "pdt": "PDT_GENERIC_02", "values": ["abc"]})"),
                kP + "/values/0: \"abc\" is 3 bytes long; PDT_GENERIC_02 holds at most 2"},
        BadDump{
            "MultiByteTextTooLong",
            WithProperties(R"({"id": 1, "pdt": "PDT_GENERIC_03", "values": ["\u00e4\u00f6"]})"),
            kP + "/values/0: \"\xC3\xA4\xC3\xB6\" is 4 bytes long; PDT_GENERIC_03 holds at most 3"},
        BadDump{"NumberForText",
                WithProperties(R"({"id": 1, "pdt": "PDT_GENERIC_20", "values": [5]})"),
                kP + "/values/0: expected a string for PDT_GENERIC_20, got 5"},
        BadDump{"ValuesForAHexOnlyDatatype",
                WithProperties(R"({"id": 1, "pdt": "PDT_DATE", "values": []})"),
                kP + "/values: PDT_DATE elements cannot be given as 'values'; use 'hex'"},
        BadDump{"ValuesNotAnArray",
                WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": 3})"),
                kP + "/values: expected an array, got 3"},
        BadDump{
            "BothValuesAndHex",
            WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": [1], "hex": "01"})"),
            kP + ": has both 'values' and 'hex'; give one"},
        BadDump{"NeitherValuesNorHex", WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR"})"),
                kP + ": needs 'values' or 'hex'"},
        BadDump{"OddHex", WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "hex": "012"})"),
                kP + "/hex: odd number of hex digits (3)"},
        BadDump{"NonHexDigit",
                WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "hex": "01zz"})"),
                kP + "/hex: not a hex digit at offset 2"},
        BadDump{"HexNotAString",
                WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "hex": 1})"),
                kP + "/hex: expected a string, got 1"},
        BadDump{"HexNotWholeElements",
                WithProperties(R"({"id": 1, "pdt": "PDT_KNX_FLOAT", "hex": "0c150c"})"),
                kP + "/hex: 3 bytes are not a whole number of 2-byte PDT_KNX_FLOAT elements"},
        BadDump{"UnknownDatatype", WithProperties(R"({"id": 1, "pdt": "PDT_BYTE", "hex": ""})"),
                kP + "/pdt: unknown property datatype \"PDT_BYTE\""},
        BadDump{"DatatypeNotAString", WithProperties(R"({"id": 1, "pdt": 2, "hex": ""})"),
                kP + "/pdt: expected a string, got 2"},
        BadDump{"MissingDatatype", WithProperties(R"({"id": 1, "hex": ""})"),
                kP + ": missing required key 'pdt'"},
        BadDump{"MissingId", WithProperties(R"({"pdt": "PDT_UNSIGNED_CHAR", "hex": ""})"),
                kP + ": missing required key 'id'"},
        BadDump{"IdTooLarge",
                WithProperties(R"({"id": 256, "pdt": "PDT_UNSIGNED_CHAR", "hex": ""})"),
                kP + "/id: 256 is out of range for a property id (0..255)"},
        BadDump{"DuplicateId", WithProperties(R"({"id": 7, "pdt": "PDT_UNSIGNED_CHAR", "hex": ""},
                                  {"id": 7, "pdt": "PDT_UNSIGNED_INT", "hex": ""})"),
                "/interfaceObjects/0/properties/1/id: property 7 appears twice in this interface "
                "object"},
        BadDump{
            "ReadableNotABoolean",
            WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "hex": "", "readable": 0})"),
            kP + "/readable: expected true or false, got 0"},
        BadDump{"CountAvailableNotABoolean",
                WithProperties(
                    R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "hex": "", "countAvailable": "no"})"),
                kP + "/countAvailable: expected true or false, got the string \"no\""},
        BadDump{"UnknownPropertyKey",
                WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "hex": "", "value": [1]})"),
                kP + "/value: unknown key (allowed here: id, pdt, values, hex, readable, "
                     "countAvailable)"},
        BadDump{"PropertyNotAnObject", WithProperties("[]"),
                kP + ": expected an object, got an array"},
        BadDump{"UnknownObjectKey",
                R"({"interfaceObjects": [{"index": 0, "properties": [], "propertys": []}]})",
                "/interfaceObjects/0/propertys: unknown key (allowed here: index, properties)"},
        BadDump{"MissingIndex", R"({"interfaceObjects": [{"properties": []}]})",
                "/interfaceObjects/0: missing required key 'index'"},
        BadDump{"MissingProperties", R"({"interfaceObjects": [{"index": 0}]})",
                "/interfaceObjects/0: missing required key 'properties'"},
        BadDump{"NegativeIndex", R"({"interfaceObjects": [{"index": -1, "properties": []}]})",
                "/interfaceObjects/0/index: -1 is out of range for an interface-object index "
                "(0..4294967295)"},
        BadDump{
            "IndexTooLarge", R"({"interfaceObjects": [{"index": 4294967296, "properties": []}]})",
            "/interfaceObjects/0/index: 4294967296 is out of range for an interface-object index "
            "(0..4294967295)"},
        BadDump{"PropertiesNotAnArray", R"({"interfaceObjects": [{"index": 0, "properties": {}}]})",
                "/interfaceObjects/0/properties: expected an array, got an object"},
        BadDump{"InterfaceObjectsNotAnArray", R"({"interfaceObjects": {}})",
                "/interfaceObjects: expected an array, got an object"},
        BadDump{"MissingInterfaceObjects", R"({"memory": {}})",
                "missing required key 'interfaceObjects'"},
        BadDump{
            "UnknownTopLevelKey", R"({"interfaceObjects": [], "coDescriptor": []})",
            "/coDescriptor: unknown key (allowed here: interfaceObjects, memory, coDescriptors)"},
        BadDump{"UnknownKeyIsEscapedInThePointer", R"({"interfaceObjects": [], "a/b~c": 1})",
                "/a~1b~0c: unknown key (allowed here: interfaceObjects, memory, coDescriptors)"},
        BadDump{"ControlBytesAndBackslashInAKeyAreEscapedInThePointer",
                std::string("{\"interfaceObjects\": [], \"a\\u0000b\\u001b\\\\\": 1}"),
                "/a\\u0000b\\u001b\\\\: unknown key (allowed here: interfaceObjects, memory, "
                "coDescriptors)"},
        BadDump{"TopLevelNotAnObject", "[]", "the dump must be a JSON object, got an array"},
        BadDump{"TopLevelString", "\"dump\"",
                "the dump must be a JSON object, got the string \"dump\""},
        BadDump{"MemoryNotAnObject", WithMemory("[]"), "/memory: expected an object, got an array"},
        BadDump{"UnknownMemoryKey", WithMemory(R"({"length": 3})"),
                "/memory/length: unknown key (allowed here: size, blocks)"},
        BadDump{"MemorySizeNegative", WithMemory(R"({"size": -1})"),
                "/memory/size: a memory size cannot be negative, got -1"},
        BadDump{"MemorySizeNotAnInteger", WithMemory(R"({"size": "64"})"),
                "/memory/size: expected an integer for a memory size, got the string \"64\""},
        BadDump{"MemorySizeOverTheLimit", WithMemory(R"({"size": 16777217})"),
                "/memory/size: 16777217 exceeds the limit of 16777216 bytes (16 MiB)"},
        BadDump{"BlocksNotAnArray", WithMemory(R"({"blocks": {}})"),
                "/memory/blocks: expected an array, got an object"},
        BadDump{"BlockMissingAddress", WithMemory(R"({"blocks": [{"hex": "00"}]})"),
                "/memory/blocks/0: missing required key 'address'"},
        BadDump{"BlockAddressOverTheLimit",
                WithMemory(R"({"blocks": [{"address": 18446744073709551615, "hex": ""}]})"),
                "/memory/blocks/0/address: 18446744073709551615 lies beyond the limit of 16777216 "
                "bytes (16 MiB)"},
        BadDump{
            "BlockEndOverTheLimit",
            WithMemory(R"({"blocks": [{"address": 16777215, "hex": "0102"}]})"),
            "/memory/blocks/0: block of 2 bytes at 16777215 ends at 16777217, beyond the limit of "
            "16777216 bytes (16 MiB)"},
        BadDump{"BlockWithTextAndHex",
                WithMemory(R"({"blocks": [{"address": 0, "text": "", "hex": ""}]})"),
                "/memory/blocks/0: has both 'text' and 'hex'; give one"},
        BadDump{"BlockWithoutContent", WithMemory(R"({"blocks": [{"address": 0}]})"),
                "/memory/blocks/0: needs 'text' or 'hex'"},
        BadDump{"BlockTextNotAString", WithMemory(R"({"blocks": [{"address": 0, "text": 12}]})"),
                "/memory/blocks/0/text: expected a string, got 12"},
        BadDump{"BlockBadHex", WithMemory(R"({"blocks": [{"address": 0, "hex": "0g"}]})"),
                "/memory/blocks/0/hex: not a hex digit at offset 1"},
        BadDump{"UnknownBlockKey",
                WithMemory(R"({"blocks": [{"address": 0, "hex": "", "adress": 1}]})"),
                "/memory/blocks/0/adress: unknown key (allowed here: address, text, hex)"},
        BadDump{
            "BlockPastTheSize", WithMemory(R"({"size": 4100, "blocks": [{"address": 0, "hex": "00"},
                                                       {"address": 4096, "text": "Kitchen"}]})"),
            "/memory/blocks/1: block of 7 bytes at 4096 ends at 4103, past the memory size 4100"},
        BadDump{
            "OverlappingBlocks",
            WithMemory(R"({"blocks": [{"address": 10, "hex": "0102"}, {"address": 0, "hex": "00"},
                                          {"address": 8, "text": "abc"}]})"),
            "/memory/blocks/2: block of 3 bytes at 8 overlaps /memory/blocks/0 (2 bytes at 10)"},
        BadDump{
            "BlockInsideABiggerOne",
            WithMemory(
                R"({"blocks": [{"address": 0, "text": "abcdefgh"}, {"address": 2, "hex": "00"}]})"),
            "/memory/blocks/1: block of 1 byte at 2 overlaps /memory/blocks/0 (8 bytes at 0)"},
        BadDump{
            "SameAddressTwice",
            WithMemory(R"({"blocks": [{"address": 4, "hex": "00"}, {"address": 4, "hex": "01"}]})"),
            "/memory/blocks/1: block of 1 byte at 4 overlaps /memory/blocks/0 (1 byte at 4)"},
        BadDump{"DescriptorsNotAnArray", R"({"interfaceObjects": [], "coDescriptors": {}})",
                "/coDescriptors: expected an array, got an object"},
        BadDump{
            "DescriptorNumberTooLarge",
            R"({"interfaceObjects": [], "coDescriptors": [{"number": 65536, "enabled": true}]})",
            "/coDescriptors/0/number: 65536 is out of range for a communication-object number "
            "(0..65535)"},
        BadDump{"DescriptorNumberTwice",
                R"({"interfaceObjects": [], "coDescriptors": [{"number": 5, "enabled": true},
                                                              {"number": 5, "enabled": false}]})",
                "/coDescriptors/1/number: communication object 5 appears twice"},
        BadDump{"DescriptorEnabledNotABoolean",
                R"({"interfaceObjects": [], "coDescriptors": [{"number": 5, "enabled": "yes"}]})",
                "/coDescriptors/0/enabled: expected true or false, got the string \"yes\""},
        BadDump{"DescriptorWithoutEnabled",
                R"({"interfaceObjects": [], "coDescriptors": [{"number": 5}]})",
                "/coDescriptors/0: missing required key 'enabled'"},
        BadDump{
            "UnknownDescriptorKey",
            R"({"interfaceObjects": [], "coDescriptors": [{"number": 5, "enabled": true, "read": true}]})",
            "/coDescriptors/0/read: unknown key (allowed here: number, enabled)"}),
    [](const ::testing::TestParamInfo<BadDump>& param) { return std::string(param.param.name); });

// Syntax errors carry nlohmann's own wording after the byte position, so only
// the part this parser adds is pinned down.
TEST(DownloadDump, InvalidJsonNamesTheBytePosition) {
  EXPECT_EQ(
      ErrorOf("{\"interfaceObjects\": [}")
          .rfind("invalid JSON at byte 23: parse error at line 1, column 23: syntax error", 0),
      0U);
  EXPECT_EQ(ErrorOf("{\"interfaceObjects\": []} x").rfind("invalid JSON at byte 26: ", 0), 0U);
  EXPECT_EQ(ErrorOf("").rfind("invalid JSON at byte 1: ", 0), 0U);
  EXPECT_EQ(
      ErrorOf("{\"interfaceObjects\": [], \"memory\": {\"size\": 1e400}}").rfind("invalid JSON", 0),
      0U);
  // Invalid UTF-8 inside a string.
  EXPECT_EQ(
      ErrorOf("{\"interfaceObjects\": [], \"x\": \"\xC3\x28\"}").rfind("invalid JSON at byte ", 0),
      0U);
}

TEST(DownloadDump, DeeplyNestedJsonIsRejectedWithoutRecursion) {
  const std::size_t depth = 100000;
  const std::string json = std::string(depth, '[') + std::string(depth, ']');
  EXPECT_EQ(ErrorOf(json), "the dump must be a JSON object, got an array");
  const std::string nested = R"({"interfaceObjects": [], "memory": )" + std::string(depth, '[') +
                             std::string(depth, ']') + "}";
  EXPECT_EQ(ErrorOf(nested), "/memory: expected an object, got an array");
}

TEST(DownloadDump, LongStringsAreNotQuotedInMessages) {
  const std::string text(100, 'x');
  EXPECT_EQ(ErrorOf(WithProperties(R"({"id": 1, "pdt": "PDT_GENERIC_20", "values": [")" + text +
                                   R"("]})")),
            kP + "/values/0: the string is 100 bytes long; PDT_GENERIC_20 holds at most 20");
  EXPECT_EQ(ErrorOf(WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": [")" + text +
                                   R"("]})")),
            kP + "/values/0: expected an integer for PDT_UNSIGNED_CHAR, got a string of 100 bytes");
}

TEST(DownloadDump, MissingFileIsADumpError) {
  try {
    LoadDownloadDump("/no/such/dump.json");
    FAIL() << "no error";
  } catch (const DumpError& error) {
    EXPECT_EQ(error.Location(), "");
    EXPECT_EQ(std::string(error.what()), "cannot open the file: No such file or directory");
  }
}

TEST(DownloadDump, DirectoryIsADumpError) {
  const lkdh::test::TempDir dir;
  try {
    LoadDownloadDump(dir.Path().string());
    FAIL() << "no error";
  } catch (const DumpError& error) {
    EXPECT_EQ(std::string(error.what()), "cannot read the file: Is a directory");
  }
}

TEST(DownloadDump, FileErrorsCarryTheirLocation) {
  const lkdh::test::TempDir dir;
  const auto path = dir.WriteFile(
      "bad.json", WithProperties(R"({"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": [1, 300]})"));
  try {
    LoadDownloadDump(path.string());
    FAIL() << "no error";
  } catch (const DumpError& error) {
    EXPECT_EQ(error.Location(), kP + "/values/1");
  }
}

TEST(DownloadDump, EndlessFileIsCutOffAtTheSizeLimit) {
  try {
    LoadDownloadDump("/dev/zero");
    FAIL() << "no error";
  } catch (const DumpError& error) {
    EXPECT_EQ(std::string(error.what()), "the file is larger than the 128 MiB a dump may have");
  }
}

}  // namespace
