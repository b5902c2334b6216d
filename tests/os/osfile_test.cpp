#include "common/os/osfile.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <random>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/os/internal/osfilerules.h"

#include "support/childprocess.h"
#include "support/civil.h"
#include "support/scopedtz.h"
#include "support/tempfolder.h"

namespace {

namespace K = Kelvane;
using comtest::ScopedTZ;
using comtest::UtcSeconds;
using K::FileInfo;
using K::internal::FileTimeFromUnix;

std::string S(const ACE_CString& s) {
  return std::string(s.c_str(), s.length());
}

template <typename Container>
std::vector<std::string> Strings(const Container& c) {
  std::vector<std::string> out;
  for (const ACE_CString& s : c) out.push_back(S(s));
  return out;
}

std::string ReadAll(const ACE_CString& path) {
  return testsupport::TempFolder::Read(path.c_str());
}

// ------------------------------------------------------------ path rules

TEST(OSFilePaths, Rules) {
  const char* norm[][3] = {{"a\\b/c", "a/b/c", "a/b/c/"},
                           {"x\\\\", "x//", "x//"}};
  for (const auto& r : norm) {
    SCOPED_TRACE(r[0]);
    EXPECT_STREQ(r[1], K::normalizePath(r[0], false).c_str());
    EXPECT_STREQ(r[2], K::normalizePath(r[0], true).c_str());
  }
  struct ConcatRow {
    const char *dir, *name, *result;
  } concat[] = {
      {nullptr, "x", "x/x"},  // the name joined to itself
      {"a/", "/b", "a/b"},
      {"a\\", "b", "a\\/b"},  // only '/' counts
      {"a", "", "a/"},
  };
  for (const ConcatRow& r : concat) {
    SCOPED_TRACE(std::string(r.dir ? r.dir : "-") + (r.name ? r.name : "-"));
    ACE_CString result("untouched");
    K::concatPath(result, r.dir, r.name);
    EXPECT_STREQ(r.result, result.c_str());
  }
  ACE_CString path("noseparator"), name("keep");
  EXPECT_EQ(-1, K::splitPath(path, name));
  path = "D:/a\\b";  // '/' wins over a later '\'
  EXPECT_EQ(0, K::splitPath(path, name));
  EXPECT_EQ("D:|a\\b", S(path + "|" + name));
  // last|all but last|drive|all but drive|extension|without extension
  const char* rows[][2] = {
      {"", "|||||"},
      {"D:/dir/file", "file|D:/dir|D:|dir/file||D:/dir/file"},
      {"/a.d/b", "b|/a.d||/a.d/b|d/b|/a"},
      {"a\\b/c.x.y", "c.x.y|a\\b|a|b/c.x.y|y|a\\b/c.x"},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(r[1], S(K::getLastPathElement(r[0]) + "|" +
                      K::getAllButLastPathElement(r[0]) + "|" +
                      K::getDriveElement(r[0]) + "|" +
                      K::getAllButDriveElement(r[0]) + "|" + K::getFileX(r[0]) +
                      "|" + K::fileNameRemoveX(r[0])))
        << r[0];
  }
  std::list<ACE_CString> out{"kept"};
  K::PathToList("//a\\\\b/c/", out);
  K::PathToList(nullptr, out);
  K::PathToList("d", out);
  EXPECT_EQ((std::vector<std::string>{"kept", "a", "b", "c", "d"}),
            Strings(out));
}

TEST(OSFileRules, FileTimes) {
  struct Row {
    ACE_UINT64 ft;
    const char* text;
  } rows[] = {
      {0, "01/01/1601 00:00:00"},
      // A leap day, with sub-second ticks cut off.
      {FileTimeFromUnix(951825600, 999999999), "02/29/2000 12:00:00"},
  };
  for (const Row& r : rows) {
    EXPECT_STREQ(r.text, K::FileTimeToString(r.ft).c_str());
  }
  EXPECT_EQ(0u, FileTimeFromUnix(-11644473601LL, 0));  // clamped at 1601
  for (int64_t sec : {-5000000000LL, -1LL, 9000000000LL}) {
    for (uint32_t ns : {0u, 999999900u}) {
      auto back = K::internal::UnixFromFileTime(FileTimeFromUnix(sec, ns));
      EXPECT_EQ(std::make_pair(sec, ns), back);
    }
  }
}

TEST(OSFileRules, FindPatterns) {
  struct Row {
    const char *name, *pattern;
    bool match;
  } patterns[] = {
      {".", "*.*", true},       {"x.dcm", "*.DCM", true},
      {"file", "f*e*e", false}, {"abcabd", "*abd", true},
      {"a.b", "a", false},
  };
  for (const Row& r : patterns) {
    SCOPED_TRACE(std::string(r.name) + " ~ " + r.pattern);
    EXPECT_EQ(r.match, K::internal::MatchesFindPattern(r.name, r.pattern));
  }
}

TEST(OSFileRules, MountInfoLines) {
  K::internal::MountEntry m;
  ASSERT_TRUE(K::internal::ParseMountInfoLine(
      "36 35 98:7 / /mnt/my\\040disk rw master:1 - ext3 /dev/root rw", m));
  EXPECT_EQ("98:7 /mnt/my disk ext3 /dev/root",
            std::to_string(m.major) + ":" + std::to_string(m.minor) + " " +
                m.mountPoint + " " + m.fsType + " " + m.source);
  for (const char* bad : {"1 2 3", "1 2 x:y / /m rw - ext4 /dev/a rw",
                          "1 2 8:1 / /m rw no-dash ext4 /dev/a"}) {
    EXPECT_FALSE(K::internal::ParseMountInfoLine(bad, m)) << bad;
  }
}

// ------------------------------------------------------------ real files

class OSFileTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(tmp_.ok()); }

  ACE_CString P(const std::string& rel) const { return tmp_.File(rel).c_str(); }
  void Write(const std::string& rel, const std::string& data) {
    tmp_.Write(rel, data);
  }
  void Dir(const std::string& rel) {
    ASSERT_EQ(0, ::mkdir(P(rel).c_str(), 0755)) << rel;
  }
  void Link(const ACE_CString& target, const std::string& rel) {
    ASSERT_EQ(0, ::symlink(target.c_str(), P(rel).c_str())) << rel;
  }
  static struct statx Statx(const ACE_CString& path) {
    struct statx stx;
    EXPECT_EQ(0, ::statx(AT_FDCWD, path.c_str(), 0,
                         STATX_BASIC_STATS | STATX_BTIME, &stx));
    return stx;
  }
  static ACE_UINT64 CTicks(const ACE_CString& path) {
    struct statx stx = Statx(path);
    const auto& t = stx.stx_mask & STATX_BTIME ? stx.stx_btime : stx.stx_ctime;
    return FileTimeFromUnix(t.tv_sec, t.tv_nsec);
  }
  static void SetMTime(const ACE_CString& path, int64_t sec, int ms = 0) {
    struct timespec ts[2] = {{0, UTIME_OMIT},
                             {static_cast<time_t>(sec), ms * 1000000L}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), ts, 0));
  }
  void Sparse(const std::string& rel, ACE_UINT64 size) {
    ASSERT_EQ(
        0, ::truncate(tmp_.Write(rel, "").c_str(), static_cast<off_t>(size)));
  }
  ACE_CString Root() const { return tmp_.path().c_str(); }

  testsupport::TempFolder tmp_;
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
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.rel);
    const ACE_CString p = P(r.rel);
    EXPECT_EQ(
        (std::vector<int>{r.file, r.dir, r.ro, r.writeable, r.accessible}),
        (std::vector<int>{K::isFile(p), K::isDirectory(p), K::isReadOnly(p),
                          K::isWriteable(p), K::isAccessible(p)}));
  }
}

