// The compiler IDNA-encodes every domain and every block filter: the
// plain-ASCII case must cost about a copy of the text. The long-label cases
// show that Punycode stays n log n where the textbook coder is quadratic.

#include <benchmark/benchmark.h>

#include <string>

#include "utilities/PunycodeAdditions.h"

namespace {

using namespace stonewall::PunycodeAdditions;

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
    for (auto _ : state) benchmark::DoNotOptimize(IDNAEncodedString(kASCIIDomain));
}
BENCHMARK(IDNAEncodeASCII);

void IDNAEncodeUnicode(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(IDNAEncodedString(kUnicodeDomain));
}
BENCHMARK(IDNAEncodeUnicode);

void IDNADecode(benchmark::State& state) {
    const std::string encoded = IDNAEncodedString(kUnicodeDomain);
    for (auto _ : state) benchmark::DoNotOptimize(IDNADecodedString(encoded));
}
BENCHMARK(IDNADecode);

void HostFromURL(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(hostFromURL("https://news.example.org/articles/1?x=2"));
}
BENCHMARK(HostFromURL);

void EscapeData(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(escapeData(kASCIIDomain));
}
BENCHMARK(EscapeData);

// One label of state.range(0) distinct ideographs: every code point is its
// own pass of the encoder and its own insertion in the decoder.
std::string distinctIdeographs(int64_t count) {
    std::string text;
    for (int64_t i = 0; i < count; ++i) {
        const auto c = static_cast<char32_t>(0x4E00 + i);
        text += static_cast<char>(0xE0 | (c >> 12));
        text += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        text += static_cast<char>(0x80 | (c & 0x3F));
    }
    return text;
}

void PunycodeEncodeLongLabel(benchmark::State& state) {
    const std::string label = distinctIdeographs(state.range(0));
    for (auto _ : state) benchmark::DoNotOptimize(punycodeEncodedString(label));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(PunycodeEncodeLongLabel)
    ->RangeMultiplier(4)
    ->Range(256, 16384)
    ->Complexity(benchmark::oNLogN);

void PunycodeDecodeLongLabel(benchmark::State& state) {
    // Descending order: the decoder inserts every code point at the front.
    std::string label = distinctIdeographs(state.range(0));
    std::u32string points = longCharactersWithCount(label);
    std::u32string reversed(points.rbegin(), points.rend());
    std::string text;
    for (char32_t c : reversed) {
        text += static_cast<char>(0xE0 | (c >> 12));
        text += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        text += static_cast<char>(0x80 | (c & 0x3F));
    }
    const std::string encoded = *punycodeEncodedString(text);
    for (auto _ : state) benchmark::DoNotOptimize(punycodeDecodedString(encoded));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(PunycodeDecodeLongLabel)
    ->RangeMultiplier(4)
    ->Range(256, 16384)
    ->Complexity(benchmark::oNLogN);

}  // namespace

BENCHMARK_MAIN();
