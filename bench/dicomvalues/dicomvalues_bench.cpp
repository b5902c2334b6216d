// DICOM value helpers against DCMTK:
//   KeywordToTag, TagToKeyword: TagMapper's keyword look-ups against
//     DCMTK's global data dictionary reached as its users do (rdlock,
//     findEntry, rdunlock), over 4096 attributes both dictionaries know;
//   ParseDT: Kelvane::ParseDT against DcmDateTime::getOFDateTimeFromString
//     over the same texts, per form;
//   MatchRange: the range matchers against DcmAttributeMatching over the
//     same full-precision ranges and values;
//   FromUUID: one conversion per call (no peer).
// Before timing, the range matchers are checked against
// DcmAttributeMatching over generated ranges and values of full precision
// (where both read a bound the same way); the count is printed.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdicent.h>
#include <dcmtk/dcmdata/dcdict.h>
#include <dcmtk/dcmdata/dcmatch.h>
#include <dcmtk/dcmdata/dcvrdt.h>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "common/base/dicomrange.h"
#include "common/base/dtvalue.h"
#include "common/base/tagmapper.h"
#include "common/base/uidgenerator.h"

namespace {

const DcmDictEntry* DcmtkByTag(uint32_t tag) {
  return dcmDataDict.rdlock().findEntry(
      DcmTagKey(static_cast<Uint16>(tag >> 16), static_cast<Uint16>(tag)),
      nullptr);
}

struct Known {
  std::vector<uint32_t> tags;
  std::vector<std::string> keywords;
};

// 4096 attributes drawn at random (fixed seed) from those whose keyword
// both dictionaries give alike.
const Known& Attributes() {
  static const Known known = [] {
    std::vector<uint32_t> pool;
    const TagMapper* ours = TagMapper::Instance();
    DcmDataDictionary& dict = dcmDataDict.wrlock();
    for (DcmHashDictIterator it = dict.normalBegin(); it != dict.normalEnd();
         ++it) {
      const DcmDictEntry* d = *it;
      if (d->isRepeating() || d->getPrivateCreator() != nullptr) continue;
      uint32_t const tag =
          static_cast<uint32_t>(d->getGroup()) << 16 | d->getElement();
      const char* kw = ours->FindKeyword(tag);
      if (kw != nullptr && std::strcmp(kw, d->getTagName()) == 0) {
        pool.push_back(tag);
      }
    }
    dcmDataDict.wrunlock();
    Known out;
    std::mt19937 rng(42);
    std::uniform_int_distribution<size_t> pick(0, pool.size() - 1);
    for (int i = 0; i < 4096; ++i) {
      uint32_t const tag = pool[pick(rng)];
      out.tags.push_back(tag);
      out.keywords.push_back(ours->FindKeyword(tag));
    }
    return out;
  }();
  return known;
}

void KeywordToTagCom(benchmark::State& state) {
  const Known& k = Attributes();
  const TagMapper* dict = TagMapper::Instance();
  size_t i = 0;
  for (auto _ : state) {
    unsigned long tag = 0;
    benchmark::DoNotOptimize(
        dict->FindTagByKeyword(k.keywords[i++ & 4095].c_str(), tag));
    benchmark::DoNotOptimize(tag);
  }
}

void KeywordToTagDcmtk(benchmark::State& state) {
  const Known& k = Attributes();
  size_t i = 0;
  for (auto _ : state) {
    const DcmDictEntry* e =
        dcmDataDict.rdlock().findEntry(k.keywords[i++ & 4095].c_str());
    DcmTagKey key = e != nullptr ? e->getKey() : DcmTagKey();
    dcmDataDict.rdunlock();
    benchmark::DoNotOptimize(key);
  }
}

void TagToKeywordCom(benchmark::State& state) {
  const Known& k = Attributes();
  const TagMapper* dict = TagMapper::Instance();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(dict->FindKeyword(k.tags[i++ & 4095]));
  }
}

