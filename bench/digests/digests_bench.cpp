// Our digests, CRC-32 and Base64 beside their usual peers, in one run so
// the ratios printed by scripts/bench-ratios.py compare like with like.
// Names are "<case>/<impl>/<bytes>"; impl "com" is ours.
#include <cstdint>
#include <openssl/evp.h>
#include <random>
#include <string>
#include <vector>

#include <zlib.h>

#include <benchmark/benchmark.h>

#include "common/base/base64coder.h"
#include "common/base/internal/crc32kernels.h"
#include "common/base/internal/md5kernels.h"
#include "common/base/internal/sha256kernels.h"

namespace {

const size_t kMiB = 1 << 20;

// Random bytes, enough for the largest case.
const unsigned char* Data() {
  static const std::vector<unsigned char> data = [] {
    std::mt19937 gen(42);
    std::vector<unsigned char> v(kMiB);
    for (auto& b : v) b = static_cast<unsigned char>(gen());
    return v;
  }();
  return data.data();
}

void SetBytes(benchmark::State& state, size_t n) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(n));
}

// OpenSSL with a context kept across calls: its fastest use.
void OpenSslDigest(benchmark::State& state, const EVP_MD* md, size_t n) {
  const unsigned char* p = Data();
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned len = 0;
  for (auto _ : state) {
    EVP_DigestInit_ex(ctx, md, nullptr);
    EVP_DigestUpdate(ctx, p, n);
    EVP_DigestFinal_ex(ctx, out, &len);
    benchmark::DoNotOptimize(out);
  }
  EVP_MD_CTX_free(ctx);
  SetBytes(state, n);
}

void Sha256Com(benchmark::State& state, size_t n) {
  const unsigned char* p = Data();
  unsigned char out[Kelvane::internal::kSha256DigestSize];
  for (auto _ : state) {
    Kelvane::internal::Sha256(p, n, out);
    benchmark::DoNotOptimize(out);
  }
  SetBytes(state, n);
}

void Md5Com(benchmark::State& state, size_t n) {
  const unsigned char* p = Data();
  Kelvane::internal::Md5Engine engine;
  unsigned char out[Kelvane::internal::kMd5DigestSize];
  for (auto _ : state) {
    engine.Digest(p, n, out);
    benchmark::DoNotOptimize(out);
  }
  SetBytes(state, n);
}

void Crc32Com(benchmark::State& state, size_t n) {
  const unsigned char* p = Data();
  for (auto _ : state) {
    benchmark::DoNotOptimize(Kelvane::internal::Crc32(0, p, n));
  }
  SetBytes(state, n);
}

void Crc32Zlib(benchmark::State& state, size_t n) {
  const unsigned char* p = Data();
  for (auto _ : state) {
    benchmark::DoNotOptimize(crc32(0L, p, static_cast<uInt>(n)));
  }
  SetBytes(state, n);
}

// Base64Coder's own interface: the encoding lands in an ACE_CString.
void Base64EncodeCom(benchmark::State& state, size_t n) {
  const unsigned char* p = Data();
  Base64Coder b64;
  ACE_CString out;
  for (auto _ : state) {
    b64.Encode(out, p, static_cast<unsigned>(n));
    benchmark::DoNotOptimize(out.c_str());
  }
  SetBytes(state, n);
}

void Base64EncodeOpenSsl(benchmark::State& state, size_t n) {
  const unsigned char* p = Data();
  std::vector<unsigned char> out(4 * ((n + 2) / 3) + 1);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        EVP_EncodeBlock(out.data(), p, static_cast<int>(n)));
  }
  SetBytes(state, n);
}

// The encoding of the first `n` bytes of Data().
std::string Encoded(size_t n) {
  std::string t(4 * ((n + 2) / 3) + 1, '\0');
  int len = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&t[0]), Data(),
                            static_cast<int>(n));
  t.resize(static_cast<size_t>(len));
  return t;
}

// Base64Coder::Decode allocates the result buffer on every call, as its
// interface requires; the peer writes into a buffer made once.
void Base64DecodeCom(benchmark::State& state, size_t n) {
  const std::string text = Encoded(n);
  Base64Coder b64;
  for (auto _ : state) {
    unsigned got = 0;
    Kelvane::auto_ptr<char, Kelvane::ArrayDelete<char>> buf =
        b64.Decode(text.data(), static_cast<unsigned>(text.size()), got);
    benchmark::DoNotOptimize(buf.get());
    if (got != n) state.SkipWithError("decoded length differs");
  }
  SetBytes(state, n);
}

void Base64DecodeOpenSsl(benchmark::State& state, size_t n) {
  const std::string text = Encoded(n);
  std::vector<unsigned char> out(text.size());
  for (auto _ : state) {
    benchmark::DoNotOptimize(EVP_DecodeBlock(
        out.data(), reinterpret_cast<const unsigned char*>(text.data()),
        static_cast<int>(text.size())));
  }
  SetBytes(state, n);
}

void Register() {
  for (size_t n : {size_t{64}, kMiB}) {
    std::string args = "/" + std::to_string(n);
    benchmark::RegisterBenchmark(("sha256/com" + args).c_str(), Sha256Com, n);
    benchmark::RegisterBenchmark(("sha256/openssl" + args).c_str(),
                                 OpenSslDigest, EVP_sha256(), n);
    benchmark::RegisterBenchmark(("md5/com" + args).c_str(), Md5Com, n);
    benchmark::RegisterBenchmark(("md5/openssl" + args).c_str(), OpenSslDigest,
                                 EVP_md5(), n);
  }
  std::string mib = "/" + std::to_string(kMiB);
  benchmark::RegisterBenchmark(("crc32/com" + mib).c_str(), Crc32Com, kMiB);
  benchmark::RegisterBenchmark(("crc32/zlib" + mib).c_str(), Crc32Zlib, kMiB);
  benchmark::RegisterBenchmark(("base64_encode/com" + mib).c_str(),
                               Base64EncodeCom, kMiB);
  benchmark::RegisterBenchmark(("base64_encode/openssl" + mib).c_str(),
                               Base64EncodeOpenSsl, kMiB);
  benchmark::RegisterBenchmark(("base64_decode/com" + mib).c_str(),
                               Base64DecodeCom, kMiB);
  benchmark::RegisterBenchmark(("base64_decode/openssl" + mib).c_str(),
                               Base64DecodeOpenSsl, kMiB);
}

}  // namespace

int main(int argc, char** argv) {
  Register();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