TEST_F(OSFileTest, FileCopy) {
  std::string data(3 * 1024 * 1024 + 7, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 131);
  Write("src", data);
  ASSERT_EQ(0, ::chmod(P("src").c_str(), 0640));
  SetMTime(P("src"), 1000000000);
  ASSERT_EQ(0, K::FileCopy(P("src"), P("dst"), true));
  EXPECT_EQ(data, ReadAll(P("dst")));
  EXPECT_EQ(0640u, Statx(P("dst")).stx_mode & 07777u);
  EXPECT_EQ(1000000000, Statx(P("dst")).stx_mtime.tv_sec);

  // failIfExists refuses, overwriting replaces a longer file.
  Write("small", "abc");
  errno = 0;
  EXPECT_EQ(-1, K::FileCopy(P("small"), P("dst"), true));
  EXPECT_EQ(EEXIST, errno);
  EXPECT_EQ(0, K::FileCopy(P("small"), P("dst"), false));
  EXPECT_EQ("abc", ReadAll(P("dst")));

  // Onto itself through a hard link: refused, the data stays.
  ASSERT_EQ(0, K::CreateLink(P("hard"), P("small")));
  EXPECT_EQ(-1, K::CreateLink(P("hard"), P("small")));
  EXPECT_EQ(-1, K::FileCopy(P("small"), P("hard"), false));
  EXPECT_EQ("abc", ReadAll(P("small")));
}

