// Minting a UID: com's UIDGenerator against DCMTK's
// dcmGenerateUniqueIdentifier and GDCM's gdcm::UIDGenerator, each writing
// into a buffer or string that the caller keeps, single-threaded and on two
// threads at once.
#include <cstdio>
#include <cstdlib>
#include <dcmtk/dcmdata/dcuid.h>
#include <gdcmUIDGenerator.h>

#include <benchmark/benchmark.h>

#include "common/base/uidgenerator.h"

namespace {

// Short enough that UIDs of every generator stay within 64 characters.
const char kRoot[] = "1.2.826.0.1";

void ComGenerate(benchmark::State& state) {
  ACE_CString uid;
  for (auto _ : state) {
    UIDGenerator::GenerateUID(uid);
    benchmark::DoNotOptimize(uid.c_str());
  }
}

void ComGenerateNew(benchmark::State& state) {
  for (auto _ : state) {
    ACE_CString uid = UIDGenerator::GenerateUID();
    benchmark::DoNotOptimize(uid.c_str());
  }
}

void DcmtkGenerate(benchmark::State& state) {
  char uid[100];
  for (auto _ : state) {
    dcmGenerateUniqueIdentifier(uid, kRoot);
    benchmark::DoNotOptimize(uid);
  }
}

void GdcmGenerate(benchmark::State& state) {
  gdcm::UIDGenerator generator;
  for (auto _ : state) {
    const char* uid = generator.Generate();
    benchmark::DoNotOptimize(uid);
  }
}

void Register(const char* name, void (*fn)(benchmark::State&)) {
  benchmark::RegisterBenchmark(name, fn)->UseRealTime();
  benchmark::RegisterBenchmark(name, fn)->Threads(2)->UseRealTime();
}

}  // namespace

int main(int argc, char** argv) {
  if (!UIDGenerator::InitializeMAC(kRoot) &&
      !UIDGenerator::InitializeAlternate(1, 2, kRoot)) {
    std::fprintf(stderr, "cannot initialise the UID generator\n");
    return 1;
  }
  gdcm::UIDGenerator::SetRoot(kRoot);
  // Names are "<case>/<impl>"; Google Benchmark appends "/real_time" and,
  // for the threaded runs, "/threads:2".
  Register("GenerateUID/com", ComGenerate);
  Register("GenerateUID/dcmtk", DcmtkGenerate);
  Register("GenerateUID/gdcm", GdcmGenerate);
  Register("GenerateUIDValue/com", ComGenerateNew);
  Register("GenerateUIDValue/dcmtk", DcmtkGenerate);
  Register("GenerateUIDValue/gdcm", GdcmGenerate);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
