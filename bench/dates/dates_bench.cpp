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

// Times `parse(text, value)` on a text prepared outside the loop.
template <typename Value, typename Str = OFString, typename Parse>
void RegisterPeer(const std::string& name, const char* text, Parse parse) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [text, parse](benchmark::State& state) {
                                 Str const prepared(text);
                                 Value v;
                                 bool ok = true;
                                 for (auto _ : state) {
                                   ok &= parse(prepared, v);
                                   benchmark::DoNotOptimize(v);
                                 }
                                 Check(state, ok);
                               });
}

// Every parser of one kind of value over `texts`: com's `Com`, DCMTK's
// DICOM reader `dicom` and ISO reader `iso` into `Of`, POCO and strptime.
template <typename Com, typename Of, size_t N, typename Dicom, typename Iso>
void RegisterKind(const char* kind, const Text (&texts)[N], Dicom dicom,
                  Iso iso) {
  for (const Text& t : texts) {
    auto name = [&t, kind](const char* impl) {
      return std::string(kind) + "/" + impl + "/" + t.label;
    };
    benchmark::RegisterBenchmark(name("com").c_str(),
                                 [t](benchmark::State& state) {
                                   for (auto _ : state) {
                                     Com v(t.com);
                                     benchmark::DoNotOptimize(v);
                                   }
                                   Check(state, Com(t.com).IsValid());
                                 });
    if (t.dicom != nullptr) RegisterPeer<Of>(name("dcmtk"), t.dicom, dicom);
    if (t.iso != nullptr) RegisterPeer<Of>(name("dcmtk_iso"), t.iso, iso);
    RegisterPeer<Poco::DateTime, std::string>(
        name("poco"), PeerText(t),
        [format = std::string(t.poco_format)](const OFString& text,
                                              Poco::DateTime& v) {
          int tzd = 0;
          return Poco::DateTimeParser::tryParse(format, text.c_str(), v, tzd);
        });
    benchmark::RegisterBenchmark(
        name("strptime").c_str(), [t](benchmark::State& state) {
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

void RegisterAll() {
  RegisterKind<BDate, OFDate>(
      "parse_da", kDates,
      [](const OFString& s, OFDate& v) {
        return DcmDate::getOFDateFromString(s.c_str(), s.length(), v).good();
      },
      [](const OFString& s, OFDate& v) {
        return v.setISOFormattedDate(s) != OFFalse;
      });
  RegisterKind<BTime, OFTime>(
      "parse_tm", kTimes,
      [](const OFString& s, OFTime& v) {
        return DcmTime::getOFTimeFromString(s, v).good();
      },
      [](const OFString& s, OFTime& v) {
        return v.setISOFormattedTime(s) != OFFalse;
      });
  RegisterKind<BDateTime, OFDateTime>(
      "parse_dt", kDateTimes,
      [](const OFString& s, OFDateTime& v) {
        return DcmDateTime::getOFDateTimeFromString(s, v).good();
      },
      [](const OFString& s, OFDateTime& v) {
        return v.setISOFormattedDateTime(s) != OFFalse;
      });
}

}  // namespace

int main(int argc, char** argv) {
  RegisterAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
