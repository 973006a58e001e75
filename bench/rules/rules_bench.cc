// Time to read and compile the built-in rule document and to load the public suffix list: what
// the first scan of a process pays once. Target: both together under 50 ms.

#include <benchmark/benchmark.h>

#include "Core/AppFileRule.h"
#include "Core/PublicSuffixList.h"
#include "Core/RuleManager.h"
#include "platform/Locations.h"
#include "resources/Resources.h"

namespace {

void BM_LoadRuleDocument(benchmark::State& state) {
  auto locations = platform::Locations::fromEnvironment();
  for (auto _ : state) {
    benchmark::DoNotOptimize(Core::RuleManager::load(resources::ruleDocument(), locations));
  }
}

void BM_CompileMatcherForest(benchmark::State& state) {
  auto manager =
      Core::RuleManager::load(resources::ruleDocument(), platform::Locations::fromEnvironment());
  for (auto _ : state) benchmark::DoNotOptimize(Core::AppFileRule(true, *manager));
}

void BM_LoadPublicSuffixList(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(Core::PublicSuffixList::load(resources::publicSuffixList()));
  }
}

// What a first use costs in all: the rules read and compiled, and the suffix list loaded.
void BM_AllTogether(benchmark::State& state) {
  auto locations = platform::Locations::fromEnvironment();
  for (auto _ : state) {
    auto manager = Core::RuleManager::load(resources::ruleDocument(), locations);
    Core::AppFileRule forest(true, *manager);
    benchmark::DoNotOptimize(forest);
    benchmark::DoNotOptimize(Core::PublicSuffixList::load(resources::publicSuffixList()));
  }
}

BENCHMARK(BM_LoadRuleDocument)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CompileMatcherForest)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadPublicSuffixList)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AllTogether)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
