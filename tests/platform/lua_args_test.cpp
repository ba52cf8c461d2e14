#include <ovslua/Lua.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Args = ovslua::Lua::Args;
using Arg = ovslua::Lua::Args::Arg;

std::vector<std::string> Keys(const Args& args) {
  std::vector<std::string> keys;
  for (const auto& entry : args.Entries()) keys.push_back(entry.first);
  return keys;
}

TEST(LuaArgs, UnsignedAppendsKindThreeUnderTheNextPosition) {
  Args args;
  unsigned int first = 7;
  unsigned int second = 4294967295U;
  args += first;
  args += second;
  ASSERT_EQ(args.Count(), 2U);
  EXPECT_EQ(Keys(args), (std::vector<std::string>{"0", "1"}));
  EXPECT_EQ(args[0].GetKind(), Arg::Unsigned);
  EXPECT_EQ(args[0].GetUnsigned(), 7U);
  EXPECT_EQ(args[1].GetKind(), Arg::Unsigned);
  EXPECT_EQ(args[1].GetUnsigned(), 4294967295U);
  // The caller's variable is read, not changed.
  EXPECT_EQ(first, 7U);
}

TEST(LuaArgs, PositionsAreDecimalTextKeysOrderedAsText) {
  Args args;
  for (unsigned int i = 0; i < 12; ++i) {
    unsigned int value = i * 10;
    args += value;
  }
  EXPECT_EQ(Keys(args), (std::vector<std::string>{"0", "1", "10", "11", "2", "3", "4", "5", "6",
                                                  "7", "8", "9"}));
  // Access by position is by number, whatever the text order.
  EXPECT_EQ(args[2].GetUnsigned(), 20U);
  EXPECT_EQ(args[10].GetUnsigned(), 100U);
  EXPECT_EQ(args[11].GetUnsigned(), 110U);
}

TEST(LuaArgs, AppendingAnArgMovesKindValueAndText) {
  Args args;
  Arg text = Arg::FromString("hello world, long enough to live on the heap");
  args += std::move(text);
  args += Arg::FromBool(true);
  args += Arg::FromDouble(2.5);
  args += Arg::FromInt(-3);
  ASSERT_EQ(args.Count(), 4U);
  EXPECT_EQ(args[0].GetKind(), Arg::String);
  EXPECT_EQ(args[0].GetText(), "hello world, long enough to live on the heap");
  EXPECT_EQ(args[1].GetKind(), Arg::Boolean);
  EXPECT_TRUE(args[1].GetBool());
  EXPECT_EQ(args[2].GetKind(), Arg::Number);
  EXPECT_DOUBLE_EQ(args[2].GetDouble(), 2.5);
  EXPECT_EQ(args[3].GetKind(), Arg::Integer);
  EXPECT_EQ(args[3].GetInt(), -3);
}

TEST(LuaArgs, MissingPositionYieldsAFreshEntryOfKindNone) {
  Args args;
  unsigned int value = 1;
  args += value;
  Arg& missing = args[5];
  EXPECT_EQ(missing.GetKind(), Arg::None);
  EXPECT_FALSE(static_cast<bool>(missing));
  EXPECT_EQ(static_cast<std::string>(missing), "");
  // A write into the default entry does not show on the next miss.
  missing = Arg::FromString("leaked");
  const Arg& again = args[6];
  EXPECT_EQ(again.GetKind(), Arg::None);
  EXPECT_EQ(again.GetText(), "");
  EXPECT_EQ(args.Count(), 1U);
}

TEST(LuaArgs, ConstantListMissingPositionIsKindNoneEvenAfterAWriteIntoTheDefault) {
  Args args;
  args[3] = Arg::FromBool(true);
  const Args& constant = args;
  EXPECT_EQ(constant[3].GetKind(), Arg::None);
  EXPECT_FALSE(static_cast<bool>(constant[3]));
  EXPECT_TRUE(args.Empty());
}

