// A multi-valued text attribute: an ordered list of strings, each owned
// by a reference-counted smart pointer.
//
// Thread safety: none. A TagString belongs to one thread; the reference
// counts of its smart pointers are not synchronised (ACE_Null_Mutex), so
// neither the object nor pointers copied out of it may cross threads.
//
//   TagString names;
//   names.setValue("DOE^JOHN");
//   names.setValue("DOE^J");   // a second value; the first stays
//   names.size();              // 2
//   names.front();             // "DOE^JOHN"
#ifndef COM_COMMON_BASE_TAGSTRING_H_
#define COM_COMMON_BASE_TAGSTRING_H_

#include <list>

#include <ace/Null_Mutex.h>
#include <ace/SString.h>

#include "common/base/comexport.h"
#include "common/base/smartptr.h"
#include "common/base/tagvalue.h"

class COM_EXPORT TagString : public TagValue {
 public:
  typedef Kelvane::SmartPtr<ACE_String_Base<char>,
                            Kelvane::BasicDelete<ACE_String_Base<char>>,
                            ACE_Null_Mutex>
      StringPtr;
  typedef std::list<StringPtr> StringList;

  // No values.
  TagString();

  // Releases every value; a string no longer shared elsewhere is deleted.
  ~TagString() override;

  // Appends an owned copy of `text` (null counts as "") after the values
  // already held. Throws std::length_error("list<T> too long") when the
  // list cannot grow.
  void setValue(const char* text) override;

  // The first value. With no value held, an empty string (a Linux choice:
  // callers must not rely on it, as with an empty list there is no first
  // value).
  const ACE_String_Base<char>& front() const override;

  unsigned int size() const override;

  StringList::const_iterator begin() const;
  StringList::const_iterator end() const;

 private:
  // Not to be used: copies nothing.
  TagString(const TagString&);

  StringList m_values;
};

#endif  // COM_COMMON_BASE_TAGSTRING_H_
