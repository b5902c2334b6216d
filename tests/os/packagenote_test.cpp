#include "common/os/internal/packagenote.h"

#include <cstdint>
#include <errno.h>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/tempfolder.h"

namespace {

struct Note {
  std::string owner;  // without its NUL
  uint32_t type;
  std::string desc;
};

// A little-or-big-endian byte writer.
struct Out {
  bool big;
  std::vector<unsigned char> b;
  void Put(uint64_t v, size_t width) {
    for (size_t i = 0; i < width; ++i) {
      size_t shift = 8 * (big ? width - 1 - i : i);
      b.push_back(static_cast<unsigned char>(v >> shift));
    }
  }
  void Pad(size_t align) {
    while (b.size() % align) b.push_back(0);
  }
};

// An ELF image with one note area, referenced from a PT_NOTE program header
// or (inSection) from an SHT_NOTE section header only.
std::vector<unsigned char> MakeElf(bool is64, bool big,
                                   const std::vector<Note>& notes,
                                   bool inSection, size_t align = 4) {
  Out area{big, {}};
  for (const Note& n : notes) {
    area.Put(n.owner.size() + 1, 4);
    area.Put(n.desc.size() + 1, 4);
    area.Put(n.type, 4);
    area.b.insert(area.b.end(), n.owner.begin(), n.owner.end());
    area.b.push_back(0);
    area.Pad(align);
    area.b.insert(area.b.end(), n.desc.begin(), n.desc.end());
    area.b.push_back(0);
    area.Pad(align);
  }
  const size_t w = is64 ? 8 : 4;
  const size_t ehsize = is64 ? 64 : 52;
  const size_t entsize = inSection ? (is64 ? 64 : 40) : (is64 ? 56 : 32);
  const size_t tableOff = ehsize;
  const size_t areaOff = tableOff + entsize;

  Out o{big, {}};
  o.b = {0x7f, 'E', 'L', 'F'};
  o.Put(is64 ? 2 : 1, 1);
  o.Put(big ? 2 : 1, 1);
  o.Put(1, 1);
  o.b.resize(16, 0);
  // type ET_DYN, machine, version, entry, phoff, shoff, flags, ehsize,
  // phentsize, phnum, shentsize, shnum, shstrndx
  const size_t ph = inSection ? 0 : 1, sh = inSection ? 1 : 0;
  const std::pair<uint64_t, size_t> fields[] = {{3, 2},
                                                {62, 2},
                                                {1, 4},
                                                {0, w},
                                                {ph * tableOff, w},
                                                {sh * tableOff, w},
                                                {0, 4},
                                                {ehsize, 2},
                                                {ph * entsize, 2},
                                                {ph, 2},
                                                {sh * entsize, 2},
                                                {sh, 2},
                                                {0, 2}};
  for (const auto& [value, width] : fields) o.Put(value, width);
  if (!inSection && is64) {
    o.Put(4, 4), o.Put(4, 4), o.Put(areaOff, 8), o.Put(0, 8), o.Put(0, 8);
    o.Put(area.b.size(), 8), o.Put(area.b.size(), 8), o.Put(align, 8);
  } else if (!inSection) {
    o.Put(4, 4), o.Put(areaOff, 4), o.Put(0, 4), o.Put(0, 4);
    o.Put(area.b.size(), 4), o.Put(area.b.size(), 4), o.Put(4, 4);
    o.Put(align, 4);
  } else {
    o.Put(0, 4), o.Put(7, 4), o.Put(2, w), o.Put(0, w), o.Put(areaOff, w);
    o.Put(area.b.size(), w), o.Put(0, 4), o.Put(0, 4), o.Put(align, w);
    o.Put(0, w);
  }
  o.b.insert(o.b.end(), area.b.begin(), area.b.end());
  return o.b;
}

const Note kPackage{"FDO", 0xcafe1a7e, R"({"name":"x","version":"2.5.1"})"};
const Note kBuildId{"GNU", 3, "0123456789abcdefghi"};

TEST(PackageNote, FindsTheNoteInEveryLayout) {
  // Notes first of the same owner, the same type, and a longer owner.
  const std::vector<Note> crowded = {
      kBuildId,
      {"FDO", 1, "{\"version\":\"no\"}"},
      {"GNU", 0xcafe1a7e, "{\"version\":\"no\"}"},
      {"FDOX", 0xcafe1a7e, "{\"version\":\"no\"}"},
      kPackage,
      {"A", 9, ""}};
  struct Row {
    const char* name;
    bool is64, big, inSection;
    size_t align;
    std::vector<Note> notes;
  } rows[] = {
      {"64-bit LE segment, 8-aligned", true, false, false, 8, crowded},
      {"32-bit BE segment", false, true, false, 4, {kPackage}},
      {"64-bit BE section", true, true, true, 4, crowded},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    std::vector<unsigned char> img =
        MakeElf(r.is64, r.big, r.notes, r.inSection, r.align);
    ACE_CString json;
    ASSERT_EQ(0, Kelvane::FindPackageNote(img.data(), img.size(), json));
    EXPECT_STREQ(kPackage.desc.c_str(), json.c_str());
    EXPECT_EQ(kPackage.desc.size(), json.length());  // NULs stripped
  }
}

TEST(PackageNote, ReportsWhyThereIsNoNote) {
  std::vector<unsigned char> good = MakeElf(true, false, {kPackage}, false);
  std::vector<unsigned char> noNote = MakeElf(true, false, {kBuildId}, false);
  std::vector<unsigned char> badClass = good;
  badClass[4] = 3;
  std::vector<unsigned char> cutArea(good.begin(), good.end() - 8);
  std::vector<unsigned char> hugeDesc = good;
  hugeDesc[64 + 56 + 4] = 0xff;  // descsz of the first note
  std::vector<unsigned char> tableOutside = good;
  tableOutside[32] = 0xf0;  // e_phoff far past the end
  std::vector<unsigned char> shortHeader(good.begin(), good.begin() + 40);
  struct Row {
    const char* name;
    std::vector<unsigned char> img;
    int err;
  } rows[] = {
      {"no package note", noNote, ENODATA},
      {"empty", {}, ENOEXEC},
      {"unknown class", badClass, ENOEXEC},
      {"header cut short", shortHeader, ENOEXEC},
      {"note area cut short", cutArea, EBADMSG},
      {"descriptor past the area", hugeDesc, EBADMSG},
      {"program headers outside the file", tableOutside, EBADMSG},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    ACE_CString json("unchanged");
    errno = 0;
    EXPECT_EQ(-1, Kelvane::FindPackageNote(r.img.data(), r.img.size(), json));
    EXPECT_EQ(r.err, errno);
    EXPECT_STREQ("unchanged", json.c_str());
  }
}

TEST(PackageNote, FieldPicksTopLevelStringMembers) {
  const std::string deep = "{\"a\":" + std::string(200, '[') +
                           std::string(200, ']') + ",\"version\":\"1\"}";
  const std::string fine = "{\"a\":" + std::string(60, '[') +
                           std::string(60, ']') + ",\"version\":\"1\"}";
  struct Row {
    std::string json;
    const char* key;
    int err;  // 0 when found
    std::string value;
  } rows[] = {
      {fine, "version", 0, "1"},
      {deep, "version", EBADMSG, ""},  // runaway nesting
      {" {\n\t\"a\" : 1 , \"version\" : \" 3 \" }\r\n", "version", 0, " 3 "},
      {R"({"a":{"version":"inner"},"b":["version"],"version":"outer"})",
       "version", 0, "outer"},
      {R"({"version":"a\"b\\c\/d\n\u00e9\ud83d\ude00"})", "version", 0,
       "a\"b\\c/d\n\xc3\xa9\xf0\x9f\x98\x80"},
      {R"({"version":"\ud800x\udc00"})", "version", 0,
       "\xef\xbf\xbdx\xef\xbf\xbd"},
      {R"({"n":-1.5e+3,"t":true,"z":null,"version":""})", "version", 0, ""},
      {R"({"version":"1","version":"2"})", "version", 0, "1"},
      {R"({"version":1})", "version", ENODATA, ""},
      {R"(["version","1"])", "version", EBADMSG, ""},
      {R"({"version":"1"} x)", "version", EBADMSG, ""},
      {"{\"version\":\"1\x01\"}", "version", EBADMSG, ""},
      {R"({"version":"\x41"})", "version", EBADMSG, ""},
      {R"({"a":01,"version":"1"})", "version", EBADMSG, ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.json);
    ACE_CString value("unchanged");
    errno = 0;
    int rc =
        Kelvane::PackageNoteField(r.json.data(), r.json.size(), r.key, value);
    if (r.err == 0) {
      ASSERT_EQ(0, rc);
      EXPECT_EQ(r.value, std::string(value.c_str(), value.length()));
    } else {
      EXPECT_EQ(-1, rc);
      EXPECT_EQ(r.err, errno);
      EXPECT_STREQ("unchanged", value.c_str());
    }
  }
}

