// Function elements: channel type, URNs, template index, name, and the
// parameters whose ShowIf holds.

#include "ets_xml_test_support.h"

namespace lkdh::test {
namespace {

LuaParameter WithShowIf(LuaParameter parameter, std::int32_t functionRef,
                        std::vector<LuaParameterShowIfPropertyIds> propertyIds) {
  parameter.showIf.functionRef = functionRef;
  parameter.showIf.propertyIds = std::move(propertyIds);
  return parameter;
}

// Six slots; slot 0 is empty, slots 1 to 5 have channel types 3, 4, 5, 6, 7.
class FunctionTest : public EtsXmlTest {
 protected:
  void SetUp() override {
    UseLimits(10, 12);
    lux.propertyIds["ChannelType"] = download.UInt8s(1, 1, {0, 3, 4, 5, 6, 7});
    lux.propertyIds["FunctionNameOffset"] =
        download.Names(1, 2, {"", "  Ceiling light  ", "", "A rather long function name", "", ""});
  }
  std::string Function(unsigned int index) {
    Builder().CreateFunction(document, index);
    return PrintChildren(document);
  }
};

TEST_F(FunctionTest, SlotWithChannelTypeZeroLeavesNoTrace) {
  EXPECT_EQ(Function(0), "");
  EXPECT_EQ(journal.back(), "read 1.1");  // only the channel type was read
}

TEST_F(FunctionTest, SlotWithUnreadableChannelTypeLeavesNoTrace) {
  lux.propertyIds["ChannelType"] = {99, 1};
  EXPECT_EQ(Function(1), "");
  lux.propertyIds.erase("ChannelType");
  EtsXml builder(download.objects, download.memory, download.descriptors, &logger, &lux);
  builder.CreateFunction(document, 1);  // the zero address holds no property
  EXPECT_EQ(PrintChildren(document), "");
}

TEST_F(FunctionTest, NoUrnsGiveUnsupportedAndNoTemplateIndex) {
  EXPECT_EQ(Function(2),
            "<element name=\"Function 2\" type=\"function\" functionId=\"3\" "
            "functionUrn=\"Unsupported\" channelTypeUrn=\"Unsupported\">\n"
            "  <parameters />\n"
            "</element>\n");
}

TEST_F(FunctionTest, UrnsByTypeIdWithNameFromMemory) {
  lux.functionUrns[3] = "urn:knx:function:light";
  lux.channelUrns[3] = "urn:knx:channel:switch";
  EXPECT_EQ(Function(1),
            "<element name=\"Ceiling li\" type=\"function\" functionId=\"2\" "
            "functionUrn=\"urn:knx:function:light\" channelTypeUrn=\"urn:knx:channel:switch\">\n"
            "  <parameters />\n"
            "</element>\n");
  EXPECT_EQ(journal,
            (Journal{"GetPropertyIds()", "read 0.11", "read 0.12", "read 0.13", "read 0.14",
                     "read 1.1", "IsThereUrnsByPropertyIndex(3)", "GetFunctionUrnByTypeId(3)",
                     "GetChannelUrnByTypeId(3)", "read 1.2", "GetParametersFromChannelTypeId(3)"}));
}

TEST_F(FunctionTest, EmptyUrnTextsAreWrittenAsGiven) {
  lux.functionUrns[3] = "";
  EXPECT_EQ(Function(1),
            "<element name=\"Ceiling li\" type=\"function\" functionId=\"2\" functionUrn=\"\" "
            "channelTypeUrn=\"Unsupported\">\n"
            "  <parameters />\n"
            "</element>\n");
}

TEST_F(FunctionTest, UrnsSelectedByAPropertyOfTheSlot) {
  lux.urnSelectors[5] = download.UInt8s(2, 9, {0, 0, 0, 17});
  lux.functionUrnsByIndex[{5, 17}] = "urn:f:17";
  lux.channelUrnsByIndex[{5, 17}] = "urn:c:17";
  lux.templateIndices[{5, 17}] = "2";
  EXPECT_EQ(Function(3),
            "<element name=\"A rather lon\" type=\"function\" functionId=\"4\" "
            "functionUrn=\"urn:f:17\" channelTypeUrn=\"urn:c:17\" luaTemplateIndex=\"2\">\n"
            "  <parameters />\n"
            "</element>\n");
  EXPECT_EQ(Journal(journal.begin() + 5, journal.end()),
            (Journal{"read 1.1", "IsThereUrnsByPropertyIndex(5)", "GetPropertyIndexForUrns(5)",
                     "read 2.9", "GetFunctionUrnByTypeIdAndPropertyIndex(5, 17)",
                     "GetChannelUrnByTypeIdAndPropertyIndex(5, 17)",
                     "GetLuaTemplateIndexByTypeIdAndPropertyIndex(5, 17)", "read 1.2",
                     "GetParametersFromChannelTypeId(5)"}));
}

TEST_F(FunctionTest, UnreadableSelectorIsZeroAndMissingAnswersAreUnsupported) {
  lux.urnSelectors[5] = PropertyInfo{99, 2};
  lux.functionUrnsByIndex[{5, 0}] = "urn:f:0";
  lux.templateIndices[{5, 0}] = "";  // engaged but empty: no attribute
  EXPECT_EQ(Function(3),
            "<element name=\"A rather lon\" type=\"function\" functionId=\"4\" "
            "functionUrn=\"urn:f:0\" channelTypeUrn=\"Unsupported\">\n"
            "  <parameters />\n"
            "</element>\n");
}

TEST_F(FunctionTest, SlotZeroDefaultsToFunctionZeroWithIdOne) {
  lux.propertyIds["ChannelType"] = download.UInt8s(1, 3, {9});
  Builder().CreateFunction(document, 0);
  EXPECT_EQ(Print(document.first_child()),
            "<element name=\"Function 0\" type=\"function\" functionId=\"1\" "
            "functionUrn=\"Unsupported\" channelTypeUrn=\"Unsupported\">\n"
            "  <parameters />\n"
            "</element>\n");
}

TEST_F(FunctionTest, UnreadableNamePositionIsTheWrongPropertyIdText) {
  lux.propertyIds["FunctionNameOffset"] = {98, 1};
  EXPECT_EQ(Function(4),
            "<element name=\"ERROR: maybe wrong property id (98), no User should see this!\" "
            "type=\"function\" functionId=\"5\" functionUrn=\"Unsupported\" "
            "channelTypeUrn=\"Unsupported\">\n"
            "  <parameters />\n"
            "</element>\n");
}

TEST_F(FunctionTest, ParametersAreReadAtTheSlotInScriptOrder) {
  lux.parameters[7] = {Param("Zeta", "UInt8", download.UInt8s(2, 1, {0, 0, 0, 0, 0, 42})),
                       Param("Alpha", "Bool", download.Bools(2, 2, {0, 0, 0, 0, 0, 1}))};
  EXPECT_EQ(Function(5),
            "<element name=\"Function 5\" type=\"function\" functionId=\"6\" "
            "functionUrn=\"Unsupported\" channelTypeUrn=\"Unsupported\">\n"
            "  <parameters>\n"
            "    <parameter key=\"Zeta\" value=\"42\" />\n"
            "    <parameter key=\"Alpha\" value=\"True\" />\n"
            "  </parameters>\n"
            "</element>\n");
}

TEST_F(FunctionTest, NameParameterDefaultsToKeyAndSlot) {
  const PropertyInfo names = download.Names(2, 3, {"", "", "", "", "   ", ""});
  lux.parameters[6] = {Param("Scene", "Name", names)};
  Function(4);
  EXPECT_EQ(PrintChildren(document.child("element").child("parameters")),
            "<parameter key=\"Scene\" value=\"Scene 4\" />\n");
}

TEST_F(FunctionTest, ShowIfFalseLeavesTheParameterOutAndTheWalkGoesOn) {
  const PropertyInfo values = download.UInt8s(2, 1, {1, 2, 3, 4, 5, 6});
  lux.parameters[7] = {Param("a", "UInt8", values),
                       WithShowIf(Param("b", "UInt8", values), 11, {{"UInt8", values}}),
                       WithShowIf(Param("c", "UInt8", values), 12, {{"UInt8", values}}),
                       Param("d", "UInt8", values)};
  lux.showIfAnswers[11] = false;
  lux.showIfAnswers[12] = true;
  Function(5);
  EXPECT_EQ(PrintChildren(document.child("element").child("parameters")),
            "<parameter key=\"a\" value=\"6\" />\n"
            "<parameter key=\"c\" value=\"6\" />\n"
            "<parameter key=\"d\" value=\"6\" />\n");
  ASSERT_EQ(lux.showIfCalls.size(), 2U);
  EXPECT_EQ(lux.showIfCalls[0].refId, 11);
  EXPECT_EQ(lux.showIfCalls[0].args, std::vector<std::string>{"0=2:6"});
  EXPECT_EQ(lux.showIfCalls[1].refId, 12);
  EXPECT_EQ(lux.showIfCalls[1].args, std::vector<std::string>{"0=2:6"});
}

TEST_F(FunctionTest, ShowIfWithoutPropertyIdsIsNeverCalled) {
  const PropertyInfo values = download.UInt8s(2, 1, {1, 2, 3, 4, 5, 6});
  lux.parameters[7] = {WithShowIf(Param("a", "UInt8", values), 11, {})};
  lux.showIfAnswers[11] = false;
  Function(5);
  EXPECT_EQ(PrintChildren(document.child("element").child("parameters")),
            "<parameter key=\"a\" value=\"6\" />\n");
  EXPECT_TRUE(lux.showIfCalls.empty());
}

TEST_F(FunctionTest, ShowIfWithoutFunctionIsCalledWithReferenceZero) {
  const PropertyInfo values = download.UInt8s(2, 1, {1, 2, 3, 4, 5, 6});
  lux.parameters[7] = {WithShowIf(Param("a", "UInt8", values), 0, {{"Bool", values}})};
  Function(5);
  EXPECT_EQ(Print(document.child("element").child("parameters")), "<parameters />\n");
  ASSERT_EQ(lux.showIfCalls.size(), 1U);
  EXPECT_EQ(lux.showIfCalls[0].refId, 0);
  EXPECT_EQ(lux.showIfCalls[0].args, std::vector<std::string>{"0=1:true"});
}

TEST_F(FunctionTest, UnknownTypeIsAbsentWithoutMessage) {
  LogCapture capture({"KnxDownloadHandler"});
  const PropertyInfo values = download.UInt8s(2, 1, {1, 2, 3, 4, 5, 6});
  lux.parameters[7] = {Param("a", "Percent", values), Param("b", "uint8", values),
                       Param("c", "UInt8", values)};
  Function(5);
  EXPECT_EQ(PrintChildren(document.child("element").child("parameters")),
            "<parameter key=\"c\" value=\"6\" />\n");
  EXPECT_EQ(capture.Messages(),
            std::vector<std::string>{"CO count with enabled communication flag: 0"});
}

TEST_F(FunctionTest, ExceptionsFromTheBridgeAreNotCaught) {
  lux.throwOnParameters = true;
  EXPECT_THROW(Builder().CreateFunction(document, 1), std::runtime_error);
}

}  // namespace
}  // namespace lkdh::test
