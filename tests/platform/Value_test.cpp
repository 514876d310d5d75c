#include "kelo/Value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "platform/Json.h"

namespace kelo {
namespace {

TEST(ValueTest, IntegerReadingFollowsTheConfigurationRules) {
  struct Case {
    const char* name;
    Value value;
    int64_t expected;
  };
  const Case cases[] = {
      {"positive real truncates", Value::real(2.9), 2},
      {"negative real truncates toward zero", Value::real(-2.9), -2},
      {"true", Value::boolean(true), 1},
      {"false", Value::boolean(false), 0},
      {"integer", Value::integer(-7), -7},
      {"string with trailing text", Value::string("42abc"), 42},
      {"string with blanks and sign", Value::string("  -17 apples"), -17},
      {"string without digits", Value::string("abc"), 0},
      {"empty string", Value::string(""), 0},
      {"string overflow saturates", Value::string("99999999999999999999"),
       std::numeric_limits<int64_t>::max()},
      {"dictionary", Value::dictionary({}), 0},
      {"array", Value::array({Value::integer(3)}), 0},
      {"null", Value(), 0},
      {"date", Value::date(1000.0), 0},
      {"NaN", Value::real(std::nan("")), 0},
      {"huge real saturates", Value::real(1e300), std::numeric_limits<int64_t>::max()},
      {"tiny real saturates", Value::real(-1e300), std::numeric_limits<int64_t>::min()},
  };
  for (const Case& c : cases) EXPECT_EQ(c.value.integerValue(), c.expected) << c.name;
}

TEST(ValueTest, TypedAccessGivesNeutralValuesForOtherTypes) {
  const Value n = Value::integer(3);
  EXPECT_EQ(n.asString(), "");
  EXPECT_TRUE(n.asArray().empty());
  EXPECT_TRUE(n.asDictionary().empty());
  EXPECT_FALSE(n.asBoolean());
  EXPECT_EQ(n.find("x"), nullptr);
  EXPECT_DOUBLE_EQ(Value::date(12.5).asDate(), 12.5);
  EXPECT_EQ(Value::real(12.5), Value::real(12.5));
  EXPECT_FALSE(Value::date(12.5) == Value::real(12.5));
}

TEST(JsonTest, ReadsEveryKindOfValue) {
  const Value v = platform::parseJson(
      R"({"i": 5, "r": 2.5, "b": true, "s": "x", "n": null, "a": [1, "two"], "d": {"k": -1},
          "big": 18446744073709551615})");
  ASSERT_TRUE(v.isDictionary());
  EXPECT_EQ(v.find("i")->type(), Value::Type::kInteger);
  EXPECT_EQ(v.find("r")->type(), Value::Type::kReal);
  EXPECT_TRUE(v.find("b")->asBoolean());
  EXPECT_EQ(v.find("s")->asString(), "x");
  EXPECT_TRUE(v.find("n")->isNull());
  EXPECT_EQ(v.find("a")->asArray().size(), 2u);
  EXPECT_EQ(v.find("d")->find("k")->integerValue(), -1);
  EXPECT_EQ(v.find("big")->type(), Value::Type::kReal);
}

TEST(JsonTest, MalformedInputNamesFileLineAndColumn) {
  const Value v = platform::parseJson("{\n  \"a\": 1,\n  \"b\": ]\n}", "Info.json");
  ASSERT_TRUE(v.isError());
  EXPECT_EQ(v.asError().file, "Info.json");
  EXPECT_EQ(v.asError().line, 3);
  EXPECT_EQ(v.asError().column, 8);
  EXPECT_FALSE(v.asError().message.empty());
}

TEST(JsonTest, TruncatedAndEmptyInputAreErrors) {
  EXPECT_TRUE(platform::parseJson("{\"a\": [1, 2").isError());
  EXPECT_TRUE(platform::parseJson("").isError());
  EXPECT_TRUE(platform::parseJson("{} trailing").isError());
}

TEST(JsonTest, NestingPastTheBoundIsRefusedWithItsPosition) {
  const std::string ok = std::string(platform::kMaxJsonDepth, '[') +
                         std::string(platform::kMaxJsonDepth, ']');
  EXPECT_FALSE(platform::parseJson(ok).isError());
  const std::string deep(100000, '[');
  const Value v = platform::parseJson("\n" + deep, "deep.json");
  ASSERT_TRUE(v.isError());
  EXPECT_EQ(v.asError().line, 2);
  EXPECT_EQ(v.asError().column, platform::kMaxJsonDepth + 1);
}

TEST(JsonTest, WritesWhatItReads) {
  const std::string text = R"({"a":[1,2.5,"x",true,null],"b":{"c":-3}})";
  const Value v = platform::parseJson(text);
  EXPECT_EQ(platform::toJson(v), text);
  EXPECT_EQ(platform::parseJson(platform::toJson(v, true)), v);
}

TEST(JsonTest, InvalidUtf8IsReplacedNotThrown) {
  const Value v = Value::string(std::string("a\xff") + "b");
  const std::string out = platform::toJson(v);
  EXPECT_FALSE(platform::parseJson(out).isError());
}

TEST(JsonTest, MissingFileIsAnError) {
  EXPECT_TRUE(platform::readJsonFile("/nonexistent/kelo/file.json").isError());
}

}  // namespace
}  // namespace kelo
