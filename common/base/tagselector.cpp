#include "common/base/tagselector.h"

#include <cstdint>

#include <ace/Guard_T.h>
#include <ace/Thread_Mutex.h>

#include "common/base/internal/singletonlock.h"

namespace {

// Each list ends in 0.
const unsigned long kStudyTags[] = {
    0x00081120, 0x00081125, 0x00100010, 0x00100020, 0x00100021, 0x00100030,
    0x00100032, 0x00100040, 0x00101000, 0x00101001, 0x00101005, 0x00101010,
    0x00101020, 0x00101030, 0x00101060, 0x00101090, 0x00102000, 0x00102110,
    0x00102160, 0x00102180, 0x001021A0, 0x001021B0, 0x001021C0, 0x001021D0,
    0x00104000, 0x00080020, 0x0020000D, 0x00200010, 0x00201000, 0x00201004,
    0x00201070, 0x0032000A, 0x0032000C, 0x00320012, 0x00320032, 0x00320033,
    0x00320034, 0x00320035, 0x00321000, 0x00321001, 0x00321010, 0x00321011,
    0x00321020, 0x00321021, 0x00321030, 0x00321032, 0x00321033, 0x00321040,
    0x00321041, 0x00321050, 0x00321051, 0x00321060, 0x00321064, 0x00321070,
    0x00324000, 0x00380004, 0x00380050, 0x00380500, 0x00080030, 0x00080050,
    0x00080090, 0x00081030, 0x00081032, 0x00081048, 0x00081060, 0x00081080,
    0x00081100, 0x00081110, 0};

const unsigned long kSeriesTags[] = {
    0x00080021, 0x00080031, 0x00080060, 0x00080070, 0x0008103E, 0x00181000,
    0x00081090, 0x0020000E, 0x00200011, 0x00200052, 0};

const unsigned long kInstanceTags[] = {0x00080012, 0x00080013, 0x00080016,
                                       0x00080018, 0};

}  // namespace

std::atomic<TagSelector*> TagSelector::m_instance{nullptr};

TagSelector::TagSelector() {
  struct List {
    const unsigned long* tags;
    Type type;
  };
  // Later lists win over earlier ones for a tag listed twice.
  const List lists[] = {
      {kStudyTags, Study}, {kSeriesTags, Series}, {kInstanceTags, Instance}};
  for (const List& list : lists) {
    for (const unsigned long* tag = list.tags; *tag != 0; ++tag) {
      m_map[*tag] = list.type;
    }
  }
}

TagSelector& TagSelector::instance() {
  TagSelector* selector = m_instance.load(std::memory_order_acquire);
  if (selector != nullptr) return *selector;

  // Without the lock (only when it cannot be allocated) the first call
  // must come before threads race for it.
  ACE_Thread_Mutex* lock = Kelvane::internal::SingletonLock();
  if (lock != nullptr) lock->acquire();
  selector = m_instance.load(std::memory_order_relaxed);
  if (selector == nullptr) {
    selector = new TagSelector;
    m_instance.store(selector, std::memory_order_release);
  }
  if (lock != nullptr) lock->release();
  return *selector;
}

TagSelector::Type TagSelector::lookup(unsigned long tag) const {
  auto it = m_map.find(static_cast<uint32_t>(tag));
  return it != m_map.end() ? it->second : Instance;
}

TagSelector& TagSelector::operator=(const TagSelector& other) {
  m_map = other.m_map;
  return *this;
}
