// Placing studies as an archive node does: each UID picks its bucket, the
// study folder is laid out under a storage root with its metadata file
// beside it, the copy is announced as a study URL that another server
// parses back, and the gold copy is picked among three locations.
#include <cstdio>
#include <exception>
#include <sys/stat.h>
#include <vector>

#include "common/base/dtsstudyurl.h"
#include "common/base/stackutils.h"
#include "common/os/osfile.h"

#include "demo.h"

namespace {

void Studies() {
  ACE_CString root;
  Kelvane::concatPath(root, demo::ScratchDir().c_str(), "volume1/stack");
  const char* uids[] = {"1.2.840.113619.2.55.3.604688119.969.1268071029.320",
                        "1.3.12.2.1107.5.1.4.73104.30000019041608141234",
                        "1.2.826.0.1.3680043.9.7.1"};
  const BDateTime when("20240315 143005");
  try {
    std::vector<DTSStudyURL> copies;
    for (const char* uid : uids) {
      const ACE_CString path = StackUtils::generateStudyPath(root, uid);
      const bool made = StackUtils::createStudyPathFolder(path) &&
                        ::mkdir(path.c_str(), 0755) == 0;
      std::printf("UID %s\n  hash %10lu  bucket %s  folder %s\n  %s\n  %s\n",
                  uid, StackUtils::pjwHash(uid),
                  StackUtils::suidToStackFolder(uid).c_str(),
                  made ? "created" : "NOT created", path.c_str(),
                  StackUtils::getMetaFilePath(path).c_str());
    }

    // The first study's copy on this node, announced and read back.
    const ACE_CString study = StackUtils::generateStudyPath(root, uids[0]);
    DTSStudyURL here(study, "Archive-Node7", uids[0], ARCHIVE, "PAT00012345",
                     1234567890, when, false, "9F86D081884C7D65");
    std::printf("URL       %s\n", here.url().c_str());
    DTSStudyURL parsed(here.url());
    std::printf(
        "parsed    host %s, path %s (cut back to the stack), "
        "type %u, etag %s\n",
        parsed.host().c_str(), parsed.path().c_str(), parsed.type(),
        parsed.ETAG().c_str());
    try {
      DTSStudyURL bad("dts://node7:104?p=/x");
    } catch (const BadlyFormedUrl& e) {
      std::printf("rejected  dts://node7:104?p=/x: %s\n", e.what());
    }

    // Three copies of that study: a cache, the combined single server
    // (which counts as an archive) and a processing node.
    copies.push_back(DTSStudyURL("/cache/stack", "cache1", uids[0], CACHE, "",
                                 7, when, false, ""));
    copies.push_back(DTSStudyURL("/data/stack", "single1", uids[0],
                                 SINGLE_SERVER_KORVEN, "", 7, when, false, ""));
    copies.push_back(DTSStudyURL("/proc/stack", "proc1", uids[0],
                                 DICOM_PROCESSING, "", 8, when, false, ""));
    DTSStudyURL gold;
    if (DTSStudyURL::selectGoldLocation(gold, copies)) {
      ACE_CString kind;
      DTSStudyURL::convertModuleTypeToString(
          static_cast<ModuleType>(gold.type()), kind);
      std::printf("gold copy %s on %s (%s)\n", gold.path().c_str(),
                  gold.host().c_str(), kind.c_str());
    }
    std::vector<DTSStudyURL> representatives;
    const bool merge =
        DTSStudyURL::detectMergeCondition(representatives, copies);
    std::printf("merge     %s (%zu diverging groups)\n",
                merge ? "needed" : "not needed", representatives.size());
  } catch (const std::exception& e) {
    std::printf("study URL failed: %s\n", e.what());
  }
}

}  // namespace

COM_DEMO_SECTION(45, "Study folders and locations", Studies);
