// One generated download, run a few times through one handler: the driver for
// callgrind (instruction counts of CreateFileWithKnxData alone) and for the heap
// shim (the plug-in's own heap peak during one download).
//
//   lkdh_download_once F N P [--downloads K] [--warm-up W] [--mode new|unchanged]
//                            [--floor K] [--script-only K] [--dump DIR]
//
// --mode new removes the file before every download, so each one builds and
// writes; unchanged builds, hashes and compares. --dump DIR reads DIR/download.json
// and DIR/device.lua (as lkdh-generate-download writes them) through the host's
// dump parser instead of generating the download, and measures the parser too.
// --floor K then builds the floor K times: the same tree from ready strings,
// serialised and saved with the plug-in's own durable write. --script-only K
// records the script calls of one download and makes them again K times on an
// interpreter of its own (bench/ScriptCalls.h): the script's own share.
//
// Under callgrind with --collect-atstart=no only the measured calls count: the
// K downloads (CreateFileWithKnxData alone, not the warm-up), or with
// --downloads 0 the K floors and the K script replays. With LD_PRELOAD=liblkdh_heap_peak.so the
// heap figures are printed as well. The result is one JSON object on stdout.
#include "CopyTree.h"
#include "ScriptCalls.h"
#include "generator/DownloadGenerator.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <Helper/File.h>
#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>
#include <boost/filesystem/operations.hpp>
#include <pugixml.hpp>

#ifdef LKDH_WITH_DUMP_PARSER
#include <DownloadDump.h>
#endif

#include <dlfcn.h>
#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
// Cross builds: the sysroot has no valgrind headers.
#define CALLGRIND_TOGGLE_COLLECT \
  do {                           \
  } while (false)
#endif

#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

namespace fs = boost::filesystem;

/// The floor: the same element tree built from strings already at hand,
/// serialised and saved as the plug-in saves its file.
extern "C" bool lkdh_floor_once(const pugi::xml_document* parsed, std::size_t size,
                                const char* path);

namespace {

// Heap in use right after the floor built its tree (0 without the shim).
std::size_t (*g_heapCurrent)() = nullptr;
std::size_t g_floorTreeBytes = 0;

/// The shim's functions, or null when it is not preloaded.
struct Heap {
  std::size_t (*current)() = nullptr;
  std::size_t (*peak)() = nullptr;
  void (*resetPeak)() = nullptr;

