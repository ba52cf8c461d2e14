#pragma once
// A generated download with its script written to a folder of its own and a
// handler loaded from it, after one download that wrote the document; the
// folder goes with it. The benchmarks' common fixture.

#include "generator/DownloadGenerator.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <boost/filesystem/operations.hpp>

#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

namespace lkdh::bench {

struct GeneratedHandler {
  std::unique_ptr<GeneratedDownload> download;
  boost::filesystem::path dir;
  boost::filesystem::path document;
  boost::filesystem::path script;
  std::unique_ptr<Korvex::LuaKnxDownloadHandler> handler;

  /// The handler reads its limits from the environment as it is made here.
  explicit GeneratedHandler(const DownloadShape& shape) : download(GenerateDownload(shape)) {
    dir = boost::filesystem::temp_directory_path() /
          boost::filesystem::unique_path("lkdh-bench-%%%%-%%%%");
    boost::filesystem::create_directories(dir);
    script = dir / "device.lua";
    std::ofstream(script.string()) << download->script;
    document = dir / "etsproject.xml";
    handler =
        std::make_unique<Korvex::LuaKnxDownloadHandler>(document.string() + ";" + script.string());
    if (!handler->Loaded()) throw std::runtime_error("generated script did not load");
    if (!Download()) throw std::runtime_error("generated download wrote no document");
  }
  GeneratedHandler(const GeneratedHandler&) = delete;
  GeneratedHandler& operator=(const GeneratedHandler&) = delete;
  ~GeneratedHandler() {
    handler.reset();
    boost::system::error_code ignored;
    boost::filesystem::remove_all(dir, ignored);
  }

  /// One download of the generated data; whether it wrote the document.
  bool Download() {
    return handler->CreateFileWithKnxData(
        download->objects, download->memory, [] {}, Korvex::IKnxDownloadHandler::AppData_None,
        download->descriptors);
  }
};

}  // namespace lkdh::bench
