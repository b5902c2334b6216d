// Parse plus regenerate of typical study URLs: com's DTSStudyURL against
// POCO's URI with getQueryParameters (and setQueryParameters/toString to
// write it back). The study-folder hash with the study path, and the gold
// selection over long location lists, have no peer and report their own
// time per call.
#include <Poco/URI.h>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "common/base/dtsstudyurl.h"
#include "common/base/stackutils.h"

namespace {

// suid, pid, etag and two parameters the class does not know. POCO gets the
// same text with the blank of the timestamp escaped, as a URI needs.
const char kTypical[] =
    "dts://archive-node7?p=/data/volume3/stack&t=8&v=2&ts=03/15/2024 "
    "14:30:05.0000&n=1234567890&gs=0&suid=1.2.840.113619.2.55.3.604688119."
    "969.1268071029.320&pid=PAT00012345&etag=9f86d081884c7d65&site=north&"
    "tier=hot";

std::string PocoText() {
  std::string s = kTypical;
  s.replace(s.find(' '), 1, "%20");
  return s;
}

void ParseRegenerateCom(benchmark::State& state) {
  const ACE_CString text(kTypical);
  DTSStudyURL url;
  size_t bytes = 0;
  for (auto _ : state) {
    url.parseURL(text);
    ACE_CString again = "dts://" + url.host() + "?" + url.encodeParams();
    bytes += again.length();
    benchmark::DoNotOptimize(again.c_str());
  }
  state.counters["out_bytes"] = static_cast<double>(bytes) / state.iterations();
}

void ParseRegeneratePoco(benchmark::State& state) {
  const std::string text = PocoText();
  size_t bytes = 0;
  for (auto _ : state) {
    Poco::URI uri(text);
    Poco::URI::QueryParameters params = uri.getQueryParameters();
    Poco::URI out;
    out.setScheme(uri.getScheme());
    out.setHost(uri.getHost());
    out.setQueryParameters(params);
    std::string again = out.toString();
    bytes += again.size();
    benchmark::DoNotOptimize(again.data());
  }
  state.counters["out_bytes"] = static_cast<double>(bytes) / state.iterations();
}

void StudyPathCom(benchmark::State& state) {
  const ACE_CString root("/data/volume3/stack");
  const ACE_CString uid("1.2.840.113619.2.55.3.604688119.969.1268071029.320");
  for (auto _ : state) {
    ACE_CString path = StackUtils::generateStudyPath(root, uid);
    benchmark::DoNotOptimize(path.c_str());
  }
}

void PjwHashCom(benchmark::State& state) {
  const ACE_CString uid("1.2.840.113619.2.55.3.604688119.969.1268071029.320");
  for (auto _ : state) {
    benchmark::DoNotOptimize(StackUtils::pjwHash(uid));
  }
}

// The worst case: no location but the last matches any mask before the
// last one, so every mask walks the whole list.
void SelectGoldCom(benchmark::State& state) {
  const BDateTime when("20240315 143005");
  std::vector<DTSStudyURL> locations(
      static_cast<size_t>(state.range(0)),
      DTSStudyURL("/data/stack", "node", "1.2.3", VESTRA, "", 0, when, false,
                  ""));
  locations.back().type(DICOM_PROCESSING);
  DTSStudyURL gold;
  for (auto _ : state) {
    benchmark::DoNotOptimize(DTSStudyURL::selectGoldLocation(gold, locations));
  }
  state.SetComplexityN(state.range(0));
}

}  // namespace

BENCHMARK(ParseRegenerateCom)->Name("ParseRegenerate/com/typical");
BENCHMARK(ParseRegeneratePoco)->Name("ParseRegenerate/poco/typical");
BENCHMARK(StudyPathCom)->Name("StudyPath/com/uid50");
BENCHMARK(PjwHashCom)->Name("PjwHash/com/uid50");
BENCHMARK(SelectGoldCom)
    ->Name("SelectGold/com")
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Complexity(benchmark::oN);

BENCHMARK_MAIN();