  Heap() {
    current = reinterpret_cast<std::size_t (*)()>(::dlsym(RTLD_DEFAULT, "lkdh_heap_current"));
    peak = reinterpret_cast<std::size_t (*)()>(::dlsym(RTLD_DEFAULT, "lkdh_heap_peak"));
    resetPeak = reinterpret_cast<void (*)()>(::dlsym(RTLD_DEFAULT, "lkdh_heap_reset_peak"));
  }
  bool Present() const { return current != nullptr && peak != nullptr && resetPeak != nullptr; }
};

struct Options {
  unsigned folders = 0;
  unsigned functions = 0;
  unsigned parameters = 0;
  unsigned downloads = 3;
  unsigned warmUp = 1;
  unsigned floors = 0;
  unsigned scriptOnly = 0;
  bool newFile = true;
  std::string dump;
};

Options Parse(int argc, char** argv) {
  if (argc < 4) throw std::invalid_argument("expected F N P");
  Options options;
  options.folders = static_cast<unsigned>(std::stoul(argv[1]));
  options.functions = static_cast<unsigned>(std::stoul(argv[2]));
  options.parameters = static_cast<unsigned>(std::stoul(argv[3]));
  for (int i = 4; i < argc; ++i) {
    const std::string option = argv[i];
    if (i + 1 >= argc) throw std::invalid_argument(option + " needs a value");
    const std::string value = argv[++i];
    if (option == "--downloads") {
      options.downloads = static_cast<unsigned>(std::stoul(value));
    } else if (option == "--warm-up") {
      options.warmUp = static_cast<unsigned>(std::stoul(value));
    } else if (option == "--mode") {
      if (value != "new" && value != "unchanged") throw std::invalid_argument("mode " + value);
      options.newFile = value == "new";
    } else if (option == "--floor") {
      options.floors = static_cast<unsigned>(std::stoul(value));
    } else if (option == "--script-only") {
      options.scriptOnly = static_cast<unsigned>(std::stoul(value));
    } else if (option == "--dump") {
      options.dump = value;
    } else {
      throw std::invalid_argument("unknown option " + option);
    }
  }
  return options;
}

/// What one download hands the plug-in, however it was made.
struct Input {
  const Korvex::InterfaceObjectMap* objects = nullptr;
  const KnxStack::BinaryData* memory = nullptr;
  const Korvex::CoDescriptorDataMap* descriptors = nullptr;
  std::string script;
};

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

int Run(const Options& options) {
  log4cplus::Logger::getInstance("KnxDownloadHandler").setLogLevel(log4cplus::ERROR_LOG_LEVEL);
  const Heap heap;
  std::ostringstream json;
  json << "{\"F\": " << options.folders << ", \"N\": " << options.functions
       << ", \"P\": " << options.parameters
       << ", \"slots\": " << options.folders * options.functions
       << ", \"downloads\": " << options.downloads << ", \"mode\": \""
       << (options.newFile ? "new" : "unchanged") << "\"";

  Input input;
  std::unique_ptr<lkdh::bench::GeneratedDownload> generated;
#ifdef LKDH_WITH_DUMP_PARSER
  std::unique_ptr<lkdh::host::DownloadDump> parsed;
#endif
  if (options.dump.empty()) {
    lkdh::bench::DownloadShape shape;
    shape.folders = options.folders;
    shape.functionsPerFolder = options.functions;
    shape.parametersPerFunction = options.parameters;
    generated = lkdh::bench::GenerateDownload(shape);
    input = {&generated->objects, &generated->memory, &generated->descriptors, generated->script};
  } else {
#ifdef LKDH_WITH_DUMP_PARSER
    // The host's share: the JSON text and its parse tree at their peak, and the
    // KNX objects (platform library) that stay for the downloads.
    const std::size_t before = heap.Present() ? heap.current() : 0;
    if (heap.Present()) heap.resetPeak();
    parsed = std::make_unique<lkdh::host::DownloadDump>(
        lkdh::host::LoadDownloadDump(options.dump + "/download.json"));
    if (heap.Present()) {
      json << ", \"dump_parse_peak_bytes\": " << heap.peak() - before
           << ", \"knx_data_bytes\": " << heap.current() - before;
    }
    json << ", \"dump_json_bytes\": " << fs::file_size(options.dump + "/download.json");
    input = {&parsed->interfaceObjects, &parsed->memory, &parsed->coDescriptors,
             ReadText(options.dump + "/device.lua")};
#else
    throw std::invalid_argument("--dump needs the host's dump parser in this build");
#endif
  }

  const fs::path dir = fs::temp_directory_path() / fs::unique_path("lkdh-once-%%%%-%%%%");
  fs::create_directories(dir);
  const fs::path script = dir / "device.lua";
  std::ofstream(script.string()) << input.script;
  const fs::path document = dir / "etsproject.xml";
  int status = 0;
  {
    Korvex::LuaKnxDownloadHandler handler(document.string() + ";" + script.string());
    if (!handler.Loaded()) throw std::runtime_error("the script did not load");
    auto download = [&](bool measured) {
      if (options.newFile) fs::remove(document);
      if (measured) CALLGRIND_TOGGLE_COLLECT;
      const bool result = handler.CreateFileWithKnxData(
          *input.objects, *input.memory, [] {}, Korvex::IKnxDownloadHandler::AppData_None,
          *input.descriptors);
      if (measured) CALLGRIND_TOGGLE_COLLECT;
      return result;
    };
    // The first download writes the file that the unchanged mode compares with.
    fs::remove(document);
    for (unsigned i = 0; i < options.warmUp; ++i) download(false);
    if (!fs::exists(document)) throw std::runtime_error("the download wrote no document");

    std::size_t peak = 0;
    unsigned written = 0;
    for (unsigned i = 0; i < options.downloads; ++i) {
      std::size_t before = 0;
      if (heap.Present()) {
        before = heap.current();
        heap.resetPeak();
      }
      if (download(true)) ++written;
      if (heap.Present() && heap.peak() - before > peak) peak = heap.peak() - before;
    }
    const bool expected = written == (options.newFile ? options.downloads : 0U);
    if (!expected) status = 1;
    json << ", \"written\": " << written << ", \"document_bytes\": " << fs::file_size(document);
    if (heap.Present()) json << ", \"plugin_heap_peak_bytes\": " << peak;
  }
  if (options.floors > 0) {
    pugi::xml_document floorSource;
    const std::string text = ReadText(document.string());
    if (!floorSource.load_string(text.c_str(), pugi::parse_default | pugi::parse_declaration)) {
      throw std::runtime_error("the document does not parse");
    }
    const fs::path floorFile = dir / "floor.xml";
    g_heapCurrent = heap.current;
    std::size_t peak = 0;
    for (unsigned i = 0; i < options.floors; ++i) {
      std::size_t before = 0;
      if (heap.Present()) {
        before = heap.current();
        heap.resetPeak();
      }
      CALLGRIND_TOGGLE_COLLECT;
      const bool saved = lkdh_floor_once(&floorSource, text.size(), floorFile.c_str());
      CALLGRIND_TOGGLE_COLLECT;
      if (!saved) throw std::runtime_error("floor failed");
      if (heap.Present() && heap.peak() - before > peak) peak = heap.peak() - before;
    }
    if (ReadText(floorFile.string()) != text) throw std::runtime_error("the floor differs");
    json << ", \"floors\": " << options.floors;
    if (heap.Present()) {
      json << ", \"floor_heap_peak_bytes\": " << peak << ", \"tree_bytes\": " << g_floorTreeBytes;
    }
  }
  if (options.scriptOnly > 0) {
    lkdh::bench::ScriptReplay replay(
        script, lkdh::bench::RecordScriptCalls(*input.objects, *input.memory, *input.descriptors,
                                               script, dir));
    replay.Run();  // as the warm-up download before the measured ones
    for (unsigned i = 0; i < options.scriptOnly; ++i) {
      CALLGRIND_TOGGLE_COLLECT;
      replay.Run();
      CALLGRIND_TOGGLE_COLLECT;
    }
    json << ", \"script_replays\": " << options.scriptOnly;
  }
  fs::remove_all(dir);
  json << "}";
  std::cout << json.str() << std::endl;
  return status;
}

}  // namespace

