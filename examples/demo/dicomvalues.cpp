#include <cstdio>

#include "common/base/bpersonname.h"
#include "common/base/dicomrange.h"
#include "common/base/dtvalue.h"
#include "common/base/tagmapper.h"
#include "common/base/uidgenerator.h"

#include "demo.h"

namespace {

void DicomValues() {
  // A date-time with its offset, printed back and taken to UTC.
  Kelvane::DTValue dt;
  if (Kelvane::ParseDT("20240315143005.25-0500", dt)) {
    BDateTime utc = Kelvane::DTToUTC(dt);
    std::printf("DT %s is %s UTC\n", Kelvane::FormatDT(dt).c_str(),
                utc.ToString().c_str());
  }

  // A C-FIND style query over a few stored study dates and times.
  const char* dates[] = {"20231231", "20240115", "20240301"};
  for (const char* d : dates) {
    std::printf("study date %s in 202401-202402: %s\n", d,
                Kelvane::MatchDARange("202401-202402", d) ? "yes" : "no");
  }
  std::printf("time 2330 in 2300-0100: %s (ranges do not cross midnight)\n",
              Kelvane::MatchTMRange("2300-0100", "2330") ? "yes" : "no");

  // The three component groups of a Japanese name.
  BPersonName pn("Yamada^Tarou=山田^太郎=やまだ^たろう");
  std::printf("name %s: alphabetic %s, ideographic %s, phonetic %s\n",
              pn.GetDICOMName().c_str(),
              pn.Alphabetic().GetDisplayName().c_str(),
              pn.Ideographic().GetDisplayName().c_str(),
              pn.Phonetic().GetDisplayName().c_str());

  // UUID-derived UIDs and a de-identifying remap.
  std::printf(
      "UUID UID  %s\n",
      UIDGenerator::FromUUID("f81d4fae-7dec-11d0-a765-00a0c91e6bf6").c_str());
  std::printf("random    %s\n", UIDGenerator::GenerateUUIDUID().c_str());
  std::printf("remapped  %s\n",
              UIDGenerator::Remap("1.2.826.0.1.3680043.8.498.",
                                  "1.2.840.113619.2.55.3", "site-secret")
                  .c_str());

  // Keywords of the data dictionary.
  TagMapper* dict = TagMapper::Instance();
  unsigned long tag = 0;
  if (dict->FindTagByKeyword("StudyInstanceUID", tag)) {
    unsigned int const t = static_cast<unsigned int>(tag);
    std::printf("StudyInstanceUID is (%04X,%04X), VM %s\n", t >> 16, t & 0xFFFF,
                dict->FindVM(t));
  }
  std::printf("(6002,3000) is %s%s\n", dict->FindKeyword(0x60023000),
              dict->IsRetired(0x60023000) ? " (retired)" : "");
}

}  // namespace

COM_DEMO_SECTION(36, "DICOM values: DT offsets, ranges, name groups, UUID UIDs",
                 DicomValues);
