// Static-data elements: enabling, parameters from whole properties, nesting.

#include "ets_xml_test_support.h"

namespace lkdh::test {
namespace {

LuxStaticData Record(std::string name, std::string type = "settings") {
  LuxStaticData data;
  data.name = std::move(name);
  data.type = std::move(type);
  return data;
}

LuxStaticData WithSubData(LuxStaticData data, std::vector<LuxStaticData> subData) {
  data.subData = std::move(subData);
  return data;
}

LuxStaticData EnabledBy(LuxStaticData data, PropertyInfo property) {
  data.enabledProperty = property;
  return data;
}

class StaticDataTest : public EtsXmlTest {
 protected:
  void SetUp() override {
    UseLimits();
    on = download.Bools(3, 1, {1});
    off = download.Bools(3, 2, {0});
  }
  std::string Root() {
    Builder().CreateRootStaticData(document);
    return PrintChildren(document);
  }

  PropertyInfo on;
  PropertyInfo off;
  const PropertyInfo missing{99, 3};
};

TEST_F(StaticDataTest, RecordWithoutEnablingPropertyIsAlwaysWritten) {
  // The zero address holds false: without an enabling property it does not matter.
  download.Bools(0, 0, {0});
  lux.staticData = {Record("Weather", "weather")};
  EXPECT_EQ(Root(),
            "<element name=\"Weather\" type=\"weather\">\n"
            "  <parameters />\n"
            "</element>\n");
  EXPECT_EQ(lux.staticDataCalls, 1);
}

TEST_F(StaticDataTest, EnabledRecordIsWrittenDisabledAndUnreadableAreSkippedWithTheirChildren) {
  lux.staticData = {
      EnabledBy(WithSubData(Record("A"), {Record("A1")}), on),
      EnabledBy(WithSubData(Record("B"), {Record("B1")}), off),
      EnabledBy(WithSubData(Record("C"), {Record("C1")}), missing),
      Record("D"),
  };
  EXPECT_EQ(Root(),
            "<element name=\"A\" type=\"settings\">\n"
            "  <parameters />\n"
            "  <elements>\n"
            "    <element name=\"A1\" type=\"settings\">\n"
            "      <parameters />\n"
            "    </element>\n"
            "  </elements>\n"
            "</element>\n"
            "<element name=\"D\" type=\"settings\">\n"
            "  <parameters />\n"
            "</element>\n");
}

TEST_F(StaticDataTest, EmptyEnablingPropertyReadsTheZeroAddress) {
  lux.staticData = {EnabledBy(Record("Z"), PropertyInfo{})};
  EXPECT_EQ(Root(), "");
  download.Bools(0, 0, {1});
  document.reset();
  EXPECT_EQ(Root(),
            "<element name=\"Z\" type=\"settings\">\n"
            "  <parameters />\n"
            "</element>\n");
}

TEST_F(StaticDataTest, NestedRecordsInOrderWithDisabledOnesLeftOut) {
  lux.staticData = {WithSubData(
      Record("Top", "group"),
      {WithSubData(Record("First"), {Record("Deep", "leaf")}), EnabledBy(Record("Second"), off),
       Record("Third"), WithSubData(Record("Fourth"), {EnabledBy(Record("Gone"), missing)})})};
  EXPECT_EQ(Root(),
            "<element name=\"Top\" type=\"group\">\n"
            "  <parameters />\n"
            "  <elements>\n"
            "    <element name=\"First\" type=\"settings\">\n"
            "      <parameters />\n"
            "      <elements>\n"
            "        <element name=\"Deep\" type=\"leaf\">\n"
            "          <parameters />\n"
            "        </element>\n"
            "      </elements>\n"
            "    </element>\n"
            "    <element name=\"Third\" type=\"settings\">\n"
            "      <parameters />\n"
            "    </element>\n"
            "    <element name=\"Fourth\" type=\"settings\">\n"
            "      <parameters />\n"
            "      <elements />\n"
            "    </element>\n"
            "  </elements>\n"
            "</element>\n");
}

TEST_F(StaticDataTest, ParametersReadWholePropertiesInOrder) {
  LuxStaticData data = Record("Values");
  data.parameters = {
      Param("Count", "UInt8", download.UInt8s(4, 1, {7, 8})),
      Param("Offset", "Int16", download.UInt16s(4, 2, {0xFFFE, 3})),
      Param("Temp", "Float16", download.UInt16s(4, 3, {0x0C15}, PropertyDataType::PDT_KNX_FLOAT),
            1),
      Param("Label", "Text", download.Names(4, 4, {"  Hall  ", "x"})),
      Param("Code", "GENERIC_20", download.Generic20s(4, 5, {"ABC", "DEF"})),
      Param("Link", "Url", download.Names(4, 6, {"http://x"})),
  };
  lux.staticData = {data};
  EXPECT_EQ(Root(),
            "<element name=\"Values\" type=\"settings\">\n"
            "  <parameters>\n"
            "    <parameter key=\"Count\" value=\"7\" />\n"
            "    <parameter key=\"Offset\" value=\"-2\" />\n"
            "    <parameter key=\"Temp\" value=\"20.9\" />\n"
            "    <parameter key=\"Label\" value=\"Hall\" />\n"
            "    <parameter key=\"Code\" value=\"ABC\" />\n"
            "    <parameter key=\"Link\" value=\"http://x\" />\n"
            "  </parameters>\n"
            "</element>\n");
}

TEST_F(StaticDataTest, UnreadableNameIsTheWrongPropertyIdTextOfItsProperty) {
  LuxStaticData data = Record("Names");
  data.parameters = {Param("Title", "Name", {12, 3}),
                     Param("Blank", "Name", download.Names(4, 1, {" "})),
                     Param("Other", "Name", {13, 3})};
  lux.staticData = {data};
  Root();
  EXPECT_EQ(PrintChildren(document.child("element").child("parameters")),
            "<parameter key=\"Title\" value=\"ERROR: maybe wrong property id (12), no User should "
            "see this!\" />\n"
            "<parameter key=\"Blank\" value=\"ERROR: maybe wrong property id (1), no User should "
            "see this!\" />\n"
            "<parameter key=\"Other\" value=\"ERROR: maybe wrong property id (13), no User should "
            "see this!\" />\n");
}

TEST_F(StaticDataTest, ShowIfDecidesPerParameterWithWholeValues) {
  LuxStaticData data = Record("Shown");
  const PropertyInfo value = download.UInt8s(4, 1, {5, 6});
  LuaParameter hidden = Param("Hidden", "UInt8", value);
  hidden.showIf.functionRef = 21;
  hidden.showIf.propertyIds = {{"UInt8", value}, {"Url", value}, {"Bool", on}};
  LuaParameter shown = Param("Shown", "UInt8", value);
  shown.showIf.functionRef = 22;
  shown.showIf.propertyIds = {{"Int8", value}};
  data.parameters = {hidden, shown, Param("Plain", "UInt8", value)};
  lux.staticData = {data};
  lux.showIfAnswers[22] = true;
  Root();
  EXPECT_EQ(PrintChildren(document.child("element").child("parameters")),
            "<parameter key=\"Shown\" value=\"5\" />\n"
            "<parameter key=\"Plain\" value=\"5\" />\n");
  ASSERT_EQ(lux.showIfCalls.size(), 2U);
  EXPECT_EQ(lux.showIfCalls[0].refId, 21);
  EXPECT_EQ(lux.showIfCalls[0].args, (std::vector<std::string>{"0=2:5", "1=1:true"}));
  EXPECT_EQ(lux.showIfCalls[1].refId, 22);
  EXPECT_EQ(lux.showIfCalls[1].args, std::vector<std::string>{"0=2:5"});
}

TEST_F(StaticDataTest, NoStaticDataWritesNothing) {
  EXPECT_EQ(Root(), "");
  EXPECT_EQ(lux.staticDataCalls, 1);
}

}  // namespace
}  // namespace lkdh::test
