#include <cstdio>
#include <cstdlib>

#include "common/base/bdatetime.h"
#include "common/base/dateutils.h"

#include "demo.h"

namespace {

void Dates() {
  // DICOM values as they arrive in a study: DA, TM and a DA/TM pair.
  const char* dates[] = {"20240315", "2024-02-29", "3/1/2024", "20230229"};
  for (const char* text : dates) {
    BDate d(text);
    std::printf("DA %-12s -> %s (%s, weekday %u)%s\n", text,
                d.ToString().c_str(), d.GetMonthString(), d.GetDayofWeek(),
                d.IsValid() ? "" : "  not a date");
  }
  const char* times[] = {"14", "1430", "143005.123456", "14:30:05", "2460"};
  for (const char* text : times) {
    BTime t(text);
    std::printf("TM %-14s -> %-14s DICOM %s%s\n", text,
                t.AsString(BTime::Millisecond, true).c_str(),
                t.AsDICOMString().c_str(), t.IsValid() ? "" : "  not a time");
  }
  char display[16] = {0};
  UtlConvertDICOMString2Date("20240315", display);
  std::printf("display form of 20240315: %s\n", display);

  // The same acquisition time as seen by sites in different zones. The zone
  // rules at the date apply, so the summer value shows daylight saving.
  const char* zones[] = {"Europe/Berlin", "America/New_York", "Asia/Kolkata"};
  const char* stamps[] = {"20240115 093000", "2024-07-15T09:30:00"};
  const char* saved = std::getenv("TZ");
  for (const char* zone : zones) {
    setenv("TZ", zone, 1);
    tzset();
    for (const char* stamp : stamps) {
      BDateTime local(stamp);
      BDateTime utc = local.LocalTimeToGMT();
      std::printf(
          "%-17s local %s  UTC %s  offset %s ms\n", zone,
          local.ToString().c_str(), utc.ToString().c_str(),
          GetCurrentTimeZoneOffsetFromDate(local.GetDate().ToString(),
                                           local.GetTime().AsDICOMString())
              .c_str());
    }
  }
  if (saved != nullptr) {
    setenv("TZ", saved, 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
  std::printf("now (local):       %s\n", BDateTime::Now().ToString().c_str());
}

}  // namespace

COM_DEMO_SECTION(30, "Dates and times", Dates);
