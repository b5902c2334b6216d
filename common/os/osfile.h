// File-system utilities: path strings, single files, whole directories,
// listings, gzip compression of a file, package versions of binaries, drive
// space and the two installation settings of the configuration file.
//
// Paths. '/' is the native separator and '\' the foreign one: normalizePath
// turns every '\' into '/', and the rules below that name a separator say
// which one counts. There are no drive letters: the drive element of "/a/b"
// is the empty string. Functions that touch the file system pass the path to
// the system as given (a '\' there is part of a name).
//
// Errors. Status ints are 0 on success and -1 on failure with errno set by
// the failing system call; bool results log only where stated below.
// CreateDirectoryRecursive returns the errno value itself.
//
// Linux choices, written here because the rules were made for another
// system:
//  - Enumerations report "." and ".." first, then the other entries in the
//    order of readdir(3). A pattern such as "dir/*.*" matches names without
//    regard to case, '*' and '?' as usual, and a trailing ".*" also matches
//    names without a dot ("*.*" matches every name).
//  - A directory entry's size reads as 0, as directory listings report it.
//  - Symbolic links stand for reparse points. A link is classified by what
//    it points to (a directory or not) but never followed into: walks do not
//    descend into a linked directory, and the delete functions remove the
//    link itself, never what it points to. A link at the top of a delete is
//    refused. The listing reports a link to a file with the data of the file.
//  - The read-only attribute is "no write permission bit set" (mode & 0222
//    == 0); setting it clears the three write bits, clearing it sets the
//    owner's. DeleteDirectoryRecursive leaves read-only files in place, as
//    the delete of a read-only file fails elsewhere. The archive attribute is
//    the extended attribute "user.kelvane.archive" ("1" or "0"); without it a
//    regular file counts as archived and a directory as not.
//  - File times come from statx(2): last-write time = mtime; creation time =
//    btime where the file system records it, else ctime. A creation time
//    cannot be set: setFileCreateTime fails with ENOTSUP.
//  - isBusy means "another process has the file open": a write lease
//    (F_SETLEASE) is taken and dropped at once; EAGAIN means busy.
//  - ForceDelete is unlink(2): open descriptors keep the data until they are
//    closed.
//  - Drives are the mount points of file systems on block devices; a fixed
//    drive is one whose disk reports removable = 0 in sysfs. The cluster size
//    is the fragment size of statvfs(3).
//  - Version resources are the package-metadata ELF note; the file and the
//    product version are both its "version".
//  - The executable path is read from /proc/self/exe, without the
//    260-character limit of the original module call.
//  - "Handles" are file descriptors (ACE_HANDLE); ACE_INVALID_HANDLE is the
//    invalid one.
//  - ClassicDeleteDirectoryRecursive closes its directory on every path.
//
// Thread safety: the functions keep no state and may be called from any
// thread; errno is per thread.
//
//   std::vector<Kelvane::FileInfo> files;
//   if (Kelvane::GetFileList(files, "/archive/in", ".dcm", true, false) == 0)
//     for (const Kelvane::FileInfo& f : files) ... f.path() ...
#ifndef COM_COMMON_OS_OSFILE_H_
#define COM_COMMON_OS_OSFILE_H_

#include <list>
#include <vector>

#include <ace/Basic_Types.h>
#include <ace/SString.h>
#include <ace/config-lite.h>

#include "common/base/bdatetime.h"
#include "common/base/comexport.h"

namespace Kelvane {

enum FileAttribute { Archive = 0, ReadOnly = 1 };

// One entry of a file listing: a path (or bare name), the low 32 bits of the
// size (larger files are truncated, deliberately) and two UTC file times
// (100-nanosecond ticks since 1601-01-01).
class COM_EXPORT FileInfo {
 public:
  FileInfo();
  FileInfo(const ACE_CString& path, int size, ACE_UINT64 creationTime,
           ACE_UINT64 modifiedTime);
  // The path given as `length` bytes at `path`.
  FileInfo(const char* path, size_t length, int size, ACE_UINT64 creationTime,
           ACE_UINT64 modifiedTime);
  FileInfo(const FileInfo&) = default;
  FileInfo(FileInfo&&) = default;
  FileInfo& operator=(const FileInfo&) = default;
  FileInfo& operator=(FileInfo&&) = default;