TEST(PackageNote, Files) {
  ACE_CString json, version;
  ASSERT_EQ(0, Kelvane::ReadPackageNote(COM_LIBRARY_FILE, json));
  EXPECT_NE(ACE_CString::npos, json.find("\"name\":\"com\""));

  testsupport::TempFolder dir;
  ASSERT_TRUE(dir.ok());
  std::vector<unsigned char> img = MakeElf(false, true, {kPackage}, true);
  std::string synthetic = dir.Write("synthetic.so", {img.begin(), img.end()});
  ASSERT_EQ(0, Kelvane::PackageNoteVersion(synthetic.c_str(), version));
  EXPECT_STREQ("2.5.1", version.c_str());

  struct Row {
    std::string path;
    int err;
  } rows[] = {
      {dir.File("missing.so"), ENOENT},
      {dir.path(), EISDIR},
      {dir.Write("readme.txt", "hi\n"), ENOEXEC},
      // The test program is a real ELF file with notes, but no package note.
      {"/proc/self/exe", ENODATA},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.path);
    ACE_CString unchanged("unchanged");
    errno = 0;
    EXPECT_EQ(-1, Kelvane::PackageNoteVersion(r.path.c_str(), unchanged));
    EXPECT_EQ(r.err, errno);
    EXPECT_STREQ("unchanged", unchanged.c_str());
  }
}

}  // namespace
