#include "config/ConfigKeys.h"

#include <gtest/gtest.h>

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
    std::string upper = key, middle = key;
    upper[0] = static_cast<char>(upper[0] ^ 0x20);
    middle[key.size() / 2] = '#';
    for (const std::string& miss : {upper, middle, key + "x", key.substr(0, key.size() - 1)}) {
      EXPECT_EQ(keyId(miss), -1) << miss;
    }
  }
  for (std::string_view miss : {std::string_view(""), std::string_view("VPSD"),
                                std::string_view("launchTimeLimit"),
                                std::string_view("maxFetchApps\0", 13)}) {
    EXPECT_EQ(keyId(miss), -1) << miss;
  }
}

TEST(Utf8Test, ValidatesSequencesAlsoPastTheWordAtATimeScan) {
  const std::pair<std::string, bool> cases[] = {
      {"", true}, {"globalPowerBudget", true}, {"caf\xC3\xA9", true}, {"\xE2\x82\xAC", true},
      {"\xF0\x9F\x98\x80", true}, {"\xF4\x8F\xBF\xBF", true}, {"\xED\x9F\xBF", true},
      {"\xC0\xAF", false}, {"\xC1\xBF", false}, {"\xE0\x80\xAF", false},
      {"\xF0\x8F\xBF\xBF", false}, {"\xED\xA0\x80", false}, {"\xF4\x90\x80\x80", false},
      {"\xF5\x80\x80\x80", false}, {"\x80", false}, {"\xC3", false}, {"\xF0\x9F\x98", false},
      {"\xE2\x28\xA1", false}, {"caf\xE9", false}};
  for (const auto& [bytes, valid] : cases) {
    const std::string shifted = "abcdefghijk" + bytes;
    EXPECT_EQ(isValidUtf8(bytes.data(), bytes.size()), valid) << testing::PrintToString(bytes);
    EXPECT_EQ(isValidUtf8(shifted.data(), shifted.size()), valid) << testing::PrintToString(bytes);
  }
}

}  // namespace
}  // namespace kelo::config