void TagToKeywordDcmtk(benchmark::State& state) {
  const Known& k = Attributes();
  size_t i = 0;
  for (auto _ : state) {
    const DcmDictEntry* e = DcmtkByTag(k.tags[i++ & 4095]);
    const char* name = e != nullptr ? e->getTagName() : nullptr;
    dcmDataDict.rdunlock();
    benchmark::DoNotOptimize(name);
  }
}

// 1024 random DT texts of one form; both parsers accept every one.
std::vector<std::string> DTTexts(int form) {
  std::mt19937 rng(static_cast<unsigned>(form) + 7);
  auto n = [&rng](unsigned lo, unsigned hi) {
    return std::uniform_int_distribution<unsigned>(lo, hi)(rng);
  };
  std::vector<std::string> out;
  while (out.size() < 1024) {
    char b[64];
    int const len = std::snprintf(
        b, sizeof b, "%04u%02u%02u%02u%02u%02u.%06u%c%02u%02u", n(1900, 2100),
        n(1, 12), n(1, 28), n(0, 23), n(0, 59), n(0, 59), n(0, 999999),
        n(0, 1) ? '+' : '-', n(0, 12), n(0, 59));
    std::string t(b, static_cast<size_t>(len));
    if (form == 0) t = t.substr(0, 14);  // YYYYMMDDHHMMSS
    if (form == 1) t = t.substr(0, 21);  // with fraction
    if (form == 2) t.erase(14, 7);       // with offset
    if (form == 3) t = t.substr(0, 8);   // date only
    Kelvane::DTValue v;
    OFDateTime d;
    if (Kelvane::ParseDT(t.c_str(), v) &&
        DcmDateTime::getOFDateTimeFromString(t.c_str(), t.size(), d).good()) {
      out.push_back(t);
    }
  }
  return out;
}

const char* const kDTForms[] = {"seconds", "fraction", "offset", "date",
                                "full"};

void ParseDTCom(benchmark::State& state) {
  std::vector<std::string> const texts =
      DTTexts(static_cast<int>(state.range(0)));
  size_t i = 0;
  for (auto _ : state) {
    Kelvane::DTValue v;
    benchmark::DoNotOptimize(Kelvane::ParseDT(texts[i++ & 1023].c_str(), v));
    benchmark::DoNotOptimize(v);
  }
}

void ParseDTDcmtk(benchmark::State& state) {
  std::vector<std::string> const texts =
      DTTexts(static_cast<int>(state.range(0)));
  size_t i = 0;
  for (auto _ : state) {
    const std::string& t = texts[i++ & 1023];
    OFDateTime v;
    benchmark::DoNotOptimize(
        DcmDateTime::getOFDateTimeFromString(t.c_str(), t.size(), v));
    benchmark::DoNotOptimize(v);
  }
}

void FromUUIDCom(benchmark::State& state) {
  std::vector<ACE_CString> uuids;
  std::mt19937_64 rng(3);
  for (int i = 0; i < 1024; ++i) {
    char b[40];
    uint64_t const hi = rng();
    uint64_t const lo = rng();
    std::snprintf(b, sizeof b, "%08x-%04x-%04x-%04x-%012llx",
                  static_cast<unsigned>(hi >> 32),
                  static_cast<unsigned>(hi >> 16) & 0xFFFF,
                  static_cast<unsigned>(hi) & 0xFFFF,
                  static_cast<unsigned>(lo >> 48),
                  static_cast<unsigned long long>(lo & 0xFFFFFFFFFFFFull));
    uuids.push_back(b);
  }
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(UIDGenerator::FromUUID(uuids[i++ & 1023]));
  }
}

// Full-precision ranges and values, so that DCMTK (which reads a bound as
// the instant it starts at) and the library (which reads it as its whole
// period) mean the same thing.
struct RangeCase {
  int kind;  // 0 DA, 1 TM, 2 DT
  std::string range;
  std::string value;
};

