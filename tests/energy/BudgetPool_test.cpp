#include "kelo/BudgetPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"

namespace kelo {
namespace {

struct Charge {
  std::string key;
  int64_t cost;
};
struct Record {
  std::string key;
  int64_t value, diff;
};

void charge(BudgetPool& pool, const std::vector<Charge>& charges) {
  for (const Charge& c : charges) pool.UpdateBudget(c.key, c.cost);
}

void expectRecords(BudgetPool& pool, const std::vector<Record>& records) {
  for (const Record& r : records) {
    EXPECT_EQ(pool.findPoolResource(r.key)->currentItemPoolValue(), r.value) << r.key;
    EXPECT_EQ(pool.findPoolResource(r.key)->currentItemPoolDiff(), r.diff) << r.key;
  }
}

class BudgetPoolTest : public ::testing::Test {
 protected:
  void SetUp() override { sandbox_.install(); }
  test::Sandbox sandbox_;
};

TEST_F(BudgetPoolTest, ChargesByMode) {
  struct Case {
    const char* name;
    int32_t mode;
    std::vector<Charge> charges;
    std::vector<Record> records;
    int64_t global, diffs;
  };
  const Case cases[] = {
      {"empty", BudgetPool::kCumulative, {}, {}, 0, 0},
      {"growth", BudgetPool::kCumulative, {{"A", 30}, {"A", 50}}, {{"A", 50, 20}}, 50, 20},
      {"fall", BudgetPool::kCumulative, {{"A", 30}, {"A", 50}, {"A", 40}}, {{"A", 40, -10}}, 40,
       -10},
      {"two items", BudgetPool::kCumulative, {{"A", 30}, {"B", 10}, {"A", 50}},
       {{"A", 50, 20}, {"B", 10, 10}}, 60, 30},
      {"zero cost", BudgetPool::kCumulative, {{"A", 30}, {"A", 0}}, {{"A", 0, -30}}, 0, -30},
      {"additive", BudgetPool::kAdditive, {{"A", 30}, {"A", 30}, {"B", -5}},
       {{"A", 60, 0}, {"B", -5, 0}}, 55, 0},
      {"mode 2 only creates the record", 2, {{"u", 40}}, {{"u", 0, 0}}, 0, 0},
      {"mode -1", -1, {{"u", 40}}, {{"u", 0, 0}}, 0, 0},
      {"mode max", INT32_MAX, {{"u", 40}}, {{"u", 0, 0}}, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    BudgetPool pool(500, 100, c.mode);
    EXPECT_EQ(pool.budgetMode(), c.mode);
    charge(pool, c.charges);
    expectRecords(pool, c.records);
    EXPECT_EQ(pool.itemCount(), c.records.size());
    EXPECT_EQ(pool.currentGlobalPool(), c.global);
    EXPECT_EQ(pool.totalBudget(), c.global);
    EXPECT_EQ(pool.totalDiffBudget(), c.diffs);
  }
}

TEST_F(BudgetPoolTest, ResetsClearOnlyTheirOwnField) {
  BudgetPool pool(500, 100, BudgetPool::kCumulative);
  charge(pool, {{"A", 30}, {"B", 20}, {"A", 50}});
  pool.resetAllDiff();
  expectRecords(pool, {{"A", 50, 0}, {"B", 20, 0}});
  EXPECT_EQ(pool.currentGlobalPool(), 70);

  charge(pool, {{"A", 55}});
  pool.resetAllPoolLimits();
  expectRecords(pool, {{"A", 0, 5}, {"B", 0, 0}});
  EXPECT_EQ(pool.currentGlobalPool(), 0);
  EXPECT_EQ(pool.totalDiffBudget(), 5);

  // After the values were zeroed, the whole reported amount counts again.
  charge(pool, {{"A", 50}});
  expectRecords(pool, {{"A", 50, 50}});
  EXPECT_EQ(pool.currentGlobalPool(), 50);
  EXPECT_EQ(pool.itemCount(), 2u);
}

// Enough items to grow the index many times, found again in reverse and shuffled order.
TEST_F(BudgetPoolTest, ManyItemsKeepTheirOwnRecordsInAnyOrder) {
  constexpr int kItems = 5000;
  BudgetPool pool(0, 0, BudgetPool::kCumulative);
  std::vector<std::string> keys;
  std::vector<std::shared_ptr<PoolResource>> records;
  for (int i = 0; i < kItems; ++i) {
    keys.push_back("com.example.application" + std::to_string(i));
    pool.UpdateBudget(keys.back(), i);
    records.push_back(pool.findPoolResource(keys.back()));
  }
  for (int i = kItems - 1; i >= 0; --i) {
    ASSERT_EQ(pool.findPoolResource(keys[i]), records[i]) << i;
    ASSERT_EQ(records[i]->currentItemPoolValue(), i);
  }
  std::vector<int> order(kItems);
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  for (int i : order) pool.UpdateBudget(keys[i], i + 1);
  EXPECT_EQ(pool.itemCount(), static_cast<std::size_t>(kItems));
  EXPECT_EQ(pool.totalDiffBudget(), kItems);
  EXPECT_EQ(pool.totalBudget(), int64_t{kItems} * (kItems + 1) / 2);
  EXPECT_EQ(pool.currentGlobalPool(), pool.totalBudget());
}

TEST_F(BudgetPoolTest, ARecordOutlivesItsPool) {
  std::shared_ptr<PoolResource> kept;
  {
    BudgetPool pool(0, 0, BudgetPool::kCumulative);
    for (int i = 0; i < 600; ++i) pool.UpdateBudget("com.example.app" + std::to_string(i), i);
    kept = pool.findPoolResource("com.example.app300");
  }
  EXPECT_EQ(kept->currentItemPoolValue(), 300);
  kept->setCurrentItemPoolDiff(7);
  EXPECT_EQ(kept->currentItemPoolDiff(), 7);
}

TEST_F(BudgetPoolTest, ArithmeticWrapsAtTheLimitsOf64Bits) {
  BudgetPool cumulative(0, 0, BudgetPool::kCumulative);
  charge(cumulative, {{"A", INT64_MAX}, {"A", INT64_MIN}});
  EXPECT_EQ(cumulative.findPoolResource("A")->currentItemPoolDiff(), 1);  // MIN - MAX wraps
  EXPECT_EQ(cumulative.currentGlobalPool(), INT64_MIN);
  charge(cumulative, {{"B", INT64_MAX}});
  EXPECT_EQ(cumulative.totalBudget(), -1);
  EXPECT_EQ(cumulative.currentGlobalPool(), -1);

  BudgetPool additive(0, 0, BudgetPool::kAdditive);
  charge(additive, {{"A", INT64_MAX}, {"A", INT64_MAX}});
  EXPECT_EQ(additive.findPoolResource("A")->currentItemPoolValue(), -2);
  EXPECT_EQ(additive.currentGlobalPool(), -2);
}

TEST_F(BudgetPoolTest, LimitTestsAreStrictAndNotComplements) {
  struct Case {
    const char* name;
    int64_t globalLimit, itemLimit;
    std::vector<Charge> charges;
    bool available, reached;  // available: for "A"
  };
  const Case cases[] = {
      {"below both", 100, 50, {{"A", 49}}, true, false},
      {"item at its limit", 100, 50, {{"A", 50}}, false, false},
      {"global at its limit", 100, 500, {{"A", 60}, {"B", 40}}, false, false},
      {"global one above", 100, 500, {{"A", 60}, {"B", 41}}, false, true},
      {"global one below", 100, 500, {{"A", 60}, {"B", 39}}, true, false},
      {"negative global limit, empty pool", -1, 100, {}, false, true},
      {"negative item limit", 100, -1, {}, false, false},
      {"global limit zero, empty pool", 0, 100, {}, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    BudgetPool pool(c.globalLimit, c.itemLimit, BudgetPool::kCumulative);
    EXPECT_EQ(pool.globalPoolLimit(), c.globalLimit);
    EXPECT_EQ(pool.itemPoolLimit(), c.itemLimit);
    charge(pool, c.charges);
    EXPECT_EQ(pool.hasBudgetAvailable("A"), c.available);
    EXPECT_EQ(pool.hasGlobalPoolReachedLimit(), c.reached);
  }
}

TEST_F(BudgetPoolTest, AvailabilityQueryLogsAndAddsAZeroedRecord) {
  test::DetailedLog log(sandbox_);
  ASSERT_TRUE(log.switchOn());
  BudgetPool pool(500, 100, BudgetPool::kCumulative);
  charge(pool, {{"A", 30}, {"B", 20}});
  EXPECT_TRUE(pool.hasBudgetAvailable("A"));
  EXPECT_TRUE(pool.hasBudgetAvailable("unknown"));
  EXPECT_EQ(log.texts({"hasBudgetAvailable"}),
            (std::vector<std::string>{"hasBudgetAvailable G: 50 L:30",
                                      "hasBudgetAvailable G: 50 L:0"}));
  test::VslCapture dump;
  pool.logAll(dump.client(), dump.msg(), 6);
  EXPECT_EQ(dump.texts(), (std::vector<std::string>{
                              "budgetMode 1", "itemPoolLimit 100", "globalPoolLimit 500",
                              "currentGlobalPool 50", "AppID: A Diff 30 Value 30",
                              "AppID: B Diff 20 Value 20", "AppID: unknown Diff 0 Value 0"}));
}

}  // namespace
}  // namespace kelo
