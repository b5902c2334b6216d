#include "common/base/tagmapper.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/base/internal/tagmessage.h"

namespace {

namespace fs = std::filesystem;

// A mapper of its own (the singleton is shared by every test), and access to
// the compiled-in table.
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

// Entries whose wording and type the library's users rely on.
struct Fixed {
  unsigned int tag;
  const char* description;
  TagMapper::eDCMType type;
};
const Fixed kFixed[] = {
    {0x00020001, "File-Meta Information Version", TagMapper::OB},
    {0x00020010, "Transfer Syntax UID", TagMapper::UI},
    {0x00020016, "Source Application Entiry Title", TagMapper::AE},
    {0x00100010, "Patient's Name", TagMapper::PN},
    {0x00101010, "Patient's Age", TagMapper::AS},
    {0x00082200, "Transducer Position RETIRED", TagMapper::CS},
    {0x0040A196, "Observation DateTime", TagMapper::DT},
    {0x60003000, "Overlay Data", TagMapper::OW},
    {0x7FE00010, "Pixel Data", TagMapper::OW},
};

const char* FixedDescription(unsigned int tag) {
  for (const Fixed& f : kFixed) {
    if (f.tag == tag) return f.description;
  }
  return nullptr;
}

// Releases all waiting threads at once, so that they really race.
class StartGate {
 public:
  explicit StartGate(int parties) : waiting_(parties) {}
  void ArriveAndWait() {
    waiting_.fetch_sub(1);
    while (waiting_.load() > 0) std::this_thread::yield();
  }

