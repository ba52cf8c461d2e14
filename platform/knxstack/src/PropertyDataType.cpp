#include <KnxStack/PropertyDataType.h>

namespace KnxStack {

namespace {

struct PdtInfo {
  PropertyDataType pdt;
  std::string_view name;
  std::uint32_t size;
};

// Ordered by id; one row per datatype that KNX defines.
constexpr PdtInfo kPdtTable[] = {
    {PropertyDataType::PDT_CONTROL, "PDT_CONTROL", 1},
    {PropertyDataType::PDT_CHAR, "PDT_CHAR", 1},
    {PropertyDataType::PDT_UNSIGNED_CHAR, "PDT_UNSIGNED_CHAR", 1},
    {PropertyDataType::PDT_INT, "PDT_INT", 2},
    {PropertyDataType::PDT_UNSIGNED_INT, "PDT_UNSIGNED_INT", 2},
    {PropertyDataType::PDT_KNX_FLOAT, "PDT_KNX_FLOAT", 2},
    {PropertyDataType::PDT_DATE, "PDT_DATE", 3},
    {PropertyDataType::PDT_TIME, "PDT_TIME", 3},
    {PropertyDataType::PDT_LONG, "PDT_LONG", 4},
    {PropertyDataType::PDT_UNSIGNED_LONG, "PDT_UNSIGNED_LONG", 4},
    {PropertyDataType::PDT_FLOAT, "PDT_FLOAT", 4},
    {PropertyDataType::PDT_DOUBLE, "PDT_DOUBLE", 8},
    {PropertyDataType::PDT_CHAR_BLOCK, "PDT_CHAR_BLOCK", 10},
    {PropertyDataType::PDT_POLL_GROUP_SETTING, "PDT_POLL_GROUP_SETTING", 3},
    {PropertyDataType::PDT_SHORT_CHAR_BLOCK, "PDT_SHORT_CHAR_BLOCK", 5},
    {PropertyDataType::PDT_DATE_TIME, "PDT_DATE_TIME", 8},
    {PropertyDataType::PDT_VARIABLE_LENGTH, "PDT_VARIABLE_LENGTH", 0},
    {PropertyDataType::PDT_GENERIC_01, "PDT_GENERIC_01", 1},
    {PropertyDataType::PDT_GENERIC_02, "PDT_GENERIC_02", 2},
    {PropertyDataType::PDT_GENERIC_03, "PDT_GENERIC_03", 3},
    {PropertyDataType::PDT_GENERIC_04, "PDT_GENERIC_04", 4},
    {PropertyDataType::PDT_GENERIC_05, "PDT_GENERIC_05", 5},
    {PropertyDataType::PDT_GENERIC_06, "PDT_GENERIC_06", 6},
    {PropertyDataType::PDT_GENERIC_07, "PDT_GENERIC_07", 7},
    {PropertyDataType::PDT_GENERIC_08, "PDT_GENERIC_08", 8},
    {PropertyDataType::PDT_GENERIC_09, "PDT_GENERIC_09", 9},
    {PropertyDataType::PDT_GENERIC_10, "PDT_GENERIC_10", 10},
    {PropertyDataType::PDT_GENERIC_11, "PDT_GENERIC_11", 11},
    {PropertyDataType::PDT_GENERIC_12, "PDT_GENERIC_12", 12},
    {PropertyDataType::PDT_GENERIC_13, "PDT_GENERIC_13", 13},
    {PropertyDataType::PDT_GENERIC_14, "PDT_GENERIC_14", 14},
    {PropertyDataType::PDT_GENERIC_15, "PDT_GENERIC_15", 15},
    {PropertyDataType::PDT_GENERIC_16, "PDT_GENERIC_16", 16},
    {PropertyDataType::PDT_GENERIC_17, "PDT_GENERIC_17", 17},
    {PropertyDataType::PDT_GENERIC_18, "PDT_GENERIC_18", 18},
    {PropertyDataType::PDT_GENERIC_19, "PDT_GENERIC_19", 19},
    {PropertyDataType::PDT_GENERIC_20, "PDT_GENERIC_20", 20},
    {PropertyDataType::PDT_UTF8, "PDT_UTF8", 3},
    {PropertyDataType::PDT_VERSION, "PDT_VERSION", 2},
    {PropertyDataType::PDT_ALARM_INFO, "PDT_ALARM_INFO", 6},
    {PropertyDataType::PDT_BINARY_INFORMATION, "PDT_BINARY_INFORMATION", 1},
    {PropertyDataType::PDT_BITSET8, "PDT_BITSET8", 1},
    {PropertyDataType::PDT_BITSET16, "PDT_BITSET16", 2},
    {PropertyDataType::PDT_ENUM8, "PDT_ENUM8", 1},
    {PropertyDataType::PDT_SCALING, "PDT_SCALING", 1},
    {PropertyDataType::PDT_NE_VL, "PDT_NE_VL", 3},
    {PropertyDataType::PDT_NE_FL, "PDT_NE_FL", 3},
    {PropertyDataType::PDT_FUNCTION, "PDT_FUNCTION", 3},
    {PropertyDataType::PDT_ESCAPE, "PDT_ESCAPE", 3},
};

const PdtInfo* Find(PropertyDataType pdt) noexcept {
  for (const auto& info : kPdtTable) {
    if (info.pdt == pdt) return &info;
  }
  return nullptr;
}

}  // namespace

std::uint32_t ElementSize(PropertyDataType pdt) noexcept {
  const PdtInfo* info = Find(pdt);
  return info == nullptr ? 0 : info->size;
}

std::string_view ToString(PropertyDataType pdt) noexcept {
  const PdtInfo* info = Find(pdt);
  return info == nullptr ? std::string_view() : info->name;
}

std::optional<PropertyDataType> ParsePropertyDataType(std::string_view name) noexcept {
  for (const auto& info : kPdtTable) {
    if (info.name == name) return info.pdt;
  }
  return std::nullopt;
}

std::optional<PropertyDataType> PropertyDataTypeFromId(std::uint8_t id) noexcept {
  const auto pdt = static_cast<PropertyDataType>(id);
  if (Find(pdt) == nullptr) return std::nullopt;
  return pdt;
}

}  // namespace KnxStack
