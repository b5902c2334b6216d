#include "common/os/osfile.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <set>
#include <signal.h>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <stdlib.h>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/os/internal/osfilerules.h"

#include "support/civil.h"
#include "support/scopedtz.h"

extern char** environ;

namespace {

using Kelvane::FileInfo;

std::string S(const ACE_CString& s) {
  return std::string(s.c_str(), s.length());
}

// ------------------------------------------------------------ path rules

TEST(OSFilePaths, Normalize) {
  struct Row {
    const char* in;
    const char* plain;
    const char* trailing;
  } rows[] = {
      {"", "", ""},
      {"\\", "/", "/"},
      {"a\\b/c", "a/b/c", "a/b/c/"},
      {"/a/", "/a/", "/a/"},
      {"x\\\\", "x//", "x//"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.in);
    EXPECT_STREQ(r.plain, Kelvane::normalizePath(r.in, false).c_str());
    EXPECT_STREQ(r.trailing, Kelvane::normalizePath(r.in, true).c_str());
  }
}

TEST(OSFilePaths, ConcatPath) {
  struct Row {
    const char* dir;
    const char* name;
    const char* result;
  } rows[] = {
      {nullptr, nullptr, "untouched"},
      {nullptr, "x", "x/x"},  // the name joined to itself
      {"a/", "/b", "a/b"},
      {"a", "b", "a/b"},
      {"a/", "b", "a/b"},
      {"a", "/b", "a/b"},
      {"a\\", "b", "a\\/b"},  // only '/' counts
      {"a", nullptr, "a"},
      {"a", "", "a/"},
      {"/", "/", "/"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.dir ? r.dir : "null") + " + " +
                 (r.name ? r.name : "null"));
    ACE_CString result("untouched");
    Kelvane::concatPath(result, r.dir, r.name);
    EXPECT_STREQ(r.result, result.c_str());
  }
}

TEST(OSFilePaths, SplitPath) {
  struct Row {
    const char* in;
    int rc;
    const char* path;
    const char* name;
  } rows[] = {
      {"noseparator", -1, "noseparator", "keep"},
      {"", -1, "", "keep"},
      {"D:/a\\b", 0, "D:", "a\\b"},  // '/' wins even before a later '\'
      {"D:\\a\\b", 0, "D:\\a", "b"},
      {"/x", 0, "", "x"},
      {"dir/", 0, "dir", ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.in);
    ACE_CString path(r.in), name("keep");
    EXPECT_EQ(r.rc, Kelvane::splitPath(path, name));
    EXPECT_STREQ(r.path, path.c_str());
    EXPECT_STREQ(r.name, name.c_str());
  }
}

TEST(OSFilePaths, Elements) {
  struct Row {
    const char* in;
    const char* last;
    const char* allButLast;
    const char* drive;
    const char* allButDrive;
    const char* ext;
    const char* noExt;
  } rows[] = {
      {"", "", "", "", "", "", ""},
      {"D:/dir/file", "file", "D:/dir", "D:", "dir/file", "", "D:/dir/file"},
      {"D:/dir/", "dir", "D:", "D:", "dir/", "", "D:/dir/"},
      {"D:\\dir\\", "dir", "D:", "D:", "dir\\", "", "D:\\dir\\"},
      {"name", "name", "name", "name", "name", "", "name"},
      {"file.txt", "file.txt", "file.txt", "file.txt", "file.txt", "txt",
       "file"},
      {"/dir", "dir", "", "", "/dir", "", "/dir"},
      {"/a.d/b", "b", "/a.d", "", "/a.d/b", "d/b", "/a"},
      {"/", "", "", "", "/", "", "/"},
      {"//", "", "", "", "//", "", "//"},
      {"a\\b/c.x.y", "c.x.y", "a\\b", "a", "b/c.x.y", "y", "a\\b/c.x"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.in);
    EXPECT_STREQ(r.last, Kelvane::getLastPathElement(r.in).c_str());
    EXPECT_STREQ(r.allButLast, Kelvane::getAllButLastPathElement(r.in).c_str());
    EXPECT_STREQ(r.drive, Kelvane::getDriveElement(r.in).c_str());
    EXPECT_STREQ(r.allButDrive, Kelvane::getAllButDriveElement(r.in).c_str());
    EXPECT_STREQ(r.ext, Kelvane::getFileX(r.in).c_str());
    EXPECT_STREQ(r.noExt, Kelvane::fileNameRemoveX(r.in).c_str());
  }
}

TEST(OSFilePaths, PathToList) {
  std::list<ACE_CString> out;
  out.push_back("kept");
  Kelvane::PathToList("//a\\\\b/c/", out);
  Kelvane::PathToList(nullptr, out);
  Kelvane::PathToList("", out);
  Kelvane::PathToList("d", out);
  std::vector<std::string> got;
  for (const auto& s : out) got.push_back(S(s));
  EXPECT_EQ((std::vector<std::string>{"kept", "a", "b", "c", "d"}), got);
}

TEST(OSFilePaths, FileTimeToString) {
  const ACE_UINT64 kDay = 864000000000ULL;
  struct Row {
    ACE_UINT64 ft;
    const char* text;
  } rows[] = {
      {0, "01/01/1601 00:00:00"},
      {kDay * 59, "03/01/1601 00:00:00"},
      // 1970-01-01 and a leap day, with sub-second ticks cut off.
      {11644473600ULL * 10000000ULL, "01/01/1970 00:00:00"},
      {Kelvane::internal::FileTimeFromUnix(951825600, 999999999),
       "02/29/2000 12:00:00"},
      {Kelvane::internal::FileTimeFromUnix(1236434709, 0),
       "03/07/2009 14:05:09"},
      {Kelvane::internal::FileTimeFromUnix(4102444799LL, 0),
       "12/31/2099 23:59:59"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    EXPECT_STREQ(r.text, Kelvane::FileTimeToString(r.ft).c_str());
  }
}

TEST(OSFileRules, FindPattern) {
  struct Row {
    const char* name;
    const char* pattern;
    bool match;
  } rows[] = {
      {"a", "*.*", true},        {".", "*.*", true},
      {"x.dcm", "*.DCM", true},  {"x.dcmx", "*.dcm", false},
      {"dir", "dir*.*", true},   {"dir1.txt", "dir*.*", true},
      {"adir", "dir*.*", false}, {"file", "fil?", true},
      {"file", "f*e*e", false},  {"abcabd", "*abd", true},
      {"", "*", true},           {"x", "", false},
      {"a.b", "a", false},       {"ab", "a*b*", true},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.name) + " ~ " + r.pattern);
    EXPECT_EQ(r.match,
              Kelvane::internal::MatchesFindPattern(r.name, r.pattern));
  }
}

TEST(OSFileRules, SuffixAndClusters) {
  using Kelvane::internal::SuffixMatches;
  struct Row {
    const char* full;
    const char* suffix;
    bool match;
  } rows[] = {
      {"/d/X.DCM", ".dcm", true}, {"/d/xdcm", "dcm", true},
      {"/d/a.dc", ".dcm", false}, {"ab", "abc", false},
      {"a", "*", true},           {"/d/x.txt", "*", true},
      {"/d/x*", "x*", true},      {"a", "", true},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.full) + " ~ " + r.suffix);
    EXPECT_EQ(r.match, SuffixMatches(r.full, std::strlen(r.full), r.suffix,
                                     std::strlen(r.suffix)));
  }
  using Kelvane::internal::RoundUpToClusters;
  EXPECT_EQ(0u, RoundUpToClusters(0, 4096));
  EXPECT_EQ(4096u, RoundUpToClusters(1, 4096));
  EXPECT_EQ(4096u, RoundUpToClusters(4096, 4096));
  EXPECT_EQ(8192u, RoundUpToClusters(4097, 4096));
  EXPECT_EQ(0u, RoundUpToClusters(12345, 0));
  EXPECT_EQ(6000000000ULL, RoundUpToClusters(5999999999ULL, 1000));
}