 private:
  std::atomic<int> waiting_;
};

TEST(TagMapper, RacingThreadsGetOneInstance) {
  const int kThreads = 8;
  StartGate gate(kThreads);
  std::vector<TagMapper*> seen(kThreads, nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      gate.ArriveAndWait();
      seen[i] = TagMapper::Instance();
      // Use it at once: a half-built instance would show here.
      if (seen[i] != nullptr && seen[i]->FindVR(0x00101010) != TagMapper::AS) {
        seen[i] = nullptr;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  ASSERT_NE(nullptr, seen[0]);
  for (int i = 1; i < kThreads; ++i) EXPECT_EQ(seen[0], seen[i]) << i;
  EXPECT_EQ(seen[0], TagMapper::Instance());
}

TEST(TagMapper, Lookups) {
  const TagMapper* dict = TagMapper::Instance();
  ASSERT_NE(nullptr, dict);
  struct Row {
    const char* text;  // null: look up `tag` numerically
    unsigned int tag;
    const char* description;  // null: unknown
    TagMapper::eDCMType type;
  };
  const Row rows[] = {
      {nullptr, 0x00100010, "Patient's Name", TagMapper::PN},
      {"0010,0010", 0, "Patient's Name", TagMapper::PN},
      {"0010", 0, nullptr, TagMapper::UN},
      {"", 0, nullptr, TagMapper::UN},
      {"0010;0010", 0, nullptr, TagMapper::UN},
      {"7fe0,0010", 0, "Pixel Data", TagMapper::OW},
      {"0002,0000", 0, "Group-Length", TagMapper::UL},
      {"300A,0000", 0, "Group-Length", TagMapper::UL},
      {"0009,0010", 0, nullptr, TagMapper::UN},  // private group
      {nullptr, 0x00101010, "Patient's Age", TagMapper::AS},
      {nullptr, 0x00280010, "Rows", TagMapper::US},
      {nullptr, 0x0020000D, "Study Instance UID", TagMapper::UI},
      {nullptr, 0x00000000, nullptr, TagMapper::UN},
      {nullptr, 0xFFFFFFFF, nullptr, TagMapper::UN},
      {nullptr, 0xFFFEE000, nullptr, TagMapper::UN},  // item, not an attribute
      {nullptr, 0x50100010, nullptr, TagMapper::UN},  // repeat of 5000 dropped
      {nullptr, 0x60020010, nullptr, TagMapper::UN},  // repeat of 6000 dropped
      {nullptr, 0x60000010, "Overlay Rows", TagMapper::US},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text ? row.text : std::to_string(row.tag));
    const char* got = row.text ? dict->FindDescription(row.text)
                               : dict->FindDescription(row.tag);
    if (row.description == nullptr) {
      EXPECT_EQ(nullptr, got);
    } else {
      ASSERT_NE(nullptr, got);
      EXPECT_STREQ(row.description, got);
    }
    if (row.text == nullptr) {
      EXPECT_EQ(row.type, dict->FindVR(row.tag));
    }
  }
  EXPECT_EQ(nullptr, dict->FindDescription(static_cast<const char*>(nullptr)));
}

TEST(TagMapper, DCMType2VRPacksLettersWithTwoQuirks) {
  const char* names[] = {"UN", "AE", "AS", "CS", "DA", "DS", "DT", "IS", "LO",
                         "LT", "PN", "SH", "ST", "TM", "UT", "UI", "SS", "US",
                         "AT", "SL", "UL", "FL", "FD", "OB", "OW", "SQ"};
  for (unsigned t = 0; t < 26; ++t) {
    SCOPED_TRACE(names[t]);
    unsigned short got =
        TagMapper::DCMType2VR(static_cast<TagMapper::eDCMType>(t));
    if (t == TagMapper::AE) {
      EXPECT_EQ('A' | 'S' << 8, got);
    } else if (t == TagMapper::AS) {
      EXPECT_EQ(0, got);
    } else {
      EXPECT_EQ(names[t][0], got & 0xFF);
      EXPECT_EQ(names[t][1], got >> 8);
    }
  }
  EXPECT_EQ(0x4E55, TagMapper::DCMType2VR(TagMapper::UN));
  EXPECT_EQ(0, TagMapper::DCMType2VR(static_cast<TagMapper::eDCMType>(26)));
  EXPECT_EQ(0, TagMapper::DCMType2VR(static_cast<TagMapper::eDCMType>(~0u)));
}

TEST(TagMapper, EveryTableEntryRoundTrips) {
  const TagMapper* dict = TagMapper::Instance();
  std::set<unsigned long> tags;
  std::set<unsigned> groups;
  std::vector<TableEntry> table = Table();
  for (const TableEntry& e : table) {
    SCOPED_TRACE(e.tag);
    char* end = nullptr;
    unsigned long tag = std::strtoul(e.tag, &end, 16);
    ASSERT_EQ('\0', *end);
    ASSERT_LE(tag, 0xFFFFFFFFul);
    char text[32];
    std::snprintf(text, sizeof text, "%lX", tag);
    EXPECT_STREQ(text, e.tag);  // upper case, no leading zeros
    EXPECT_TRUE(tags.insert(tag).second) << "tag twice";
    groups.insert(static_cast<unsigned>(tag >> 16));

    std::snprintf(text, sizeof text, "%04lX,%04lX", tag >> 16, tag & 0xFFFF);
    EXPECT_EQ(e.description, dict->FindDescription(text));
    EXPECT_EQ(e.description, dict->FindDescription(tag));
    int type = std::atoi(e.type);
    EXPECT_EQ(std::to_string(type), e.type);
    EXPECT_LE(0, type);
    EXPECT_GE(25, type);
    EXPECT_EQ(type, static_cast<int>(dict->FindVR(tag)));
  }
  EXPECT_EQ(table.size(), dict->GetTags().current_size());
  EXPECT_STREQ("7FE00010", table.back().tag);
  for (unsigned group : groups) {
    SCOPED_TRACE(group);
    EXPECT_STREQ("Group-Length", dict->FindDescription(group << 16));
    EXPECT_EQ(TagMapper::UL, dict->FindVR(group << 16));
  }
}

TEST(TagMapper, FixedEntriesAreExact) {
  const TagMapper* dict = TagMapper::Instance();
  for (const Fixed& f : kFixed) {
    SCOPED_TRACE(f.description);
    ASSERT_NE(nullptr, dict->FindDescription(f.tag));
    EXPECT_STREQ(f.description, dict->FindDescription(f.tag));
    EXPECT_EQ(f.type, dict->FindVR(f.tag));
  }
  int ages = 0;
  for (const TableEntry& e : Table()) ages += std::atoi(e.type) == 2;
  EXPECT_EQ(1, ages) << "Patient's Age is the only AS entry";
}

// ---------------------------------------------------------------------------
// The table against the dictionary it was generated from.

struct Source {
  std::string vr, name;
  bool retired;
};

// Reads the Python string literals of a tuple "('a', "b", ...)".
std::vector<std::string> PythonStrings(const std::string& text) {
  std::vector<std::string> out;
  for (size_t i = 0; i < text.size(); ++i) {
    char quote = text[i];
    if (quote != '\'' && quote != '"') continue;
    std::string s;
    for (++i; i < text.size() && text[i] != quote; ++i) {
      if (text[i] == '\\' && i + 1 < text.size()) ++i;
      s += text[i];
    }
    out.push_back(s);
  }
  return out;
}

// The pydicom dictionary, with the repeating groups 50xx/60xx expanded to
// 5000/6000 only.
std::map<unsigned int, Source> ReadSourceDictionary(const std::string& path) {
  std::map<unsigned int, Source> dict;
  std::ifstream in(path);
  const std::regex head(
      R"(^\s*(?:0x([0-9A-Fa-f]{8})|'([0-9A-Fa-fx]{8})')\s*:\s*(\(.*\)))");
  std::string line;
  std::smatch m;
  while (std::getline(in, line)) {
    if (!std::regex_search(line, m, head)) continue;
    std::string key = m[1].matched ? m[1].str() : m[2].str();
    if (key.compare(0, 4, "50xx") == 0) key.replace(0, 4, "5000");
    if (key.compare(0, 4, "60xx") == 0) key.replace(0, 4, "6000");
    if (key.find('x') != std::string::npos) continue;
    std::vector<std::string> f = PythonStrings(m[3].str());
    if (f.size() != 5) continue;
    dict[static_cast<unsigned int>(std::stoul(key, nullptr, 16))] = {
        f[0], f[2], f[3] == "Retired"};
  }
  return dict;
}

std::string Expected(const Source& s) {
  if (!s.retired) return s.name;
  std::string name = s.name;
  const std::string marker = " (Retired)";
  if (name.size() > marker.size() &&
      name.compare(name.size() - marker.size(), marker.size(), marker) == 0) {
    name.erase(name.size() - marker.size());
  }
  return name + " RETIRED";
}

TEST(TagMapper, TableAgreesWithSourceDictionary) {
  const char* env = std::getenv("COM_TAG_DICTIONARY");
  std::string path =
      env ? env : "/usr/lib/python3/dist-packages/pydicom/_dicom_dict.py";
  if (!fs::exists(path)) {
    GTEST_SKIP() << "no DICOM dictionary at " << path
                 << " (python3-pydicom not installed)";
  }
  std::map<unsigned int, Source> source = ReadSourceDictionary(path);
  ASSERT_GT(source.size(), 4000u) << "unreadable dictionary " << path;

  const char* names[] = {"UN", "AE", "AS", "CS", "DA", "DS", "DT", "IS", "LO",
                         "LT", "PN", "SH", "ST", "TM", "UT", "UI", "SS", "US",
                         "AT", "SL", "UL", "FL", "FD", "OB", "OW", "SQ"};
  std::set<unsigned> groups;
  std::set<unsigned int> inTable;
  for (const TableEntry& e : Table()) {
    unsigned int tag =
        static_cast<unsigned int>(std::strtoul(e.tag, nullptr, 16));
    inTable.insert(tag);
    groups.insert(tag >> 16);
    if ((tag & 0xFFFF) == 0 || FixedDescription(tag) != nullptr) continue;
    SCOPED_TRACE(e.tag);
    auto it = source.find(tag);
    ASSERT_NE(source.end(), it) << e.description << " not in the source";
    EXPECT_EQ(Expected(it->second), e.description);
    // A VR the enumeration names is kept; of "X or Y" one alternative.
    const std::string& vr = it->second.vr;
    std::string got = names[std::atoi(e.type)];
    if (vr.size() == 2 &&
        std::find(std::begin(names), std::end(names), vr) != std::end(names)) {
      EXPECT_EQ(vr, got);
    } else if (vr.find(" or ") != std::string::npos) {
      EXPECT_NE(std::string::npos, vr.find(got)) << vr;
    }
  }
  // Nothing named in the kept groups is left out.
  for (const auto& [tag, s] : source) {
    if (groups.count(tag >> 16) == 0 || s.name.empty()) continue;
    EXPECT_EQ(1u, inTable.count(tag)) << std::hex << tag << " " << s.name;
  }
}

// ---------------------------------------------------------------------------
// The message dictionary format and the regenerated table.

std::string MessageLine(const char* tag, const char* description,
                        const char* vr) {
  char line[128];
  std::snprintf(line, sizeof line, "%-13s%-44s%s", tag, description, vr);
  return line;
}

TEST(TagMapper, ParsesMessageLines) {
  namespace tm = Kelvane::tagmessage;
  const std::string d44(44, 'D');
  struct Row {
    std::string line;
    bool used;
    unsigned int tag;
    std::string description;
    TagMapper::eDCMType type;
  };
  const Row rows[] = {
      {MessageLine("0009,0010", "Private Creator", "LO") + "  1\n", true,
       0x00090010, "Private Creator", TagMapper::LO},
      {MessageLine("7FE0,0010", "Pixel Data", "OW") + "\r\n", true, 0x7FE00010,
       "Pixel Data", TagMapper::OW},
      {MessageLine("0011,1001", "Odd VR", "XY"), true, 0x00111001, "Odd VR",
       TagMapper::UN},
      // The description is cut after 44 columns; the VR follows it.
      {MessageLine("0013,0001", (d44 + "XYZ").c_str(), ""), true, 0x00130001,
       d44, TagMapper::UN},
      {"0013,0002    " + d44 + "SQ", true, 0x00130002, d44, TagMapper::SQ},
      {"0015,0002   Short", true, 0x00150002, "hort", TagMapper::UN},
      {"0015,0004   S", true, 0x00150004, "", TagMapper::UN},
      {"0015,0003    Short  \t \n", true, 0x00150003, "Short", TagMapper::UN},
      {"0017,00AB\n", true, 0x001700AB, "", TagMapper::UN},
      {"0019,1\n", false, 0, "", TagMapper::UN},  // under 8 characters
      {"00190001    x", false, 0, "", TagMapper::UN},
      {"# 0002,0010 comment line", false, 0, "", TagMapper::UN},
      {"", false, 0, "", TagMapper::UN},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.line);
    tm::MessageLine got{0, "unchanged", TagMapper::SQ};
    ASSERT_EQ(row.used, tm::ParseMessageLine(row.line.c_str(), &got));
    if (!row.used) continue;
    EXPECT_EQ(row.tag, got.tag);
    EXPECT_EQ(row.description, got.description);
    EXPECT_EQ(row.type, got.type);
  }
}

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
  std::vector<std::string> GeneratedLines() {
    std::ifstream in(work_ / "tags.cpp");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  fs::path root_, work_, old_;
};

TEST_F(TagMapperWriteTest, RegeneratesTableFromMessageFile) {
  WriteMessages(
      "Message dictionary\n"
      "\n" +
      MessageLine("0009,0010", "Private Creator", "LO") + "  1\n" +
      MessageLine("0009,1001", "Vendor Dose", "DS") + "  1\n" +
      MessageLine("0010,0010", "Not The Patient Name", "LO") + "  1\n" +
      "0009 1002 no comma at index 4\n");
  FreshMapper mapper;
  size_t before = mapper.GetTags().current_size();
  mapper.WriteTagsToFile();

  // New tags are bound and found at once; known ones keep their entry.
  EXPECT_EQ(before + 2, mapper.GetTags().current_size());
  EXPECT_STREQ("Vendor Dose", mapper.FindDescription("0009,1001"));
  EXPECT_EQ(TagMapper::DS, mapper.FindVR(0x00091001));
  EXPECT_STREQ("Patient's Name", mapper.FindDescription(0x00100010));
  EXPECT_EQ(TagMapper::PN, mapper.FindVR(0x00100010));

  std::vector<std::string> lines = GeneratedLines();
  ASSERT_EQ(mapper.GetTags().current_size() + 2, lines.size());
  EXPECT_EQ("const char* const TagMapper::m_GETable[] = {", lines.front());
  EXPECT_EQ("0,0,0};", lines.back());
  std::set<std::string> body(lines.begin() + 1, lines.end() - 1);
  EXPECT_EQ(lines.size() - 2, body.size()) << "a line twice";
  const char* expected[] = {
      R"(  "90010", "Private Creator", "8",)",
      R"(  "91001", "Vendor Dose", "5",)",
      R"(  "100010", "Patient's Name", "10",)",
      R"(  "7FE00010", "Pixel Data", "24",)",
      R"(  "20016", "Source Application Entiry Title", "1",)",
  };
  for (const char* line : expected) {
    EXPECT_EQ(1u, body.count(line)) << line;
  }
  // Every compiled-in entry is written back in the same form.
  for (const TableEntry& e : Table()) {
    std::string line = std::string("  \"") + e.tag + "\", \"" + e.description +
                       "\", \"" + e.type + "\",";
    ASSERT_EQ(1u, body.count(line)) << line;
  }
}

TEST_F(TagMapperWriteTest, MissingMessageFileChangesNothing) {
  FreshMapper mapper;
  size_t before = mapper.GetTags().current_size();
  mapper.WriteTagsToFile();
  EXPECT_EQ(before, mapper.GetTags().current_size());
  EXPECT_FALSE(fs::exists(work_ / "tags.cpp"));
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

}  // namespace
