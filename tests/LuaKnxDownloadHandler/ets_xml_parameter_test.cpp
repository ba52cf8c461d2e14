// "parameter" elements, function attributes, the value types and the ShowIf
// arguments built from them.

#include "ets_xml_test_support.h"

#include <LuaKnxDownloadHandler/EtsXmlParameter.h>

#include <limits>

namespace lkdh::test {
namespace {

using Korvex::luaknxdownloadhandler::AddFunctionParameter;
using Korvex::luaknxdownloadhandler::AddParameter;

// --- the AddParameter family ---------------------------------------------------

class AddParameterTest : public ::testing::Test {
 protected:
  pugi::xml_document document;
  pugi::xml_node parameters = document.append_child("parameters");
};

TEST_F(AddParameterTest, TextMembersWriteKeyThenValue) {
  const char* text = "True";
  AddParameter<const char*>(parameters, "ShowRootFolder", text);
  AddParameter<std::string>(parameters, "Name", std::string("Living room"));
  AddParameter<std::string>(parameters, "Empty", std::string());
  EXPECT_EQ(PrintChildren(parameters),
            "<parameter key=\"ShowRootFolder\" value=\"True\" />\n"
            "<parameter key=\"Name\" value=\"Living room\" />\n"
            "<parameter key=\"Empty\" value=\"\" />\n");
}

TEST_F(AddParameterTest, TextIsEscaped) {
  AddParameter<std::string>(parameters, "k", std::string("a<b & \"c\""));
  EXPECT_EQ(Print(parameters.first_child()),
            "<parameter key=\"k\" value=\"a&lt;b &amp; &quot;c&quot;\" />\n");
}

TEST_F(AddParameterTest, NullTextIsWrittenEmpty) {
  const char* nothing = nullptr;
  AddParameter<const char*>(parameters, "k", nothing);
  EXPECT_EQ(Print(parameters.first_child()), "<parameter key=\"k\" value=\"\" />\n");
}

TEST_F(AddParameterTest, BytesAreNumbersNeverCharacters) {
  AddParameter<unsigned char>(parameters, "a", static_cast<unsigned char>(65));
  AddParameter<unsigned char>(parameters, "b", static_cast<unsigned char>(200));
  AddParameter<unsigned char>(parameters, "c", static_cast<unsigned char>(0));
  AddParameter<unsigned char>(parameters, "d", static_cast<unsigned char>(255));
  AddParameter<signed char>(parameters, "e", static_cast<signed char>(-56));
  AddParameter<signed char>(parameters, "f", static_cast<signed char>(-128));
  AddParameter<signed char>(parameters, "g", static_cast<signed char>(127));
  EXPECT_EQ(PrintChildren(parameters),
            "<parameter key=\"a\" value=\"65\" />\n"
            "<parameter key=\"b\" value=\"200\" />\n"
            "<parameter key=\"c\" value=\"0\" />\n"
            "<parameter key=\"d\" value=\"255\" />\n"
            "<parameter key=\"e\" value=\"-56\" />\n"
            "<parameter key=\"f\" value=\"-128\" />\n"
            "<parameter key=\"g\" value=\"127\" />\n");
}

TEST_F(AddParameterTest, WiderIntegersInDecimal) {
  AddParameter<unsigned short>(parameters, "a", static_cast<unsigned short>(65535));
  AddParameter<short>(parameters, "b", static_cast<short>(-32768));
  AddParameter<short>(parameters, "c", static_cast<short>(32767));
  AddParameter<int>(parameters, "d", -1);
  AddParameter<int>(parameters, "e", std::numeric_limits<int>::min());
  AddParameter<unsigned int>(parameters, "f", 4294967295U);
  AddParameter<unsigned int>(parameters, "g", 0U);
  EXPECT_EQ(PrintChildren(parameters),
            "<parameter key=\"a\" value=\"65535\" />\n"
            "<parameter key=\"b\" value=\"-32768\" />\n"
            "<parameter key=\"c\" value=\"32767\" />\n"
            "<parameter key=\"d\" value=\"-1\" />\n"
            "<parameter key=\"e\" value=\"-2147483648\" />\n"
            "<parameter key=\"f\" value=\"4294967295\" />\n"
            "<parameter key=\"g\" value=\"0\" />\n");
}

TEST(AddFunctionParameterTest, WritesAttributesOnTheElementInOrder) {
  pugi::xml_document document;
  pugi::xml_node element = document.append_child("element");
  AddFunctionParameter(element, "Light", "function", 12, "urn:f", "urn:c", "3");
  EXPECT_EQ(Print(element),
            "<element name=\"Light\" type=\"function\" functionId=\"12\" functionUrn=\"urn:f\" "
            "channelTypeUrn=\"urn:c\" luaTemplateIndex=\"3\" />\n");
}

TEST(AddFunctionParameterTest, EmptyTemplateIndexIsLeftOutAndEmptyTextsStay) {
  pugi::xml_document document;
  pugi::xml_node element = document.append_child("element");
  AddFunctionParameter(element, "", "", 4294967295U, "", "", "");
  EXPECT_EQ(Print(element),
            "<element name=\"\" type=\"\" functionId=\"4294967295\" functionUrn=\"\" "
            "channelTypeUrn=\"\" />\n");
}

// --- value types through a function slot and a static-data record ----------------

// Slot 1 of every array holds the value under test; slot 0 holds something else,
// so that a read at the wrong element shows.
class ValueTypeTest : public EtsXmlTest {
 protected:
  void SetUp() override {
    UseLimits();
    lux.propertyIds["ChannelType"] = download.UInt8s(0, 20, {0, 7});
  }