TEST(OSFileRules, FileTimeConversions) {
  using Kelvane::internal::FileTimeFromUnix;
  using Kelvane::internal::UnixFromFileTime;
  EXPECT_EQ(116444736000000000ULL, FileTimeFromUnix(0, 0));
  EXPECT_EQ(0u, FileTimeFromUnix(-11644473600LL, 0));
  EXPECT_EQ(0u, FileTimeFromUnix(-11644473601LL, 0));
  for (int64_t sec : {-5000000000LL, -1LL, 0LL, 1700000000LL, 9000000000LL}) {
    for (uint32_t ns : {0u, 100u, 999999900u}) {
      auto back = UnixFromFileTime(FileTimeFromUnix(sec, ns));
      EXPECT_EQ(sec, back.first);
      EXPECT_EQ(ns, back.second);
    }
  }
}

TEST(OSFileRules, MountInfoLines) {
  Kelvane::internal::MountEntry m;
  ASSERT_TRUE(Kelvane::internal::ParseMountInfoLine(
      "36 35 98:0 / /mnt/my\\040disk rw,noatime master:1 - ext3 /dev/root "
      "rw,errors=continue",
      m));
  EXPECT_EQ(98u, m.major);
  EXPECT_EQ(0u, m.minor);
  EXPECT_EQ("/mnt/my disk", m.mountPoint);
  EXPECT_EQ("ext3", m.fsType);
  EXPECT_EQ("/dev/root", m.source);
  ASSERT_TRUE(Kelvane::internal::ParseMountInfoLine(
      "22 1 0:21 / /proc rw - proc proc rw", m));
  EXPECT_EQ(0u, m.major);
  EXPECT_EQ("/proc", m.mountPoint);
  for (const char* bad :
       {"", "1 2 3", "1 2 x:y / /m rw - ext4 /dev/a rw",
        "1 2 8:1 / /m rw no-dash ext4 /dev/a", "1 2 8:1 / /m rw -"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(Kelvane::internal::ParseMountInfoLine(bad, m));
  }
}

TEST(OSFileRules, OneDrivePerCapacity) {
  auto out = Kelvane::internal::SelectDrivesByCapacity(
      {{"/", 100}, {"/boot/", 5}, {"/data/", 900}, {"/bind/", 100}});
  EXPECT_EQ((std::vector<std::string>{"/data/", "/bind/", "/boot/"}), out);
  EXPECT_TRUE(Kelvane::internal::SelectDrivesByCapacity({}).empty());
}

// ------------------------------------------------------------ real files

class OSFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/com-osfile-XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(tmpl));
    root_ = tmpl;
  }
  void TearDown() override {
    std::string cmd =
        "chmod -R u+w '" + root_ + "' 2>/dev/null; rm -rf '" + root_ + "'";
    ASSERT_EQ(0, std::system(cmd.c_str()));
  }

  std::string P(const std::string& rel) const { return root_ + "/" + rel; }

  void Write(const std::string& rel, const std::string& data) {
    std::ofstream out(P(rel), std::ios::binary);
    out << data;
    ASSERT_TRUE(out.good()) << rel;
  }
  void Dir(const std::string& rel) {
    ASSERT_EQ(0, ::mkdir(P(rel).c_str(), 0755)) << rel;
  }
  void Link(const std::string& target, const std::string& rel) {
    ASSERT_EQ(0, ::symlink(target.c_str(), P(rel).c_str())) << rel;
  }
  static struct statx Statx(const std::string& path) {
    struct statx stx;
    EXPECT_EQ(0, ::statx(AT_FDCWD, path.c_str(), 0,
                         STATX_BASIC_STATS | STATX_BTIME, &stx))
        << path;
    return stx;
  }
  static ACE_UINT64 MTicks(const std::string& path) {
    struct statx stx = Statx(path);
    return Kelvane::internal::FileTimeFromUnix(stx.stx_mtime.tv_sec,
                                               stx.stx_mtime.tv_nsec);
  }
  static ACE_UINT64 CTicks(const std::string& path) {
    struct statx stx = Statx(path);
    const auto& t =
        (stx.stx_mask & STATX_BTIME) ? stx.stx_btime : stx.stx_ctime;
    return Kelvane::internal::FileTimeFromUnix(t.tv_sec, t.tv_nsec);
  }
  static void SetMTime(const std::string& path, time_t sec) {
    struct timespec ts[2] = {{0, UTIME_OMIT}, {sec, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), ts, AT_SYMLINK_NOFOLLOW));
  }

  std::string root_;
};

TEST_F(OSFileTest, Predicates) {
  Write("f", "x");
  Write("ro", "x");
  ASSERT_EQ(0, ::chmod(P("ro").c_str(), 0444));
  Dir("d");
  Link("f", "lf");
  Link("d", "ld");
  Link("missing", "dangling");
  struct Row {
    const char* rel;
    bool file, dir, ro, writeable;
    int accessible;
  } rows[] = {
      {"f", true, false, false, true, 1},
      {"ro", true, false, true, getuid() == 0, 1},
      {"d", false, true, false, true, 1},
      {"lf", true, false, false, true, 1},
      {"ld", false, true, false, true, 1},
      {"dangling", false, false, false, false, -1},
      {"nothing", false, false, false, false, -1},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.rel);
    EXPECT_EQ(r.file, Kelvane::isFile(P(r.rel).c_str()));
    EXPECT_EQ(r.dir, Kelvane::isDirectory(P(r.rel).c_str()));
    EXPECT_EQ(r.ro, Kelvane::isReadOnly(P(r.rel).c_str()));
    EXPECT_EQ(r.writeable, Kelvane::isWriteable(P(r.rel).c_str()));
    EXPECT_EQ(r.accessible, Kelvane::isAccessible(P(r.rel).c_str()));
  }
  errno = 0;
  EXPECT_FALSE(Kelvane::isFile(P("nothing").c_str()));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(OSFileTest, FileCopy) {
  std::string data(3 * 1024 * 1024 + 7, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 131);
  Write("src", data);
  ASSERT_EQ(0, ::chmod(P("src").c_str(), 0640));
  SetMTime(P("src"), 1000000000);
  ASSERT_EQ(0, Kelvane::FileCopy(P("src").c_str(), P("dst").c_str(), true));
  std::ifstream in(P("dst"), std::ios::binary);
  std::string copied((std::istreambuf_iterator<char>(in)),
                     std::istreambuf_iterator<char>());
  EXPECT_EQ(data, copied);
  struct statx d = Statx(P("dst"));
  EXPECT_EQ(0640u, d.stx_mode & 07777u);
  EXPECT_EQ(1000000000, d.stx_mtime.tv_sec);

  // failIfExists refuses, overwriting replaces (also a longer file).
  Write("small", "abc");
  errno = 0;
  EXPECT_EQ(-1, Kelvane::FileCopy(P("small").c_str(), P("dst").c_str(), true));
  EXPECT_EQ(EEXIST, errno);
  EXPECT_EQ(0, Kelvane::FileCopy(P("small").c_str(), P("dst").c_str(), false));
  EXPECT_STREQ("abc", Kelvane::FileToString(P("dst").c_str()).c_str());

  // Onto itself (also through a hard link): refused, the data stays.
  ASSERT_EQ(0, Kelvane::CreateLink(P("hard").c_str(), P("small").c_str()));
  EXPECT_EQ(-1,
            Kelvane::FileCopy(P("small").c_str(), P("hard").c_str(), false));
  EXPECT_STREQ("abc", Kelvane::FileToString(P("small").c_str()).c_str());
  EXPECT_EQ(Statx(P("small")).stx_ino, Statx(P("hard")).stx_ino);
  EXPECT_EQ(-1, Kelvane::CreateLink(P("hard").c_str(), P("small").c_str()));
  EXPECT_EQ(-1, Kelvane::FileCopy(P("none").c_str(), P("x").c_str(), false));
  EXPECT_EQ(-1, Kelvane::FileCopy(root_.c_str(), P("x").c_str(), false));
  EXPECT_FALSE(Kelvane::isFile(P("x").c_str()));
}