TEST_F(OSFileTest, SizesAndSeekOnSparseFile) {
  const ACE_UINT64 big = (5ULL << 30) + 123;
  Sparse("big", big);
  ACE_UINT64 size = 0, pos = 0;
  EXPECT_TRUE(K::FileSize(P("big"), size));
  EXPECT_EQ(big, size);
  EXPECT_FALSE(K::FileSize(P("none"), size));

  int fd = ::open(P("big").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(K::FileSeek(fd, 1ULL << 32, SEEK_SET, pos));
  EXPECT_EQ(1ULL << 32, pos);
  EXPECT_FALSE(K::FileSeek(fd, ~ACE_UINT64(0) - big, SEEK_END, pos));
  ::close(fd);

  // The listing keeps the low 32 bits only.
  std::vector<FileInfo> files;
  ASSERT_EQ(0, K::GetFileList(files, Root(), "*", false, true));
  ASSERT_EQ(1u, files.size());
  EXPECT_EQ(static_cast<int>((1ULL << 30) + 123), files[0].size());
}

TEST_F(OSFileTest, FileToStringAndForceDelete) {
  Write("text", std::string("abc\0def", 7));
  EXPECT_STREQ("abc", K::FileToString(P("text")).c_str());
  EXPECT_THROW(K::FileToString(P("none")), std::exception);
  // A deleted file stays readable through a descriptor already open.
  int fd = ::open(P("text").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(0, K::ForceDelete(P("text")));
  EXPECT_FALSE(K::isFile(P("text")));
  char buf[8] = {0};
  EXPECT_EQ(3, ::read(fd, buf, 3));
  ::close(fd);
  Dir("d");
  EXPECT_EQ(0, K::ForceDelete(P("d")));
  EXPECT_TRUE(K::isDirectory(P("d")));
}

TEST_F(OSFileTest, TouchAndTimes) {
  Write("f", "x");
  SetMTime(P("f"), 1000000000);
  const auto atime = Statx(P("f")).stx_atime.tv_nsec;
  const int64_t now = ::time(nullptr);
  EXPECT_TRUE(K::touchFile(P("f").c_str()));
  EXPECT_NEAR(now, Statx(P("f")).stx_mtime.tv_sec, 2);
  EXPECT_EQ(atime, Statx(P("f")).stx_atime.tv_nsec);

  FileInfo info(ACE_CString("old"), 77, 1, 2);
  SetMTime(P("f"), 1234567890);
  ASSERT_TRUE(K::getFileTimes(P("f"), info));
  EXPECT_TRUE(P("f") == info.path() && info.size() == 77 &&
              info.modifiedTime() == FileTimeFromUnix(1234567890, 0) &&
              info.creationTime() == CTicks(P("f")));
}

TEST_F(OSFileTest, Attributes) {
  Write("f", "x");
  Dir("d");
  // The value read, whatever the output held before.
  auto get = [this](const char* rel, K::FileAttribute a) {
    bool v0 = false, v1 = true;
    EXPECT_TRUE(K::getFileAttribute(P(rel).c_str(), a, v0) &&
                K::getFileAttribute(P(rel).c_str(), a, v1) && v0 == v1)
        << rel;
    return v0;
  };
  auto set = [this](const char* rel, K::FileAttribute a, bool v) {
    return K::setFileAttribute(P(rel).c_str(), a, v);
  };
  ASSERT_TRUE(set("f", K::ReadOnly, true));
  EXPECT_EQ(0u, Statx(P("f")).stx_mode & 0222u);
  EXPECT_TRUE(get("f", K::ReadOnly));
  ASSERT_TRUE(set("f", K::ReadOnly, false));
  EXPECT_EQ(0200u, Statx(P("f")).stx_mode & 0200u);
  EXPECT_FALSE(get("f", K::ReadOnly));
  EXPECT_FALSE(set("f", static_cast<K::FileAttribute>(7), true));
  // Archive: set on files, not on folders, until changed.
  EXPECT_TRUE(get("f", K::Archive));
  EXPECT_FALSE(get("d", K::Archive));
  if (!set("f", K::Archive, false)) {
    GTEST_SKIP() << "the temporary folder takes no user extended attributes";
  }
  EXPECT_FALSE(get("f", K::Archive));
  EXPECT_TRUE(set("d", K::Archive, true) && get("d", K::Archive));
}

TEST_F(OSFileTest, BusyWhileAnotherProcessHoldsTheFile) {
  Write("f", "x");
  Dir("d");
  for (const char* rel : {"f", "d", "none"}) EXPECT_FALSE(K::isBusy(P(rel)));
  {
    // A shell holding the file open until its input closes.
    testsupport::ChildProcess child;
    ASSERT_TRUE(child.Start({"/bin/sh", "-c", "exec 3<\"$1\"; echo ok; read x",
                             "sh", P("f").c_str()}));
    std::string line;
    ASSERT_TRUE(child.ReadLine(&line));
    EXPECT_TRUE(K::isBusy(P("f")));
  }
  EXPECT_FALSE(K::isBusy(P("f")));
}

// ------------------------------------------------------------ folders

// The tree of the delete tests, with an outside folder that links point to,
// checked afterwards to be untouched.
class DeleteTest : public OSFileTest {
 protected:
  void SetUp() override {
    OSFileTest::SetUp();
    for (const char* d : {"outside", "t", "t/.cache", "t/d1", "t/d1/d2"}) {
      Dir(d);
    }
    Write("outside/keep", "precious");
    for (const char* f :
         {"t/a", "t/.hidden", "t/.cache/c", "t/d1/d2/deep", "t/d1/ro"}) {
      Write(f, "1");
    }
    Link(P("outside"), "t/d1/d2/to-outside");
    Link(P("outside/keep"), "t/d1/file-link");
    Link(P("outside"), "t/top-link");
    ASSERT_EQ(0, ::chmod(P("t/d1/ro").c_str(), 0444));
  }
  void TearDown() override {
    EXPECT_EQ("precious", ReadAll(P("outside/keep")));
    EXPECT_EQ(0644u, Statx(P("outside/keep")).stx_mode & 0777u);
  }
};

TEST_F(DeleteTest, DeleteNeverFollowsLinks) {
  // A link at the top is refused.
  EXPECT_EQ(-1, K::DeleteDirectoryRecursive(P("t/top-link/")));
  // The walk: links go (themselves only), the read-only file and the
  // '.'-folder stay, so d1 and t stay too.
  EXPECT_EQ(-1, K::DeleteDirectoryRecursive(P("t")));
  std::string left;
  for (const char* rel : {"t/a", "t/.hidden", "t/.cache/c", "t/d1/d2",
                          "t/d1/ro", "t/d1/file-link", "t/top-link", "t/d1"}) {
    struct stat st;
    if (::lstat(P(rel).c_str(), &st) == 0) left += std::string(rel) + " ";
  }
  EXPECT_EQ("t/.cache/c t/d1/ro t/d1 ", left);
  // Once the obstacles are gone the whole tree goes.
  ASSERT_EQ(0, ::chmod(P("t/d1/ro").c_str(), 0644));
  ASSERT_EQ(0, ::unlink(P("t/.cache/c").c_str()));
  ASSERT_EQ(0, ::rmdir(P("t/.cache").c_str()));
  EXPECT_EQ(0, K::DeleteDirectoryRecursive(P("t/")));
  EXPECT_FALSE(K::isDirectory(P("t")));
  Write("plain", "x");
  EXPECT_EQ(-1, K::DeleteDirectoryRecursive(P("plain")));
  EXPECT_TRUE(K::isFile(P("plain")));
}

TEST_F(DeleteTest, ClassicKeepsTheTopAndStopsAtLinkedFolders) {
  // A link to a folder at the top of t ends the walk with -1.
  EXPECT_EQ(-1, K::ClassicDeleteDirectoryRecursive(P("t")));
  struct stat st;
  ASSERT_EQ(0, ::lstat(P("t/top-link").c_str(), &st));
  EXPECT_TRUE(S_ISLNK(st.st_mode));

  // Without links to folders, the read-only file goes as well and only the
  // empty top folder and the '.'-folder remain.
  ASSERT_EQ(0, ::unlink(P("t/top-link").c_str()));
  ASSERT_EQ(0, ::unlink(P("t/d1/d2/to-outside").c_str()));
  ASSERT_EQ(0, ::chmod(P("t/d1/ro").c_str(), 0644));
  Write("t/ro2", "1");
  ASSERT_EQ(0, ::chmod(P("t/ro2").c_str(), 0444));
  EXPECT_EQ(0, K::ClassicDeleteDirectoryRecursive(P("t")));
  EXPECT_FALSE(K::isFile(P("t/ro2")));
  EXPECT_TRUE(K::isDirectory(P("t")));
  EXPECT_FALSE(K::isDirectory(P("t/d1")));
  EXPECT_TRUE(K::isFile(P("t/.cache/c")));
}

TEST_F(OSFileTest, CreatingCountingAndSubfolders) {
  for (const char* d : {"e", "dir"}) Dir(d);
  ASSERT_EQ(0, K::CreateDirectoryRecursive(P("f\\sub")));
  for (const char* f : {"f/a", "f/b", "f/.c", "f/sub/x", "dirx"}) Write(f, "");
  // An existing file counts as existing; other errors come back as they are.
  EXPECT_EQ(0, K::CreateDirectoryRecursive(P("dirx")));
  EXPECT_EQ(ENOTDIR, K::CreateDirectoryRecursive(P("dirx/x/y")));
  struct Row {
    const char* rel;
    int count;
    bool empty;
  } rows[] = {
      {"e/", -1, true},
      {"f/", 3, false},  // 4 entries + "." and ".." - 3
      {"none/", 0, true},
      // Without the trailing '/', the pattern picks the names starting with
      // "dir" beside the folder.
      {"dir", -1, false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.rel);
    EXPECT_EQ(r.count, K::CountFiles(P(r.rel)));
    EXPECT_EQ(r.empty, K::isDirectoryEmpty(P(r.rel)));
  }
  Dir("f/sub2");
  Dir("f/.git");
  Link(P("f/sub"), "f/linked");
  std::vector<ACE_CString> subs{"kept"};
  K::GetFileSubDirectories(subs, P("f"), true);
  K::GetFileSubDirectories(subs, Root() + "\\f", false);
  std::vector<std::string> got = Strings(subs);
  std::multiset<std::string> names(got.begin(), got.end());
  EXPECT_EQ((std::multiset<std::string>{"kept", "sub", "sub2", "linked",
                                        S(P("f/sub")), S(P("f/sub2")),
                                        S(P("f/linked"))}),
            names);
}

TEST_F(OSFileTest, DirectorySizeAndDriveSpace) {
  struct statvfs vfs;
  ASSERT_EQ(0, ::statvfs(Root().c_str(), &vfs));
  const ACE_UINT64 c = vfs.f_frsize;
  for (const char* d : {"d", "d/s", "d/.dot"}) Dir(d);
  Write("d/one", "x");
  Write("d/zero", "");
  Write("d/s/exact", std::string(c, 'x'));
  Write("d/.dot/over", std::string(c + 1, 'x'));
  Sparse("d/s/sparse", 5ULL << 30);
  // A link to a folder is not walked; a link to a file counts with its own
  // size, one cluster.
  Link(P("d/s"), "d/loop");
  Link(P("d/one"), "d/flink");
  EXPECT_EQ(2 * c, K::DirectorySize(P("d"), false));
  EXPECT_EQ(5 * c + (5ULL << 30), K::DirectorySize(P("d"), true));
  EXPECT_EQ(0u, K::DirectorySize(P("none"), true));

  ACE_UINT64 total = 1, avail = 2;
  ASSERT_EQ(0, K::GetDriveSpace(total, avail, Root().c_str()));
  EXPECT_EQ(static_cast<ACE_UINT64>(vfs.f_blocks) * c, total);
  EXPECT_LE(avail, total);
  EXPECT_EQ(-1, K::GetDriveSpace(total, avail, P("none").c_str()));
}

// ------------------------------------------------------------ listings

std::vector<std::string> Names(const std::vector<FileInfo>& files) {
  std::vector<std::string> out;
  for (const FileInfo& f : files) out.push_back(S(f.path()));
  return out;
}

TEST_F(OSFileTest, ListingWalk) {
  for (const char* d : {"l", "l/sub", "l/sub/deeper", "l/.hid"}) Dir(d);
  Write("l/A.DCM", "12345");
  for (const char* f : {"l/b.dcm", "l/c.txt", "l/xdcm", "l/sub/d.dcm",
                        "l/sub/deeper/e.Dcm", "l/.hid/f.dcm", "l/.g.dcm"}) {
    Write(f, "1");
  }
  Link(P("l/sub"), "l/loop");
  Link(P("l/c.txt"), "l/link.dcm");
  // A recursive walk by suffix with full paths, after an entry already there.
  std::vector<FileInfo> out{FileInfo(ACE_CString("kept"), 0, 0, 0)};
  ASSERT_EQ(0, K::GetFileList(out, Root() + "\\l", ".dcm", true, false));
  std::vector<std::string> names = Names(out);
  EXPECT_EQ("kept", names[0]);
  EXPECT_EQ(
      (std::multiset<std::string>{
          "kept", S(P("l/A.DCM")), S(P("l/b.dcm")), S(P("l/.g.dcm")),
          S(P("l/link.dcm")), S(P("l/sub/d.dcm")), S(P("l/sub/deeper/e.Dcm"))}),
      std::multiset<std::string>(names.begin(), names.end()));
}

TEST_F(OSFileTest, ListingByDateSortsByCreation) {
  Dir("l");
  // Creation order a, b, c; last-write times in the other order.
  for (const char* n : {"a", "b", "c"}) {
    Write(std::string("l/") + n, n);
    SetMTime(P(std::string("l/") + n), 3000000 - (*n - 'a') * 1000000);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const ACE_UINT64 all = ~ACE_UINT64(0);
  struct Row {
    ACE_UINT64 from, to;
    bool byCreation;
    std::vector<std::string> want;  // in order
  } rows[] = {
      // Inclusive ends on the last-write time; still sorted by creation.
      {FileTimeFromUnix(1000000, 0),
       FileTimeFromUnix(2000000, 0),
       false,
       {"b", "c"}},
      {CTicks(P("l/b")), CTicks(P("l/c")), true, {"b", "c"}},
      {CTicks(P("l/c")) + 1, all, true, {}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.want.size());
    std::vector<FileInfo> out;
    K::GetFileListByDate(out, P("l"), "*", false, true, r.from, r.to,
                         r.byCreation);
    EXPECT_EQ(r.want, Names(out));
  }
  // Entries already in `out` take part in the sort.
  std::vector<FileInfo> out{FileInfo(ACE_CString("late"), 0, all, 0),
                            FileInfo(ACE_CString("early"), 0, 0, 0)};
  K::GetFileListByDate(out, P("l"), "a", false, true, 0, all, true);
  EXPECT_EQ((std::vector<std::string>{"early", "a", "late"}), Names(out));
}

TEST_F(OSFileTest, ListingByBDateKeepsWholeLocalDays) {
  ScopedTZ tz("America/New_York");
  Dir("l");
  // 2024-03-10 has 23 hours there (clocks go forward).
  // Local midnight is 05:00 UTC that day, 04:00 UTC the next.
  const std::pair<const char*, int64_t> files[] = {
      {"before", UtcSeconds(2024, 3, 10, 4, 59, 59)},
      {"start", UtcSeconds(2024, 3, 10, 5, 0, 0)},
      {"end", UtcSeconds(2024, 3, 11, 4, 0, 0)},
      {"after", UtcSeconds(2024, 3, 11, 4, 0, 1)},
  };
  for (const auto& f : files) {
    Write(std::string("l/") + f.first, "");
    SetMTime(P(std::string("l/") + f.first), f.second);
  }
  BDate day("20240310"), bad;
  struct Row {
    const BDate *from, *to;
    bool ok;
    std::set<std::string> want;
  } rows[] = {
      {nullptr, &day, true, {"before", "start", "end"}},
      {&day, nullptr, true, {"start", "end", "after"}},
      // An invalid date cannot be converted: nothing is listed.
      {&bad, &day, false, {}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.want.size());
    std::vector<FileInfo> out;
    EXPECT_EQ(r.ok, K::GetFileListByBDate(out, P("l"), "*", false, true, r.from,
                                          r.to, false));
    std::vector<std::string> names = Names(out);
    EXPECT_EQ(r.want, std::set<std::string>(names.begin(), names.end()));
  }
}

// ------------------------------------------------------------ local times

TEST_F(OSFileTest, LastModTimeGetAndSet) {
  ScopedTZ tz("Europe/Berlin");
  Write("f.dcm", "x");
  Write("g.txt", "x");
  SetMTime(P("f.dcm"), UtcSeconds(2021, 6, 1, 12, 34, 56), 789);
  BDateTime dt, viaPattern;
  ASSERT_TRUE(K::getFileLastModTime(P("f.dcm").c_str(), dt));
  EXPECT_STREQ("06/01/2021 14:34:56.0789", dt.ToString().c_str());
  // A pattern picks its first match.
  ASSERT_TRUE(K::getFileLastModTime(P("*.DCM").c_str(), viaPattern));
  EXPECT_TRUE(dt == viaPattern);
  EXPECT_FALSE(K::getFileLastModTime(P("*.none").c_str(), dt));

  // Local 2020-02-29 23:59:59.500 in Berlin is 22:59:59.5 UTC.
  const int64_t utc = UtcSeconds(2020, 2, 29, 22, 59, 59);
  ASSERT_TRUE(K::setFileLastModTime(P("g.txt").c_str(),
                                    BDateTime("20200229 235959.5")));
  EXPECT_EQ(utc, Statx(P("g.txt")).stx_mtime.tv_sec);
  EXPECT_EQ(500000000u, Statx(P("g.txt")).stx_mtime.tv_nsec);
}

// ------------------------------------------------------------ compression

// gzip's own test of the file, then its decompressed bytes.
std::string Gunzip(const ACE_CString& gz) {
  std::string cmd = "gzip -t '" + S(gz) + "' && gzip -dc '" + S(gz) + "' > '" +
                    S(gz) + ".out'";
  EXPECT_EQ(0, std::system(cmd.c_str())) << gz.c_str();
  return ReadAll(gz + ".out");
}

TEST_F(OSFileTest, Compress) {
  std::mt19937 rng(5);
  Write("f", "data");
  Dir("f.gz");
  for (auto fn : {&K::CompressFile, &K::CompressFile2}) {
    SCOPED_TRACE(fn == &K::CompressFile ? "CompressFile" : "CompressFile2");
    for (size_t size : {0, 3000001}) {
      SCOPED_TRACE(size);
      std::string data(size, '\0');
      for (size_t i = 0; i < size; ++i) {
        data[i] = static_cast<char>(i % 3 == 0 ? rng() : i / 7);
      }
      const std::string name = "src" + std::to_string(size);
      Write(name, data);
      SetMTime(P(name), 1000000000, 123);
      // Junk already at the .gz name is replaced entirely.
      Write(name + ".gz", std::string(5000000, 'j'));
      ASSERT_EQ(0, fn(P(name), false));
      EXPECT_EQ(data, Gunzip(P(name + ".gz")));
      EXPECT_EQ(123000000, Statx(P(name + ".gz")).stx_mtime.tv_nsec);
      ASSERT_TRUE(K::isFile(P(name)));
      ASSERT_EQ(0, fn(P(name), true));
      EXPECT_FALSE(K::isFile(P(name)));
      EXPECT_EQ(data, Gunzip(P(name + ".gz")));
    }
    EXPECT_EQ(-1, fn(P("none"), false));
    // The .gz name is taken by a folder: it cannot be opened for writing.
    errno = 0;
    EXPECT_EQ(-1, fn(P("f"), true));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_TRUE(K::isFile(P("f")));
  }
}

// ------------------------------------------------------------ system

TEST(OSFileSystem, Executable) {
  char buf[4096];
  ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf);
  ASSERT_GT(n, 0);
  std::string exe(buf, n);
  EXPECT_EQ(exe, S(K::GetExecutablePath(false)));
  EXPECT_EQ(exe.substr(0, exe.rfind('/')), S(K::GetExecutablePath(true)));
  EXPECT_EQ("com_tests", S(K::GetExecutableName(true)));
}

TEST_F(OSFileTest, ApplicationVersions) {
  // No file, a file without a package note (the test program), and a copy of
  // a system binary given a note whose version has blanks.
  ACE_CString fv("x"), pv("y");
  K::GetApplicationVersions(P("none"), fv, pv);
  EXPECT_EQ("Not available|Not available", S(fv + "|" + pv));
  K::GetApplicationVersions("/proc/self/exe", fv, pv);
  EXPECT_EQ("|", S(fv + "|" + pv));
  const std::string json = "{\"name\":\"x\",\"version\":\"5, 2, 0, 1\"}";
  uint32_t head[] = {4, static_cast<uint32_t>(json.size() + 1), 0xcafe1a7e};
  std::string note(reinterpret_cast<const char*>(head), sizeof head);
  note += std::string("FDO\0", 4) + json + '\0';
  note.resize((note.size() + 3) / 4 * 4, '\0');
  Write("note.bin", note);
  std::string cmd = "cp /bin/true '" + S(P("prog")) +
                    "' && objcopy --add-section .note.package='" +
                    S(P("note.bin")) +
                    "' --set-section-flags .note.package=noload,readonly '" +
                    S(P("prog")) + "' 2>/dev/null";
  if (std::system(cmd.c_str()) != 0) GTEST_SKIP() << "objcopy is missing";
  K::GetApplicationVersions(P("prog"), fv, pv);
  EXPECT_EQ("5,2,0,1|5,2,0,1", S(fv + "|" + pv));
  EXPECT_EQ(pv, K::ApplicationVersion(P("prog")));
}

// ext4 images mounted through loop devices (released by the unmount), and
// bind mounts; undone in reverse order.
class Mounts {
 public:
  ~Mounts() {
    for (auto it = at_.rbegin(); it != at_.rend(); ++it) {
      Sh("umount '" + *it + "'");
    }
  }
  bool Image(const std::string& image, int mb, const std::string& at) {
    return Sh("truncate -s " + std::to_string(mb) + "M '" + image +
                  "' && mkfs.ext4 -q -F '" + image + "' >/dev/null",
              "") &&
           Sh("mount -o loop '" + image + "'", at);
  }
  bool Bind(const std::string& from, const std::string& at) {
    return Sh("mount --bind '" + from + "'", at);
  }

 private:
  // Runs `cmd`, followed by the mount point `at` (created) unless empty.
  bool Sh(std::string cmd, const std::string& at = "") {
    if (!at.empty()) cmd = "mkdir -p '" + at + "' && " + cmd + " '" + at + "'";
    if (std::system((cmd + " 2>/dev/null").c_str()) != 0) return false;
    if (!at.empty()) at_.push_back(at);
    return true;
  }
  std::vector<std::string> at_;
};

TEST_F(OSFileTest, LogicalDrivesAreFixedMountsOnePerCapacity) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to mount loop devices";
  Mounts mounts;
  if (!mounts.Image(S(P("small.img")), 40, S(P("small"))) ||
      !mounts.Image(S(P("large.img")), 80, S(P("large")))) {
    GTEST_SKIP() << "no loop device or ext4 tools available";
  }
  std::vector<ACE_CString> drives{"kept"};
  auto find = [this, &drives](const char* rel) {
    auto it = std::find(drives.begin(), drives.end(), P(rel) + "/");
    return it == drives.end() ? -1 : static_cast<int>(it - drives.begin());
  };
  K::GetLogicalDriveList(drives);
  EXPECT_EQ("kept", S(drives[0]));
  ASSERT_GE(find("large"), 1);
  EXPECT_LT(find("large"), find("small"));  // the larger drive first
  // Capacities never repeat and fall from first to last.
  ACE_UINT64 previous = ~ACE_UINT64(0);
  for (size_t i = 1; i < drives.size(); ++i) {
    ACE_UINT64 total = 0, avail = 0;
    ASSERT_EQ(0, K::GetDriveSpace(total, avail, drives[i].c_str()));
    EXPECT_LT(total, previous) << drives[i].c_str();
    previous = total;
  }
  // A second mount of the small file system replaces the earlier one.
  ASSERT_TRUE(mounts.Bind(S(P("small")), S(P("again"))));
  drives.clear();
  K::GetLogicalDriveList(drives);
  EXPECT_EQ(-1, find("small"));
  EXPECT_GE(find("again"), 0);
}

}  // namespace
