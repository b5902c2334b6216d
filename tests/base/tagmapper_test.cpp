#include "common/base/tagmapper.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "support/pyoracle.h"

namespace {

namespace fs = std::filesystem;

// A mapper of its own, with access to the compiled-in table.
class FreshMapper : public TagMapper {
 public:
  using TagMapper::m_GETable;
};

struct TableEntry {
  const char* tag;
  const char* description;
  const char* type;
};

std::vector<TableEntry> Table() {
  std::vector<TableEntry> rows;
  for (const char* const* e = FreshMapper::m_GETable; e[0] != nullptr; e += 3) {
    rows.push_back({e[0], e[1], e[2]});
  }
  return rows;
}

const char* const kVRNames[] = {"UN", "AE", "AS", "CS", "DA", "DS", "DT",
                                "IS", "LO", "LT", "PN", "SH", "ST", "TM",
                                "UT", "UI", "SS", "US", "AT", "SL", "UL",
                                "FL", "FD", "OB", "OW", "SQ"};

TEST(TagMapper, RacingThreadsGetOneInstance) {
  const int kThreads = 8;
  std::atomic<int> waiting{kThreads};
  std::vector<TagMapper*> seen(kThreads, nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      waiting.fetch_sub(1);
      while (waiting.load() > 0) std::this_thread::yield();
      TagMapper* m = TagMapper::Instance();
      // Used at once: a half-built instance would show here.
      if (m->FindVR(0x00101010) == TagMapper::AS) seen[i] = m;
    });
  }
  for (std::thread& t : threads) t.join();
  for (int i = 0; i < kThreads; ++i) EXPECT_EQ(TagMapper::Instance(), seen[i]);
}

// Wording quirks callers rely on, and what is not an attribute.
TEST(TagMapper, Lookups) {
  const TagMapper* dict = TagMapper::Instance();
  struct Row {
    const char* text;  // null: look up `tag` numerically
    unsigned int tag;
    const char* description;  // null: unknown
    TagMapper::eDCMType type;
  };
  const Row rows[] = {
      {nullptr, 0x00020001, "File-Meta Information Version", TagMapper::OB},
      {nullptr, 0x00020016, "Source Application Entiry Title", TagMapper::AE},
      {nullptr, 0x0040A196, "Observation DateTime", TagMapper::DT},
      {nullptr, 0xFFFEE000, nullptr, TagMapper::UN},  // item, not an attribute
      {nullptr, 0x60020010, nullptr, TagMapper::UN},  // repeat of 6000 dropped
      {"7fe0,0010", 0, "Pixel Data", TagMapper::OW},  // lower case
      {"0010;0010", 0, nullptr, TagMapper::UN},
      {"0009,0010", 0, nullptr, TagMapper::UN},  // private group
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text ? row.text : std::to_string(row.tag));
    const char* got = row.text ? dict->FindDescription(row.text)
                               : dict->FindDescription(row.tag);
    EXPECT_STREQ(row.description, got);
    if (row.text == nullptr) {
      EXPECT_EQ(row.type, dict->FindVR(row.tag));
    }
  }
  EXPECT_EQ(nullptr, dict->FindDescription(static_cast<const char*>(nullptr)));
}

TEST(TagMapper, DCMType2VRPacksLettersWithTwoQuirks) {
  for (unsigned t = 0; t < 26; ++t) {
    SCOPED_TRACE(kVRNames[t]);
    const int want = t == TagMapper::AE ? 'A' | 'S' << 8
                     : t == TagMapper::AS
                         ? 0
                         : kVRNames[t][0] | kVRNames[t][1] << 8;
    EXPECT_EQ(want, TagMapper::DCMType2VR(static_cast<TagMapper::eDCMType>(t)));
  }
  EXPECT_EQ(0, TagMapper::DCMType2VR(static_cast<TagMapper::eDCMType>(26)));
}

// pydicom's dictionary as the table words it: 50xx/60xx as 5000/6000 only,
// retired names ending " RETIRED". Lines "tag<TAB>VR<TAB>name<TAB>unnamed".
const char kSourceOracle[] = R"PY(
import re
from pydicom._dicom_dict import DicomDictionary, RepeatersDictionary
items = list(DicomDictionary.items())
for mask, v in RepeatersDictionary.items():
    key = re.sub("^(50|60)xx", r"\g<1>00", mask)
    if "x" not in key:
        items.append((int(key, 16), v))
