// The keyword table behind TagMapper's keyword look-ups, generated with
// m_GETable by tools/gen_tagtable.py into common/base/tagtable.cpp.
//
// Every attribute of the source dictionary, then its repeating-group
// attributes, each with its keyword (empty for the few that have none), its
// value multiplicity and its retired flag. An exact entry has mask
// 0xFFFFFFFF; a repeating one ("60xx3000") has the value with the x digits
// at 0 and a mask with those digits at 0.
#ifndef COM_COMMON_BASE_INTERNAL_TAGKEYWORDS_H_
#define COM_COMMON_BASE_INTERNAL_TAGKEYWORDS_H_

#include <cstdint>

namespace Kelvane {
namespace internal {

struct TagKeyword {
  uint32_t tag;
  uint32_t mask;
  const char* keyword;
  const char* vm;
  bool retired;
};

extern const TagKeyword kTagKeywords[];
extern const unsigned kTagKeywordCount;

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_TAGKEYWORDS_H_
