// StackUtils: where a study's files live under a storage root. Studies are
// spread over 127 bucket folders ("0000" to "0126") chosen by a hash of the
// study instance UID; each study gets a folder named by its UID inside its
// bucket, and a metadata file named by the study folder plus ".dts" beside
// it:
//
//   <root>/0042/1.2.840.10008.1.2.3        the study folder
//   <root>/0042/1.2.840.10008.1.2.3.dts    its metadata file
//
// The layout of existing storage depends on every bit of pjwHash, so the
// hash is kept exactly as it has always been computed (see below).
//
// '/' is the native separator here and '\' the foreign one, as for the path
// helpers of common/os/osfile.h: generateStudyPath joins with '/'.
//
//   ACE_CString p = StackUtils::generateStudyPath("/data", "1.2.3");
//   StackUtils::createStudyPathFolder(p);     // makes "/data/<bucket>"
//   StackUtils::getMetaFilePath(p);           // p + ".dts"
//
// Thread safety: every member is static and keeps no state.
#ifndef COM_COMMON_BASE_STACKUTILS_H_
#define COM_COMMON_BASE_STACKUTILS_H_

#include <vector>

#include <ace/SString.h>

#include "common/base/comexport.h"

class COM_EXPORT StackUtils {
 public:
  // Number of bucket folders.
  static const unsigned long kStackFolderCount = 127;

  // A PJW-style hash computed in 32 bits (it wraps at 2^32 although
  // unsigned long is 64 bits wide here, so results never exceed
  // 0xFFFFFFFF). Its two departures from the textbook hash are deliberate
  // and must stay: the characters are taken from the last to the first,
  // and each adds 13 times its value read as a signed byte, so a byte
  // above 127 subtracts. "" hashes to 0.
  static unsigned long pjwHash(const ACE_CString& text);

  // The bucket name of a UID: "%04lu" of pjwHash(suid) mod 127, "0000" to
  // "0126". "" gives "0000".
  static ACE_CString suidToStackFolder(const ACE_CString& suid);

  // normalizePath(root, true) + bucket + "/" + suid. The normalised root
  // brings its own trailing '/', so none is added between it and the
  // bucket; an empty root stays empty ("" + "0000/" + suid).
  static ACE_CString generateStudyPath(const ACE_CString& root,
                                       const ACE_CString& suid);

  // Appends "0000" to "0126" in ascending order; `out` is not cleared.
  static void getStackHashFolders(std::vector<ACE_CString>& out);

  // The path up to and including its first "stack" (found without regard
  // to case, the result keeps the path's own case) when at least one
  // character follows that "stack"; otherwise the path unchanged.
  // "/E/Stack/0042/1.2.3" gives "/E/Stack"; "/E/stack" and "/E/other/1.2"
  // come back as given. Only the first occurrence counts: "/stacks/x"
  // gives "/stack".
  static ACE_CString extractStackPath(const ACE_CString& path);

  // Creates every folder of `studyPath` but its last element (the study
  // folder itself is left to the caller): getAllButLastPathElement, then
  // CreateDirectoryRecursive. True when that succeeded or the folders
  // exist already.
  static bool createStudyPathFolder(const ACE_CString& studyPath);

  // studyPath + ".dts".
  static ACE_CString getMetaFilePath(const ACE_CString& studyPath);
};

#endif  // COM_COMMON_BASE_STACKUTILS_H_
