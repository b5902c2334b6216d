#include "common/base/bpersonname.h"

#include <vector>

#include "common/base/stringutils.h"

namespace {

// `head`, then ", given" and ", middle" for those that are not empty.
ACE_String_Base<char> JoinGivenAndMiddle(const ACE_String_Base<char>& head,
                                         const ACE_String_Base<char>& given,
                                         const ACE_String_Base<char>& middle) {
  ACE_String_Base<char> s(head);
  if (given.length() != 0) {
    s += ", ";
    s += given;
  }
  if (middle.length() != 0) {
    s += ", ";
    s += middle;
  }
  return s;
}

}  // namespace

BPersonName::BPersonName() : valid_(false) {}

BPersonName::BPersonName(const BPersonName& other)
    : family_name_(other.family_name_),
      given_name_(other.given_name_),
      middle_name_(other.middle_name_),
      prefix_(other.prefix_),
      suffix_(other.suffix_),
      dicom_name_(other.dicom_name_),
      display_name_(other.display_name_),
      display_name_with_title_(other.display_name_with_title_),
      valid_(other.valid_) {}

BPersonName::BPersonName(const ACE_String_Base<char>& text) : valid_(false) {
  FromDICOMName(text);
}

BPersonName::BPersonName(const char* text) : valid_(false) {
  FromDICOMName(ACE_String_Base<char>(text));
}

BPersonName::~BPersonName() {}

BPersonName& BPersonName::operator=(const BPersonName& other) {
  if (this == &other) return *this;
  family_name_ = other.family_name_;
  given_name_ = other.given_name_;
  middle_name_ = other.middle_name_;
  prefix_ = other.prefix_;
  suffix_ = other.suffix_;
  dicom_name_ = other.dicom_name_;
  display_name_ = other.display_name_;
  display_name_with_title_ = other.display_name_with_title_;
  valid_ = other.valid_;
  return *this;
}

void BPersonName::Clear() {
  family_name_.clear();
  given_name_.clear();
  middle_name_.clear();
  prefix_.clear();
  suffix_.clear();
  dicom_name_.clear();
  display_name_.clear();
  display_name_with_title_.clear();
  valid_ = false;
}

bool BPersonName::FromDICOMName(const ACE_String_Base<char>& text) {
  try {
    dicom_name_ = text;
    std::vector<ACE_String_Base<char>> parts;
    Kelvane::splitString(text, "^", parts);
    display_name_.clear();
    display_name_with_title_.clear();
    given_name_.clear();
    middle_name_.clear();
    prefix_.clear();
    suffix_.clear();
    ACE_String_Base<char>* const slots[] = {&family_name_, &given_name_,
                                            &middle_name_, &prefix_, &suffix_};
    const size_t n = parts.size() < 5 ? parts.size() : 5;
    for (size_t i = 0; i < n; ++i) *slots[i] = parts[i];
    valid_ = true;
  } catch (...) {
    valid_ = false;
  }
  // Regenerated after a failed parse too, so the display forms always match
  // whatever components were stored.
  try {
    GenerateDisplayName();
    GenerateDisplayNameWithTitle();
  } catch (...) {
    valid_ = false;
  }
  return valid_;
}

BPersonName BPersonName::Group(int index) const {
  const char* p = dicom_name_.c_str();
  const char* const end = p + dicom_name_.length();
  for (int i = 0; i < index; ++i) {
    while (p != end && *p != '=') ++p;
    if (p == end) return BPersonName("");  // fewer groups than asked for
    ++p;
  }
  const char* q = p;
  while (q != end && *q != '=') ++q;
  return BPersonName(ACE_String_Base<char>(
      p, static_cast<ACE_String_Base<char>::size_type>(q - p)));
}

bool BPersonName::FromDICOMName(char c) {
  return FromDICOMName(ACE_String_Base<char>(&c, 1));
}

bool BPersonName::FromDisplayName(const ACE_String_Base<char>& text) {
  try {
    display_name_ = text;
    given_name_.clear();
    middle_name_.clear();
    prefix_.clear();
    suffix_.clear();
    std::vector<ACE_String_Base<char>> parts;
    Kelvane::splitString(text, ",", parts);
    ACE_String_Base<char>* const slots[] = {&family_name_, &given_name_,
                                            &middle_name_};
    const size_t n = parts.size() < 3 ? parts.size() : 3;
    for (size_t i = 0; i < n; ++i) {
      *slots[i] = parts[i];
      Kelvane::EatWhitespaceLR(*slots[i]);
    }
    valid_ = true;
  } catch (...) {
    valid_ = false;
  }
  return valid_;
}

const ACE_String_Base<char>& BPersonName::ToDICOMName() {
  ACE_String_Base<char> s(family_name_);
  s += '^';
  s += given_name_;
  s += '^';
  s += middle_name_;
  s += '^';
  s += prefix_;
  s += '^';
  s += suffix_;
  dicom_name_ = s;
  GenerateDisplayName();
  GenerateDisplayNameWithTitle();
  valid_ = true;
  return dicom_name_;
}

bool BPersonName::operator==(const BPersonName& other) const {
  return family_name_ == other.family_name_ &&
         given_name_ == other.given_name_ &&
         middle_name_ == other.middle_name_ && prefix_ == other.prefix_ &&
         suffix_ == other.suffix_ && dicom_name_ == other.dicom_name_ &&
         display_name_ == other.display_name_ &&
         display_name_with_title_ == other.display_name_with_title_ &&
         valid_ == other.valid_;
}

void BPersonName::GenerateDisplayName() {
  display_name_ = JoinGivenAndMiddle(family_name_, given_name_, middle_name_);
}

void BPersonName::GenerateDisplayNameWithTitle() {
  ACE_String_Base<char> head(family_name_);
  if (prefix_.length() != 0) {
    head += " ";
    head += prefix_;
  }
  display_name_with_title_ =
      JoinGivenAndMiddle(head, given_name_, middle_name_);
}
