// The level of the patient/study/series/instance hierarchy at which a DICOM
// attribute lives, so that callers can route an attribute to the study,
// series or instance record.
//
// The levels come from three built-in tag lists (study, series, instance);
// every tag not listed is an instance attribute.
//
// Thread safety: instance() may be called from any thread, also by several
// at once for the first time: creation is double-checked under ACE's global
// singleton lock. After creation the selector is only read, so lookup() may
// run on any thread.
//
//   TagSelector::instance().lookup(0x00100010);  // TagSelector::Study
//   TagSelector::instance().lookup(0x0020000E);  // TagSelector::Series
//   TagSelector::instance().lookup(0x00280010);  // TagSelector::Instance
#ifndef COM_COMMON_BASE_TAGSELECTOR_H_
#define COM_COMMON_BASE_TAGSELECTOR_H_

#include <atomic>
#include <map>

#include "common/base/comexport.h"

class COM_EXPORT TagSelector {
 public:
  // Attribute levels. Patient attributes are study attributes. Values 0
  // and 1 are never produced.
  enum Type { Study = 2, Series = 3, Instance = 4 };

  // The one selector, created on the first call.
  static TagSelector& instance();

  // The level of `tag` (group << 16 | element), Instance if the tag is not
  // listed. Tags are 32-bit: bits above the lowest 32 are ignored.
  Type lookup(unsigned long tag) const;

  // Copies the map.
  TagSelector& operator=(const TagSelector& other);

 private:
  TagSelector();
  TagSelector(const TagSelector&) = delete;

  std::map<unsigned long, Type> m_map;
  static std::atomic<TagSelector*> m_instance;
};

#endif  // COM_COMMON_BASE_TAGSELECTOR_H_
