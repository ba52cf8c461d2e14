// Every allocation of a whole download failing in turn: through operator new,
// through pugixml and in the Lua interpreter. A download may then end in one
// of two ways only: the right document written, true and the callback called
// once; or false, the saved file byte for byte as before, no callback, no
// temporary left and an ERROR line. After each fault, a download without
// faults on the same handler must succeed: the interpreter stays usable.

#include "AllocationFaults.h"

#include <DownloadDump.h>
#include <DownloadGenerator.h>
#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <TempDir.h>

#include <gtest/gtest.h>
#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/spi/loggingevent.h>
#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using Korvex::IKnxDownloadHandler;
using Korvex::LuaKnxDownloadHandler;
using lkdh::test::AllocationFaults;
using lkdh::test::AllocationKind;
using lkdh::test::ReadWholeFile;
using lkdh::test::TempDir;

const std::string kDemoScript = LKDH_SOURCE_DIR "/examples/demo/demo.lua";
const std::string kDemoDump = LKDH_SOURCE_DIR "/examples/demo/demo-download.json";
const std::string kDemoExpected = LKDH_SOURCE_DIR "/examples/demo/expected-etsproject.xml";
const char* const kHandlerLogger = "KnxDownloadHandler";
const std::string kPrevious = "<?xml version=\"1.0\"?>\n<etsproject version=\"0.9\" />\n";
// How many faulted downloads to report in detail before only counting.
constexpr int kReportedProblems = 10;

// Every stride-th fault position, and every follow-up-th one also gets a clean
// download after it. Builds under a sanitizer or an emulator are many times
// slower, so they sample; a native optimised build tries every position.
#if defined(LKDH_ALLOCATION_SWEEP_STRIDE)
constexpr std::uint64_t kStride = LKDH_ALLOCATION_SWEEP_STRIDE;
#else
constexpr std::uint64_t kStride = 1;
#endif
#if defined(LKDH_ALLOCATION_FOLLOW_UP_EVERY)
constexpr std::uint64_t kFollowUpEvery = LKDH_ALLOCATION_FOLLOW_UP_EVERY;
#else
constexpr std::uint64_t kFollowUpEvery = 1;
#endif
#if defined(LKDH_ALLOCATION_SAMPLE)
constexpr std::size_t kSample = LKDH_ALLOCATION_SAMPLE;
#else
constexpr std::size_t kSample = 2000;
#endif

struct RecordedLine {
  int level;
  std::string logger;
  std::string message;
};

// Records log lines with faults paused: the recorder is the test's instrument,
// not code under test. The plug-in's own logging calls still meet the faults.
class Recorder : public log4cplus::Appender {
 public:
  Recorder() { setName(LOG4CPLUS_TEXT("lkdh-allocation-faults")); }
  ~Recorder() override { destructorImpl(); }
  void close() override {}

  std::vector<RecordedLine> Take() {
    AllocationFaults::Pause pause;
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<RecordedLine> lines;
    lines.swap(m_lines);
    return lines;
  }

 protected:
  void append(const log4cplus::spi::InternalLoggingEvent& event) override {
    AllocationFaults::Pause pause;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back({event.getLogLevel(), event.getLoggerName(), event.getMessage()});
  }

 private:
  std::mutex m_mutex;
  std::vector<RecordedLine> m_lines;
};

// One download's data and script with the document it must produce.
struct Scenario {
  std::string name;
  fs::path script;
  const Korvex::InterfaceObjectMap* objects = nullptr;
  const KnxStack::BinaryData* memory = nullptr;
  const Korvex::CoDescriptorDataMap* descriptors = nullptr;
  std::string expected;
};

// How faulted downloads ended, for the figures.
struct Figures {
  std::uint64_t downloads = 0;
  std::uint64_t written = 0;         // right document, true, one callback
  std::uint64_t failedCleanly = 0;   // false, file as before, no callback, an ERROR line
  std::uint64_t failedSilently = 0;  // the same without the line, where memory stayed short
  std::uint64_t beyondTheEnd = 0;    // the download made fewer allocations than the position
  std::uint64_t wrong = 0;           // anything else
  std::uint64_t followUps = 0;
  std::uint64_t followUpsFailed = 0;
  std::uint64_t injected[3] = {};
  std::map<std::string, std::uint64_t> errorLines;  // the first ERROR line of each failure

