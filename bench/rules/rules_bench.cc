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

// A generated document of N rules (60,000 is about the most that fits the 8 MiB a document may
// have), each with a cache folder under one shared folder and a
// support folder under another: compiling must stay near linear in the number of path strings,
// however many siblings a folder level gets.
void BM_CompileGeneratedRules(benchmark::State& state) {
  std::string document;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    std::string id = "org.example.app" + std::to_string(i);
    document += id + ": {caches: {cache: [Home/.cache/" + id + "]}, support: {support: [Lib/" + id +
                "]}}\n";
  }
  std::string error;
  auto manager = Core::RuleManager::load(document, platform::Locations::fromEnvironment(), &error);
  if (!manager) {
    state.SkipWithError(error.c_str());
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(Core::AppFileRule(true, *manager));
  state.SetComplexityN(state.range(0));
}

BENCHMARK(BM_LoadRuleDocument)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CompileGeneratedRules)
    ->Arg(10000)
    ->Arg(20000)
    ->Arg(40000)
    ->Arg(60000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity();
BENCHMARK(BM_CompileMatcherForest)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadPublicSuffixList)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AllTogether)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
