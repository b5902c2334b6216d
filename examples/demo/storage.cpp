// A storage walk as an archive node does it: lay out a study folder, list
// its images by date, compress a report and measure the folder.
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "common/os/osfile.h"

#include "demo.h"

namespace {

bool WriteFile(const std::string& path, const std::string& data, time_t mtime) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
  ok = std::fclose(f) == 0 && ok;
  struct timespec ts[2] = {{0, UTIME_OMIT}, {mtime, 0}};
  return ok && ::utimensat(AT_FDCWD, path.c_str(), ts, 0) == 0;
}

void Storage() {
  ACE_CString root;
  Kelvane::concatPath(root, demo::ScratchDir().c_str(), "storage");
  ACE_CString series = root + "/PAT001/STUDY1/SERIES1";
  if (Kelvane::CreateDirectoryRecursive(series) != 0) {
    std::printf("cannot create %s\n", series.c_str());
    return;
  }
  Kelvane::CreateDirectoryRecursive(root + "/.trash");
  // Three images written a day apart, and a text report.
  const time_t day = 86400;
  const time_t base = 1700000000;
  for (int i = 0; i < 3; ++i) {
    std::string pixels(200000 + i * 50000, static_cast<char>(i));
    for (size_t k = 0; k < pixels.size(); k += 97) {
      pixels[k] = static_cast<char>(k);
    }
    std::string name =
        std::string(series.c_str()) + "/IMG" + std::to_string(3 - i) + ".dcm";
    WriteFile(name, pixels, base + (3 - i) * day);
  }
  std::string report;
  for (int i = 0; i < 2000; ++i) report += "Findings: no abnormality.\n";
  std::string reportPath = std::string(root.c_str()) + "/PAT001/report.txt";
  WriteFile(reportPath, report, base);
  WriteFile(std::string(root.c_str()) + "/.trash/old.dcm", "x", base);

  std::vector<Kelvane::FileInfo> files;
  Kelvane::GetFileListByDate(files, root, ".dcm", true, false, 0,
                             ~ACE_UINT64(0), false);
  std::printf("images under %s (by creation, '.trash' skipped):\n",
              Kelvane::getLastPathElement(root).c_str());
  for (const Kelvane::FileInfo& f : files) {
    std::printf("  %-10s %7d bytes  written %s UTC\n",
                Kelvane::getLastPathElement(f.path()).c_str(), f.size(),
                Kelvane::FileTimeToString(f.modifiedTime()).c_str());
  }

  ACE_UINT64 before = 0, after = 0;
  Kelvane::FileSize(reportPath.c_str(), before);
  if (Kelvane::CompressFile2(reportPath.c_str(), true) == 0 &&
      Kelvane::FileSize((reportPath + ".gz").c_str(), after)) {
    std::printf(
        "report.txt: %llu bytes, report.txt.gz: %llu bytes (%s)\n",
        static_cast<unsigned long long>(before),
        static_cast<unsigned long long>(after),
        Kelvane::isFile(reportPath.c_str()) ? "source kept" : "source removed");
  }
  std::printf(
      "folder size on disk: %llu bytes for %zu image(s)\n",
      static_cast<unsigned long long>(Kelvane::DirectorySize(root, true)),
      files.size());
  std::printf(
      "removed: %s\n",
      Kelvane::DeleteDirectoryRecursive(root + "/PAT001") == 0 ? "yes" : "no");
}

}  // namespace

COM_DEMO_SECTION(40, "Storage walk", Storage);
