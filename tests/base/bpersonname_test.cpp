#include "common/base/bpersonname.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/pyoracle.h"

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
      {"Doe^^Q", "Doe||Q|||Doe, Q|Doe, Q"},
      {"^John", "|John||||, John|, John"},
      // Sixth and later pieces are dropped.
      {"a^b^c^d^e^f^g", "a|b|c|d|e|a, b, c|a d, b, c"},
      // No trimming, and '=' stays inside its component.
      {" Doe ^ John=J", " Doe | John=J|||| Doe ,  John=J| Doe ,  John=J"},
      {"^^^^", "||||||"},
      // Groups stay inside the components of the whole name.
      {"Yamada^Tarou=山田^太郎=やまだ^たろう",
       "Yamada|Tarou=山田|太郎=やまだ|たろう||Yamada, Tarou=山田, "
       "太郎=やまだ|Yamada たろう, Tarou=山田, 太郎=やまだ"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.dicom);
    BPersonName pn(r.dicom);
    EXPECT_TRUE(pn.IsValid());
    EXPECT_EQ(r.dicom, S(pn.GetDICOMName()));
    EXPECT_EQ(r.all, All(pn));
  }
  EXPECT_STREQ("山田, 太郎", BPersonName("Yamada^Tarou=山田^太郎=やまだ")
                                 .Ideographic()
                                 .GetDisplayName()
                                 .c_str());
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
  // An empty text splits into nothing: only the family name survives.
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
  EXPECT_EQ("Smith||A|Dr|||", All(built));
  EXPECT_FALSE(built.IsValid());
  EXPECT_EQ("Smith^^A^Dr^", S(built.ToDICOMName()));
  EXPECT_TRUE(built.IsValid());
  EXPECT_EQ("Smith||A|Dr||Smith, A|Smith Dr, A", All(built));
  // Display text -> components -> DICOM text, which parses back equal.
  BPersonName fromDisplay;
  fromDisplay.FromDisplayName(" Roe , Jane ");
  EXPECT_EQ("Roe^Jane^^^", S(fromDisplay.ToDICOMName()));
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
      {"extra piece only in DICOM text", BPersonName("Doe^John^Q^Dr^Jr^X"),
       false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    EXPECT_EQ(r.equal, base == r.other);
    EXPECT_EQ(r.equal, base(r.other));
    EXPECT_EQ(!r.equal, base != r.other);
  }
  BPersonName copy = base;
  copy.Clear();
  EXPECT_TRUE(copy == BPersonName());
  // Same strings, different validity.
  BPersonName b;
  b.FromDisplayName("");
  EXPECT_FALSE(BPersonName() == b);
}

// pydicom's three groups of each name, each followed by its five components.
const char kGroupOracle[] = R"PY(
import sys, warnings
from pydicom.valuerep import PersonName
warnings.simplefilter("ignore")
for line in sys.stdin:
    groups = (list(PersonName(line[:-1]).components) + ["", "", ""])[:3]
    print("|".join(x for g in groups for x in [g] + (g.split("^") + [""] * 5)[:5]))
)PY";

std::vector<std::string> Names() {
  std::vector<std::string> out = {"=Smith", "Smith==", "",
                                  "A^B^C^D^E^F=G^H^I^J^K^L"};
  const char* const pieces[] = {"",       "Doe", "John", "山田",    "太郎",
                                "やまだ", "Q",   "Dr.",  "van der", "Ö"};
  std::mt19937 rng(18);
  auto pick = [&rng](int n) {
    return std::uniform_int_distribution<int>(0, n - 1)(rng);
  };
  for (int i = 0; i < 400; ++i) {
    std::string name;
    int const groups = 1 + pick(3);
    for (int g = 0; g < groups; ++g) {
      if (g != 0) name += '=';
      int const parts = pick(6);
      for (int c = 0; c < parts; ++c) {
        if (c != 0) name += '^';
        name += pieces[pick(static_cast<int>(std::size(pieces)))];
      }
    }
    out.push_back(name);
  }
  return out;
}

std::string Parts(const BPersonName& group) {
  std::string s = group.GetDICOMName().c_str();
  for (const ACE_String_Base<char>* c :
       {&group.GetFamilyName(), &group.GetGivenName(), &group.GetMiddleName(),
        &group.GetPrefix(), &group.GetSuffix()}) {
    s += "|";
    s += c->c_str();
  }
  return s;
}

// Groups and components against pydicom's PersonName; the whole name reads
// as before.
TEST(BPersonName, GroupsAgreeWithPydicom) {
  if (!comtest::PythonHas("pydicom")) GTEST_SKIP() << "no python3-pydicom";
  std::vector<std::string> names = Names();
  std::vector<std::string> expected;
  std::string why;
  ASSERT_TRUE(comtest::RunPython(kGroupOracle, names, expected, why)) << why;
  ASSERT_EQ(names.size(), expected.size());
  for (size_t i = 0; i < names.size(); ++i) {
    SCOPED_TRACE("\"" + names[i] + "\"");
    BPersonName const pn(names[i].c_str());
    EXPECT_EQ(expected[i], Parts(pn.Alphabetic()) + "|" +
                               Parts(pn.Ideographic()) + "|" +
                               Parts(pn.Phonetic()));
    EXPECT_EQ(names[i], pn.GetDICOMName().c_str());
    BPersonName whole;
    whole.FromDICOMName(ACE_String_Base<char>(names[i].c_str()));
    EXPECT_TRUE(whole == pn);
  }
}

}  // namespace