TEST_F(OSFileTest, SizesAndSeekOnSparseFile) {
  // 5 GiB + 123 bytes, sparse: the 64-bit functions see it whole.
  const ACE_UINT64 big = (5ULL << 30) + 123;
  {
    int fd = ::open(P("big").c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ::ftruncate(fd, static_cast<off_t>(big)));
    ::close(fd);
  }
  ACE_UINT64 size = 0;
  EXPECT_TRUE(Kelvane::FileSize(P("big").c_str(), size));
  EXPECT_EQ(big, size);
  EXPECT_FALSE(Kelvane::FileSize(P("none").c_str(), size));
  EXPECT_FALSE(Kelvane::FileSize(ACE_INVALID_HANDLE, size));

  int fd = ::open(P("big").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  ACE_UINT64 pos = 0;
  EXPECT_TRUE(Kelvane::FileSeek(fd, 1ULL << 32, SEEK_SET, pos));
  EXPECT_EQ(1ULL << 32, pos);
  EXPECT_TRUE(
      Kelvane::FileSeek(fd, static_cast<ACE_UINT64>(-10), SEEK_CUR, pos));
  EXPECT_EQ((1ULL << 32) - 10, pos);
  EXPECT_TRUE(Kelvane::FileSeek(fd, 0, SEEK_END, pos));
  EXPECT_EQ(big, pos);
  EXPECT_FALSE(
      Kelvane::FileSeek(fd, static_cast<ACE_UINT64>(-1) - big, SEEK_END, pos));
  EXPECT_FALSE(Kelvane::FileSeek(fd, 0, 7, pos));
  EXPECT_FALSE(Kelvane::FileSeek(ACE_INVALID_HANDLE, 0, SEEK_SET, pos));
  EXPECT_TRUE(Kelvane::FileSize(fd, size));
  EXPECT_EQ(big, size);
  ::close(fd);

  // The listing keeps the low 32 bits only.
  std::vector<FileInfo> files;
  ASSERT_EQ(0, Kelvane::GetFileList(files, root_.c_str(), "*", false, true));
  ASSERT_EQ(1u, files.size());
  EXPECT_EQ(static_cast<int>((1ULL << 30) + 123), files[0].size());
}

TEST_F(OSFileTest, FileToString) {
  Write("text", std::string("abc\0def", 7));
  EXPECT_STREQ("abc", Kelvane::FileToString(P("text").c_str()).c_str());
  Write("empty", "");
  EXPECT_STREQ("", Kelvane::FileToString(P("empty").c_str()).c_str());
  try {
    Kelvane::FileToString(P("none").c_str());
    ADD_FAILURE() << "no exception";
  } catch (const std::exception& e) {
    EXPECT_EQ("Unable to open file " + P("none"), e.what());
  }
  // A folder opens but cannot be read.
  try {
    Kelvane::FileToString(root_.c_str());
    ADD_FAILURE() << "no exception";
  } catch (const std::exception& e) {
    std::string what = e.what();
    EXPECT_TRUE(what == "Error reading file " + root_ ||
                what == "Unable to open file " + root_)
        << what;
  }
}

TEST_F(OSFileTest, ForceDeleteKeepsOpenData) {
  Write("f", "payload");
  int fd = ::open(P("f").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(0, Kelvane::ForceDelete(P("f").c_str()));
  EXPECT_FALSE(Kelvane::isFile(P("f").c_str()));
  char buf[8] = {0};
  EXPECT_EQ(7, ::read(fd, buf, 7));
  EXPECT_STREQ("payload", buf);
  ::close(fd);
  EXPECT_EQ(0, Kelvane::ForceDelete(P("f").c_str()));  // not a file: 0
  Dir("d");
  EXPECT_EQ(0, Kelvane::ForceDelete(P("d").c_str()));
  EXPECT_TRUE(Kelvane::isDirectory(P("d").c_str()));
}

TEST_F(OSFileTest, TouchAndTimes) {
  Write("f", "x");
  SetMTime(P("f"), 1000000000);
  struct statx before = Statx(P("f"));
  auto t0 = std::chrono::system_clock::now();
  EXPECT_TRUE(Kelvane::touchFile(P("f").c_str()));
  struct statx after = Statx(P("f"));
  int64_t nowSec =
      std::chrono::duration_cast<std::chrono::seconds>(t0.time_since_epoch())
          .count();
  EXPECT_GE(after.stx_mtime.tv_sec, nowSec - 1);
  EXPECT_LE(after.stx_mtime.tv_sec, nowSec + 2);
  EXPECT_EQ(before.stx_atime.tv_sec, after.stx_atime.tv_sec);
  EXPECT_EQ(before.stx_atime.tv_nsec, after.stx_atime.tv_nsec);
  EXPECT_FALSE(Kelvane::touchFile(P("none").c_str()));
  EXPECT_FALSE(Kelvane::touchFile(static_cast<const char*>(nullptr)));
  EXPECT_FALSE(Kelvane::touchFile(ACE_INVALID_HANDLE));

  FileInfo info(ACE_CString("old"), 77, 1, 2);
  SetMTime(P("f"), 1234567890);
  ASSERT_TRUE(Kelvane::getFileTimes(P("f").c_str(), info));
  EXPECT_STREQ(P("f").c_str(), info.path().c_str());
  EXPECT_EQ(77, info.size());
  EXPECT_EQ(MTicks(P("f")), info.modifiedTime());
  EXPECT_EQ(Kelvane::internal::FileTimeFromUnix(1234567890, 0),
            info.modifiedTime());
  EXPECT_EQ(CTicks(P("f")), info.creationTime());
  EXPECT_FALSE(Kelvane::getFileTimes("", info));
  EXPECT_FALSE(Kelvane::getFileTimes(P("none").c_str(), info));
  EXPECT_STREQ(P("f").c_str(), info.path().c_str());
}

TEST_F(OSFileTest, Attributes) {
  Write("f", "x");
  Dir("d");
  bool v = true;
  EXPECT_TRUE(Kelvane::getFileAttribute(P("f").c_str(), Kelvane::ReadOnly, v));
  EXPECT_FALSE(v);
  ASSERT_TRUE(
      Kelvane::setFileAttribute(P("f").c_str(), Kelvane::ReadOnly, true));
  EXPECT_EQ(0u, Statx(P("f")).stx_mode & 0222u);
  EXPECT_TRUE(Kelvane::isReadOnly(P("f").c_str()));
  EXPECT_TRUE(Kelvane::getFileAttribute(P("f").c_str(), Kelvane::ReadOnly, v));
  EXPECT_TRUE(v);
  ASSERT_TRUE(
      Kelvane::setFileAttribute(P("f").c_str(), Kelvane::ReadOnly, false));
  EXPECT_EQ(0644u & 0200u, Statx(P("f")).stx_mode & 0200u);
  EXPECT_FALSE(Kelvane::isReadOnly(P("f").c_str()));

  // Archive: set on files, not on folders, until changed.
  EXPECT_TRUE(Kelvane::getFileAttribute(P("f").c_str(), Kelvane::Archive, v));
  EXPECT_TRUE(v);
  EXPECT_TRUE(Kelvane::getFileAttribute(P("d").c_str(), Kelvane::Archive, v));
  EXPECT_FALSE(v);
  if (!Kelvane::setFileAttribute(P("f").c_str(), Kelvane::Archive, false)) {
    GTEST_SKIP() << "the temporary folder takes no user extended attributes";
  }
  EXPECT_TRUE(Kelvane::getFileAttribute(P("f").c_str(), Kelvane::Archive, v));
  EXPECT_FALSE(v);
  EXPECT_TRUE(
      Kelvane::setFileAttribute(P("d").c_str(), Kelvane::Archive, true));
  EXPECT_TRUE(Kelvane::getFileAttribute(P("d").c_str(), Kelvane::Archive, v));
  EXPECT_TRUE(v);

  v = true;
  EXPECT_FALSE(
      Kelvane::getFileAttribute(P("none").c_str(), Kelvane::Archive, v));
  EXPECT_FALSE(v);
  v = true;
  EXPECT_FALSE(Kelvane::getFileAttribute(
      P("f").c_str(), static_cast<Kelvane::FileAttribute>(7), v));
  EXPECT_FALSE(v);
  EXPECT_FALSE(Kelvane::setFileAttribute(
      P("f").c_str(), static_cast<Kelvane::FileAttribute>(7), true));
  EXPECT_FALSE(
      Kelvane::setFileAttribute(P("none").c_str(), Kelvane::ReadOnly, true));
}

// A child process holding `path` open (as its standard input) until killed.
class Holder {
 public:
  explicit Holder(const std::string& path) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, path.c_str(), O_RDONLY, 0);
    char sleep[] = "sleep";
    char secs[] = "60";
    char* argv[] = {sleep, secs, nullptr};
    rc_ = posix_spawnp(&pid_, "sleep", &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
  }
  ~Holder() { Stop(); }
  bool started() const { return rc_ == 0; }
  // Waits until the child has the file open (its fd 0 points at it).
  bool WaitOpen(const std::string& path) {
    std::string fd0 = "/proc/" + std::to_string(pid_) + "/fd/0";
    for (int i = 0; i < 500; ++i) {
      char buf[4096];
      ssize_t n = ::readlink(fd0.c_str(), buf, sizeof buf - 1);
      if (n > 0 && std::string(buf, n) == path) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  void Stop() {
    if (rc_ == 0 && pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
      pid_ = 0;
    }
  }

 private:
  pid_t pid_ = 0;
  int rc_ = -1;
};

TEST_F(OSFileTest, BusyWhileAnotherProcessHoldsTheFile) {
  Write("f", "x");
  Dir("d");
  EXPECT_FALSE(Kelvane::isBusy(P("f").c_str()));
  EXPECT_FALSE(Kelvane::isBusy(P("d").c_str()));
  EXPECT_FALSE(Kelvane::isBusy(P("none").c_str()));
  {
    Holder child(P("f"));
    ASSERT_TRUE(child.started());
    ASSERT_TRUE(child.WaitOpen(P("f")));
    EXPECT_TRUE(Kelvane::isBusy(P("f").c_str()));
    child.Stop();
  }
  EXPECT_FALSE(Kelvane::isBusy(P("f").c_str()));
}

// ------------------------------------------------------------ folders

TEST_F(OSFileTest, CreateDirectoryRecursive) {
  EXPECT_EQ(0, Kelvane::CreateDirectoryRecursive(""));
  EXPECT_EQ(0, Kelvane::CreateDirectoryRecursive(P("a\\b/c").c_str()));
  EXPECT_TRUE(Kelvane::isDirectory(P("a/b/c").c_str()));
  EXPECT_EQ(0, Kelvane::CreateDirectoryRecursive(P("a/b/c/").c_str()));
  Write("file", "x");
  // An existing file of that name counts as existing.
  EXPECT_EQ(0, Kelvane::CreateDirectoryRecursive(P("file").c_str()));
  // A parent that cannot be made: the first error, ENOENT.
  EXPECT_EQ(ENOTDIR, Kelvane::CreateDirectoryRecursive(P("file/x/y").c_str()));
  // Any other error is returned as it is.
  EXPECT_EQ(ENAMETOOLONG, Kelvane::CreateDirectoryRecursive(
                              P(std::string(300, 'x')).c_str()));
  if (getuid() != 0) {
    ASSERT_EQ(0, ::chmod(P("a").c_str(), 0555));
    EXPECT_EQ(EACCES, Kelvane::CreateDirectoryRecursive(P("a/z").c_str()));
  }
}

// Builds the tree used by the delete tests, with an outside folder that links
// point to, and checks afterwards that the outside is untouched.
class DeleteTest : public OSFileTest {
 protected:
  void SetUp() override {
    OSFileTest::SetUp();
    Dir("outside");
    Write("outside/keep", "precious");
    Dir("outside/sub");
    Write("outside/sub/keep2", "precious");
    Dir("t");
    Write("t/a", "1");
    Write("t/.hidden", "1");
    Dir("t/.cache");
    Write("t/.cache/c", "1");
    Dir("t/d1");
    Dir("t/d1/d2");
    Write("t/d1/d2/deep", "1");
    Link(P("outside"), "t/d1/d2/to-outside");
    Link(P("outside/keep"), "t/d1/file-link");
    Link(P("outside"), "t/top-link");
    Write("t/d1/ro", "1");
    ASSERT_EQ(0, ::chmod(P("t/d1/ro").c_str(), 0444));
  }
  void ExpectOutsideIntact() {
    EXPECT_STREQ("precious",
                 Kelvane::FileToString(P("outside/keep").c_str()).c_str());
    EXPECT_STREQ("precious",
                 Kelvane::FileToString(P("outside/sub/keep2").c_str()).c_str());
    EXPECT_EQ(0644u, Statx(P("outside/keep")).stx_mode & 0777u);
    EXPECT_TRUE(Kelvane::isDirectory(P("outside/sub").c_str()));
  }
};

TEST_F(DeleteTest, DeleteNeverFollowsLinks) {
  // A link at the top is refused.
  EXPECT_EQ(-1, Kelvane::DeleteDirectoryRecursive(P("t/top-link").c_str()));
  EXPECT_EQ(-1, Kelvane::DeleteDirectoryRecursive(P("t/top-link/").c_str()));
  ExpectOutsideIntact();

  // The walk: links go (themselves only), the read-only file and the
  // '.'-folder stay, so d1 and t stay too.
  EXPECT_EQ(-1, Kelvane::DeleteDirectoryRecursive(P("t").c_str()));
  ExpectOutsideIntact();
  struct Row {
    const char* rel;
    bool exists;
  } rows[] = {
      {"t/a", false},        {"t/.hidden", false}, {"t/.cache/c", true},
      {"t/d1/d2", false},    {"t/d1/ro", true},    {"t/d1/file-link", false},
      {"t/top-link", false}, {"t/d1", true},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.rel);
    struct stat st;
    EXPECT_EQ(r.exists, ::lstat(P(r.rel).c_str(), &st) == 0);
  }

  // Once the obstacles are gone the whole tree goes.
  ASSERT_EQ(0, ::chmod(P("t/d1/ro").c_str(), 0644));
  ASSERT_EQ(0, std::system(("rm -rf '" + P("t/.cache") + "'").c_str()));
  EXPECT_EQ(0, Kelvane::DeleteDirectoryRecursive(P("t/").c_str()));
  EXPECT_FALSE(Kelvane::isDirectory(P("t").c_str()));
  EXPECT_EQ(0, Kelvane::DeleteDirectoryRecursive(P("t").c_str()));
  EXPECT_EQ(0, Kelvane::DeleteDirectoryRecursive(P("t/x/y").c_str()));
  ExpectOutsideIntact();
  Write("plain", "x");
  EXPECT_EQ(-1, Kelvane::DeleteDirectoryRecursive(P("plain").c_str()));
  EXPECT_TRUE(Kelvane::isFile(P("plain").c_str()));
}

TEST_F(DeleteTest, ClassicKeepsTheTopAndStopsAtLinkedFolders) {
  EXPECT_EQ(-1,
            Kelvane::ClassicDeleteDirectoryRecursive(P("t/top-link").c_str()));
  // t holds a link to a folder at its top: the first folder-like entry that
  // DeleteDirectoryRecursive refuses ends the walk with -1.
  int rc = Kelvane::ClassicDeleteDirectoryRecursive(P("t").c_str());
  EXPECT_EQ(-1, rc);
  ExpectOutsideIntact();
  struct stat st;
  ASSERT_EQ(0, ::lstat(P("t/top-link").c_str(), &st));
  EXPECT_TRUE(S_ISLNK(st.st_mode));

  // Without links to folders, the read-only file goes as well and only the
  // empty top folder remains.
  ASSERT_EQ(0, ::unlink(P("t/top-link").c_str()));
  ASSERT_EQ(0, ::unlink(P("t/d1/d2/to-outside").c_str()));
  ASSERT_EQ(0, ::chmod(P("t/d1/ro").c_str(), 0644));
  Write("t/ro2", "1");
  ASSERT_EQ(0, ::chmod(P("t/ro2").c_str(), 0444));
  EXPECT_EQ(0, Kelvane::ClassicDeleteDirectoryRecursive(P("t").c_str()));
  EXPECT_TRUE(Kelvane::isDirectory(P("t").c_str()));
  EXPECT_FALSE(Kelvane::isFile(P("t/ro2").c_str()));
  EXPECT_FALSE(Kelvane::isDirectory(P("t/d1").c_str()));
  EXPECT_TRUE(Kelvane::isFile(P("t/.cache/c").c_str()));
  EXPECT_EQ(0, Kelvane::ClassicDeleteDirectoryRecursive(P("gone").c_str()));
  ExpectOutsideIntact();
}

TEST_F(OSFileTest, CountingAndEmptiness) {
  Dir("e");
  Dir("f");
  Write("f/a", "");
  Write("f/b", "");
  Write("f/.c", "");
  Dir("f/sub");
  Write("f/sub/x", "");
  Write("dirx", "");  // matches "dir*.*" next to the folder "dir"
  Dir("dir");
  struct Row {
    std::string path;
    int count;
    bool empty;
  } rows[] = {
      {P("e/"), -1, true},
      {P("f/"), 3, false},  // 4 entries + "." and ".." - 3
      {P("f/sub/"), 0, false},
      {P("none/"), 0, true},
      // Without the trailing '/', the pattern picks the names starting with
      // "dir" beside the folder.
      {P("dir"), -1, false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.path);
    EXPECT_EQ(r.count, Kelvane::CountFiles(r.path.c_str()));
    EXPECT_EQ(r.empty, Kelvane::isDirectoryEmpty(r.path.c_str()));
  }

  std::vector<ACE_CString> subs{"kept"};
  Dir("f/sub2");
  Dir("f/.git");
  Link(P("f/sub"), "f/linked");
  Kelvane::GetFileSubDirectories(subs, P("f").c_str(), true);
  std::set<std::string> names;
  for (size_t i = 1; i < subs.size(); ++i) names.insert(S(subs[i]));
  EXPECT_EQ("kept", S(subs[0]));
  EXPECT_EQ((std::set<std::string>{"sub", "sub2", "linked"}), names);
  subs.clear();
  Kelvane::GetFileSubDirectories(subs, (root_ + "\\f").c_str(), false);
  names.clear();
  for (const auto& s : subs) names.insert(S(s));
  EXPECT_EQ((std::set<std::string>{P("f/sub"), P("f/sub2"), P("f/linked")}),
            names);
}

TEST_F(OSFileTest, DirectorySizeRoundsToClusters) {
  struct statvfs vfs;
  ASSERT_EQ(0, ::statvfs(root_.c_str(), &vfs));
  const ACE_UINT64 c = vfs.f_frsize;
  Dir("d");
  Dir("d/s");
  Dir("d/.dot");
  Write("d/one", "x");
  Write("d/zero", "");
  Write("d/s/exact", std::string(c, 'x'));
  Write("d/.dot/over", std::string(c + 1, 'x'));
  {
    int fd = ::open(P("d/s/sparse").c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ::ftruncate(fd, 5LL << 30));
    ::close(fd);
  }
  // A link to a folder is a folder entry that is not walked; a link to a
  // file counts with its own size.
  Link(P("d/s"), "d/loop");
  Link(P("d/one"), "d/flink");
  const ACE_UINT64 linkSize = c;
  EXPECT_EQ(c + linkSize, Kelvane::DirectorySize(P("d").c_str(), false));
  EXPECT_EQ(c + linkSize + c + (5ULL << 30) + 2 * c,
            Kelvane::DirectorySize(P("d").c_str(), true));
  EXPECT_EQ(0u, Kelvane::DirectorySize(P("none").c_str(), true));
}

// ------------------------------------------------------------ listings

TEST_F(OSFileTest, ListingWalk) {
  Dir("l");
  Dir("l/sub");
  Dir("l/sub/deeper");
  Dir("l/.hid");
  Write("l/A.DCM", "12345");
  Write("l/b.dcm", "1");
  Write("l/c.txt", "1");
  Write("l/xdcm", "1");
  Write("l/sub/d.dcm", "1");
  Write("l/sub/deeper/e.Dcm", "1");
  Write("l/.hid/f.dcm", "1");
  Write("l/.g.dcm", "1");
  Link(P("l/sub"), "l/loop");
  Link(P("l/c.txt"), "l/link.dcm");
  struct Row {
    const char* suffix;
    bool recursive;
    bool nameOnly;
    std::set<std::string> want;
  } rows[] = {
      {".dcm", false, true, {"A.DCM", "b.dcm", ".g.dcm", "link.dcm"}},
      {"dcm", false, true, {"A.DCM", "b.dcm", ".g.dcm", "xdcm", "link.dcm"}},
      {"*",
       false,
       true,
       {"A.DCM", "b.dcm", ".g.dcm", "xdcm", "c.txt", "link.dcm"}},
      {".dcm",
       true,
       true,
       {"A.DCM", "b.dcm", ".g.dcm", "link.dcm", "d.dcm", "e.Dcm"}},
      {".dcm",
       true,
       false,
       {P("l/A.DCM"), P("l/b.dcm"), P("l/.g.dcm"), P("l/link.dcm"),
        P("l/sub/d.dcm"), P("l/sub/deeper/e.Dcm")}},
      {".none", true, true, {}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.suffix) + (r.recursive ? " recursive" : ""));
    std::vector<FileInfo> out;
    out.push_back(FileInfo(ACE_CString("kept"), 0, 0, 0));
    ASSERT_EQ(0, Kelvane::GetFileList(out, (root_ + "\\l").c_str(), r.suffix,
                                      r.recursive, r.nameOnly));
    ASSERT_FALSE(out.empty());
    EXPECT_STREQ("kept", out[0].path().c_str());
    std::set<std::string> got;
    for (size_t i = 1; i < out.size(); ++i) got.insert(S(out[i].path()));
    EXPECT_EQ(r.want, got);
    EXPECT_EQ(r.want.size() + 1, out.size());
  }
  std::vector<FileInfo> out;
  EXPECT_EQ(-1, Kelvane::GetFileList(out, P("none").c_str(), "*", true, true));
  EXPECT_EQ(-1,
            Kelvane::GetFileList(out, P("l/c.txt").c_str(), "*", true, true));

  // Sizes and times come from the file (the link: from its target).
  ASSERT_EQ(0, Kelvane::GetFileList(out, P("l").c_str(), ".dcm", false, false));
  for (const FileInfo& f : out) {
    SCOPED_TRACE(S(f.path()));
    struct statx stx = Statx(S(f.path()));
    EXPECT_EQ(static_cast<int>(stx.stx_size), f.size());
    EXPECT_EQ(MTicks(S(f.path())), f.modifiedTime());
    EXPECT_EQ(CTicks(S(f.path())), f.creationTime());
  }
}

TEST_F(OSFileTest, ListingByDateSortsByCreation) {
  Dir("l");
  // Creation order a, b, c; last-write times in the other order.
  for (const char* n : {"a", "b", "c"}) {
    Write(std::string("l/") + n + ".dcm", n);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  SetMTime(P("l/a.dcm"), 3000000);
  SetMTime(P("l/b.dcm"), 2000000);
  SetMTime(P("l/c.dcm"), 1000000);
  using Kelvane::internal::FileTimeFromUnix;
  const ACE_UINT64 all = ~ACE_UINT64(0);
  struct Row {
    ACE_UINT64 from, to;
    bool byCreation;
    std::vector<std::string> want;  // in order
  } rows[] = {
      {0, all, false, {"a.dcm", "b.dcm", "c.dcm"}},
      {0, all, true, {"a.dcm", "b.dcm", "c.dcm"}},
      // Inclusive ends on the last-write time; still sorted by creation.
      {FileTimeFromUnix(1000000, 0),
       FileTimeFromUnix(2000000, 0),
       false,
       {"b.dcm", "c.dcm"}},
      {FileTimeFromUnix(2000000, 0) + 1,
       FileTimeFromUnix(3000000, 0),
       false,
       {"a.dcm"}},
      {CTicks(P("l/b.dcm")), CTicks(P("l/c.dcm")), true, {"b.dcm", "c.dcm"}},
      {CTicks(P("l/c.dcm")) + 1, all, true, {}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.want.size());
    std::vector<FileInfo> out;
    Kelvane::GetFileListByDate(out, P("l").c_str(), ".dcm", false, true, r.from,
                               r.to, r.byCreation);
    std::vector<std::string> got;
    for (const FileInfo& f : out) got.push_back(S(f.path()));
    EXPECT_EQ(r.want, got);
  }
  // Entries already in `out` take part in the sort.
  std::vector<FileInfo> out{FileInfo(ACE_CString("late"), 0, all, 0),
                            FileInfo(ACE_CString("early"), 0, 0, 0)};
  Kelvane::GetFileListByDate(out, P("l").c_str(), "a.dcm", false, true, 0, all,
                             true);
  ASSERT_EQ(3u, out.size());
  EXPECT_STREQ("early", out[0].path().c_str());
  EXPECT_STREQ("a.dcm", out[1].path().c_str());
  EXPECT_STREQ("late", out[2].path().c_str());
}

// ------------------------------------------------------------ system

TEST_F(OSFileTest, DriveSpace) {
  ACE_UINT64 total = 1, avail = 2;
  ASSERT_EQ(0, Kelvane::GetDriveSpace(total, avail, root_.c_str()));
  struct statvfs vfs;
  ASSERT_EQ(0, ::statvfs(root_.c_str(), &vfs));
  EXPECT_EQ(static_cast<ACE_UINT64>(vfs.f_blocks) * vfs.f_frsize, total);
  EXPECT_GT(total, 0u);
  EXPECT_LE(avail, total);
  total = 1;
  avail = 2;
  EXPECT_EQ(-1, Kelvane::GetDriveSpace(total, avail, P("none").c_str()));
  EXPECT_EQ(-1, Kelvane::GetDriveSpace(total, avail, nullptr));
  EXPECT_EQ(1u, total);
  EXPECT_EQ(2u, avail);
}

TEST(OSFileSystem, ExecutableAndMisc) {
  char buf[4096];
  ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf);
  ASSERT_GT(n, 0);
  std::string exe(buf, n);
  EXPECT_EQ(exe, S(Kelvane::GetExecutablePath(false)));
  EXPECT_EQ(exe.substr(0, exe.rfind('/')), S(Kelvane::GetExecutablePath(true)));
  EXPECT_EQ("com_tests", S(Kelvane::GetExecutableName(false)));
  EXPECT_EQ("com_tests", S(Kelvane::GetExecutableName(true)));
  EXPECT_EQ(static_cast<int>(std::thread::hardware_concurrency()),
            Kelvane::NumberOfProcessors());
  errno = ENOENT;
  EXPECT_STREQ(std::strerror(ENOENT), Kelvane::LastErrorString().c_str());
  EXPECT_EQ(0u, Kelvane::GetThisProcessMemoryUsage());
}

}  // namespace

