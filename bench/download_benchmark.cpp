// Costs of a whole download against the floor: the same element tree built
// with pugixml from ready strings, serialised and saved to its file with the
// same durable write the plug-in uses (BM_Floor), or only serialised into
// memory (BM_FloorInMemory); and the script's own share, its calls made again
// without the handler (BM_ScriptOnly). scripts/bench-report.sh runs these and turns the
// JSON into docs/performance.md.
#include "CopyTree.h"
#include "GeneratedHandler.h"
#include "ScriptCalls.h"
#include "generator/DownloadGenerator.h"

#include <Helper/File.h>
#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <benchmark/benchmark.h>
#include <log4cplus/logger.h>
#include <boost/filesystem/operations.hpp>
#include <pugixml.hpp>

#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>

namespace fs = boost::filesystem;

namespace {

using lkdh::bench::DownloadShape;
using lkdh::bench::GeneratedDownload;

// The generated handler and the document its first download wrote.
struct Fixture : lkdh::bench::GeneratedHandler {
  using GeneratedHandler::GeneratedHandler;
  std::string text;
};

Fixture& FixtureFor(unsigned f, unsigned n, unsigned p) {
  static std::map<std::tuple<unsigned, unsigned, unsigned>, std::unique_ptr<Fixture>> fixtures;
  auto& slot = fixtures[{f, n, p}];
  if (!slot) {
    DownloadShape shape;
    shape.folders = f;
    shape.functionsPerFolder = n;
    shape.parametersPerFunction = p;
    slot = std::make_unique<Fixture>(shape);
    std::ifstream in(slot->document.string(), std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    slot->text = content.str();
  }
  return *slot;
}

// Per-slot figures are left to the report, which has both real and CPU time.
void Counters(benchmark::State& state, const Fixture& fixture) {
  state.counters["slots"] = static_cast<double>(fixture.download->shape.folders *
                                                fixture.download->shape.functionsPerFolder);
  state.counters["document_bytes"] = static_cast<double>(fixture.text.size());
}

// A whole download that writes a new file.
void BM_FullNewFile(benchmark::State& state) {
  auto& fixture = FixtureFor(state.range(0), state.range(1), state.range(2));
  auto& d = *fixture.download;
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove(fixture.document);
    state.ResumeTiming();
    const bool written = fixture.handler->CreateFileWithKnxData(
        d.objects, d.memory, [] {}, Korvex::IKnxDownloadHandler::AppData_None, d.descriptors);
    if (!written) state.SkipWithError("download wrote nothing");
  }
  Counters(state, fixture);
}

// The same download again: build, hash, compare, no write.
void BM_Unchanged(benchmark::State& state) {
  auto& fixture = FixtureFor(state.range(0), state.range(1), state.range(2));
  auto& d = *fixture.download;
  for (auto _ : state) {
    const bool written = fixture.handler->CreateFileWithKnxData(
        d.objects, d.memory, [] {}, Korvex::IKnxDownloadHandler::AppData_None, d.descriptors);
    if (written) state.SkipWithError("unchanged download was written");
  }
  Counters(state, fixture);
}

struct StringWriter final : pugi::xml_writer {
  std::string text;
  void write(const void* data, std::size_t size) override {
    text.append(static_cast<const char*>(data), size);
  }
};

// The same tree from strings already at hand, serialised to text.
std::string FloorText(const pugi::xml_document& parsed, std::size_t size) {
  pugi::xml_document document;
  lkdh::bench::CopyTree(parsed, document);
  StringWriter writer;
  writer.text.reserve(size);
  document.save(writer, "  ", pugi::format_indent, pugi::encoding_utf8);
  return std::move(writer.text);
}

pugi::xml_document Parsed(const Fixture& fixture) {
  pugi::xml_document parsed;
  if (!parsed.load_string(fixture.text.c_str(), pugi::parse_default | pugi::parse_declaration)) {
    throw std::runtime_error("the document does not parse");
  }
  if (FloorText(parsed, fixture.text.size()) != fixture.text) {
    throw std::runtime_error("the floor differs");
  }
  return parsed;
}

// The floor: the tree from ready strings, serialised and saved to a new file
// with the plug-in's own durable write (temporary, fsync, rename).
void BM_Floor(benchmark::State& state) {
  auto& fixture = FixtureFor(state.range(0), state.range(1), state.range(2));
  const pugi::xml_document parsed = Parsed(fixture);
  const fs::path file = fixture.dir / "floor.xml";
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove(file);
    state.ResumeTiming();
    const std::string text = FloorText(parsed, fixture.text.size());
    if (!Helper::File::write_file(file, text, Helper::File::WriteFileMode::Replace)) {
      state.SkipWithError("floor wrote nothing");
    }
  }
  Counters(state, fixture);
}

// The floor without the file: tree and text only.
void BM_FloorInMemory(benchmark::State& state) {
  auto& fixture = FixtureFor(state.range(0), state.range(1), state.range(2));
  const pugi::xml_document parsed = Parsed(fixture);
  for (auto _ : state) {
    benchmark::DoNotOptimize(FloorText(parsed, fixture.text.size()).size());
  }
  Counters(state, fixture);
}

// The script's calls of one download, made again with the same arguments on an
// interpreter of their own, the results discarded.
void BM_ScriptOnly(benchmark::State& state) {
  auto& fixture = FixtureFor(state.range(0), state.range(1), state.range(2));
  auto& d = *fixture.download;
  lkdh::bench::ScriptReplay replay(
      fixture.script, lkdh::bench::RecordScriptCalls(d.objects, d.memory, d.descriptors,
                                                     fixture.script, fixture.dir));
  for (auto _ : state) replay.Run();
  Counters(state, fixture);
}

// F folders x N functions x P parameters: typical, large, max, and the
// scaling curve between them at 8 parameters. Wall time decides the iteration
// count, since fsync waits are part of a download.
void Sizes(benchmark::internal::Benchmark* b) {
  b->ArgNames({"F", "N", "P"});
  b->Args({10, 16, 8});
  b->Args({50, 50, 16});
  b->Args({255, 255, 4});
  b->Args({2, 8, 8});
  b->Args({20, 20, 8});
  b->Args({40, 40, 8});
  b->Args({80, 80, 8});
  b->Args({160, 160, 8});
  b->Unit(benchmark::kMillisecond);
  b->MinTime(0.5);
  b->UseRealTime();
}

BENCHMARK(BM_FullNewFile)->Apply(Sizes);
BENCHMARK(BM_Unchanged)->Apply(Sizes);
BENCHMARK(BM_Floor)->Apply(Sizes);
BENCHMARK(BM_FloorInMemory)->Apply(Sizes);
BENCHMARK(BM_ScriptOnly)->Apply(Sizes);

}  // namespace

int main(int argc, char** argv) {
  // Only errors: the downloads log at DEBUG and INFO on every run.
  log4cplus::Logger::getInstance("KnxDownloadHandler").setLogLevel(log4cplus::ERROR_LOG_LEVEL);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
