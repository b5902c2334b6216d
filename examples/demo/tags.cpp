#include <cstdio>

#include "common/base/computedvaluedefinition.h"
#include "common/base/tagmapper.h"
#include "common/base/tagselector.h"
#include "common/base/tagstring.h"

#include "demo.h"

namespace {

const char* LevelName(TagSelector::Type level) {
  switch (level) {
    case TagSelector::Study:
      return "study";
    case TagSelector::Series:
      return "series";
    default:
      return "instance";
  }
}

void Tags() {
  TagMapper* dict = TagMapper::Instance();
  const TagSelector& levels = TagSelector::instance();
  const unsigned int tags[] = {0x00100010, 0x0020000D, 0x00080060, 0x0020000E,
                               0x00080018, 0x00280010, 0x7FE00010, 0x00091001};
  for (unsigned int tag : tags) {
    const char* name = dict->FindDescription(tag);
    unsigned short vr = TagMapper::DCMType2VR(dict->FindVR(tag));
    std::printf("(%04X,%04X) %-22s VR %c%c  level %s\n", tag >> 16,
                tag & 0xFFFF, name ? name : "(unknown)", vr & 0xFF, vr >> 8,
                LevelName(levels.lookup(tag)));
  }
  std::printf("by text 0028,0011:   %s\n", dict->FindDescription("0028,0011"));

  TagString types;
  types.setValue("ORIGINAL");
  types.setValue("PRIMARY");
  std::printf("Image Type values:   %u, first %s\n", types.size(),
              types.front().c_str());

  for (const ComputedValueDefinition* d :
       ComputedValueDefinition::LoadComputedValueDefinitions()) {
    std::printf("computed value %s for %s: %s\n", d->GetPseudoTag().c_str(),
                d->GetModality().c_str(), d->GetMenuDescription().c_str());
  }
}

}  // namespace

COM_DEMO_SECTION(60, "DICOM tag dictionary and attribute levels", Tags);