namespace {

// A copy of a system binary with a package note section holding `json` (no
// note when `json` is null). Empty when the tools are missing.
std::string BinaryWithNote(const std::string& dir, const char* json) {
  std::string out = dir + "/prog";
  std::string cmd = "cp /bin/true '" + out + "'";
  if (std::system(cmd.c_str()) != 0) return "";
  if (json == nullptr) return out;
  std::string note;
  auto u32 = [&note](uint32_t v) {
    for (int i = 0; i < 4; ++i) note += static_cast<char>(v >> (8 * i));
  };
  std::string desc(json);
  desc += '\0';
  while (desc.size() % 4) desc += '\0';
  u32(4);
  u32(static_cast<uint32_t>(std::strlen(json) + 1));
  u32(0xcafe1a7e);
  note += std::string("FDO\0", 4);
  note += desc;
  std::ofstream(dir + "/note.bin", std::ios::binary) << note;
  cmd = "objcopy --add-section .note.package='" + dir +
        "/note.bin' --set-section-flags .note.package=noload,readonly '" + out +
        "' 2>/dev/null";
  return std::system(cmd.c_str()) == 0 ? out : "";
}

TEST_F(OSFileTest, ApplicationVersions) {
  // The library's own note, as readelf shows it.
  std::string cmd = std::string("readelf -n '") + COM_LIBRARY_FILE + "'";
  FILE* p = ::popen(cmd.c_str(), "r");
  ASSERT_NE(nullptr, p);
  std::string text;
  char buf[512];
  while (std::fgets(buf, sizeof buf, p)) text += buf;
  ::pclose(p);
  size_t at = text.find("\"version\":\"");
  ASSERT_NE(std::string::npos, at) << text;
  at += 11;
  std::string want = text.substr(at, text.find('"', at) - at);
  EXPECT_EQ(want, S(Kelvane::ApplicationVersion(COM_LIBRARY_FILE)));

  struct Row {
    const char* json;  // null: no note
    const char* version;
  } rows[] = {
      {"{\"name\":\"x\",\"version\":\"5, 2, 0, 1\"}", "5,2,0,1"},
      {"{\"name\":\"x\"}", ""},
      {"{\"version\":\"\"}", ""},
      {nullptr, ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.json ? r.json : "no note");
    std::string bin = BinaryWithNote(root_, r.json);
    if (bin.empty()) GTEST_SKIP() << "cp or objcopy is missing";
    ACE_CString fv("x"), pv("y");
    Kelvane::GetApplicationVersions(bin.c_str(), fv, pv);
    EXPECT_STREQ(r.version, fv.c_str());
    EXPECT_STREQ(r.version, pv.c_str());
  }
  for (const std::string& path : {root_, P("none")}) {
    ACE_CString fv, pv;
    Kelvane::GetApplicationVersions(path.c_str(), fv, pv);
    EXPECT_STREQ("Not available", fv.c_str());
    EXPECT_STREQ("Not available", pv.c_str());
  }
}

}  // namespace

