#include "common/base/tagselector.h"

#include <atomic>
#include <cstdlib>
#include <map>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/base/tagmapper.h"

namespace {

class Dictionary : public TagMapper {
 public:
  using TagMapper::m_GETable;
};

TEST(TagSelector, RacingThreadsGetOneInstance) {
  const int kThreads = 8;
  std::atomic<int> waiting{kThreads};
  std::vector<TagSelector*> seen(kThreads, nullptr);
  std::vector<TagSelector::Type> levels(kThreads, TagSelector::Instance);
  // Released at once, so that the first calls really race.
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      waiting.fetch_sub(1);
      while (waiting.load() > 0) std::this_thread::yield();
      seen[i] = &TagSelector::instance();
      levels[i] = seen[i]->lookup(0x00100010);
    });
  }
  for (std::thread& t : threads) t.join();
  for (int i = 0; i < kThreads; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(seen[0], seen[i]);
    EXPECT_EQ(TagSelector::Study, levels[i]);
  }
  EXPECT_EQ(seen[0], &TagSelector::instance());
}

TEST(TagSelector, Levels) {
  struct Row {
    unsigned long tag;
    TagSelector::Type level;
  };
  const Row rows[] = {
      {0x00081120, TagSelector::Study},     // first of the study list
      {0x00081110, TagSelector::Study},     // last of the study list
      {0x0020000E, TagSelector::Series},    // Series Instance UID
      {0x00200052, TagSelector::Series},    // last of the series list
      {0x00080018, TagSelector::Instance},  // SOP Instance UID, listed
      {0x00000000, TagSelector::Instance},  // the lists' end marker
      {0x00100011, TagSelector::Instance},  // neighbour of a listed tag
      // Tags are 32-bit: the upper bits of a 64-bit long do not count.
      {0x100100010ul, TagSelector::Study},
      {0xFFFFFFFF0020000Eul, TagSelector::Series},
  };
  const TagSelector& selector = TagSelector::instance();
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.tag));
    EXPECT_EQ(row.level, selector.lookup(row.tag));
  }
}

// Every listed tag is a known attribute: a mistyped tag in a list would be
// missing from the dictionary and lower a count.
TEST(TagSelector, ListedTagsAreDictionaryAttributes) {
  const TagSelector& selector = TagSelector::instance();
  std::map<TagSelector::Type, int> counts;
  for (const char* const* e = Dictionary::m_GETable; e[0] != nullptr; e += 3) {
    counts[selector.lookup(std::strtoul(e[0], nullptr, 16))]++;
  }
  EXPECT_EQ(68, counts[TagSelector::Study]);
  EXPECT_EQ(10, counts[TagSelector::Series]);
}

}  // namespace
