#include "common/base/bpersonname.h"

#include <string>

#include <gtest/gtest.h>

namespace {

std::string S(const ACE_CString& s) {
  return std::string(s.c_str(), s.length());
}

// Every component and derived form, joined by '|'.
std::string All(const BPersonName& pn) {
  return S(pn.GetFamilyName()) + "|" + S(pn.GetGivenName()) + "|" +
         S(pn.GetMiddleName()) + "|" + S(pn.GetPrefix()) + "|" +
         S(pn.GetSuffix()) + "|" + S(pn.GetDisplayName()) + "|" +
         S(pn.GetDisplayNameWithTitle());
}

TEST(BPersonName, FromDICOMNameSplitsComponentsAndDerivesDisplayForms) {
  struct Row {
    const char* dicom;
    const char* all;  // family|given|middle|prefix|suffix|display|title
  } rows[] = {
      {"Doe^John^Q^Dr^Jr", "Doe|John|Q|Dr|Jr|Doe, John, Q|Doe Dr, John, Q"},
      {"Doe", "Doe|||||Doe|Doe"},
      {"Doe^^Q", "Doe||Q|||Doe, Q|Doe, Q"},
      {"^John", "|John||||, John|, John"},
      // Sixth and later pieces are dropped.
      {"a^b^c^d^e^f^g", "a|b|c|d|e|a, b, c|a d, b, c"},
      // No trimming, and '=' stays inside its component.
      {" Doe ^ John=J", " Doe | John=J|||| Doe ,  John=J| Doe ,  John=J"},
      {"^^^^", "||||||"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.dicom);
    BPersonName pn(r.dicom);
    EXPECT_TRUE(pn.IsValid());
    EXPECT_EQ(r.dicom, S(pn.GetDICOMName()));
    EXPECT_EQ(r.all, All(pn));
  }
  // One character reads as a whole text.
  for (char c : {'X', '^'}) {
    BPersonName pn("Doe^John");
    EXPECT_TRUE(pn.FromDICOMName(c));
    EXPECT_EQ(std::string(1, c), S(pn.GetDICOMName()));
    EXPECT_EQ(c == 'X' ? "X|||||X|X" : "||||||", All(pn));
  }
}

TEST(BPersonName, ReparseClearsOldComponentsButEmptyTextKeepsFamily) {
  BPersonName pn("Doe^John^Q^Dr^Jr");
  ASSERT_TRUE(pn.FromDICOMName(ACE_CString("Roe^Jane")));
  EXPECT_EQ("Roe|Jane||||Roe, Jane|Roe, Jane", All(pn));
  // An empty text splits into nothing: the family name survives while the
  // other components and the DICOM text are reset.
  ASSERT_TRUE(pn.FromDICOMName(ACE_CString("")));
  EXPECT_EQ("Roe|||||Roe|Roe", All(pn));
  EXPECT_EQ("", S(pn.GetDICOMName()));
  ASSERT_TRUE(pn.FromDisplayName(""));
  EXPECT_EQ("Roe", S(pn.GetFamilyName()));
}

TEST(BPersonName, FromDisplayNameTrimsAndLeavesDicomFormsAlone) {
  struct Row {
    const char* display;
    const char* parts;  // family|given|middle
  } rows[] = {
      {" Doe,\tJohn ,Q\r\n", "Doe|John|Q"},
      {"Doe,John,Q,extra", "Doe|John|Q"},
      {",,", "||"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.display);
    BPersonName pn("Old^Name^M^Dr^Sr");
    EXPECT_TRUE(pn.FromDisplayName(r.display));
    EXPECT_TRUE(pn.IsValid());
    EXPECT_EQ(std::string(r.parts) + "|||" + r.display + "|Old Dr, Name, M",
              All(pn));
    EXPECT_EQ("Old^Name^M^Dr^Sr", S(pn.GetDICOMName()));
  }
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
  EXPECT_EQ("Smith||A|Dr||Smith, A|Smith Dr, A", All(built));
  // Display text -> components -> DICOM text, which parses back equal.
  BPersonName fromDisplay;
  fromDisplay.FromDisplayName(" Roe , Jane ");
  EXPECT_EQ("Roe^Jane^^^", S(fromDisplay.ToDICOMName()));
  EXPECT_EQ("Roe, Jane", S(fromDisplay.GetDisplayName()));
  EXPECT_TRUE(BPersonName(fromDisplay.GetDICOMName()) == fromDisplay);
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
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    EXPECT_EQ(r.equal, base == r.other);
    EXPECT_EQ(r.equal, base(r.other));
    EXPECT_EQ(!r.equal, base != r.other);
  }
  BPersonName copy;
  copy = base;
  copy.Clear();
  EXPECT_FALSE(copy.IsValid());
  EXPECT_TRUE(copy == BPersonName());
  // Same strings, different validity.
  BPersonName b;
  b.FromDisplayName("");
  EXPECT_FALSE(BPersonName() == b);
}

}  // namespace
