// Parsing date, time and date-time texts into values: com's BDate, BTime
// and BDateTime against DCMTK (the DICOM readers of dcmdata into OFDate,
// OFTime and OFDateTime, and the ISO readers of ofstd), POCO's
// DateTimeParser and strptime(3). Each parser gets its own spelling of the
// same value (DICOM DT has no blank between date and time; BDateTime wants
// one), prepared outside the timed loop; strptime() has no fractions, so
// the rest of its text goes through strtod().
#include <Poco/DateTime.h>
#include <Poco/DateTimeParser.h>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dcmtk/dcmdata/dcvrda.h>
#include <dcmtk/dcmdata/dcvrdt.h>
#include <dcmtk/dcmdata/dcvrtm.h>
#include <dcmtk/ofstd/ofdate.h>
#include <dcmtk/ofstd/ofdatime.h>
#include <dcmtk/ofstd/oftime.h>
#include <string>

#include <benchmark/benchmark.h>

#include "common/base/bdatetime.h"

namespace {

// One value in every spelling.
struct Text {
  const char* label;
  const char* com;
  const char* dicom;  // the DICOM form for DCMTK's dcmdata readers
  const char* iso;    // the ISO form for DCMTK's ofstd readers
  const char* poco_format;
  const char* strptime_format;
};

const Text kDates[] = {
    {"dicom", "20240315", "20240315", "20240315", "%Y%m%d", "%Y%m%d"},
    {"iso", "2024-03-15", nullptr, "2024-03-15", "%Y-%m-%d", "%Y-%m-%d"},
};
const Text kTimes[] = {
    {"fraction", "143005.123456", "143005.123456", nullptr, "%H%M%S.%F",
     "%H%M%S"},
    {"seconds", "143005", "143005", "143005", "%H%M%S", "%H%M%S"},
    {"colon", "14:30:05", "14:30:05", "14:30:05", "%H:%M:%S", "%H:%M:%S"},
};
const Text kDateTimes[] = {
    {"fraction", "20240315 143005.123456", "20240315143005.123456", nullptr,
     "%Y%m%d%H%M%S.%F", "%Y%m%d%H%M%S"},
    {"seconds", "20240315 143005", "20240315143005", "20240315143005",
     "%Y%m%d%H%M%S", "%Y%m%d%H%M%S"},
    {"iso", "2024-03-15T14:30:05", nullptr, "2024-03-15 14:30:05",
     "%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M:%S"},
};

void Check(benchmark::State& state, bool ok) {
  if (!ok) state.SkipWithError("the parser rejected its input");
}

// The peer's text as the POCO parser and strptime see it.
const char* PeerText(const Text& t) {
  return t.dicom != nullptr ? t.dicom : t.com;
}

// strptime() and then the fraction, if any, as a number.
bool Strptime(const char* text, const char* format, struct tm& tm,
              double& fraction) {
  const char* rest = strptime(text, format, &tm);
  if (rest == nullptr) return false;
  fraction = *rest == '.' ? std::strtod(rest, nullptr) : 0.0;
  return true;
}

void RegisterDates() {
  for (const Text& t : kDates) {
    benchmark::RegisterBenchmark(
        ("parse_da/com/" + std::string(t.label)).c_str(),
        [t](benchmark::State& state) {
          for (auto _ : state) {
            BDate d(t.com);
            benchmark::DoNotOptimize(d);
          }
          Check(state, BDate(t.com).IsValid());
        });
    if (t.dicom != nullptr) {
      benchmark::RegisterBenchmark(
          ("parse_da/dcmtk/" + std::string(t.label)).c_str(),
          [t](benchmark::State& state) {
            size_t const n = std::strlen(t.dicom);
            OFDate d;
            bool ok = true;
            for (auto _ : state) {
              ok &= DcmDate::getOFDateFromString(t.dicom, n, d).good();
              benchmark::DoNotOptimize(d);
            }
            Check(state, ok);
          });
    }
    benchmark::RegisterBenchmark(
        ("parse_da/dcmtk_iso/" + std::string(t.label)).c_str(),
        [t](benchmark::State& state) {
          OFString const text(t.iso);
          OFDate d;
          bool ok = true;
          for (auto _ : state) {
            ok &= d.setISOFormattedDate(text) != OFFalse;
            benchmark::DoNotOptimize(d);
          }
          Check(state, ok);
        });
    benchmark::RegisterBenchmark(
        ("parse_da/poco/" + std::string(t.label)).c_str(),
        [t](benchmark::State& state) {
          std::string const text(PeerText(t));
          std::string const format(t.poco_format);
          Poco::DateTime d;
          int tzd = 0;
          bool ok = true;
          for (auto _ : state) {
            ok &= Poco::DateTimeParser::tryParse(format, text, d, tzd);
            benchmark::DoNotOptimize(d);
          }
          Check(state, ok);
        });
    benchmark::RegisterBenchmark(
        ("parse_da/strptime/" + std::string(t.label)).c_str(),
        [t](benchmark::State& state) {
          struct tm tm = {};
          double fraction = 0;
          bool ok = true;
          for (auto _ : state) {
            ok &= Strptime(PeerText(t), t.strptime_format, tm, fraction);
            benchmark::DoNotOptimize(tm);
          }
          Check(state, ok);
        });
  }
}

void RegisterTimes() {
  for (const Text& t : kTimes) {
    benchmark::RegisterBenchmark(
        ("parse_tm/com/" + std::string(t.label)).c_str(),
        [t](benchmark::State& state) {
          for (auto _ : state) {
            BTime v(t.com);
            benchmark::DoNotOptimize(v);
          }
          Check(state, BTime(t.com).IsValid());
        });
    benchmark::RegisterBenchmark(
        ("parse_tm/dcmtk/" + std::string(t.label)).c_str(),
        [t](benchmark::State& state) {
          OFString const text(t.dicom);
          OFTime v;
          bool ok = true;
          for (auto _ : state) {
            ok &= DcmTime::getOFTimeFromString(text, v).good();
            benchmark::DoNotOptimize(v);
          }
          Check(state, ok);
        });
    if (t.iso != nullptr) {
      benchmark::RegisterBenchmark(
          ("parse_tm/dcmtk_iso/" + std::string(t.label)).c_str(),
          [t](benchmark::State& state) {
            OFString const text(t.iso);
            OFTime v;
            bool ok = true;
            for (auto _ : state) {
              ok &= v.setISOFormattedTime(text) != OFFalse;
              benchmark::DoNotOptimize(v);
            }
            Check(state, ok);
          });
    }
    benchmark::RegisterBenchmark(
        ("parse_tm/poco/" + std::string(t.label)).c_str(),
        [t](benchmark::State& state) {
          std::string const text(PeerText(t));
          std::string const format(t.poco_format);
          Poco::DateTime v;
          int tzd = 0;
          bool ok = true;
          for (auto _ : state) {
            ok &= Poco::DateTimeParser::tryParse(format, text, v, tzd);
            benchmark::DoNotOptimize(v);
          }
          Check(state, ok);
        });
    benchmark::RegisterBenchmark(
        ("parse_tm/strptime/" + std::string(t.label)).c_str(),
        [t](benchmark::State& state) {
          struct tm tm = {};
          double fraction = 0;
          bool ok = true;
          for (auto _ : state) {
            ok &= Strptime(PeerText(t), t.strptime_format, tm, fraction);
            benchmark::DoNotOptimize(tm);
            benchmark::DoNotOptimize(fraction);
          }
          Check(state, ok);
        });
  }
}

void RegisterDateTimes() {
  for (const Text& t : kDateTimes) {
    benchmark::RegisterBenchmark(
        ("parse_dt/com/" + std::string(t.label)).c_str(),
        [t](benchmark::State& state) {
          for (auto _ : state) {
            BDateTime v(t.com);
            benchmark::DoNotOptimize(v);
          }
          Check(state, BDateTime(t.com).IsValid());
        });
    if (t.dicom != nullptr) {
      benchmark::RegisterBenchmark(
          ("parse_dt/dcmtk/" + std::string(t.label)).c_str(),
          [t](benchmark::State& state) {
            OFString const text(t.dicom);
            OFDateTime v;
            bool ok = true;
            for (auto _ : state) {
              ok &= DcmDateTime::getOFDateTimeFromString(text, v).good();
              benchmark::DoNotOptimize(v);
            }
            Check(state, ok);
          });
    }
    if (t.iso != nullptr) {
      benchmark::RegisterBenchmark(
          ("parse_dt/dcmtk_iso/" + std::string(t.label)).c_str(),
          [t](benchmark::State& state) {
            OFString const text(t.iso);
            OFDateTime v;
            bool ok = true;
            for (auto _ : state) {
              ok &= v.setISOFormattedDateTime(text) != OFFalse;
              benchmark::DoNotOptimize(v);
            }
            Check(state, ok);
          });
    }
    benchmark::RegisterBenchmark(
        ("parse_dt/poco/" + std::string(t.label)).c_str(),
        [t](benchmark::State& state) {
          std::string const text(PeerText(t));
          std::string const format(t.poco_format);
          Poco::DateTime v;
          int tzd = 0;
          bool ok = true;
          for (auto _ : state) {
            ok &= Poco::DateTimeParser::tryParse(format, text, v, tzd);
            benchmark::DoNotOptimize(v);
          }
          Check(state, ok);
        });
    benchmark::RegisterBenchmark(
        ("parse_dt/strptime/" + std::string(t.label)).c_str(),
        [t](benchmark::State& state) {
          struct tm tm = {};
          double fraction = 0;
          bool ok = true;
          for (auto _ : state) {
            ok &= Strptime(PeerText(t), t.strptime_format, tm, fraction);
            benchmark::DoNotOptimize(tm);
            benchmark::DoNotOptimize(fraction);
          }
          Check(state, ok);
        });
  }
}

}  // namespace

int main(int argc, char** argv) {
  RegisterDates();
  RegisterTimes();
  RegisterDateTimes();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
