#include "common/base/bpersonname.h"

#include <string>

#include <gtest/gtest.h>

namespace {

std::string S(const ACE_CString& s) {
  return std::string(s.c_str(), s.length());
}

TEST(BPersonName, FromDICOMNameSplitsComponentsAndDerivesDisplayForms) {
  struct Row {
    const char* dicom;
    const char* family;
    const char* given;
    const char* middle;
    const char* prefix;
    const char* suffix;
    const char* display;
    const char* with_title;
  } rows[] = {
      {"Doe^John^Q^Dr^Jr", "Doe", "John", "Q", "Dr", "Jr", "Doe, John, Q",
       "Doe Dr, John, Q"},
      {"Doe^John", "Doe", "John", "", "", "", "Doe, John", "Doe, John"},
      {"Doe", "Doe", "", "", "", "", "Doe", "Doe"},
      {"Doe^^Q", "Doe", "", "Q", "", "", "Doe, Q", "Doe, Q"},
      {"Doe^^^Prof", "Doe", "", "", "Prof", "", "Doe", "Doe Prof"},
      {"^John", "", "John", "", "", "", ", John", ", John"},
      // Sixth and later pieces are dropped.
      {"a^b^c^d^e^f^g", "a", "b", "c", "d", "e", "a, b, c", "a d, b, c"},
      // No trimming, and '=' stays inside its component.
      {" Doe ^ John", " Doe ", " John", "", "", "", " Doe ,  John",
       " Doe ,  John"},
      {"Yamada^Tarou=\x1b$B;3ED^B@O:\x1b(B", "Yamada", "Tarou=\x1b$B;3ED",
       "B@O:\x1b(B", "", "", "Yamada, Tarou=\x1b$B;3ED, B@O:\x1b(B",
       "Yamada, Tarou=\x1b$B;3ED, B@O:\x1b(B"},
      {"^^^^", "", "", "", "", "", "", ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.dicom);
    BPersonName pn(r.dicom);
    EXPECT_TRUE(pn.IsValid());
    EXPECT_EQ(r.dicom, S(pn.GetDICOMName()));
    EXPECT_EQ(r.family, S(pn.GetFamilyName()));
    EXPECT_EQ(r.given, S(pn.GetGivenName()));
    EXPECT_EQ(r.middle, S(pn.GetMiddleName()));
    EXPECT_EQ(r.prefix, S(pn.GetPrefix()));
    EXPECT_EQ(r.suffix, S(pn.GetSuffix()));
    EXPECT_EQ(r.display, S(pn.GetDisplayName()));
    EXPECT_EQ(r.with_title, S(pn.GetDisplayNameWithTitle()));
  }
}

TEST(BPersonName, ReparseClearsOldComponentsButEmptyTextKeepsFamily) {
  BPersonName pn("Doe^John^Q^Dr^Jr");
  ASSERT_TRUE(pn.FromDICOMName(ACE_CString("Roe^Jane")));
  EXPECT_EQ("", S(pn.GetMiddleName()));
  EXPECT_EQ("", S(pn.GetPrefix()));
  EXPECT_EQ("", S(pn.GetSuffix()));
  EXPECT_EQ("Roe, Jane", S(pn.GetDisplayName()));

  // An empty text splits into nothing: the family name survives while the
  // other components and the DICOM text are reset.
  ASSERT_TRUE(pn.FromDICOMName(ACE_CString("")));
  EXPECT_EQ("Roe", S(pn.GetFamilyName()));
  EXPECT_EQ("", S(pn.GetGivenName()));
  EXPECT_EQ("", S(pn.GetDICOMName()));
  EXPECT_EQ("Roe", S(pn.GetDisplayName()));
}

TEST(BPersonName, SingleCharacterOverload) {
  struct Row {
    char c;
    const char* family;
    const char* given;
  } rows[] = {{'X', "X", ""}, {'^', "", ""}, {'=', "=", ""}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.c);
    BPersonName pn("Doe^John");
    EXPECT_TRUE(pn.FromDICOMName(r.c));
    EXPECT_EQ(std::string(1, r.c), S(pn.GetDICOMName()));
    EXPECT_EQ(r.family, S(pn.GetFamilyName()));
    EXPECT_EQ(r.given, S(pn.GetGivenName()));
  }
}