  /// The "parameters" element of function slot 1 with these parameters.
  std::string FunctionParameters(std::vector<LuaParameter> parameters) {
    lux.parameters[7] = std::move(parameters);
    Builder().CreateFunction(document, 1);
    return PrintChildren(document.child("element").child("parameters"));
  }

  /// The "parameters" element of a static-data record with these parameters.
  std::string StaticParameters(std::vector<LuaParameter> parameters) {
    LuxStaticData data;
    data.name = "Record";
    data.type = "record";
    data.parameters = std::move(parameters);
    Builder().CreateStaticData(data, document);
    return PrintChildren(document.child("element").child("parameters"));
  }
};

TEST_F(ValueTypeTest, IntegersFromArrayElements) {
  const PropertyInfo u8 = download.UInt8s(1, 1, {1, 200});
  const PropertyInfo i8 = download.UInt8s(1, 2, {1, 0xC8});
  const PropertyInfo u16 = download.UInt16s(1, 3, {1, 0xFF38});
  const PropertyInfo u32 = download.UInt32s(1, 4, {1, 0xFFFFFFFF});
  EXPECT_EQ(FunctionParameters({Param("a", "UInt8", u8), Param("b", "Int8", i8),
                                Param("c", "UInt16", u16), Param("d", "Int16", u16),
                                Param("e", "UInt32", u32), Param("f", "Int32", u32)}),
            "<parameter key=\"a\" value=\"200\" />\n"
            "<parameter key=\"b\" value=\"-56\" />\n"
            "<parameter key=\"c\" value=\"65336\" />\n"
            "<parameter key=\"d\" value=\"-200\" />\n"
            "<parameter key=\"e\" value=\"4294967295\" />\n"
            "<parameter key=\"f\" value=\"-1\" />\n");
}

TEST_F(ValueTypeTest, IntegersFromWholeProperties) {
  // Static data reads whole properties: the first element of an array.
  const PropertyInfo u8 = download.UInt8s(1, 1, {200, 1});
  const PropertyInfo i8 = download.UInt8s(1, 2, {0xC8});
  const PropertyInfo u16 = download.UInt16s(1, 3, {0xFF38, 1});
  const PropertyInfo u32 = download.UInt32s(1, 4, {0xFFFFFFFF});
  EXPECT_EQ(StaticParameters({Param("a", "UInt8", u8), Param("b", "Int8", i8),
                              Param("c", "UInt16", u16), Param("d", "Int16", u16),
                              Param("e", "UInt32", u32), Param("f", "Int32", u32)}),
            "<parameter key=\"a\" value=\"200\" />\n"
            "<parameter key=\"b\" value=\"-56\" />\n"
            "<parameter key=\"c\" value=\"65336\" />\n"
            "<parameter key=\"d\" value=\"-200\" />\n"
            "<parameter key=\"e\" value=\"4294967295\" />\n"
            "<parameter key=\"f\" value=\"-1\" />\n");
}

TEST_F(ValueTypeTest, BoolIsCapitalisedAndFalseWhenUnreadable) {
  const PropertyInfo flags = download.Bools(1, 1, {0, 2});
  const PropertyInfo off = download.Bools(1, 2, {1, 0});
  EXPECT_EQ(FunctionParameters({Param("on", "Bool", flags), Param("off", "Bool", off),
                                Param("missing", "Bool", {99, 1})}),
            "<parameter key=\"on\" value=\"True\" />\n"
            "<parameter key=\"off\" value=\"False\" />\n"
            "<parameter key=\"missing\" value=\"False\" />\n");
}

TEST_F(ValueTypeTest, MissingNumbersAreZero) {
  const PropertyInfo missing{99, 1};
  EXPECT_EQ(StaticParameters({Param("a", "UInt8", missing), Param("b", "Int8", missing),
                              Param("c", "UInt16", missing), Param("d", "Int16", missing),
                              Param("e", "UInt32", missing), Param("f", "Int32", missing),
                              Param("g", "Float16", missing, 2), Param("h", "Float32", missing),
                              Param("i", "Bool", missing)}),
            "<parameter key=\"a\" value=\"0\" />\n"
            "<parameter key=\"b\" value=\"0\" />\n"
            "<parameter key=\"c\" value=\"0\" />\n"
            "<parameter key=\"d\" value=\"0\" />\n"
            "<parameter key=\"e\" value=\"0\" />\n"
            "<parameter key=\"f\" value=\"0\" />\n"
            "<parameter key=\"g\" value=\"0.00\" />\n"
            "<parameter key=\"h\" value=\"0\" />\n"
            "<parameter key=\"i\" value=\"False\" />\n");
}

TEST_F(ValueTypeTest, Float16WithDigits) {
  // 0x0C33: mantissa 1075, exponent 1, so 21.5.
  const PropertyInfo value =
      download.UInt16s(1, 1, {0x0000, 0x0C33}, PropertyDataType::PDT_KNX_FLOAT);
  EXPECT_EQ(FunctionParameters(
                {Param("one", "Float16", value, 1), Param("none", "Float16", value, 0),
                 Param("three", "Float16", value, 3), Param("wrapped", "Float16", value, 258)}),
            "<parameter key=\"one\" value=\"21.5\" />\n"
            "<parameter key=\"none\" value=\"22\" />\n"
            "<parameter key=\"three\" value=\"21.500\" />\n"
            "<parameter key=\"wrapped\" value=\"21.50\" />\n");
}

TEST_F(ValueTypeTest, Float32WithDigits) {
  // 0xC1AC0000 is -21.5, 0x41A80000 is 21.0.
  const PropertyInfo negative =
      download.UInt32s(1, 1, {0, 0xC1AC0000}, PropertyDataType::PDT_FLOAT);
  const PropertyInfo whole = download.UInt32s(1, 2, {0, 0x41A80000}, PropertyDataType::PDT_FLOAT);
  EXPECT_EQ(
      FunctionParameters({Param("a", "Float32", negative, 2), Param("b", "Float32", whole, 0),
                          Param("c", "Float32", whole, -254), Param("d", "Float32", {99, 1}, 2)}),
      "<parameter key=\"a\" value=\"-21.50\" />\n"
      "<parameter key=\"b\" value=\"21\" />\n"
      "<parameter key=\"c\" value=\"21.00\" />\n"
      "<parameter key=\"d\" value=\"0.00\" />\n");
}

TEST_F(ValueTypeTest, StringTypesOfAFunctionSlot) {
  const PropertyInfo texts = download.Names(1, 1, {"zero", "  A longer free text  "});
  const PropertyInfo urls = download.Names(1, 2, {"zero", "http://example.com/some/path"});
  const PropertyInfo names = download.Names(1, 3, {"zero", "   "});
  const PropertyInfo generic = download.Generic20s(1, 4, {"zero", "Generic text"});
  EXPECT_EQ(FunctionParameters({Param("Text", "Text", texts), Param("Url", "Url", urls),
                                Param("Scene", "Name", names), Param("G", "GENERIC_20", generic),
                                Param("NoText", "Text", {99, 1}), Param("NoUrl", "Url", {98, 1}),
                                Param("NoGeneric", "GENERIC_20", {97, 1})}),
            "<parameter key=\"Text\" value=\"A longer free text\" />\n"
            "<parameter key=\"Url\" value=\"http://example.com/some/path\" />\n"
            "<parameter key=\"Scene\" value=\"Scene 1\" />\n"
            "<parameter key=\"G\" value=\"Generic text\" />\n"
            "<parameter key=\"NoText\" value=\"ERROR: maybe wrong property id (99), no User "
            "should see this!\" />\n"
            "<parameter key=\"NoUrl\" value=\"ERROR: maybe wrong property id (98), no User "
            "should see this!\" />\n"
            "<parameter key=\"NoGeneric\" value=\"\" />\n");
}

class TextLimitTest : public EtsXmlTest {};

TEST_F(TextLimitTest, EachStringTypeHasItsOwnLimit) {
  UseLimits(10, 4, 6, 0);
  lux.propertyIds["ChannelType"] = download.UInt8s(0, 20, {7});
  const PropertyInfo text = download.Names(1, 1, {"0123456789"});
  lux.parameters[7] = {Param("n", "Name", text), Param("t", "Text", text), Param("u", "Url", text)};
  Builder().CreateFunction(document, 0);
  // A URL limit of 0 reads nothing, so the URL falls back to "".
  EXPECT_EQ(PrintChildren(document.child("element").child("parameters")),
            "<parameter key=\"n\" value=\"0123\" />\n"
            "<parameter key=\"t\" value=\"012345\" />\n"
            "<parameter key=\"u\" value=\"\" />\n");
}

TEST_F(ValueTypeTest, UnknownAndLowerCaseTypesWriteNothing) {
  LogCapture capture({"KnxDownloadHandler"});
  const PropertyInfo flags = download.Bools(1, 1, {1, 1});
  EXPECT_EQ(FunctionParameters({Param("a", "bool", flags), Param("b", "Boolean", flags),
                                Param("c", "", flags), Param("d", "Bool", flags)}),
            "<parameter key=\"d\" value=\"True\" />\n");
  // Only the builder's own construction line: the writer says nothing.
  EXPECT_EQ(capture.Messages(),
            std::vector<std::string>{"CO count with enabled communication flag: 0"});
}

TEST_F(ValueTypeTest, UnknownTypeOnlyGivesAnEmptyParametersElement) {
  lux.parameters[7] = {Param("a", "Float64", {1, 1})};
  Builder().CreateFunction(document, 1);
  EXPECT_EQ(Print(document.child("element").child("parameters")), "<parameters />\n");
}

// --- ShowIf arguments ----------------------------------------------------------

LuaParameter WithShowIf(LuaParameter parameter, std::int32_t functionRef,
                        std::vector<LuaParameterShowIfPropertyIds> propertyIds) {
  parameter.showIf.functionRef = functionRef;
  parameter.showIf.propertyIds = std::move(propertyIds);
  return parameter;
}

class ShowIfArgumentTest : public ValueTypeTest {
 protected:
  /// One entry of every kind, plus the ones that append nothing.
  std::vector<LuaParameterShowIfPropertyIds> AllTypes(bool wholeValuesFirst) {
    auto pick = [wholeValuesFirst](std::uint32_t atSlot1, std::uint32_t other) {
      return wholeValuesFirst ? std::vector<std::uint32_t>{atSlot1, other}
                              : std::vector<std::uint32_t>{other, atSlot1};
    };
    auto bytes = [&pick](std::uint8_t value) {
      const auto v = pick(value, 0x11);
      return std::vector<std::uint8_t>{static_cast<std::uint8_t>(v[0]),
                                       static_cast<std::uint8_t>(v[1])};
    };
    auto words = [&pick](std::uint16_t value) {
      const auto v = pick(value, 0x1111);
      return std::vector<std::uint16_t>{static_cast<std::uint16_t>(v[0]),
                                        static_cast<std::uint16_t>(v[1])};
    };
    const PropertyInfo flag = download.Bools(2, 1, bytes(1));
    const PropertyInfo byte = download.UInt8s(2, 2, bytes(0xC8));
    const PropertyInfo word = download.UInt16s(2, 3, words(0xFF38));
    const PropertyInfo dword = download.UInt32s(2, 4, pick(0xFFFFFFFE, 0x11111111));
    const PropertyInfo knxFloat =
        download.UInt16s(2, 5, words(0x0C33), PropertyDataType::PDT_KNX_FLOAT);
    const PropertyInfo ieeeFloat =
        download.UInt32s(2, 6, pick(0xC1AC0000, 0x11111111), PropertyDataType::PDT_FLOAT);
    const std::vector<std::string> textValues = wholeValuesFirst
                                                    ? std::vector<std::string>{"Hello", "other"}
                                                    : std::vector<std::string>{"other", "Hello"};
    const PropertyInfo text = download.Names(2, 7, textValues);
    const PropertyInfo generic = download.Generic20s(2, 8, textValues);
    return {{"Bool", flag},    {"Url", text},         {"Int8", byte},         {"Int16", word},
            {"Int32", dword},  {"UInt8", byte},       {"Unknown", byte},      {"UInt16", word},
            {"UInt32", dword}, {"Float16", knxFloat}, {"Float32", ieeeFloat}, {"Text", text},
            {"Name", text},    {"Name", {99, 2}},     {"GENERIC_20", generic}};
  }

