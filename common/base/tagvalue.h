// The abstract value of one DICOM attribute, held outside a full data set.
// TagString (common/base/tagstring.h) is its text implementation.
//
// Thread safety: none of its own; an implementation says what it allows.
//
//   TagString s;
//   TagValue& value = s;
//   value.setValue("CT");
//   value.front();  // "CT"
#ifndef COM_COMMON_BASE_TAGVALUE_H_
#define COM_COMMON_BASE_TAGVALUE_H_

#include <ace/SString.h>

#include "common/base/comexport.h"

class COM_EXPORT TagValue {
 public:
  TagValue() = default;
  TagValue(const TagValue&) = default;
  TagValue& operator=(const TagValue&) = default;
  virtual ~TagValue();

  // Stores `text` as (one more) value of the attribute.
  virtual void setValue(const char* text) = 0;

  // The first value.
  virtual const ACE_String_Base<char>& front() const = 0;

  // The number of values.
  virtual unsigned int size() const = 0;
};

#endif  // COM_COMMON_BASE_TAGVALUE_H_
