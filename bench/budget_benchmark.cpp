// What the execution budget costs a download: the same unchanged download
// (build, hash, compare, no write) with no budget, with the default budget as
// downloads run it (calls watched by the CPU-time tick), and with the default
// budget counted at every instruction (the tick's signal blocked on the
// thread, as a host that blocks it would have it). docs/description-scripts.md
// quotes the CPU times.
//
//   lkdh_budget_benchmark --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true
#include "generator/DownloadGenerator.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <benchmark/benchmark.h>
#include <log4cplus/logger.h>
#include <boost/filesystem/operations.hpp>

#include <pthread.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>

namespace fs = boost::filesystem;

namespace {

enum Budget : int { kNone = 0, kWatched = 1, kEveryInstruction = 2 };

struct Fixture {
  std::unique_ptr<lkdh::bench::GeneratedDownload> download;
  fs::path dir;
  std::unique_ptr<Korvex::LuaKnxDownloadHandler> handler;

  Fixture() = default;
  Fixture(const Fixture&) = delete;
  Fixture& operator=(const Fixture&) = delete;
  ~Fixture() {
    handler.reset();
    boost::system::error_code ignored;
    fs::remove_all(dir, ignored);
  }
};

bool Download(Fixture& fixture) {
  auto& d = *fixture.download;
  return fixture.handler->CreateFileWithKnxData(
      d.objects, d.memory, [] {}, Korvex::IKnxDownloadHandler::AppData_None, d.descriptors);
}

Fixture& FixtureFor(unsigned f, unsigned n, unsigned p, bool budget) {
  static std::map<std::tuple<unsigned, unsigned, unsigned, bool>, std::unique_ptr<Fixture>> all;
  auto& slot = all[{f, n, p, budget}];
  if (!slot) {
    slot = std::make_unique<Fixture>();
    lkdh::bench::DownloadShape shape;
    shape.folders = f;
    shape.functionsPerFolder = n;
    shape.parametersPerFunction = p;
    slot->download = lkdh::bench::GenerateDownload(shape);
    slot->dir = fs::temp_directory_path() / fs::unique_path("lkdh-budget-%%%%-%%%%");
    fs::create_directories(slot->dir);
    const fs::path script = slot->dir / "device.lua";
    std::ofstream(script.string()) << slot->download->script;
    // The limits are read when a handler is created.
    if (budget) {
      ::unsetenv("LKDH_SCRIPT_MAX_INSTRUCTIONS");
    } else {
      ::setenv("LKDH_SCRIPT_MAX_INSTRUCTIONS", "0", 1);
    }
    slot->handler = std::make_unique<Korvex::LuaKnxDownloadHandler>(
        (slot->dir / "etsproject.xml").string() + ";" + script.string());
    ::unsetenv("LKDH_SCRIPT_MAX_INSTRUCTIONS");
    if (!slot->handler->Loaded()) throw std::runtime_error("generated script did not load");
    if (!Download(*slot)) throw std::runtime_error("generated download wrote no document");
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
    if (Download(fixture)) state.SkipWithError("unchanged download was written");
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