  const std::vector<std::string> m_expectedArgs = {"0=1:true",
                                                   "1=2:-56",
                                                   "2=2:-200",
                                                   "3=2:-2",
                                                   "4=2:200",
                                                   "5=2:65336",
                                                   "6=3:4294967294",
                                                   "7=4:21.5",
                                                   "8=4:-21.5",
                                                   "9=5:\"Hello\"",
                                                   "10=5:\"Hello\"",
                                                   "11=5:\"ERROR: maybe wrong "
                                                   "property id (99), no User "
                                                   "should see this!\"",
                                                   "12=5:\"Hello\""};
};

TEST_F(ShowIfArgumentTest, ArrayElementsBecomeTypedArgumentsWithoutGaps) {
  lux.showIfAnswers[5] = true;
  const std::string written = FunctionParameters(
      {WithShowIf(Param("p", "UInt8", download.UInt8s(1, 1, {0, 9})), 5, AllTypes(false))});
  EXPECT_EQ(written, "<parameter key=\"p\" value=\"9\" />\n");
  ASSERT_EQ(lux.showIfCalls.size(), 1U);
  EXPECT_EQ(lux.showIfCalls[0].refId, 5);
  EXPECT_EQ(lux.showIfCalls[0].args, m_expectedArgs);
}

TEST_F(ShowIfArgumentTest, WholePropertiesBecomeTypedArgumentsWithoutGaps) {
  lux.showIfAnswers[6] = true;
  const std::string written = StaticParameters(
      {WithShowIf(Param("p", "UInt8", download.UInt8s(1, 1, {9})), 6, AllTypes(true))});
  EXPECT_EQ(written, "<parameter key=\"p\" value=\"9\" />\n");
  ASSERT_EQ(lux.showIfCalls.size(), 1U);
  EXPECT_EQ(lux.showIfCalls[0].refId, 6);
  EXPECT_EQ(lux.showIfCalls[0].args, m_expectedArgs);
}

TEST_F(ShowIfArgumentTest, MissingValuesAreZeroAndNameDefaultsToDefaultString) {
  lux.showIfAnswers[1] = true;
  const PropertyInfo missing{99, 9};
  const PropertyInfo blank = download.Names(2, 1, {"  ", "  "});
  FunctionParameters({WithShowIf(Param("p", "Bool", {98, 9}), 1,
                                 {{"Bool", missing},
                                  {"Int8", missing},
                                  {"UInt8", missing},
                                  {"UInt32", missing},
                                  {"Float16", missing},
                                  {"Float32", missing},
                                  {"Text", blank},
                                  {"Name", blank},
                                  {"GENERIC_20", missing},
                                  {"Url", blank}})});
  ASSERT_EQ(lux.showIfCalls.size(), 1U);
  EXPECT_EQ(lux.showIfCalls[0].args,
            (std::vector<std::string>{"0=1:false", "1=2:0", "2=2:0", "3=3:0", "4=4:0", "5=4:0",
                                      "6=5:\"\"", "7=5:\"DefaultString\"", "8=5:\"\""}));
}

TEST_F(ShowIfArgumentTest, ArgumentKindsAndValuesAreExact) {
  lux.showIfAnswers[2] = false;
  const PropertyInfo knxFloat =
      download.UInt16s(2, 1, {0, 0x0C15}, PropertyDataType::PDT_KNX_FLOAT);
  const PropertyInfo byte = download.UInt8s(2, 2, {0, 0x80});
  FunctionParameters(
      {WithShowIf(Param("p", "Bool", {98, 9}), 2, {{"Float16", knxFloat}, {"Int8", byte}})});
  ASSERT_EQ(lux.showIfCalls.size(), 1U);
  const std::string expectedFloat =
      fmt::format("0=4:{}", static_cast<double>(static_cast<float>(2090) * 0.01F));
  EXPECT_EQ(lux.showIfCalls[0].args, (std::vector<std::string>{expectedFloat, "1=2:-128"}));
  EXPECT_EQ(expectedFloat, "0=4:20.899999618530273");
}

}  // namespace
}  // namespace lkdh::test
