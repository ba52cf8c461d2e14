#include <KnxStack/PropertyDataType.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using KnxStack::ElementSize;
using KnxStack::ParsePropertyDataType;
using KnxStack::PropertyDataType;
using KnxStack::PropertyDataTypeFromId;
using KnxStack::ToString;

struct PdtRow {
  unsigned id;
  std::string name;
  std::uint32_t size;
};

// The reference table of KNX property datatypes shipped with the project.
std::vector<PdtRow> LoadPdtTable() {
  std::ifstream in(LKDH_TEST_DATA_DIR "/knx-pdt.csv");
  EXPECT_TRUE(in.good()) << "cannot open knx-pdt.csv";
  std::vector<PdtRow> rows;
  std::string line;
  bool headerSeen = false;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    if (!headerSeen) {
      headerSeen = true;
      EXPECT_EQ(line, "id,name,size");
      continue;
    }
    std::istringstream fields(line);
    std::string id, name, size;
    std::getline(fields, id, ',');
    std::getline(fields, name, ',');
    std::getline(fields, size, ',');
    rows.push_back({static_cast<unsigned>(std::stoul(id, nullptr, 16)), name,
                    static_cast<std::uint32_t>(std::stoul(size))});
  }
  return rows;
}

TEST(PropertyDataType, ReferenceTableListsFortyNineDatatypes) {
  EXPECT_EQ(LoadPdtTable().size(), 49u);
}

TEST(PropertyDataType, EveryReferenceRowMatchesIdNameAndSize) {
  for (const PdtRow& row : LoadPdtTable()) {
    SCOPED_TRACE(row.name);
    const auto fromId = PropertyDataTypeFromId(static_cast<std::uint8_t>(row.id));
    ASSERT_TRUE(fromId.has_value());
    EXPECT_EQ(static_cast<unsigned>(*fromId), row.id);
    EXPECT_EQ(ToString(*fromId), row.name);
    EXPECT_EQ(ElementSize(*fromId), row.size);
    const auto parsed = ParsePropertyDataType(row.name);
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(*parsed, *fromId);
  }
}

TEST(PropertyDataType, IdsOutsideTheReferenceTableAreUnknown) {
  std::set<unsigned> known;
  for (const PdtRow& row : LoadPdtTable()) known.insert(row.id);
  for (unsigned id = 0; id <= 0xFF; ++id) {
    if (known.count(id) != 0) continue;
    SCOPED_TRACE(id);
    EXPECT_FALSE(PropertyDataTypeFromId(static_cast<std::uint8_t>(id)).has_value());
    const auto unknown = static_cast<PropertyDataType>(id);
    EXPECT_EQ(ElementSize(unknown), 0u);
    EXPECT_EQ(ToString(unknown), "");
  }
}

TEST(PropertyDataType, VariableLengthHasNoFixedElementSize) {
  EXPECT_EQ(ElementSize(PropertyDataType::PDT_VARIABLE_LENGTH), 0u);
}

TEST(PropertyDataType, EnumeratorsCarryTheirKnxIds) {
  EXPECT_EQ(static_cast<unsigned>(PropertyDataType::PDT_UNSIGNED_CHAR), 0x02u);
  EXPECT_EQ(static_cast<unsigned>(PropertyDataType::PDT_GENERIC_20), 0x24u);
  EXPECT_EQ(static_cast<unsigned>(PropertyDataType::PDT_ESCAPE), 0x3Fu);
  EXPECT_EQ(ElementSize(PropertyDataType::PDT_UNSIGNED_LONG), 4u);
  EXPECT_EQ(ToString(PropertyDataType::PDT_KNX_FLOAT), "PDT_KNX_FLOAT");
}

TEST(PropertyDataType, ParsingNeedsTheExactName) {
  EXPECT_FALSE(ParsePropertyDataType("").has_value());
  EXPECT_FALSE(ParsePropertyDataType("pdt_char").has_value());
  EXPECT_FALSE(ParsePropertyDataType("PDT_CHAR ").has_value());
  EXPECT_FALSE(ParsePropertyDataType(" PDT_CHAR").has_value());
  EXPECT_FALSE(ParsePropertyDataType("PDT_").has_value());
  EXPECT_FALSE(ParsePropertyDataType("CHAR").has_value());
  EXPECT_FALSE(ParsePropertyDataType(std::string("PDT_CHAR\0", 9)).has_value());
  EXPECT_EQ(ParsePropertyDataType("PDT_CHAR"), PropertyDataType::PDT_CHAR);
}

}  // namespace
