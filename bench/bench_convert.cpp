// Block conversions float <-> 16-bit, n = 4096, elements per second.
//
// Peer in the same run: the plain scalar loop an application would write for
// the same job (multiply, clamp, truncating cast; int16 -> float multiply).
// The library runs with its best instruction set and, for comparison, capped
// at SSE2 and at the portable long double code. Ratios are printed at the end
// as "<library>/<peer>" items-per-second quotients.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "frame/convert.h"
#include "xkl.h"

namespace {

constexpr int kN = 4096;

std::vector<float> floatData() {
  std::mt19937 gen(7);
  std::uniform_real_distribution<float> d(-1000.0f, 1000.0f);
  std::vector<float> v(kN);
  for (auto &x : v) x = d(gen);
  return v;
}

std::vector<short> shortData() {
  std::mt19937 gen(8);
  std::uniform_int_distribution<int> d(-32768, 32767);
  std::vector<short> v(kN);
  for (auto &x : v) x = static_cast<short>(d(gen));
  return v;
}

// Scale used with each mode: mode 1 brings +-1000 to about +-32000.
int scaleFor(int mode) { return mode == XK_FIXED_SCALE ? -5 : 0; }

void runDown(benchmark::State &state, xk::ConvertIsa isa) {
  int mode = static_cast<int>(state.range(0));
  if (static_cast<int>(isa) > static_cast<int>(xk::convertIsaAvailable())) {
    state.SkipWithError("instruction set not available");
    return;
  }
  xk::ConvertIsa prev = xk::setConvertIsa(isa);
  auto src = floatData();
  std::vector<short> dst(kN);
  for (auto _ : state) {
    int scale = scaleFor(mode);
    benchmark::DoNotOptimize(XKswbConvertDown(src.data(), dst.data(), kN, mode, &scale));
    benchmark::ClobberMemory();
  }
  xk::setConvertIsa(prev);
  state.SetItemsProcessed(state.iterations() * kN);
}

void BM_swbConvertDown(benchmark::State &state) { runDown(state, xk::ConvertIsa::Avx2); }
void BM_swbConvertDown_Sse2(benchmark::State &state) { runDown(state, xk::ConvertIsa::Sse2); }
void BM_swbConvertDown_Portable(benchmark::State &state) {
  runDown(state, xk::ConvertIsa::Portable);
}

// Peer: multiply by the scale's power of two, clamp, truncating cast.
void BM_PlainLoop_FloatTo16(benchmark::State &state) {
  int mode = static_cast<int>(state.range(0));
  auto src = floatData();
  std::vector<short> dst(kN);
  for (auto _ : state) {
    float m = static_cast<float>(XKPower2(-scaleFor(mode)));
    for (int i = 0; i < kN; ++i) {
      float v = src[i] * m;
      v = v < -32768.0f ? -32768.0f : (v > 32767.0f ? 32767.0f : v);
      dst[i] = static_cast<short>(v);
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kN);
}

void runUp(benchmark::State &state, xk::ConvertIsa isa) {
  int u = static_cast<int>(state.range(0));
  if (static_cast<int>(isa) > static_cast<int>(xk::convertIsaAvailable())) {
    state.SkipWithError("instruction set not available");
    return;
  }
  xk::ConvertIsa prev = xk::setConvertIsa(isa);
  auto src = shortData();
  std::vector<float> dst(kN);
  for (auto _ : state) {
    XKwsbConvertUp(src.data(), dst.data(), kN, u);
    benchmark::ClobberMemory();
  }
  xk::setConvertIsa(prev);
  state.SetItemsProcessed(state.iterations() * kN);
}

void BM_wsbConvertUp(benchmark::State &state) { runUp(state, xk::ConvertIsa::Avx2); }
void BM_wsbConvertUp_Sse2(benchmark::State &state) { runUp(state, xk::ConvertIsa::Sse2); }
void BM_wsbConvertUp_Portable(benchmark::State &state) { runUp(state, xk::ConvertIsa::Portable); }

void BM_PlainLoop_16ToFloat(benchmark::State &state) {
  int u = static_cast<int>(state.range(0));
  auto src = shortData();
  std::vector<float> dst(kN);
  for (auto _ : state) {
    float m = static_cast<float>(XKPower2(-u));
    for (int i = 0; i < kN; ++i) dst[i] = static_cast<float>(src[i]) * m;
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kN);
}

BENCHMARK(BM_swbConvertDown)->ArgName("mode")->DenseRange(0, 3);
BENCHMARK(BM_swbConvertDown_Sse2)->ArgName("mode")->DenseRange(0, 3);
BENCHMARK(BM_swbConvertDown_Portable)->ArgName("mode")->DenseRange(0, 3);
BENCHMARK(BM_PlainLoop_FloatTo16)->ArgName("mode")->DenseRange(0, 3);
BENCHMARK(BM_wsbConvertUp)->ArgName("u")->Arg(0)->Arg(5);
BENCHMARK(BM_wsbConvertUp_Sse2)->ArgName("u")->Arg(0)->Arg(5);
BENCHMARK(BM_wsbConvertUp_Portable)->ArgName("u")->Arg(0)->Arg(5);
BENCHMARK(BM_PlainLoop_16ToFloat)->ArgName("u")->Arg(0)->Arg(5);

// Collects items/s per run name so the ratios to the peer can be printed.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const auto &r : runs) {
      auto it = r.counters.find("items_per_second");
      if (it != r.counters.end() && !r.error_occurred) rate_[r.benchmark_name()] = it->second;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nratio to the plain scalar loop (items/s quotient):\n");
    for (const auto &[name, rate] : rate_) {
      std::string peer;
      std::string arg = name.substr(name.find('/'));
      if (name.rfind("BM_swbConvertDown", 0) == 0) peer = "BM_PlainLoop_FloatTo16" + arg;
      if (name.rfind("BM_wsbConvertUp", 0) == 0) peer = "BM_PlainLoop_16ToFloat" + arg;
      auto p = rate_.find(peer);
      if (peer.empty() || p == rate_.end()) continue;
      std::printf("  %-34s %6.2f G/s  %6.2fx\n", name.c_str(), rate / 1e9, rate / p->second);
    }
  }

 private:
  std::map<std::string, double> rate_;
};

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
