#include "common/base/computedvaluedefinition.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(ComputedValueDefinition, PseudoTagIsLowerCaseHex) {
  struct Row {
    unsigned long tag;
    const char* text;
  };
  const Row rows[] = {
      {0, "((0x0))"},
      {0x00ABCDEFul, "((0xabcdef))"},
      {0x1FFFF0001ul, "((0xffff0001))"},  // tags are 32-bit
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    ComputedValueDefinition d(row.tag, "MR", "menu", "long");
    EXPECT_STREQ(row.text, d.GetPseudoTag().c_str());
  }
}

TEST(ComputedValueDefinition, CopiesCarryAllFourFields) {
  ComputedValueDefinition source(0x12345678, "US", "Menu", "Long text");
  ComputedValueDefinition copy(source);
  ComputedValueDefinition assigned;
  EXPECT_TRUE(assigned.GetPseudoTag().empty());
  assigned = source;
  for (const ComputedValueDefinition* d : {&copy, &assigned}) {
    EXPECT_STREQ("((0x12345678))", d->GetPseudoTag().c_str());
    EXPECT_STREQ("US", d->GetModality().c_str());
    EXPECT_STREQ("Menu", d->GetMenuDescription().c_str());
    EXPECT_STREQ("Long text", d->GetDescription().c_str());
  }
}

TEST(ComputedValueDefinition, RegistryHoldsTheDoseIndicatorOnce) {
  const int kThreads = 4;
  std::atomic<int> waiting{kThreads};
  std::vector<std::vector<ComputedValueDefinition*>> lists(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      waiting.fetch_sub(1);
      while (waiting.load() > 0) std::this_thread::yield();
      lists[i] = ComputedValueDefinition::LoadComputedValueDefinitions();
    });
  }
  for (std::thread& t : threads) t.join();
  std::vector<ComputedValueDefinition*> again =
      ComputedValueDefinition::LoadComputedValueDefinitions();
  ASSERT_EQ(1u, again.size());
  for (const auto& list : lists) EXPECT_EQ(again, list);

  const ComputedValueDefinition& dose = *lists[0][0];
  EXPECT_STREQ("((0xffff0001))", dose.GetPseudoTag().c_str());
  EXPECT_STREQ("CR", dose.GetModality().c_str());
  EXPECT_STREQ("Dose (lgM)", dose.GetMenuDescription().c_str());
  EXPECT_STREQ(
      "Doseage measure, usually private tag, lg of the median value of the "
      "histogram",
      dose.GetDescription().c_str());
}

}  // namespace