TEST(BPersonName, FromDisplayNameTrimsAndLeavesDicomFormsAlone) {
  struct Row {
    const char* display;
    const char* family;
    const char* given;
    const char* middle;
  } rows[] = {
      {"Doe , John", "Doe", "John", ""},
      {" Doe,\tJohn ,Q\r\n", "Doe", "John", "Q"},
      {"Doe,John,Q,extra", "Doe", "John", "Q"},
      {"Doe", "Doe", "", ""},
      {",,", "", "", ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.display);
    BPersonName pn("Old^Name^M^Dr^Sr");
    EXPECT_TRUE(pn.FromDisplayName(r.display));
    EXPECT_TRUE(pn.IsValid());
    EXPECT_EQ(r.display, S(pn.GetDisplayName()));
    EXPECT_EQ(r.family, S(pn.GetFamilyName()));
    EXPECT_EQ(r.given, S(pn.GetGivenName()));
    EXPECT_EQ(r.middle, S(pn.GetMiddleName()));
    EXPECT_EQ("", S(pn.GetPrefix()));
    EXPECT_EQ("", S(pn.GetSuffix()));
    EXPECT_EQ("Old^Name^M^Dr^Sr", S(pn.GetDICOMName()));
    EXPECT_EQ("Old Dr, Name, M", S(pn.GetDisplayNameWithTitle()));
  }
  // An empty display text splits into nothing: the family name stays.
  BPersonName pn("Old^Name");
  EXPECT_TRUE(pn.FromDisplayName(""));
  EXPECT_EQ("Old", S(pn.GetFamilyName()));
  EXPECT_EQ("", S(pn.GetGivenName()));
}

TEST(BPersonName, ToDICOMNameAlwaysWritesFourCarets) {
  BPersonName pn("Doe^John");
  EXPECT_EQ("Doe^John^^^", S(pn.ToDICOMName()));

  // Setters change nothing derived until ToDICOMName.
  BPersonName built;
  built.SetFamilyName("Smith");
  built.SetPrefix("Dr");
  built.SetMiddleName("A");
  EXPECT_FALSE(built.IsValid());
  EXPECT_EQ("", S(built.GetDisplayName()));
  EXPECT_EQ("Smith^^A^Dr^", S(built.ToDICOMName()));
  EXPECT_TRUE(built.IsValid());
  EXPECT_EQ("Smith, A", S(built.GetDisplayName()));
  EXPECT_EQ("Smith Dr, A", S(built.GetDisplayNameWithTitle()));

  // Display text -> components -> DICOM text.
  BPersonName fromDisplay;
  fromDisplay.FromDisplayName(" Roe , Jane ");
  EXPECT_EQ("Roe^Jane^^^", S(fromDisplay.ToDICOMName()));
  EXPECT_EQ("Roe, Jane", S(fromDisplay.GetDisplayName()));
  // And a DICOM text written out parses back to an equal name.
  BPersonName back(fromDisplay.GetDICOMName());
  EXPECT_TRUE(back == fromDisplay);
}

TEST(BPersonName, EqualityCoversEveryFieldAndIsCaseSensitive) {
  const BPersonName base("Doe^John^Q^Dr^Jr");
  struct Row {
    const char* what;
    BPersonName other;
    bool equal;
  } rows[] = {
      {"same text", BPersonName("Doe^John^Q^Dr^Jr"), true},
      {"case", BPersonName("doe^John^Q^Dr^Jr"), false},
      {"suffix", BPersonName("Doe^John^Q^Dr^Sr"), false},
      {"extra piece only in DICOM text", BPersonName("Doe^John^Q^Dr^Jr^X"),
       false},
      {"default", BPersonName(), false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    EXPECT_EQ(r.equal, base == r.other);
    EXPECT_EQ(r.equal, base(r.other));
    EXPECT_EQ(!r.equal, base != r.other);
  }

  BPersonName invalid(base);
  EXPECT_TRUE(invalid == base);
  invalid.SetSuffix("Jr");  // same value: still equal
  EXPECT_TRUE(invalid == base);
  invalid.SetPrefix("");
  EXPECT_FALSE(invalid == base);

  // Same strings, different validity.
  BPersonName a, b;
  b.FromDisplayName("");
  EXPECT_EQ("", S(b.GetFamilyName()));
  EXPECT_FALSE(a == b);
}

TEST(BPersonName, CopyAssignAndClear) {
  BPersonName a("Doe^John^Q^Dr^Jr");
  BPersonName b;
  b = a;
  EXPECT_TRUE(a == b);
  BPersonName& self = b;
  b = self;
  EXPECT_TRUE(a == b);
  b.Clear();
  EXPECT_FALSE(b.IsValid());
  EXPECT_TRUE(b == BPersonName());
  EXPECT_EQ("Doe Dr, John, Q", S(a.GetDisplayNameWithTitle()));
}

}  // namespace
