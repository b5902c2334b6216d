// Tag dictionary lookups: ours against DCMTK's global data dictionary,
// reached as its users do (rdlock().findEntry, then rdunlock), over the
// same tags: known ones (in both dictionaries) and unknown ones (in
// neither). Build measures making a fresh dictionary from the compiled-in
// table, what the first TagMapper::Instance() does.
#include <array>
#include <cstdint>
#include <cstdlib>
#include <dcmtk/dcmdata/dcdicent.h>
#include <dcmtk/dcmdata/dcdict.h>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "common/base/tagmapper.h"

namespace {

class FreshMapper : public TagMapper {
 public:
  using TagMapper::m_GETable;
};

// DCMTK's entry for `tag` under its read lock, as its users reach it.
template <typename Field>
auto DcmtkLookup(uint32_t tag, Field field) {
  const DcmDictEntry* e = dcmDataDict.rdlock().findEntry(
      DcmTagKey(static_cast<Uint16>(tag >> 16), static_cast<Uint16>(tag)),
      nullptr);
  auto value = field(e);
  dcmDataDict.rdunlock();
  return value;
}

bool InDcmtk(uint32_t tag) {
  return DcmtkLookup(tag, [](const DcmDictEntry* e) { return e != nullptr; });
}

// 4096 tags drawn at random (fixed seed) from the table's tags that DCMTK
// knows as well, or from tags neither knows.
const std::vector<uint32_t>& Tags(bool known) {
  static const std::array<std::vector<uint32_t>, 2> sets = [] {
    std::vector<uint32_t> pool[2];
    for (const char* const* e = FreshMapper::m_GETable; e[0] != nullptr;
         e += 3) {
      uint32_t tag = static_cast<uint32_t>(std::strtoul(e[0], nullptr, 16));
      if (InDcmtk(tag)) pool[1].push_back(tag);
    }
    TagMapper* ours = TagMapper::Instance();
    std::mt19937 rng(42);
    while (pool[0].size() < 1024) {
      // Even groups near the dictionary's and private (odd) groups.
      uint32_t tag = static_cast<uint32_t>(rng());
      tag = (tag & 0x00FF0000u) | (tag & 0x1FFF);
      if (ours->FindDescription(tag) == nullptr && !InDcmtk(tag)) {
        pool[0].push_back(tag);
      }
    }
    std::array<std::vector<uint32_t>, 2> out;
    for (int k = 0; k < 2; ++k) {
      std::uniform_int_distribution<size_t> pick(0, pool[k].size() - 1);
      for (int i = 0; i < 4096; ++i) out[k].push_back(pool[k][pick(rng)]);
    }
    return out;
  }();
  return sets[known ? 1 : 0];
}

// Runs `lookup` over the 4096 tags of one set, round and round.
template <typename Lookup>
void Lookups(benchmark::State& state, bool known, Lookup lookup) {
  const std::vector<uint32_t>& tags = Tags(known);
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(lookup(tags[i++ & 4095]));
}

void ComDescription(benchmark::State& state, bool known) {
  const TagMapper* dict = TagMapper::Instance();
  Lookups(state, known,
          [dict](uint32_t t) { return dict->FindDescription(t); });
}

void ComVR(benchmark::State& state, bool known) {
  const TagMapper* dict = TagMapper::Instance();
  Lookups(state, known, [dict](uint32_t t) { return dict->FindVR(t); });
}

void DcmtkDescription(benchmark::State& state, bool known) {
  Lookups(state, known, [](uint32_t t) {
    return DcmtkLookup(t, [](const DcmDictEntry* e) {
      return e != nullptr ? e->getTagName() : nullptr;
    });
  });
}

void DcmtkVR(benchmark::State& state, bool known) {
  Lookups(state, known, [](uint32_t t) {
    return DcmtkLookup(t, [](const DcmDictEntry* e) {
      return e != nullptr ? e->getEVR() : EVR_UNKNOWN;
    });
  });
}

// A fresh dictionary from the compiled-in table (ours) or from the
// dictionary DCMTK loads by default (its built-in one or dicom.dic).
void ComBuild(benchmark::State& state) {
  size_t entries = 0;
  for (auto _ : state) {
    FreshMapper* m = new FreshMapper;
    entries = m->GetTags().current_size();
    benchmark::DoNotOptimize(m);
    state.PauseTiming();
    delete m;
    state.ResumeTiming();
  }
  state.counters["entries"] = static_cast<double>(entries);
}

void DcmtkBuild(benchmark::State& state) {
  int entries = 0;
  for (auto _ : state) {
    DcmDataDictionary* d = new DcmDataDictionary(OFTrue, OFTrue);
    entries = d->numberOfEntries();
    benchmark::DoNotOptimize(d);
    state.PauseTiming();
    delete d;
    state.ResumeTiming();
  }
  state.counters["entries"] = entries;
}

const bool kRegistered = [] {
  for (bool known : {true, false}) {
    const char* arg = known ? "known" : "unknown";
    benchmark::RegisterBenchmark(
        (std::string("FindDescription/com/") + arg).c_str(), ComDescription,
        known);
    benchmark::RegisterBenchmark(
        (std::string("FindDescription/dcmtk/") + arg).c_str(), DcmtkDescription,
        known);
    benchmark::RegisterBenchmark((std::string("FindVR/com/") + arg).c_str(),
                                 ComVR, known);
    benchmark::RegisterBenchmark((std::string("FindVR/dcmtk/") + arg).c_str(),
                                 DcmtkVR, known);
  }
  benchmark::RegisterBenchmark("Build/com/fresh", ComBuild)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("Build/dcmtk/fresh", DcmtkBuild)
      ->Unit(benchmark::kMicrosecond);
  return true;
}();

}  // namespace

BENCHMARK_MAIN();