for tag, v in items:
    name = v[2]
    if v[3] == "Retired":
        name = re.sub(r" \(Retired\)$", "", name) + " RETIRED"
    print("%X\t%s\t%s\t%d" % (tag, v[0], name, v[2] == ""))
)PY";

// Every entry is found by text, number and group length, and agrees with
// pydicom's dictionary, which misses nothing named in the kept groups.
TEST(TagMapper, TableRoundTripsAndAgreesWithSourceDictionary) {
  const TagMapper* dict = TagMapper::Instance();
  std::set<unsigned> groups;
  std::set<unsigned int> inTable;
  const std::vector<TableEntry> table = Table();
  for (const TableEntry& e : table) {
    SCOPED_TRACE(e.tag);
    unsigned int tag =
        static_cast<unsigned int>(std::strtoul(e.tag, nullptr, 16));
    char text[32];
    std::snprintf(text, sizeof text, "%X", tag);
    EXPECT_STREQ(text, e.tag);  // upper case, no leading zeros
    EXPECT_TRUE(inTable.insert(tag).second) << "tag twice";
    groups.insert(tag >> 16);
    std::snprintf(text, sizeof text, "%04X,%04X", tag >> 16, tag & 0xFFFF);
    EXPECT_EQ(e.description, dict->FindDescription(text));
    EXPECT_EQ(e.description, dict->FindDescription(tag));
    EXPECT_EQ(e.type, std::to_string(dict->FindVR(tag)));
  }
  EXPECT_EQ(table.size(), dict->GetTags().current_size());
  for (unsigned group : groups) {
    EXPECT_EQ("Group-Length" + std::to_string(TagMapper::UL),
              dict->FindDescription(group << 16) +
                  std::to_string(dict->FindVR(group << 16)));
  }
  if (!comtest::PythonHas("pydicom")) GTEST_SKIP() << "no python3-pydicom";
  std::vector<std::string> lines;
  std::string why;
  ASSERT_TRUE(comtest::RunPython(kSourceOracle, {}, lines, why)) << why;
  ASSERT_GT(lines.size(), 4000u);
  // Entries of our own, or worded our own way.
  const std::set<unsigned int> kOwnWording = {0x00020001, 0x00020016,
                                              0x0040A196};
  for (const std::string& line : lines) {
    SCOPED_TRACE(line);
    size_t const t1 = line.find('\t'), t2 = line.find('\t', t1 + 1);
    unsigned int const tag =
        static_cast<unsigned int>(std::stoul(line.substr(0, t1), nullptr, 16));
    std::string const vr = line.substr(t1 + 1, t2 - t1 - 1);
    std::string const name = line.substr(t2 + 1, line.size() - t2 - 3);
    if (!groups.count(tag >> 16) || (tag & 0xFFFF) == 0 ||
        kOwnWording.count(tag) || (line.back() == '1' && !inTable.count(tag)))
      continue;
    ASSERT_EQ(1u, inTable.erase(tag)) << "left out";
    EXPECT_EQ(name, dict->FindDescription(tag));
    // A VR the enumeration names is kept; of "X or Y" one alternative.
    std::string const got = kVRNames[dict->FindVR(tag)];
    if (std::find(std::begin(kVRNames), std::end(kVRNames), vr) !=
        std::end(kVRNames)) {
      EXPECT_EQ(vr, got);
    } else if (vr.find(" or ") != std::string::npos) {
      EXPECT_NE(std::string::npos, vr.find(got)) << vr;
    }
  }
  // What is left is of our own: group lengths and our own entries.
  for (unsigned int tag : inTable) {
    EXPECT_TRUE((tag & 0xFFFF) == 0 || kOwnWording.count(tag))
        << std::hex << tag << " not in the source";
  }
}

std::string MessageLine(const char* tag, const char* description,
                        const char* vr) {
  char line[128];
  std::snprintf(line, sizeof line, "%-13s%-44s%s", tag, description, vr);
  return line;
}

