#include "kelo/Value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/Json.h"

namespace kelo {
namespace {

using platform::parseJson;

TEST(ValueTest, IntegerReadingFollowsTheConfigurationRules) {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  const std::pair<Value, int64_t> cases[] = {
      {Value::real(2.9), 2},
      {Value::real(-2.9), -2},  // toward zero
      {Value::boolean(true), 1},
      {Value::boolean(false), 0},
      {Value::integer(-7), -7},
      {Value::string("42abc"), 42},
      {Value::string("  -17 apples"), -17},
      {Value::string("abc"), 0},
      {Value::string(""), 0},
      {Value::string("99999999999999999999"), kMax},
      {Value::dictionary({}), 0},
      {Value::array({Value::integer(3)}), 0},
      {Value(), 0},
      {Value::date(1000.0), 0},
      {Value::real(std::nan("")), 0},
      {Value::real(1e300), kMax},
      {Value::real(-1e300), std::numeric_limits<int64_t>::min()},
  };
  for (const auto& [value, expected] : cases) {
    EXPECT_EQ(value.integerValue(), expected) << platform::toJson(value);
  }
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

// Against an ordered map as the reference, through the small sizes that look entries up one by
// one and the large ones that search by halves: the same entries, in the same order, after a
// random mix of insertions, replacements and erasures.
TEST(ValueTest, DictionaryBehavesAsAnOrderedMap) {
  for (const int keySpace : {6, 300}) {
    std::mt19937 random(static_cast<unsigned>(keySpace));
    std::uniform_int_distribution<int> pick(0, keySpace - 1);
    Value::Dictionary d;
    std::map<std::string, Value> reference;
    for (int step = 0; step < 4000; ++step) {
      const std::string key = "k" + std::to_string(pick(random) * 7919 % keySpace);
      const Value value = Value::integer(step);
      switch (step % 4) {
        case 0:
          EXPECT_EQ(d.emplace(key, value).second, reference.emplace(key, value).second);
          break;
        case 1:
          EXPECT_EQ(d.insert_or_assign(key, value).second,
                    reference.insert_or_assign(key, value).second);
          break;
        case 2:
          EXPECT_EQ(d.erase(key), reference.erase(key));
          break;
        default:
          d[key] = value;
          reference[key] = value;
      }
      const auto found = d.find(key);
      ASSERT_EQ(found != d.end(), reference.count(key) == 1) << key;
      if (found != d.end()) {
        ASSERT_EQ(found->second, reference.at(key)) << key;
      }
    }
    ASSERT_TRUE(std::equal(
        d.begin(), d.end(), reference.begin(), reference.end(),
        [](const auto& a, const auto& b) { return a.first == b.first && a.second == b.second; }));
    const Value wrapped = Value::dictionary(d);
    for (const auto& [key, value] : reference) EXPECT_EQ(*wrapped.find(key), value) << key;
    EXPECT_EQ(wrapped.find("absent"), nullptr);
    EXPECT_EQ(wrapped.asDictionary(), d);
  }
}

TEST(ValueTest, DictionaryBuiltFromUnsortedEntriesKeepsTheLastOfEqualKeys) {
  const Value::Dictionary d = Value::Dictionary::fromUnsorted({{"b", Value::integer(1)},
                                                               {"a", Value::integer(2)},
                                                               {"b", Value::integer(3)},
                                                               {"c", Value::integer(4)},
                                                               {"a", Value::integer(5)}});
  EXPECT_EQ(d, (Value::Dictionary{
                   {"a", Value::integer(5)}, {"b", Value::integer(3)}, {"c", Value::integer(4)}}));
  // The initialiser list keeps the first, as an ordered map's does.
  EXPECT_EQ((Value::Dictionary{{"a", Value::integer(1)}, {"a", Value::integer(2)}}).at("a"),
            Value::integer(1));
  // So does a long range inserted into a dictionary that already holds some of its keys.
  std::vector<std::pair<std::string, Value>> range;
  for (int i = 0; i < 500; ++i)
    range.emplace_back("k" + std::to_string(i * 37 % 211), Value::integer(i));
  Value::Dictionary merged{{"k5", Value::string("kept")}, {"zz", Value()}};
  std::map<std::string, Value> reference(merged.begin(), merged.end());
  merged.insert(range.begin(), range.end());
  reference.insert(range.begin(), range.end());
  EXPECT_TRUE(std::equal(
      merged.begin(), merged.end(), reference.begin(), reference.end(),
      [](const auto& a, const auto& b) { return a.first == b.first && a.second == b.second; }));
}

TEST(JsonTest, ReadsAndWritesEveryKindOfValue) {
  const Value v = parseJson(
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

  const std::string text = R"({"a":[1,2.5,"x",true,null],"b":{"c":-3}})";
  EXPECT_EQ(platform::toJson(parseJson(text)), text);
  EXPECT_EQ(parseJson(platform::toJson(parseJson(text), true)), parseJson(text));
  // Invalid UTF-8 is replaced, not thrown.
  EXPECT_FALSE(parseJson(platform::toJson(Value::string("a\xff"
                                                        "b")))
                   .isError());
}

// Objects at the same depth are read one after another with the same buffers: nothing of one
// may reach the next. Keys come out sorted whatever their order in the file, and a repeated key
// keeps its last value.
TEST(JsonTest, ObjectsKeepTheirOwnEntriesInKeyOrder) {
  const Value v = parseJson(
      R"({"z": {"y": 1, "x": 2, "y": 3}, "a": [{"q": 1, "p": [2, 3]}, {"r": 4}, {}],
          "m": {"n": {"o": 5}}, "b": {"k": 6}})");
  ASSERT_TRUE(v.isDictionary());
  EXPECT_EQ(platform::toJson(v),
            R"({"a":[{"p":[2,3],"q":1},{"r":4},{}],"b":{"k":6},"m":{"n":{"o":5}},)"
            R"("z":{"x":2,"y":3}})");
  std::vector<std::string> keys;
  for (const auto& [key, value] : v.asDictionary()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"a", "b", "m", "z"}));
  EXPECT_EQ(v.find("a")->asArray()[1].asDictionary().size(), 1u);
}

TEST(JsonTest, MalformedInputIsAnErrorNamingFileLineAndColumn) {
  const Value v = parseJson("{\n  \"a\": 1,\n  \"b\": ]\n}", "Info.json");
  ASSERT_TRUE(v.isError());
  EXPECT_EQ(v.asError().file, "Info.json");
  EXPECT_EQ(v.asError().line, 3);
  EXPECT_EQ(v.asError().column, 8);
  EXPECT_FALSE(v.asError().message.empty());
  for (const char* bad : {"{\"a\": [1, 2", "", "{} trailing"}) {
    EXPECT_TRUE(parseJson(bad).isError()) << bad;
  }
  EXPECT_TRUE(platform::readJsonFile("/nonexistent/kelo/file.json", 100).missing);
}

TEST(JsonTest, NestingPastTheBoundIsRefusedWithItsPosition) {
  const std::string ok =
      std::string(platform::kMaxJsonDepth, '[') + std::string(platform::kMaxJsonDepth, ']');
  EXPECT_FALSE(parseJson(ok).isError());
  EXPECT_TRUE(parseJson("[" + ok + "]").isError());
  const Value v = parseJson("\n" + std::string(100000, '['), "deep.json");
  ASSERT_TRUE(v.isError());
  EXPECT_EQ(v.asError().line, 2);
  EXPECT_EQ(v.asError().column, platform::kMaxJsonDepth + 1);
}

}  // namespace
}  // namespace kelo