namespace {

using comtest::ScopedTZ;
using comtest::UtcSeconds;
using Kelvane::internal::FileTimeFromUnix;

// Sets the last-write time of `path` to an instant with milliseconds.
void SetMTimeMs(const std::string& path, int64_t sec, int ms) {
  struct timespec ts[2] = {{0, UTIME_OMIT},
                           {static_cast<time_t>(sec), ms * 1000000L}};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), ts, 0));
}

struct statx StatxOf(const std::string& path) {
  struct statx stx;
  EXPECT_EQ(0, ::statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS, &stx));
  return stx;
}

TEST_F(OSFileTest, LastModTimeGetAndSet) {
  ScopedTZ tz("Europe/Berlin");
  Write("f.dcm", "x");
  Write("g.txt", "x");
  SetMTimeMs(P("f.dcm"), UtcSeconds(2021, 6, 1, 12, 34, 56), 789);
  BDateTime dt;
  ASSERT_TRUE(Kelvane::getFileLastModTime(P("f.dcm").c_str(), dt));
  EXPECT_STREQ("06/01/2021 14:34:56.0789", dt.ToString().c_str());
  // A pattern picks its first match.
  BDateTime viaPattern;
  ASSERT_TRUE(Kelvane::getFileLastModTime(P("*.DCM").c_str(), viaPattern));
  EXPECT_TRUE(dt == viaPattern);
  EXPECT_FALSE(Kelvane::getFileLastModTime(P("*.none").c_str(), dt));
  EXPECT_FALSE(Kelvane::getFileLastModTime(P("none").c_str(), dt));

  // Setting: local 2020-02-29 23:59:59.500 in Berlin is 22:59:59.5 UTC.
  ASSERT_TRUE(Kelvane::setFileLastModTime(P("g.txt").c_str(),
                                          BDateTime("20200229 235959.5")));
  struct statx stx = StatxOf(P("g.txt"));
  EXPECT_EQ(UtcSeconds(2020, 2, 29, 22, 59, 59), stx.stx_mtime.tv_sec);
  EXPECT_EQ(500000000u, stx.stx_mtime.tv_nsec);
  EXPECT_FALSE(Kelvane::setFileLastModTime(P("none").c_str(),
                                           BDateTime("20200229 235959")));
  EXPECT_FALSE(Kelvane::setFileLastModTime(P("g.txt").c_str(), BDateTime()));
  EXPECT_EQ(UtcSeconds(2020, 2, 29, 22, 59, 59),
            StatxOf(P("g.txt")).stx_mtime.tv_sec);

  errno = 0;
  EXPECT_FALSE(Kelvane::setFileCreateTime(P("g.txt").c_str(),
                                          BDateTime("20200229 235959")));
  EXPECT_EQ(ENOTSUP, errno);
  EXPECT_FALSE(Kelvane::setFileCreateTime(P("none").c_str(),
                                          BDateTime("20200229 235959")));
}

