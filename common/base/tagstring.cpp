#include "common/base/tagstring.h"

#include <stdexcept>

namespace {

const char kTooLong[] = "list<T> too long";

}  // namespace

TagString::TagString() {}

TagString::TagString(const TagString&) : TagValue() {}

TagString::~TagString() { m_values.clear(); }

void TagString::setValue(const char* text) {
  if (m_values.size() >= m_values.max_size()) throw std::length_error(kTooLong);
  m_values.push_back(
      StringPtr(new ACE_String_Base<char>(text != nullptr ? text : "")));
}

const ACE_String_Base<char>& TagString::front() const {
  static const ACE_String_Base<char> kEmpty;
  if (m_values.empty()) return kEmpty;
  return *m_values.front();
}

unsigned int TagString::size() const {
  return static_cast<unsigned int>(m_values.size());
}

TagString::StringList::const_iterator TagString::begin() const {
  return m_values.begin();
}

TagString::StringList::const_iterator TagString::end() const {
  return m_values.end();
}
