// What the execution budget costs a download: the same unchanged download
// (build, hash, compare, no write) with no budget, with the default budget as
// downloads run it (calls watched by the CPU-time tick), and with the default
// budget counted at every instruction (the tick's signal blocked on the
// thread, as a host that blocks it would have it). docs/description-scripts.md
// quotes the CPU times.
//
//   lkdh_budget_benchmark --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true
#include "GeneratedHandler.h"

#include <ovslua/Lua.h>

#include <benchmark/benchmark.h>
#include <log4cplus/logger.h>

#include <pthread.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <memory>
#include <tuple>

namespace {

enum Budget : int { kNone = 0, kWatched = 1, kEveryInstruction = 2 };

lkdh::bench::GeneratedHandler& FixtureFor(unsigned f, unsigned n, unsigned p, bool budget) {
  static std::map<std::tuple<unsigned, unsigned, unsigned, bool>,
                  std::unique_ptr<lkdh::bench::GeneratedHandler>>
      all;
  auto& slot = all[{f, n, p, budget}];
  if (!slot) {
    lkdh::bench::DownloadShape shape;
    shape.folders = f;
    shape.functionsPerFolder = n;
    shape.parametersPerFunction = p;
    // The limits are read when the handler is made.
    if (budget) {
      ::unsetenv("LKDH_SCRIPT_MAX_INSTRUCTIONS");
    } else {
      ::setenv("LKDH_SCRIPT_MAX_INSTRUCTIONS", "0", 1);
    }
    slot = std::make_unique<lkdh::bench::GeneratedHandler>(shape);
    ::unsetenv("LKDH_SCRIPT_MAX_INSTRUCTIONS");
  }
  return *slot;
}

// Blocks the tick's signal on this thread while it lives, so that every
// instruction is counted.
class SignalBlocked {
 public:
  explicit SignalBlocked(bool block) : m_block(block) {
    if (!m_block) return;
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, ovslua::Lua::WatchedCallsSignal());
    pthread_sigmask(SIG_BLOCK, &only, &m_before);
  }
  ~SignalBlocked() {
    if (m_block) pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
  }
  SignalBlocked(const SignalBlocked&) = delete;
  SignalBlocked& operator=(const SignalBlocked&) = delete;

 private:
  bool m_block;
  sigset_t m_before{};
};

void BM_UnchangedDownload(benchmark::State& state) {
  const auto budget = static_cast<Budget>(state.range(3));
  auto& fixture =
      FixtureFor(static_cast<unsigned>(state.range(0)), static_cast<unsigned>(state.range(1)),
                 static_cast<unsigned>(state.range(2)), budget != kNone);
  const SignalBlocked blocked(budget == kEveryInstruction);
  for (auto _ : state) {
    if (fixture.Download()) state.SkipWithError("unchanged download was written");
  }
}

void Sizes(benchmark::internal::Benchmark* b) {
  b->ArgNames({"F", "N", "P", "budget"});
  for (const int budget : {kNone, kWatched, kEveryInstruction}) {
    b->Args({50, 50, 16, budget});
    b->Args({255, 255, 4, budget});
  }
  b->Unit(benchmark::kMillisecond);
  b->MinTime(1.0);
}

BENCHMARK(BM_UnchangedDownload)->Apply(Sizes);

}  // namespace

int main(int argc, char** argv) {
  log4cplus::Logger::getInstance("KnxDownloadHandler").setLogLevel(log4cplus::ERROR_LOG_LEVEL);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