TEST_F(OSFileTest, FileInfoLocalTimes) {
  ScopedTZ tz("UTC");
  FileInfo info(
      ACE_CString("p"), 1,
      FileTimeFromUnix(UtcSeconds(2009, 3, 7, 14, 5, 9), 0),
      FileTimeFromUnix(UtcSeconds(2024, 12, 31, 23, 59, 59), 250000000));
  EXPECT_STREQ("03/07/2009 14:05:09.0000",
               info.creationLocalTime().ToString().c_str());
  EXPECT_STREQ("12/31/2024 23:59:59.0250",
               info.modifiedLocalTime().ToString().c_str());
  info.modifiedTime(~ACE_UINT64(0));
  EXPECT_FALSE(info.modifiedLocalTime().IsValid());
}

TEST_F(OSFileTest, ListingByBDateKeepsWholeLocalDays) {
  ScopedTZ tz("America/New_York");
  Dir("l");
  // The day is 2024-03-10, which has 23 hours there (clocks go forward).
  struct Row {
    const char* name;
    int64_t utc;
  } files[] = {
      {"before",
       UtcSeconds(2024, 3, 10, 4, 59, 59)},          // 23:59:59 the day before
      {"start", UtcSeconds(2024, 3, 10, 5, 0, 0)},   // local midnight
      {"late", UtcSeconds(2024, 3, 11, 3, 59, 59)},  // 23:59:59
      {"end", UtcSeconds(2024, 3, 11, 4, 0, 0)},     // next midnight
      {"after", UtcSeconds(2024, 3, 11, 4, 0, 1)},
  };
  for (const Row& f : files) {
    Write(std::string("l/") + f.name, f.name);
    SetMTimeMs(P(std::string("l/") + f.name), f.utc, 0);
  }
  BDate day("20240310");
  std::vector<FileInfo> out;
  ASSERT_TRUE(Kelvane::GetFileListByBDate(out, P("l").c_str(), "*", false, true,
                                          &day, &day, false));
  std::set<std::string> got;
  for (const FileInfo& f : out) got.insert(S(f.path()));
  EXPECT_EQ((std::set<std::string>{"start", "late", "end"}), got);

  out.clear();
  ASSERT_TRUE(Kelvane::GetFileListByBDate(out, P("l").c_str(), "*", false, true,
                                          nullptr, &day, false));
  EXPECT_EQ(4u, out.size());
  out.clear();
  ASSERT_TRUE(Kelvane::GetFileListByBDate(out, P("l").c_str(), "*", false, true,
                                          &day, nullptr, false));
  EXPECT_EQ(4u, out.size());
  out.clear();
  ASSERT_TRUE(Kelvane::GetFileListByBDate(out, P("l").c_str(), "*", false, true,
                                          nullptr, nullptr, false));
  EXPECT_EQ(5u, out.size());

  // An invalid date cannot be converted: nothing is listed.
  BDate bad;
  out.clear();
  EXPECT_FALSE(Kelvane::GetFileListByBDate(out, P("l").c_str(), "*", false,
                                           true, &bad, &day, false));
  EXPECT_FALSE(Kelvane::GetFileListByBDate(out, P("l").c_str(), "*", false,
                                           true, &day, &bad, false));
  EXPECT_TRUE(out.empty());
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)),
                     std::istreambuf_iterator<char>());
}

