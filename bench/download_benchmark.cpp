// Costs of a whole download against the floor: the same element tree built
// with pugixml from ready strings and saved.
#include "generator/DownloadGenerator.h"

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

namespace fs = boost::filesystem;

namespace {

using lkdh::bench::DownloadShape;
using lkdh::bench::GeneratedDownload;

struct Fixture {
  std::unique_ptr<GeneratedDownload> download;
  fs::path dir;
  fs::path document;
  std::unique_ptr<Korvex::LuaKnxDownloadHandler> handler;
  std::string text;  // the document a download produces
};

Fixture& FixtureFor(unsigned f, unsigned n, unsigned p) {
  static std::map<std::tuple<unsigned, unsigned, unsigned>, std::unique_ptr<Fixture>> fixtures;
  auto& slot = fixtures[{f, n, p}];
  if (!slot) {
    slot = std::make_unique<Fixture>();
    DownloadShape shape;
    shape.folders = f;
    shape.functionsPerFolder = n;
    shape.parametersPerFunction = p;
    slot->download = lkdh::bench::GenerateDownload(shape);
    slot->dir = fs::temp_directory_path() / fs::unique_path("lkdh-bench-%%%%-%%%%");
    fs::create_directories(slot->dir);
    const fs::path script = slot->dir / "device.lua";
    std::ofstream(script.string()) << slot->download->script;
    slot->document = slot->dir / "etsproject.xml";
    slot->handler = std::make_unique<Korvex::LuaKnxDownloadHandler>(slot->document.string() + ";" +
                                                                    script.string());
    if (!slot->handler->Loaded()) throw std::runtime_error("generated script did not load");
    auto& d = *slot->download;
    if (!slot->handler->CreateFileWithKnxData(
            d.objects, d.memory, [] {}, Korvex::IKnxDownloadHandler::AppData_None, d.descriptors)) {
      throw std::runtime_error("generated download wrote no document");
    }
    std::ifstream in(slot->document.string(), std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    slot->text = content.str();
  }
  return *slot;
}

void Counters(benchmark::State& state, const Fixture& fixture) {
  const auto slots = static_cast<double>(fixture.download->shape.folders *
                                         fixture.download->shape.functionsPerFolder);
  state.counters["slots"] = slots;
  state.counters["document_bytes"] = static_cast<double>(fixture.text.size());
  state.counters["per_slot"] = benchmark::Counter(
      slots, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
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

void CopyTree(const pugi::xml_node& from, pugi::xml_node to) {
  for (const auto& child : from.children()) {
    pugi::xml_node copy = to.append_child(child.type());
    if (child.type() == pugi::node_element || child.type() == pugi::node_declaration) {
      copy.set_name(child.name());
    }
    for (const auto& attribute : child.attributes()) {
      copy.append_attribute(attribute.name()).set_value(attribute.value());
    }
    CopyTree(child, copy);
  }
}

// The floor: the same tree from strings already at hand, saved to text.
void BM_Floor(benchmark::State& state) {
  auto& fixture = FixtureFor(state.range(0), state.range(1), state.range(2));
  pugi::xml_document parsed;
  parsed.load_string(fixture.text.c_str(), pugi::parse_default | pugi::parse_declaration);
  for (auto _ : state) {
    pugi::xml_document document;
    CopyTree(parsed, document);
    std::ostringstream out;
    document.save(out, "  ", pugi::format_indent, pugi::encoding_utf8);
    benchmark::DoNotOptimize(out.str().size());
  }
  Counters(state, fixture);
}

// F folders x N functions x P parameters: typical, large, max, and the
// scaling curve between them at 8 parameters.
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
}

BENCHMARK(BM_FullNewFile)->Apply(Sizes);
BENCHMARK(BM_Unchanged)->Apply(Sizes);
BENCHMARK(BM_Floor)->Apply(Sizes);

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
