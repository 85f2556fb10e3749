// The compiler IDNA-encodes every domain and every block filter: the
// plain-ASCII case must cost about a copy of the text.

#include <benchmark/benchmark.h>

#include <string>

#include "utilities/PunycodeAdditions.h"

namespace {

const std::string kASCIIDomain = "static.ads-cdn.example-tracker.com";
const std::string kUnicodeDomain = "static.bücher-händler.example.de";

void CopyString(benchmark::State& state) {
    for (auto _ : state) {
        std::string copy(kASCIIDomain);
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(CopyString);

void IDNAEncodeASCII(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(stonewall::PunycodeAdditions::IDNAEncodedString(kASCIIDomain));
}
BENCHMARK(IDNAEncodeASCII);

void IDNAEncodeUnicode(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(stonewall::PunycodeAdditions::IDNAEncodedString(kUnicodeDomain));
}
BENCHMARK(IDNAEncodeUnicode);

void HostFromURL(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            stonewall::PunycodeAdditions::hostFromURL("https://news.example.org/articles/1?x=2"));
    }
}
BENCHMARK(HostFromURL);

}  // namespace

BENCHMARK_MAIN();