// gzip's own test of the file, then its decompressed bytes.
std::string Gunzip(const std::string& gz) {
  EXPECT_EQ(0, std::system(("gzip -t '" + gz + "'").c_str())) << gz;
  std::string out = gz + ".out";
  EXPECT_EQ(0, std::system(("gzip -dc '" + gz + "' > '" + out + "'").c_str()));
  std::string data = ReadAll(out);
  ::unlink(out.c_str());
  return data;
}

TEST_F(OSFileTest, CompressBothWays) {
  std::mt19937 rng(5);
  struct Row {
    size_t size;
  } rows[] = {{0}, {1}, {524287}, {524288}, {524289}, {1200000}, {3000001}};
  int (*const fns[])(const ACE_CString&, bool) = {&Kelvane::CompressFile,
                                                  &Kelvane::CompressFile2};
  for (int which = 0; which < 2; ++which) {
    for (const Row& r : rows) {
      SCOPED_TRACE(std::to_string(which + 1) + ": " + std::to_string(r.size));
      std::string data(r.size, '\0');
      for (size_t i = 0; i < r.size; ++i) {
        data[i] = static_cast<char>(i % 3 == 0 ? rng() : i / 7);
      }
      const std::string src = P("src" + std::to_string(r.size));
      Write("src" + std::to_string(r.size), data);
      SetMTimeMs(src, UtcSeconds(2019, 7, 1, 8, 0, 0), 123);
      // Junk already at the .gz name is replaced entirely.
      Write("src" + std::to_string(r.size) + ".gz", std::string(5000000, 'j'));
      ASSERT_EQ(0, fns[which](src.c_str(), false));
      EXPECT_EQ(data, Gunzip(src + ".gz"));
      struct statx gz = StatxOf(src + ".gz");
      EXPECT_EQ(UtcSeconds(2019, 7, 1, 8, 0, 0), gz.stx_mtime.tv_sec);
      EXPECT_EQ(123000000u, gz.stx_mtime.tv_nsec);
      EXPECT_TRUE(Kelvane::isFile(src.c_str()));
      ASSERT_EQ(0, fns[which](src.c_str(), true));
      EXPECT_FALSE(Kelvane::isFile(src.c_str()));
      EXPECT_EQ(data, Gunzip(src + ".gz"));
    }
  }
}