  // The figures as test properties, for the reliability report.
  void Record(const std::string& key) const {
    using ::testing::Test;
    Test::RecordProperty(key + ".faulted", std::to_string(downloads));
    Test::RecordProperty(key + ".written", std::to_string(written));
    Test::RecordProperty(key + ".failed_cleanly", std::to_string(failedCleanly));
    Test::RecordProperty(key + ".failed_silently", std::to_string(failedSilently));
    Test::RecordProperty(key + ".wrong", std::to_string(wrong));
    Test::RecordProperty(key + ".follow_ups", std::to_string(followUps));
    Test::RecordProperty(key + ".follow_ups_failed", std::to_string(followUpsFailed));
    Test::RecordProperty(key + ".injected_new", std::to_string(injected[0]));
    Test::RecordProperty(key + ".injected_pugixml", std::to_string(injected[1]));
    Test::RecordProperty(key + ".injected_lua", std::to_string(injected[2]));
    std::string kinds;
    for (const auto& [line, count] : errorLines)
      kinds += std::to_string(count) + "\t" + line + "\n";
    Test::RecordProperty(key + ".error_lines", kinds);
  }

  void Print(const std::string& title) const {
    std::ostringstream out;
    out << title << ": " << downloads << " faulted downloads, " << written << " written, "
        << failedCleanly << " failed cleanly, " << failedSilently
        << " failed cleanly without a line, " << wrong << " wrong (" << beyondTheEnd
        << " positions past the end); " << followUps << " clean downloads after a fault, "
        << followUpsFailed << " of them failed; injected " << injected[0] << " operator new, "
        << injected[1] << " pugixml, " << injected[2] << " Lua\n";
    for (const auto& [line, count] : errorLines) out << "  " << count << " x " << line << '\n';
    std::cout << out.str() << std::flush;
  }
};

// The error line without what varies between runs: the path of the file.
std::string Kind(const std::string& message, const std::string& path) {
  std::string kind = message;
  for (auto at = kind.find(path); at != std::string::npos; at = kind.find(path)) {
    kind.replace(at, path.size(), "PATH");
  }
  return kind;
}

class AllocationFailureTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { AllocationFaults::Install(); }

  void SetUp() override {
    m_recorder = log4cplus::SharedAppenderPtr(new Recorder());
    for (const char* name : {kHandlerLogger, "ovslua"}) {
      auto logger = log4cplus::Logger::getInstance(name);
      logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
      logger.addAppender(m_recorder);
    }
  }

  void TearDown() override {
    for (const char* name : {kHandlerLogger, "ovslua"}) {
      auto logger = log4cplus::Logger::getInstance(name);
      logger.removeAppender(m_recorder);
      logger.setLogLevel(log4cplus::NOT_SET_LOG_LEVEL);
    }
  }

  Recorder& Lines() { return static_cast<Recorder&>(*m_recorder); }

  std::unique_ptr<LuaKnxDownloadHandler> MakeHandler(const Scenario& scenario) {
    auto handler =
        std::make_unique<LuaKnxDownloadHandler>(m_file.string() + ";" + scenario.script.string());
    EXPECT_TRUE(handler->Loaded());
    return handler;
  }

  bool Download(LuaKnxDownloadHandler& handler, const Scenario& scenario) {
    return handler.CreateFileWithKnxData(*scenario.objects, *scenario.memory, m_callback,
                                         IKnxDownloadHandler::AppData_None, *scenario.descriptors);
  }

  // The saved file before each download: another document, so that a download
  // that succeeds always writes; or none at all.
  void PrepareFile(bool withPrevious) {
    fs::remove(m_file);
    if (withPrevious) m_dir.WriteFile("project/" + m_file.filename().string(), kPrevious);
  }

  static fs::path MakeDirectory(const fs::path& path) {
    fs::create_directory(path);
    return path;
  }

  std::vector<std::string> DirectoryEntries() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(m_file.parent_path())) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // Fault-free downloads give the expected document; returns how many
  // allocations the second one on a handler makes (the first also sets up).
  std::uint64_t CheckCleanDownload(const Scenario& scenario, const std::string& key) {
    auto handler = MakeHandler(scenario);
    std::uint64_t counted = 0;
    for (int run = 0; run < 2; ++run) {
      PrepareFile(true);
      m_callbacks = 0;
      AllocationFaults::Arm(UINT64_MAX);
      const bool result = Download(*handler, scenario);
      counted = AllocationFaults::Disarm();
      EXPECT_TRUE(result);
      EXPECT_EQ(m_callbacks, 1);
      EXPECT_EQ(ReadWholeFile(m_file), scenario.expected);
    }
    std::cout << scenario.name << ": " << counted << " allocations in a download: "
              << AllocationFaults::Counted(AllocationKind::OperatorNew) << " operator new, "
              << AllocationFaults::Counted(AllocationKind::Pugixml) << " pugixml, "
              << AllocationFaults::Counted(AllocationKind::Lua) << " Lua\n";
    RecordProperty(key + ".allocations", std::to_string(counted));
    RecordProperty(key + ".allocations_new",
                   std::to_string(AllocationFaults::Counted(AllocationKind::OperatorNew)));
    RecordProperty(key + ".allocations_pugixml",
                   std::to_string(AllocationFaults::Counted(AllocationKind::Pugixml)));
    RecordProperty(key + ".allocations_lua",
                   std::to_string(AllocationFaults::Counted(AllocationKind::Lua)));
    RecordProperty(key + ".document_bytes", std::to_string(scenario.expected.size()));
    Lines().Take();
    return counted;
  }

  // One download with allocations first .. first + count - 1 failing. Returns
  // false once the download no longer reached the first of them.
  bool FaultedDownload(LuaKnxDownloadHandler& handler, const Scenario& scenario,
                       std::uint64_t first, std::uint64_t count, bool withPrevious, bool followUp,
                       Figures& figures, bool lineRequired = true) {
    PrepareFile(withPrevious);
    m_callbacks = 0;
    Lines().Take();
    AllocationFaults::Arm(first, count);
    bool result = false;
    std::string escaped;
    try {
      result = Download(handler, scenario);
    } catch (const std::exception& exception) {
      AllocationFaults::Disarm();
      escaped = exception.what();
    }
    AllocationFaults::Disarm();
    const std::uint64_t injected = AllocationFaults::Injected();
    for (int kind = 0; kind < 3; ++kind) {
      figures.injected[kind] += AllocationFaults::Injected(static_cast<AllocationKind>(kind));
    }
    const std::vector<RecordedLine> lines = Lines().Take();
    if (injected == 0) {
      // Past the download's last allocation: it must simply have succeeded.
      EXPECT_TRUE(result) << scenario.name << ": a download without a fault failed";
      ++figures.beyondTheEnd;
      return false;
    }
    ++figures.downloads;

    const std::string where = scenario.name + ", allocations " + std::to_string(first) + " to " +
                              std::to_string(first + count - 1) + " failing (" +
                              std::to_string(injected) + " failed)";
    std::string problem;
    const std::vector<std::string> entries = DirectoryEntries();
    const std::vector<std::string> expectedEntries =
        withPrevious || result ? std::vector<std::string>{m_file.filename().string()}
                               : std::vector<std::string>{};
    const RecordedLine* error = nullptr;
    for (const auto& line : lines) {
      if (line.level >= log4cplus::ERROR_LOG_LEVEL && line.logger == kHandlerLogger) {
        error = &line;
        break;
      }
    }
    if (!escaped.empty()) {
      problem = "an exception escaped: " + escaped;
    } else if (entries != expectedEntries) {
      problem = "the directory holds " + std::to_string(entries.size()) + " entries";
    } else if (result) {
      const std::string saved = ReadWholeFile(m_file);
      if (saved != scenario.expected) {
        const auto differ = std::mismatch(saved.begin(), saved.end(), scenario.expected.begin(),
                                          scenario.expected.end());
        const auto at = static_cast<std::size_t>(differ.first - saved.begin());
        const std::size_t from = at < 200 ? 0 : at - 200;
        problem = "true with a wrong document, from byte " + std::to_string(at) + ":\n" +
                  saved.substr(from, 400) + "\ninstead of\n" + scenario.expected.substr(from, 400);
      } else if (m_callbacks != 1) {
        problem = "true with " + std::to_string(m_callbacks) + " callbacks";
      } else {
        ++figures.written;
      }
    } else {
      if (withPrevious && ReadWholeFile(m_file) != kPrevious) {
        problem = "false with the saved file changed";
      } else if (m_callbacks != 0) {
        problem = "false with " + std::to_string(m_callbacks) + " callbacks";
      } else if (error == nullptr && lineRequired) {
        problem = "false without an ERROR line";
      } else if (error == nullptr) {
        ++figures.failedSilently;
      } else {
        ++figures.failedCleanly;
        ++figures.errorLines[Kind(error->message, m_file.string())];
      }
    }
    if (!problem.empty()) {
      ++figures.wrong;
      if (figures.wrong <= kReportedProblems) {
        std::string log;
        for (const auto& line : lines) {
          log += "\n  " + std::to_string(line.level) + " " + line.logger + ": " + line.message;
        }
        ADD_FAILURE() << where << ": " << problem << log;
      }
    }

    if (followUp) {
      ++figures.followUps;
      PrepareFile(true);
      m_callbacks = 0;
      const bool clean = Download(handler, scenario);
      Lines().Take();
      if (!clean || m_callbacks != 1 || ReadWholeFile(m_file) != scenario.expected) {
        ++figures.followUpsFailed;
        if (figures.followUpsFailed <= kReportedProblems) {
          ADD_FAILURE() << where << ": the clean download after it did not write the document";
        }
      }
    }
    return true;
  }

  Scenario DemoScenario() {
    Scenario scenario;
    scenario.name = "demo";
    scenario.script = kDemoScript;
    scenario.objects = &m_dump.interfaceObjects;
    scenario.memory = &m_dump.memory;
    scenario.descriptors = &m_dump.coDescriptors;
    scenario.expected = ReadWholeFile(kDemoExpected);
    return scenario;
  }

  // Folders of functions with URN selection, ShowIf, names from the memory
  // image and static data, several times the demo's size.
  Scenario GeneratedScenario() {
    lkdh::bench::DownloadShape shape;
    shape.folders = 5;
    shape.functionsPerFolder = 10;
    shape.parametersPerFunction = 10;
    shape.showIfEvery = 3;
    m_generated = lkdh::bench::GenerateDownload(shape);
    Scenario scenario;
    scenario.name = "generated 5x10x10";
    scenario.script = m_dir.WriteFile("generated.lua", m_generated->script);
    scenario.objects = &m_generated->objects;
    scenario.memory = &m_generated->memory;
    scenario.descriptors = &m_generated->descriptors;
    // The expected document is what a download without faults writes.
    {
      auto handler = MakeHandler(scenario);
      PrepareFile(false);
      m_callbacks = 0;
      EXPECT_TRUE(Download(*handler, scenario));
      scenario.expected = ReadWholeFile(m_file);
      Lines().Take();
    }
    return scenario;
  }

  TempDir m_dir;
  // A directory of its own, so that nothing else is there to be taken for a temporary.
  fs::path m_file = MakeDirectory(m_dir.Path() / "project") / "etsproject.xml";
  int m_callbacks = 0;
  std::function<void()> m_callback = [this] { ++m_callbacks; };
  log4cplus::SharedAppenderPtr m_recorder;
  lkdh::host::DownloadDump m_dump = lkdh::host::LoadDownloadDump(kDemoDump);
  std::unique_ptr<lkdh::bench::GeneratedDownload> m_generated;
};

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST_F(AllocationFailureTest, DemoDownloadWithEachAllocationFailingInTurn) {
  const Scenario scenario = DemoScenario();
  const std::uint64_t allocations = CheckCleanDownload(scenario, "demo");
  RecordProperty("stride", std::to_string(kStride));
  RecordProperty("follow_up_every", std::to_string(kFollowUpEvery));
  ASSERT_GT(allocations, 100U);
  auto handler = MakeHandler(scenario);
  const auto start = std::chrono::steady_clock::now();
  // Once over a saved file the download must replace, once without a file.
  for (const bool withPrevious : {true, false}) {
    Figures figures;
    std::uint64_t position = 1;
    for (std::uint64_t n = 1;; n += kStride, ++position) {
      if (!FaultedDownload(*handler, scenario, n, 1, withPrevious, position % kFollowUpEvery == 0,
                           figures)) {
        break;
      }
    }
    figures.Print(std::string("demo, ") + (withPrevious ? "saved file differs" : "no saved file") +
                  ", stride " + std::to_string(kStride));
    EXPECT_EQ(figures.wrong, 0U);
    EXPECT_EQ(figures.followUpsFailed, 0U);
    EXPECT_GT(figures.failedCleanly, 0U);
    EXPECT_GT(figures.injected[0], 0U);
    EXPECT_GT(figures.injected[1], 0U);
    EXPECT_GT(figures.injected[2], 0U);
    figures.Record(withPrevious ? "demo_saved_file" : "demo_no_file");
  }
  std::cout << "took " << SecondsSince(start) << " s\n";
}