std::vector<RangeCase> RangeCases() {
  std::mt19937 rng(18);
  auto n = [&rng](unsigned lo, unsigned hi) {
    return std::uniform_int_distribution<unsigned>(lo, hi)(rng);
  };
  auto da = [&] {
    char b[16];
    std::snprintf(b, sizeof b, "2024%02u%02u", n(1, 2), n(1, 28));
    return std::string(b);
  };
  auto tm = [&] {
    char b[24];
    std::snprintf(b, sizeof b, "%02u%02u%02u.%06u", n(10, 11), n(0, 1) * 59,
                  n(0, 1) * 59, n(0, 1) * 999999);
    return std::string(b);
  };
  auto dt = [&] { return da() + tm(); };
  std::vector<RangeCase> out;
  for (int i = 0; i < 3000; ++i) {
    int const kind = i % 3;
    auto gen = [&] { return kind == 0 ? da() : kind == 1 ? tm() : dt(); };
    std::string a = gen();
    std::string b = gen();
    int const form = static_cast<int>(n(0, 3));
    std::string const range = form == 0   ? a + "-" + b
                              : form == 1 ? "-" + b
                              : form == 2 ? a + "-"
                                          : a;
    out.push_back({kind, range, n(0, 3) == 0 ? a : gen()});
  }
  return out;
}

bool DcmtkMatch(const RangeCase& c) {
  const char* r = c.range.c_str();
  const char* v = c.value.c_str();
  size_t const rn = c.range.size();
  size_t const vn = c.value.size();
  switch (c.kind) {
    case 0:
      return DcmAttributeMatching::rangeMatchingDate(r, rn, v, vn);
    case 1:
      return DcmAttributeMatching::rangeMatchingTime(r, rn, v, vn);
    default:
      return DcmAttributeMatching::rangeMatchingDateTime(r, rn, v, vn);
  }
}

bool ComMatch(const RangeCase& c) {
  bool (*const match[])(const char*, const char*) = {
      Kelvane::MatchDARange, Kelvane::MatchTMRange, Kelvane::MatchDTRange};
  return match[c.kind](c.range.c_str(), c.value.c_str());
}

void MatchRangeCom(benchmark::State& state) {
  static const std::vector<RangeCase> cases = RangeCases();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ComMatch(cases[i++ % cases.size()]));
  }
}

void MatchRangeDcmtk(benchmark::State& state) {
  static const std::vector<RangeCase> cases = RangeCases();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(DcmtkMatch(cases[i++ % cases.size()]));
  }
}

void CheckRangesAgainstDcmtk() {
  size_t agree = 0;
  size_t matched = 0;
  std::vector<RangeCase> const cases = RangeCases();
  for (const RangeCase& c : cases) {
    bool const ours = ComMatch(c);
    if (ours == DcmtkMatch(c)) {
      ++agree;
    } else if (agree + 5 > cases.size()) {
      std::fprintf(stderr, "differs: %s / %s\n", c.range.c_str(),
                   c.value.c_str());
    }
    matched += ours;
  }
  std::fprintf(stderr,
               "range matching: %zu of %zu cases agree with "
               "DcmAttributeMatching (%zu match)\n",
               agree, cases.size(), matched);
}

}  // namespace

BENCHMARK(KeywordToTagCom)->Name("KeywordToTag/com");
BENCHMARK(KeywordToTagDcmtk)->Name("KeywordToTag/dcmtk");
BENCHMARK(TagToKeywordCom)->Name("TagToKeyword/com");
BENCHMARK(TagToKeywordDcmtk)->Name("TagToKeyword/dcmtk");
BENCHMARK(MatchRangeCom)->Name("MatchRange/com");
BENCHMARK(MatchRangeDcmtk)->Name("MatchRange/dcmtk");
BENCHMARK(FromUUIDCom)->Name("FromUUID/com");

int main(int argc, char** argv) {
  for (int form = 0; form < 5; ++form) {
    std::string const suffix = std::string("/") + kDTForms[form];
    benchmark::RegisterBenchmark(("ParseDT/com" + suffix).c_str(), ParseDTCom)
        ->Arg(form);
    benchmark::RegisterBenchmark(("ParseDT/dcmtk" + suffix).c_str(),
                                 ParseDTDcmtk)
        ->Arg(form);
  }
  CheckRangesAgainstDcmtk();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
