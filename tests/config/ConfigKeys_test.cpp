#include "config/ConfigKeys.h"

#include <gtest/gtest.h>

#include <ostream>
#include <set>
#include <string>

#include "config/Utf8.h"

namespace kelo::config {
namespace {

TEST(ConfigKeysTest, EveryKeyFindsItselfAndNothingElseMatches) {
  std::set<std::string> names;
  for (int id = 0; id < kKeyCount; ++id) {
    const std::string key(kKeys[static_cast<size_t>(id)].name);
    EXPECT_TRUE(names.insert(key).second) << "duplicate " << key;
    EXPECT_EQ(keyId(key), id) << key;
    // Near misses share the hashed head and tail bytes or the length with a real key.
    std::string upper = key;
    upper[0] = static_cast<char>(upper[0] ^ 0x20);
    EXPECT_EQ(keyId(upper), -1) << upper;
    EXPECT_EQ(keyId(key + "x"), -1);
    EXPECT_EQ(keyId(key.substr(0, key.size() - 1)), -1);
    std::string middle = key;
    middle[key.size() / 2] = '#';
    EXPECT_EQ(keyId(middle), -1) << middle;
  }
  EXPECT_EQ(keyId(""), -1);
  EXPECT_EQ(keyId("VPSD"), -1);
  EXPECT_EQ(keyId("launchTimeLimit"), -1);
  EXPECT_EQ(keyId(std::string_view("maxFetchApps\0", 13)), -1);
}

struct Utf8Case {
  const char* name;
  std::string bytes;
  bool valid;
  friend void PrintTo(const Utf8Case& c, std::ostream* os) { *os << c.name; }
};

class Utf8Test : public ::testing::TestWithParam<Utf8Case> {};

TEST_P(Utf8Test, Validates) {
  const Utf8Case& c = GetParam();
  EXPECT_EQ(isValidUtf8(c.bytes.data(), c.bytes.size()), c.valid);
  // The same bytes after a run of ASCII, so they are met past the word-at-a-time scan.
  const std::string shifted = "abcdefghijk" + c.bytes;
  EXPECT_EQ(isValidUtf8(shifted.data(), shifted.size()), c.valid);
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, Utf8Test,
    ::testing::Values(
        Utf8Case{"empty", "", true}, Utf8Case{"ascii", "globalPowerBudget", true},
        Utf8Case{"twoByte", "caf\xC3\xA9", true}, Utf8Case{"threeByte", "\xE2\x82\xAC", true},
        Utf8Case{"fourByte", "\xF0\x9F\x98\x80", true},
        Utf8Case{"maximum", "\xF4\x8F\xBF\xBF", true},
        Utf8Case{"lastBeforeSurrogates", "\xED\x9F\xBF", true},
        Utf8Case{"overlongTwo", "\xC0\xAF", false}, Utf8Case{"overlongC1", "\xC1\xBF", false},
        Utf8Case{"overlongThree", "\xE0\x80\xAF", false},
        Utf8Case{"overlongFour", "\xF0\x8F\xBF\xBF", false},
        Utf8Case{"surrogate", "\xED\xA0\x80", false},
        Utf8Case{"aboveMaximum", "\xF4\x90\x80\x80", false},
        Utf8Case{"f5", "\xF5\x80\x80\x80", false}, Utf8Case{"loneContinuation", "\x80", false},
        Utf8Case{"truncatedTwo", "\xC3", false}, Utf8Case{"truncatedFour", "\xF0\x9F\x98", false},
        Utf8Case{"badContinuation", "\xE2\x28\xA1", false}, Utf8Case{"latin1", "caf\xE9", false}),
    [](const ::testing::TestParamInfo<Utf8Case>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kelo::config
