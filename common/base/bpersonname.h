// A DICOM person name (value representation PN) split into its five
// components, with the caret-separated DICOM text it came from and two
// display forms derived from it.
//
// The DICOM form is "family^given^middle^prefix^suffix"; the display form is
// "family, given, middle" and the display form with title puts the prefix
// right after the family name: "family prefix, given, middle".
//
// Parsing never rejects input. The "=" that separates DICOM component
// groups gets no special treatment: it stays inside whichever component it
// falls in. Components are stored as they come, without trimming.
//
// Thread safety: a plain value; distinct objects may be used from distinct
// threads, one object needs outside locking if shared.
//
//   BPersonName pn("Doe^John^Q^Dr^Jr");
//   pn.GetDisplayName();           // "Doe, John, Q"
//   pn.GetDisplayNameWithTitle();  // "Doe Dr, John, Q"
#ifndef COM_COMMON_BASE_BPERSONNAME_H_
#define COM_COMMON_BASE_BPERSONNAME_H_

#include <ace/SString.h>

#include "common/base/comexport.h"

class COM_EXPORT BPersonName {
 public:
  // All strings empty, not valid.
  BPersonName();
  BPersonName(const BPersonName& other);
  // Empty, then FromDICOMName(text).
  BPersonName(const ACE_String_Base<char>& text);
  BPersonName(const char* text);
  virtual ~BPersonName();

  // Copies all nine fields; self-assignment does nothing.
  BPersonName& operator=(const BPersonName& other);

  // All eight strings empty, not valid.
  void Clear();

  // Stores `text` as the DICOM name and splits it at every '^' (with
  // Kelvane::splitString): pieces 0..4 become family, given, middle, prefix
  // and suffix, further pieces are ignored. Given, middle, prefix and suffix
  // are emptied first; the family name is only overwritten when the split
  // yields a piece, so FromDICOMName("") keeps the previous family name.
  // Both display names are regenerated. Returns true (the valid flag); only
  // an allocation failure inside the parse gives false and an invalid name.
  bool FromDICOMName(const ACE_String_Base<char>& text);
  // Takes a single character, not a text: parses the one-character string
  // made of `c` (FromDICOMName('^') gives two empty components).
  bool FromDICOMName(char c);

  // Stores `text` as the display name and splits it at every ',': pieces
  // 0..2, trimmed of white space on both ends, become family, given and
  // middle; prefix and suffix are emptied. The DICOM name and the display
  // name with title are left as they were. Returns true; only an allocation
  // failure gives false and an invalid name. "Doe , John" gives family "Doe"
  // and given "John".
  bool FromDisplayName(const ACE_String_Base<char>& text);

  // DICOM name = family^given^middle^prefix^suffix, always with all four
  // carets ("Doe^John^^^"); regenerates both display names and makes the
  // name valid. Returns the DICOM name.
  const ACE_String_Base<char>& ToDICOMName();

  const ACE_String_Base<char>& GetDICOMName() const { return dicom_name_; }
  const ACE_String_Base<char>& GetDisplayName() const { return display_name_; }
  const ACE_String_Base<char>& GetDisplayNameWithTitle() const {
    return display_name_with_title_;
  }
  const ACE_String_Base<char>& GetFamilyName() const { return family_name_; }
  const ACE_String_Base<char>& GetGivenName() const { return given_name_; }
  const ACE_String_Base<char>& GetMiddleName() const { return middle_name_; }
  const ACE_String_Base<char>& GetPrefix() const { return prefix_; }
  const ACE_String_Base<char>& GetSuffix() const { return suffix_; }

  // The component groups of the DICOM name, which is split at "=": the
  // first (alphabetic), second (ideographic) and third (phonetic) group,
  // each parsed on its own by FromDICOMName into its five components. A
  // group the text does not have, or leaves empty, gives a valid name with
  // all components empty; groups after the third are ignored. The members
  // above are not affected: for "Yamada^Tarou=山田^太郎=やまだ^たろう"
  // GetGivenName() stays "Tarou=山田" and GetDICOMName() the whole text,
  // while Ideographic().GetFamilyName() is "山田" and
  // Phonetic().GetGivenName() is "たろう". "=Smith" has an empty first group
  // and "Smith" as its second.
  BPersonName Alphabetic() const { return Group(0); }
  BPersonName Ideographic() const { return Group(1); }
  BPersonName Phonetic() const { return Group(2); }

  // Assign the component only; nothing derived is regenerated until the
  // next ToDICOMName().
  void SetFamilyName(const ACE_String_Base<char>& s) { family_name_ = s; }
  void SetGivenName(const ACE_String_Base<char>& s) { given_name_ = s; }
  void SetMiddleName(const ACE_String_Base<char>& s) { middle_name_ = s; }
  void SetPrefix(const ACE_String_Base<char>& s) { prefix_ = s; }
  void SetSuffix(const ACE_String_Base<char>& s) { suffix_ = s; }

  bool IsValid() const { return valid_; }

  // All eight strings byte-wise equal (case matters) and the same validity.
  bool operator==(const BPersonName& other) const;
  bool operator!=(const BPersonName& other) const { return !(*this == other); }
  // The same test as operator==.
  bool operator()(const BPersonName& other) const { return *this == other; }

 private:
  // display name = family[, given][, middle]
  void GenerateDisplayName();
  // display name with title = family[ prefix][, given][, middle]
  void GenerateDisplayNameWithTitle();
  // Group `index` (0..2) of the DICOM name, parsed.
  BPersonName Group(int index) const;

  ACE_String_Base<char> family_name_;
  ACE_String_Base<char> given_name_;
  ACE_String_Base<char> middle_name_;
  ACE_String_Base<char> prefix_;
  ACE_String_Base<char> suffix_;
  ACE_String_Base<char> dicom_name_;
  ACE_String_Base<char> display_name_;
  ACE_String_Base<char> display_name_with_title_;
  bool valid_;
};

#endif  // COM_COMMON_BASE_BPERSONNAME_H_