// Runs in a folder three levels below one that holds the message file.
class TagMapperWriteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ =
        fs::temp_directory_path() / ("tagmapper-" + std::to_string(::getpid()));
    work_ = root_ / "a" / "b" / "c";
    fs::create_directories(work_);
    fs::create_directories(root_ / "ThirdParty" / "MC3ADV" / "mc3msg");
    old_ = fs::current_path();
    fs::current_path(work_);
  }
  void TearDown() override {
    fs::current_path(old_);
    fs::remove_all(root_);
  }
  void WriteMessages(const std::string& text) {
    std::ofstream(root_ / "ThirdParty" / "MC3ADV" / "mc3msg" / "Message.txt")
        << text;
  }

  fs::path root_, work_, old_;
};

// Lines of the message file and what each one binds (tag 0: skipped).
TEST_F(TagMapperWriteTest, RegeneratesTableFromMessageFile) {
  FreshMapper mapper;
  const size_t before = mapper.GetTags().current_size();
  mapper.WriteTagsToFile();  // no message file: nothing changes
  EXPECT_FALSE(fs::exists(work_ / "tags.cpp"));

  const std::string d44(44, 'D');
  struct Row {
    std::string line;
    unsigned int tag;
    std::string description;
    TagMapper::eDCMType type;
  } rows[] = {
      {MessageLine("0009,0010", "Private Creator", "LO") + "  1\r", 0x00090010,
       "Private Creator", TagMapper::LO},
      {MessageLine("0011,1001", "Odd VR", "XY"), 0x00111001, "Odd VR",
       TagMapper::UN},
      // The description is cut after 44 columns; the VR follows it.
      {"0013,0002    " + d44 + "SQ", 0x00130002, d44, TagMapper::SQ},
      {"0015,0002   Short  \t ", 0x00150002, "hort", TagMapper::UN},
      {"0017,00AB", 0x001700AB, "", TagMapper::UN},
      // Known tags keep their entry.
      {MessageLine("0010,0010", "Not The Patient Name", "LO"), 0x00100010,
       "Patient's Name", TagMapper::PN},
      {"0019,1", 0, "", TagMapper::UN},  // under 8 characters
      {"0009 1002 no comma at index 4", 0, "", TagMapper::UN},
  };
  std::string text = "Message dictionary\n\n";
  for (const Row& r : rows) text += r.line + "\n";
  WriteMessages(text);
  mapper.WriteTagsToFile();
  EXPECT_EQ(before + 5, mapper.GetTags().current_size());
  auto lineOf = [](const std::string& tag, const std::string& description,
                   const std::string& type) {
    return "  \"" + tag + "\", \"" + description + "\", \"" + type + "\",";
  };
  std::vector<std::string> expected;
  for (const TableEntry& e : Table())
    expected.push_back(lineOf(e.tag, e.description, e.type));
  for (const Row& r : rows) {
    if (r.tag == 0) continue;
    SCOPED_TRACE(r.line);
    const char* got = mapper.FindDescription(r.tag);
    ASSERT_NE(nullptr, got);
    EXPECT_EQ(r.description + "/" + std::to_string(r.type),
              std::string(got) + "/" + std::to_string(mapper.FindVR(r.tag)));
    if (r.tag == 0x00100010) continue;
    char tag[16];
    std::snprintf(tag, sizeof tag, "%X", r.tag);
    expected.push_back(lineOf(tag, r.description, std::to_string(r.type)));
  }

  std::ifstream in(work_ / "tags.cpp");
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  ASSERT_EQ(mapper.GetTags().current_size() + 2, lines.size());
  EXPECT_EQ("const char* const TagMapper::m_GETable[] = {|0,0,0};",
            lines.front() + "|" + lines.back());
  std::set<std::string> body(lines.begin() + 1, lines.end() - 1);
  EXPECT_EQ(lines.size() - 2, body.size()) << "a line twice";
  // Every entry is written back in the same form.
  for (const std::string& line : expected)
    ASSERT_EQ(1u, body.count(line)) << line;
}

