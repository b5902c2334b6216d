#include "common/base/computedvaluedefinition.h"

#include <cstdint>
#include <cstdio>

namespace {

const unsigned long kDoseTag = 0xFFFF0001;
const char kDoseModality[] = "CR";
const char kDoseMenu[] = "Dose (lgM)";
const char kDoseDescription[] =
    "Doseage measure, usually private tag, lg of the median value of the "
    "histogram";

// The process-wide registry. A function-local static makes the one-time
// fill safe when several threads make the first call together; the list
// and its definitions are never freed.
std::vector<ComputedValueDefinition*>& Registry() {
  static std::vector<ComputedValueDefinition*>* registry = [] {
    auto* list = new std::vector<ComputedValueDefinition*>;
    list->push_back(new ComputedValueDefinition(kDoseTag, kDoseModality,
                                                kDoseMenu, kDoseDescription));
    return list;
  }();
  return *registry;
}

}  // namespace

ComputedValueDefinition::ComputedValueDefinition() {}

ComputedValueDefinition::ComputedValueDefinition(
    unsigned long tag, ACE_String_Base<char> modality,
    ACE_String_Base<char> menuDescription, ACE_String_Base<char> description)
    : modality_(modality),
      menuDescription_(menuDescription),
      description_(description) {
  char buffer[128];
  std::snprintf(buffer, sizeof buffer, "((0x%x))",
                static_cast<unsigned>(static_cast<uint32_t>(tag)));
  pseudoTag_ = buffer;
}

ComputedValueDefinition::ComputedValueDefinition(
    const ComputedValueDefinition& other)
    : pseudoTag_(other.pseudoTag_),
      modality_(other.modality_),
      menuDescription_(other.menuDescription_),
      description_(other.description_) {}

ComputedValueDefinition& ComputedValueDefinition::operator=(
    const ComputedValueDefinition& other) {
  pseudoTag_ = other.pseudoTag_;
  modality_ = other.modality_;
  menuDescription_ = other.menuDescription_;
  description_ = other.description_;
  return *this;
}

ACE_String_Base<char> ComputedValueDefinition::GetPseudoTag() const {
  return pseudoTag_;
}

ACE_String_Base<char> ComputedValueDefinition::GetModality() const {
  return modality_;
}

ACE_String_Base<char> ComputedValueDefinition::GetMenuDescription() const {
  return menuDescription_;
}

ACE_String_Base<char> ComputedValueDefinition::GetDescription() const {
  return description_;
}

std::vector<ComputedValueDefinition*>
ComputedValueDefinition::LoadComputedValueDefinitions() {
  return Registry();
}
