// A value computed from an image rather than stored in a DICOM attribute,
// offered beside real attributes under a pseudo tag, and the registry of
// the definitions the library knows.
//
// The registry holds one definition: the dose indicator of computed
// radiography, pseudo tag ((0xffff0001)), modality "CR".
//
// Thread safety: a definition is a plain value. LoadComputedValueDefinitions
// may be called from any thread; the registry is filled once, on the first
// call, and never changes afterwards.
//
//   std::vector<ComputedValueDefinition*> defs =
//       ComputedValueDefinition::LoadComputedValueDefinitions();
//   defs[0]->GetMenuDescription();  // "Dose (lgM)"
#ifndef COM_COMMON_BASE_COMPUTEDVALUEDEFINITION_H_
#define COM_COMMON_BASE_COMPUTEDVALUEDEFINITION_H_

#include <vector>

#include <ace/SString.h>

#include "common/base/comexport.h"

class COM_EXPORT ComputedValueDefinition {
 public:
  // Four empty strings.
  ComputedValueDefinition();

  // The pseudo tag is `tag` written as "((0x%x))": lower-case hexadecimal
  // without leading zeros, so 0xFFFF0001 gives "((0xffff0001))" and 0 gives
  // "((0x0))". Tags are 32-bit: bits above the lowest 32 are ignored.
  ComputedValueDefinition(unsigned long tag, ACE_String_Base<char> modality,
                          ACE_String_Base<char> menuDescription,
                          ACE_String_Base<char> description);

  ComputedValueDefinition(const ComputedValueDefinition& other);
  ComputedValueDefinition& operator=(const ComputedValueDefinition& other);

  ACE_String_Base<char> GetPseudoTag() const;
  ACE_String_Base<char> GetModality() const;
  ACE_String_Base<char> GetMenuDescription() const;
  ACE_String_Base<char> GetDescription() const;

  // A copy of the registry list. The pointers are shared with the registry
  // and every other caller: never delete them. The definitions live until
  // the process ends.
  static std::vector<ComputedValueDefinition*> LoadComputedValueDefinitions();

 private:
  ACE_String_Base<char> pseudoTag_;
  ACE_String_Base<char> modality_;
  ACE_String_Base<char> menuDescription_;
  ACE_String_Base<char> description_;
};

#endif  // COM_COMMON_BASE_COMPUTEDVALUEDEFINITION_H_