  // The stored times as local date-times (UTCToBDateTime); a time that
  // cannot be converted logs at critical and gives BDateTime().
  BDateTime creationLocalTime() const;
  BDateTime modifiedLocalTime() const;

  const ACE_CString& path() const { return path_; }
  void path(const ACE_CString& p) { path_ = p; }
  int size() const { return size_; }
  ACE_UINT64 creationTime() const { return creationTime_; }
  void creationTime(ACE_UINT64 t) { creationTime_ = t; }
  ACE_UINT64 modifiedTime() const { return modifiedTime_; }
  void modifiedTime(ACE_UINT64 t) { modifiedTime_ = t; }

 private:
  ACE_CString path_;
  int size_;
  ACE_UINT64 creationTime_;
  ACE_UINT64 modifiedTime_;
};

// ---------------------------------------------------------------- paths

// Every '\' turned into '/'; with the flag a '/' is appended unless the
// result already ends with one. An empty path stays empty.
COM_EXPORT ACE_CString normalizePath(const ACE_CString& path,
                                     bool trailingSeparator);

// Both null: `result` untouched. Else result = dir if not null, else name;
// then, if name is not null, joins it with exactly one '/' between (only '/'
// counts). With a null dir the name is joined to itself: (null, "x") gives
// "x/x", deliberately. ("a/", "/b") and ("a", "b") give "a/b".
COM_EXPORT void concatPath(ACE_CString& result, const char* dir,
                           const char* name);

// Splits at the last '/' if there is one, else at the last '\': `path` keeps
// what precedes it, `name` receives what follows. Returns 0; -1 without any
// separator (both unchanged). "D:/a\b" gives "D:" and "a\b".
COM_EXPORT int splitPath(ACE_CString& path, ACE_CString& name);

// What follows the last separator of the normalised path after one trailing
// '/' is dropped: "/dir/" gives "dir", "" gives "".
COM_EXPORT ACE_CString getLastPathElement(const ACE_CString& path);

// Drops one trailing '/' or '\', then returns what precedes the last '/' (or,
// without one, the last '\'); without any separator the trimmed string:
// "D:/dir/file" gives "D:/dir", "D:\dir\" gives "D:", "name" gives "name".
COM_EXPORT ACE_CString getAllButLastPathElement(const ACE_CString& path);

// Text before the first '/' or '\' (the whole string when there is none):
// "/dir" gives "".
COM_EXPORT ACE_CString getDriveElement(const ACE_CString& path);

// Text after the first '/' or '\'; the whole string when there is none or
// when the path starts with one: "D:/a/b" gives "a/b".
COM_EXPORT ACE_CString getAllButDriveElement(const ACE_CString& path);

// Text after the last '.' ("" without one); a dot in a folder name counts.
COM_EXPORT ACE_CString getFileX(const ACE_CString& path);

// Text before the last '.' (the whole string without one).
COM_EXPORT ACE_CString fileNameRemoveX(const ACE_CString& path);

// Appends each non-empty element between '/' and '\' to `out` (not
// cleared). A null path appends nothing.
COM_EXPORT void PathToList(const char* path, std::list<ACE_CString>& out);

// The UTC file time as "MM/DD/YYYY hh:mm:ss" (no conversion to local time):
// 0 gives "01/01/1601 00:00:00".
COM_EXPORT ACE_CString FileTimeToString(const ACE_UINT64& fileTime);

// ------------------------------------------------- file times and BDateTime
//
// File times are 64-bit counts of 100-nanosecond units since
// 1601-01-01 00:00 UTC, held in ACE_UINT64.

// File-time units per second and per millisecond.
const ACE_UINT64 kFileTimeUnitsPerSecond = 10000000ULL;
const ACE_UINT64 kFileTimeUnitsPerMillisecond = 10000ULL;
// Seconds from 1601-01-01 to 1970-01-01, and the file time of 1970-01-01.
const ACE_UINT64 kFileTimeEpochOffsetSeconds = 11644473600ULL;
const ACE_UINT64 kFileTimeUnixEpoch =
    kFileTimeEpochOffsetSeconds * kFileTimeUnitsPerSecond;
// The largest file time the conversions accept (as a signed 64-bit count).
const ACE_UINT64 kFileTimeMax = 0x7FFFFFFFFFFFFFFFULL;

// A local date-time to a UTC file time, by the zone rules in force at that
// date (a time in a skipped or repeated daylight-saving hour is read with
// the offset in force before the change). An invalid time counts as
// midnight. Returns false, logs and leaves `fileTime` untouched when the
// date is invalid or before 1601 ("SystemTimeToFileTime() failed", errno
// EINVAL) or the zone cannot be read ("Error getting the time zone bias").
COM_EXPORT bool BDateTimeToUTC(const BDateTime& dt, ACE_UINT64& fileTime);

// A UTC file time to a local date-time (precision Millisecond), by the zone
// rules in force at that instant. Returns false and logs when the file time
// is above kFileTimeMax or the zone cannot be read
// ("FileTimeToLocalFileTime() failed"), or when the local time falls
// outside the file-time range ("FileTimeToSystemTime() failed"); `dt` is
// then untouched. A local date outside 1000..9999 is stored as the invalid
// date while the call still succeeds.
COM_EXPORT bool UTCToBDateTime(ACE_UINT64 fileTime, BDateTime& dt);

// ---------------------------------------------------------------- files

// Exists (links followed) and is not a directory. On false errno is set by
// the failed lookup (unchanged for a directory).
COM_EXPORT bool isFile(const ACE_CString& path);
COM_EXPORT bool isDirectory(const ACE_CString& path);
// Exists and has no write permission bit.
COM_EXPORT bool isReadOnly(const ACE_CString& path);
// 1 when the path can be looked up; 0 when the lookup timed out (ETIMEDOUT
// or EHOSTDOWN, as an unreachable network mount reports); -1 otherwise.
COM_EXPORT int isAccessible(const ACE_CString& path);
// The path opens for reading and writing (a directory: access(2) grants
// both).
COM_EXPORT bool isWriteable(const ACE_CString& path);
// A regular file that another process holds open (see the header comment).
// False for anything that is not a file, and when the test cannot be made.
COM_EXPORT bool isBusy(const ACE_CString& path);

// Copies the content, the permission bits and the last-write time. With
// failIfExists an existing `to` fails with EEXIST. Copying a file onto
// itself fails with EINVAL. 0 / -1.
COM_EXPORT int FileCopy(const ACE_CString& from, const ACE_CString& to,
                        bool failIfExists);
// Hard link `link` to the existing file `target`. 0 / -1.
COM_EXPORT int CreateLink(const ACE_CString& link, const ACE_CString& target);

// The 64-bit size of the file; false when it cannot be opened or measured.
COM_EXPORT bool FileSize(const ACE_CString& path, ACE_UINT64& size);
COM_EXPORT bool FileSize(ACE_HANDLE handle, ACE_UINT64& size);
// lseek(2) by the offset (two's complement for a backward move) from
// moveMethod 0 = begin, 1 = current, 2 = end; false for an invalid handle or
// a failed seek.
COM_EXPORT bool FileSeek(ACE_HANDLE handle, ACE_UINT64 offset, int moveMethod,
                         ACE_UINT64& newPosition);

// The file's content up to its first NUL byte. Throws std::runtime_error
// "Unable to open file <path>" or "Error reading file <path>" (fewer bytes
// than the size could be read).
COM_EXPORT ACE_CString FileToString(const ACE_CString& path);

// Not a file: 0. Unlinks the file. A permission failure logs at debug and
// returns 0 (the file is assumed to be on its way out already); other
// failures -1.
COM_EXPORT int ForceDelete(const ACE_CString& path);

// Sets the last-write time to now (access time untouched). False for an
// invalid handle, a null path or a failure.
COM_EXPORT bool touchFile(ACE_HANDLE handle);
COM_EXPORT bool touchFile(const char* path);

// `value` is set to false first; false when the attributes cannot be read
// or `which` is unknown.
COM_EXPORT bool getFileAttribute(const char* path, FileAttribute which,
                                 bool& value);
// Sets or clears one attribute; false on failure or an unknown `which`.
COM_EXPORT bool setFileAttribute(const char* path, FileAttribute which,
                                 bool on);

// The last-write time of the first entry matching `path` (a wildcard
// pattern in the last element picks its first match, "." included), as a
// local date-time. False when nothing matches (logged at error) or the time
// cannot be converted.
COM_EXPORT bool getFileLastModTime(const char* path, BDateTime& out);
// Sets only the last-write time of the file (opened read-write). False, and
// logged at error with the path, when `when` cannot be converted, the file
// cannot be opened or the time cannot be set.
COM_EXPORT bool setFileLastModTime(const char* path, const BDateTime& when);
// A creation time cannot be set on Linux: after the conversion and the
// opening (each logged as above on failure) it fails with ENOTSUP, logged
// as "SetFileTime() failed".
COM_EXPORT bool setFileCreateTime(const char* path, const BDateTime& when);

// Path and both times of `info` from the file (its size is left alone).
// False for an empty path; logs at error when the file cannot be read.
COM_EXPORT bool getFileTimes(const ACE_CString& path, FileInfo& info);

// ---------------------------------------------------------------- folders

// Creates the folder and any missing parents. 0 on success or when the path
// exists already (whatever it is); otherwise the errno value (ENOENT when a
// parent could not be made, even if a later error differs). "" gives 0.
COM_EXPORT int CreateDirectoryRecursive(const ACE_CString& path);

// Removes a folder and everything in it that it may: read-only files stay,
// as do folders whose names begin with '.' (and therefore their parents).
// A missing path is 0; a symbolic link is refused (-1, logged at debug) and
// nothing it points to is touched. -1 when the folder itself cannot be
// removed (logged at debug).
COM_EXPORT int DeleteDirectoryRecursive(const ACE_CString& path);

// The older variant: read-only files are made writable and removed; the
// first file that cannot be removed, or a subfolder that
// DeleteDirectoryRecursive cannot remove, ends it with -1. The folder
// itself is left in place, empty: 0.
COM_EXPORT int ClassicDeleteDirectoryRecursive(const ACE_CString& path);

// Bytes the files occupy: each size rounded up to whole clusters of the
// folder's file system. Subfolders (except "." and "..") are added when
// `recursive`; otherwise every entry, folders included, counts with its
// size. A folder that cannot be read, or whose cluster size cannot be found,
// measures 0.
COM_EXPORT ACE_UINT64 DirectorySize(const ACE_CString& path, bool recursive);

// Entries matching `path` + "*.*", minus 3, deliberately: a folder with only
// "." and ".." gives -1, with k further entries k-1. 0 when the enumeration
// fails. Pass the folder with a trailing '/'.
COM_EXPORT int CountFiles(const ACE_CString& path);

// No entry besides "." and ".." matches `path` + "*.*" (the first entry is
// skipped unexamined). A missing folder counts as empty.
COM_EXPORT bool isDirectoryEmpty(const ACE_CString& path);

// Appends the immediate subfolders whose names do not begin with '.': the
// bare name with `nameOnly`, else the normalised folder plus the name.
COM_EXPORT void GetFileSubDirectories(std::vector<ACE_CString>& out,
                                      const ACE_CString& path, bool nameOnly);

// ---------------------------------------------------------------- listings

// Appends (never clears) the files of `dir` whose full path ends in `suffix`
// without regard to case: "*" matches all; only the last strlen(suffix)
// characters are compared, so ".dcm" matches "x.DCM" and "dcm" also matches
// "xdcm". With `recursive`, subfolders whose names do not begin with '.' are
// walked too. Entries carry the full path (or the bare name with
// `nameOnly`), the low 32 bits of the size and both times. -1 when `dir`
// cannot be read, else 0.
COM_EXPORT int GetFileList(std::vector<FileInfo>& out, const ACE_CString& dir,
                           const char* suffix, bool recursive, bool nameOnly);

// As GetFileList, keeping the files whose creation time (byCreationTime) or
// last-write time lies in [from, to]; then sorts all of `out` by creation
// time, whichever time chose the files (deliberately; not a stable sort).
COM_EXPORT void GetFileListByDate(std::vector<FileInfo>& out,
                                  const ACE_CString& dir, const char* suffix,
                                  bool recursive, bool nameOnly,
                                  ACE_UINT64 from, ACE_UINT64 to,
                                  bool byCreationTime);

// The dates as a range: a null `from` is 0, a null `to` all ones; else
// `from` is local midnight at the start of its day and `to` local midnight
// at the end of its day (the next midnight, inclusive), both in UTC. Then
// GetFileListByDate. False, without listing, when a date cannot be
// converted (logged at error).
COM_EXPORT bool GetFileListByBDate(std::vector<FileInfo>& out,
                                   const ACE_CString& dir, const char* suffix,
                                   bool recursive, bool nameOnly,
                                   const BDate* from, const BDate* to,
                                   bool byCreationTime);

// ---------------------------------------------------------------- compression

// Writes `path`.gz (gzip, level 9) beside the file from a read-only mapping
// of it in one write, and gives it the file's last-write time. Returns 0, or
// with deleteSource the result of deleting the source; -1 with errno when
// the source or the .gz cannot be opened, or when the write falls short (the
// partial .gz stays). An existing .gz is overwritten.
COM_EXPORT int CompressFile(const ACE_CString& path, bool deleteSource);

// The same result, written in chunks of 524,288 bytes read from the file,
// yielding the processor between chunks. An existing .gz is removed first.
// The time is copied even after a short read or write (then -1).
COM_EXPORT int CompressFile2(const ACE_CString& path, bool deleteSource);

// ---------------------------------------------------------------- system

// Capacity and bytes available to the caller of the file system holding
// `path` (normalised with a trailing '/'). 0, or -1 with both untouched.
COM_EXPORT int GetDriveSpace(ACE_UINT64& total, ACE_UINT64& freeToCaller,
                             const char* path);

// Appends the mount points (with a trailing '/') of the fixed block-device
// file systems, largest capacity first, one per capacity: a later mount
// point with the same capacity replaces an earlier one (deliberately; bind
// mounts of one device collapse into one entry).
COM_EXPORT void GetLogicalDriveList(std::vector<ACE_CString>& out);

// The running executable's full path; with the flag only its folder. "" when
// the system gives nothing.
COM_EXPORT ACE_CString GetExecutablePath(bool directoryOnly);
// Its last element; with the flag cut before the last '.'.
COM_EXPORT ACE_CString GetExecutableName(bool withoutExtension);

// The value "LogRoot" of the configuration key "SOFTWARE\Kelvane" ("" when
// the key or the value is missing).
COM_EXPORT ACE_CString GetLogRoot();
// The value "ServerPath" of the same key followed by "/" whenever the key
// exists ("/" alone when only the value is missing); "" without the key.
COM_EXPORT ACE_CString GetServerPath();

// The version texts of the ELF file's package-metadata note. Both outputs
// are cleared first; a path that is not a file gives "Not available" in
// both; a file without a readable note leaves both empty (logged at debug).
// Otherwise both receive its "version" without spaces: "5, 2, 0, 1" gives
// "5,2,0,1".
COM_EXPORT void GetApplicationVersions(const ACE_CString& file,
                                       ACE_CString& fileVersion,
                                       ACE_CString& productVersion);
// The product version of GetApplicationVersions.
COM_EXPORT ACE_CString ApplicationVersion(const ACE_CString& file);

// The system's text for errno, on one line.
COM_EXPORT ACE_CString LastErrorString();
// Logs "SetThreadPriorityBoost succeeded" at debug; Linux has no boost.
COM_EXPORT void DisableThreadPriorityBoost();
// Processors online.
COM_EXPORT int NumberOfProcessors();
// Always 0.
COM_EXPORT unsigned long GetThisProcessMemoryUsage();

}  // namespace Kelvane

#endif  // COM_COMMON_OS_OSFILE_H_