extern "C" bool lkdh_floor_once(const pugi::xml_document* parsed, std::size_t size,
                                const char* path) {
  struct StringWriter final : pugi::xml_writer {
    std::string text;
    void write(const void* data, std::size_t size) override {
      text.append(static_cast<const char*>(data), size);
    }
  };
  pugi::xml_document document;
  const std::size_t before = g_heapCurrent != nullptr ? g_heapCurrent() : 0;
  lkdh::bench::CopyTree(*parsed, document);
  if (g_heapCurrent != nullptr) g_floorTreeBytes = g_heapCurrent() - before;
  // The floor knows the size of its text: tree and text, nothing more.
  StringWriter writer;
  writer.text.reserve(size);
  document.save(writer, "  ", pugi::format_indent, pugi::encoding_utf8);
  return Helper::File::write_file(path, writer.text, Helper::File::WriteFileMode::Replace);
}

int main(int argc, char** argv) {
  try {
    return Run(Parse(argc, argv));
  } catch (const std::exception& e) {
    std::cerr << "lkdh_download_once: " << e.what() << "\n"
              << "usage: lkdh_download_once F N P [--downloads K] [--warm-up W] "
                 "[--mode new|unchanged] [--floor K] [--script-only K] [--dump DIR]\n";
    return 2;
  }
}