TEST_F(TagMapperWriteTest, ReadersRunWhileTheMapGrows) {
  std::string text;
  for (unsigned e = 0x1000; e < 0x1400; ++e) {
    char tag[16];
    std::snprintf(tag, sizeof tag, "0009,%04X", e);
    text += MessageLine(tag, "Vendor Value", "UL") + "\n";
  }
  WriteMessages(text);
  FreshMapper mapper;
  std::atomic<bool> done{false};
  std::atomic<long> misses{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      while (!done.load()) {
        if (mapper.FindVR(0x00280010) != TagMapper::US) ++misses;
        const char* d = mapper.FindDescription(0x00091200);
        if (d != nullptr && std::strcmp(d, "Vendor Value") != 0) ++misses;
      }
    });
  }
  mapper.WriteTagsToFile();
  done = true;
  for (std::thread& t : readers) t.join();
  EXPECT_EQ(0, misses.load());
  EXPECT_STREQ("Vendor Value", mapper.FindDescription(0x000913FF));
}

// "T tag keyword VM retired" for dictionary, repeating-group and unknown
// tags; "K keyword tag" for keywords, repeating ones (x read as 0: pydicom
// does not look those up) and unknown ones.
const char kKeywordOracle[] = R"PY(
import random
from pydicom._dicom_dict import DicomDictionary, RepeatersDictionary
from pydicom.datadict import (keyword_for_tag, dictionary_VM,
                              dictionary_is_retired, tag_for_keyword)
rng = random.Random(18)
tags = list(DicomDictionary)
for mask in RepeatersDictionary:
    for _ in range(6):
        tags.append(int("".join(rng.choice("0123456789ABCDEF") if c == "x"
                                else c for c in mask), 16))
tags += [rng.getrandbits(32) for _ in range(3000)]
tags += [0x00100011, 0x60013000, 0x00090010, 0xFFFFFFFF, 0]
for t in tags:
    try:
        vm = dictionary_VM(t)
        ret = int(dictionary_is_retired(t))
    except KeyError:
        vm, ret = "-", 0
    print("T %08X %s %s %d" % (t, keyword_for_tag(t) or "-", vm, ret))
names = [v[4] for v in DicomDictionary.values() if v[4]]
for k in names + [n + "X" for n in names[::50]] + [n.lower() for n in names[::50]]:
    t = tag_for_keyword(k)
    print("K %s %s" % (k, "-" if t is None else "%08X" % t))
for mask, v in RepeatersDictionary.items():
    if tag_for_keyword(v[4]) is None:
        print("K %s %08X" % (v[4], int(mask.replace("x", "0"), 16)))
)PY";

TEST(TagMapper, KeywordLookupsAgreeWithPydicom) {
  if (!comtest::PythonHas("pydicom")) GTEST_SKIP() << "no python3-pydicom";
  std::vector<std::string> lines;
  std::string why;
  ASSERT_TRUE(comtest::RunPython(kKeywordOracle, {}, lines, why)) << why;
  const TagMapper* dict = TagMapper::Instance();
  size_t known = 0;
  size_t keywords = 0;
  for (const std::string& line : lines) {
    SCOPED_TRACE(line);
    char kind = 0, a[128] = {0};
    ASSERT_EQ(2, std::sscanf(line.c_str(), "%c %127s", &kind, a));
    char got[300];
    if (kind == 'T') {
      unsigned int const tag =
          static_cast<unsigned int>(std::strtoul(a, nullptr, 16));
      const char* kw = dict->FindKeyword(tag);
      const char* vm = dict->FindVM(tag);
      std::snprintf(got, sizeof got, "T %s %s %s %d", a, kw ? kw : "-",
                    vm ? vm : "-", dict->IsRetired(tag) ? 1 : 0);
      known += vm != nullptr;
    } else {
      unsigned long tag = 0xDEADu;
      bool const found = dict->FindTagByKeyword(a, tag);
      if (found) {
        std::snprintf(got, sizeof got, "K %s %08lX", a, tag);
      } else {
        std::snprintf(got, sizeof got, "K %s -", a);
        EXPECT_EQ(0xDEADu, tag);
      }
      keywords += found;
    }
    EXPECT_EQ(line, got);
  }
  EXPECT_GT(known, 4900u);
  EXPECT_GT(keywords, 4500u);
  unsigned long tag = 0;
  EXPECT_FALSE(dict->FindTagByKeyword(nullptr, tag));
  EXPECT_FALSE(dict->FindTagByKeyword("", tag));
}

}  // namespace