TEST_F(OSFileTest, CompressFailures) {
  for (auto fn : {&Kelvane::CompressFile, &Kelvane::CompressFile2}) {
    errno = 0;
    EXPECT_EQ(-1, fn(P("none").c_str(), false));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(Kelvane::isFile(P("none.gz").c_str()));
  }
  // The .gz name is taken by a folder: it cannot be opened for writing.
  Write("f", "data");
  Dir("f.gz");
  for (auto fn : {&Kelvane::CompressFile, &Kelvane::CompressFile2}) {
    errno = 0;
    EXPECT_EQ(-1, fn(P("f").c_str(), true));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_TRUE(Kelvane::isFile(P("f").c_str()));
  }
}

}  // namespace

namespace {

// Loop devices over ext4 images, mounted under a temporary folder; undone
// in reverse order.
class LoopMounts {
 public:
  ~LoopMounts() {
    for (auto it = mounts_.rbegin(); it != mounts_.rend(); ++it) {
      Sh("umount '" + *it + "'");
    }
    for (const std::string& dev : devices_) Sh("losetup -d " + dev);
  }
  // An image of `mb` MiB mounted at `at`; false when it cannot be done.
  bool Mount(const std::string& image, int mb, const std::string& at) {
    if (!Sh("truncate -s " + std::to_string(mb) + "M '" + image +
            "' && mkfs.ext4 -q -F '" + image + "' >/dev/null 2>&1")) {
      return false;
    }
    std::string dev = Out("losetup -f --show '" + image + "'");
    if (dev.empty()) return false;
    devices_.push_back(dev);
    ::mkdir(at.c_str(), 0755);
    if (!Sh("mount " + dev + " '" + at + "'")) return false;
    mounts_.push_back(at);
    return true;
  }
  bool Bind(const std::string& from, const std::string& at) {
    ::mkdir(at.c_str(), 0755);
    if (!Sh("mount --bind '" + from + "' '" + at + "'")) return false;
    mounts_.push_back(at);
    return true;
  }

 private:
  static bool Sh(const std::string& cmd) {
    return std::system((cmd + " 2>/dev/null").c_str()) == 0;
  }
  static std::string Out(const std::string& cmd) {
    FILE* p = ::popen((cmd + " 2>/dev/null").c_str(), "r");
    if (p == nullptr) return "";
    char buf[256] = {0};
    std::string s = std::fgets(buf, sizeof buf, p) ? buf : "";
    ::pclose(p);
    while (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
  }
  std::vector<std::string> mounts_;
  std::vector<std::string> devices_;
};

TEST_F(OSFileTest, LogicalDrivesAreFixedMountsOnePerCapacity) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to mount loop devices";
  LoopMounts loops;
  if (!loops.Mount(P("small.img"), 40, P("small")) ||
      !loops.Mount(P("large.img"), 80, P("large"))) {
    GTEST_SKIP() << "no loop device or ext4 tools available";
  }
  auto find = [](const std::vector<ACE_CString>& v, const std::string& s) {
    for (size_t i = 0; i < v.size(); ++i) {
      if (S(v[i]) == s) return static_cast<int>(i);
    }
    return -1;
  };
  std::vector<ACE_CString> drives{"kept"};
  Kelvane::GetLogicalDriveList(drives);
  EXPECT_EQ("kept", S(drives[0]));
  int small = find(drives, P("small") + "/");
  int large = find(drives, P("large") + "/");
  ASSERT_GE(small, 1);
  ASSERT_GE(large, 1);
  EXPECT_LT(large, small);  // the larger drive first
  // Capacities never repeat and fall from first to last.
  ACE_UINT64 previous = ~ACE_UINT64(0);
  for (size_t i = 1; i < drives.size(); ++i) {
    ACE_UINT64 total = 0, avail = 0;
    ASSERT_EQ(0, Kelvane::GetDriveSpace(total, avail, drives[i].c_str()));
    EXPECT_LT(total, previous) << drives[i].c_str();
    previous = total;
  }

  // A second mount of the small file system has its capacity: the later one
  // replaces the earlier in the list.
  ASSERT_TRUE(loops.Bind(P("small"), P("again")));
  drives.clear();
  Kelvane::GetLogicalDriveList(drives);
  EXPECT_EQ(-1, find(drives, P("small") + "/"));
  EXPECT_GE(find(drives, P("again") + "/"), 0);
}

}  // namespace