TEST(LuaArgs, FactoriesSetKindAndValue) {
  EXPECT_EQ(Arg().GetKind(), Arg::None);
  EXPECT_EQ(Arg::FromBool(false).GetKind(), Arg::Boolean);
  EXPECT_FALSE(Arg::FromBool(false).GetBool());
  EXPECT_EQ(Arg::FromInt(INT64_MIN).GetInt(), INT64_MIN);
  EXPECT_EQ(Arg::FromUnsigned(UINT64_MAX).GetUnsigned(), UINT64_MAX);
  EXPECT_EQ(Arg::FromUnsigned(UINT64_MAX).GetKind(), Arg::Unsigned);
  EXPECT_EQ(Arg::FromDouble(-0.25).GetKind(), Arg::Number);
  EXPECT_DOUBLE_EQ(Arg::FromDouble(-0.25).GetDouble(), -0.25);
  EXPECT_EQ(Arg::FromString(std::string("a\0b", 3)).GetText(), std::string("a\0b", 3));
  const Arg declared = Arg::OfKind(Arg::String);
  EXPECT_EQ(declared.GetKind(), Arg::String);
  EXPECT_EQ(declared.GetText(), "");
  EXPECT_EQ(Arg::OfKind(Arg::Boolean).GetKind(), Arg::Boolean);
  EXPECT_FALSE(Arg::OfKind(Arg::Boolean).GetBool());
}

TEST(LuaArgs, TruthinessByKind) {
  EXPECT_TRUE(static_cast<bool>(Arg::FromBool(true)));
  EXPECT_FALSE(static_cast<bool>(Arg::FromBool(false)));
  EXPECT_TRUE(static_cast<bool>(Arg::FromInt(-1)));
  EXPECT_FALSE(static_cast<bool>(Arg::FromInt(0)));
  EXPECT_TRUE(static_cast<bool>(Arg::FromUnsigned(1)));
  EXPECT_FALSE(static_cast<bool>(Arg::FromUnsigned(0)));
  EXPECT_TRUE(static_cast<bool>(Arg::FromDouble(0.5)));
  EXPECT_FALSE(static_cast<bool>(Arg::FromDouble(0.0)));
  EXPECT_TRUE(static_cast<bool>(Arg::FromString("0")));
  EXPECT_FALSE(static_cast<bool>(Arg::FromString("")));
  EXPECT_FALSE(static_cast<bool>(Arg()));
  EXPECT_FALSE(static_cast<bool>(Arg::OfKind(42)));
}

// Code written against the device's wrapper reads results by plain assignment.
static_assert(std::is_convertible_v<const Arg&, std::string>, "text conversion is implicit");
static_assert(std::is_convertible_v<const Arg&, bool>, "boolean conversion is implicit");

TEST(LuaArgs, ResultsReadByAssignment) {
  const std::string urn = Arg::FromString("urn:x");
  const bool shown = Arg::FromInt(3);
  EXPECT_EQ(urn, "urn:x");
  EXPECT_TRUE(shown);
}

TEST(LuaArgs, TextByKind) {
  EXPECT_EQ(static_cast<std::string>(Arg::FromBool(true)), "true");
  EXPECT_EQ(static_cast<std::string>(Arg::FromBool(false)), "false");
  EXPECT_EQ(static_cast<std::string>(Arg::FromInt(-42)), "-42");
  EXPECT_EQ(static_cast<std::string>(Arg::FromUnsigned(18446744073709551615ULL)),
            "18446744073709551615");
  EXPECT_EQ(static_cast<std::string>(Arg::FromDouble(2.5)), "2.5");
  EXPECT_EQ(static_cast<std::string>(Arg::FromDouble(0.1)), "0.1");
  EXPECT_EQ(static_cast<std::string>(Arg::FromDouble(3.0)), "3");
  EXPECT_EQ(static_cast<std::string>(Arg::FromString("urn:x")), "urn:x");
  EXPECT_EQ(static_cast<std::string>(Arg::FromString(std::string("a\0b", 3))),
            std::string("a\0b", 3));
  EXPECT_EQ(static_cast<std::string>(Arg()), "");
  EXPECT_EQ(static_cast<std::string>(Arg::OfKind(42)), "");
}

}  // namespace