TEST_F(AllocationFailureTest, DemoDownloadWithRunsOfConsecutiveFailures) {
  const Scenario scenario = DemoScenario();
  const std::uint64_t allocations = CheckCleanDownload(scenario, "demo");
  auto handler = MakeHandler(scenario);
  const auto start = std::chrono::steady_clock::now();
  // The handler tries its error line four times: up to four failures in a row
  // it must get it out. Beyond, memory that stays short may swallow the line too.
  for (const std::uint64_t run : {2U, 3U, 4U, 8U, 32U}) {
    Figures figures;
    // A prime step, so the runs start at every kind of allocation.
    for (std::uint64_t n = 1; n <= allocations; n += 7 * kStride) {
      if (!FaultedDownload(*handler, scenario, n, run, true, true, figures, run <= 4)) break;
    }
    figures.Print("demo, runs of " + std::to_string(run) + " failing allocations");
    figures.Record("demo_run_" + std::to_string(run));
    EXPECT_EQ(figures.wrong, 0U);
    EXPECT_EQ(figures.followUpsFailed, 0U);
  }
  std::cout << "took " << SecondsSince(start) << " s\n";
}

TEST_F(AllocationFailureTest, GeneratedDownloadWithASampleOfAllocationsFailing) {
  const Scenario scenario = GeneratedScenario();
  const std::uint64_t allocations = CheckCleanDownload(scenario, "generated");
  RecordProperty("generated.shape", scenario.name);
  // Enough allocations that the sample below is a sample, not the whole download.
  ASSERT_GT(allocations, 4000U);
  // A fixed seed, so that a failure can be repeated. A download's count varies
  // a little with the Lua collector's timing, so a position near the end may lie
  // past it; positions are drawn until enough downloads were faulted.
  std::mt19937_64 random(20261123);
  std::uniform_int_distribution<std::uint64_t> pick(1, allocations);
  std::set<std::uint64_t> tried;
  const std::uint64_t wanted = std::min<std::uint64_t>(kSample, allocations * 9 / 10);
  auto handler = MakeHandler(scenario);
  const auto start = std::chrono::steady_clock::now();
  Figures figures;
  while (figures.downloads < wanted) {
    const std::uint64_t n = pick(random);
    if (!tried.insert(n).second) continue;
    FaultedDownload(*handler, scenario, n, 1, true, tried.size() % kFollowUpEvery == 0, figures);
  }
  figures.Print(scenario.name + ", " + std::to_string(tried.size()) + " positions of " +
                std::to_string(allocations));
  figures.Record("generated");
  RecordProperty("generated.positions", std::to_string(tried.size()));
  EXPECT_EQ(figures.wrong, 0U);
  EXPECT_EQ(figures.followUpsFailed, 0U);
  EXPECT_GT(figures.injected[2], 0U);
  std::cout << "took " << SecondsSince(start) << " s\n";
}

}  // namespace
