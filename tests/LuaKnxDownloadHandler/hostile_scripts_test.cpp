// Description scripts that try to stop, hang or exhaust the host process, one
// way each (data/hostile/). Each must leave the process alive with the outcome
// given here, let the next download on the same handler succeed, and keep the
// interpreter's memory flat over 100 repetitions of the misbehaviour.
#include "../../LuaKnxDownloadHandler/src/HandlerLimits.h"
#include "HandlerDownload.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <CapturingAppender.h>
#include <TempDir.h>

#include <gtest/gtest.h>
#include <log4cplus/loglevel.h>
#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace fs = boost::filesystem;

namespace {

using lkdh::test::HandlerDownload;
using lkdh::test::LogCapture;
using lkdh::test::ReadWholeFile;
using lkdh::test::TempDir;

// Small budgets keep the endless cases quick, under an emulator too.
constexpr const char* kInstructions = "20000";
constexpr const char* kMemory = "4194304";
constexpr int kRepetitions = 100;

// Misbehaves on its first 1 + kRepetitions calls, then never again.
const std::string kPreamble =
    "local hostileLeft = " + std::to_string(1 + kRepetitions) +
    "\nfunction Hostile() if hostileLeft > 0 then hostileLeft = hostileLeft - 1 return true end "
    "return false end\n";

enum class Outcome { Completes, Fails };

struct Hostile {
  const char* name;  // data/hostile/<name>.lua, appended to the good script
  Outcome outcome;   // whether the first download (forced write) completes
  int level;         // the level of the lines checked; 0: no ERROR or WARN line at all
  std::vector<std::pair<std::string, std::string>> lines;  // each line's start and end
  std::string documentHas;                                 // "" : the good document
  std::string documentLacks;
  std::size_t documentHasCount = 1;  // how often documentHas occurs
  std::size_t keptPerDownload = 0;   // bytes the interpreter may keep per download
  bool oneOfTheLines = false;        // exactly one line, any of lines
};

// A ShowIf closure with its registry slot, as the bridge keeps every one it reads.
constexpr std::size_t kShowIfKept = 256;

std::size_t Occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

std::string ScriptCall(const std::string& function) {
  return "Call function '" + function + "' failed (LUA_ERRRUN:";
}

const std::string kException = "LuaKnxDownloadHandler::CreateFileWithKnxData exception: ";

std::string OverBudget(const std::string& function) {
  return kException + "Script function '" + function + "' exceeded the execution budget of " +
         kInstructions + " instructions.";
}

std::string Unavailable(const std::string& name) {
  return name + " is not available to description scripts).";
}

std::vector<Hostile> Cases() {
  const int error = log4cplus::ERROR_LOG_LEVEL;
  const int warn = log4cplus::WARN_LOG_LEVEL;
  const std::string nulWarning = "; it is read as a value of the wrong type.";
  return {
      {"os_exit",
       Outcome::Completes,
       error,
       {{ScriptCall("GetStaticData"), Unavailable("os.exit")}},
       "",
       ""},
      {"io_open",
       Outcome::Completes,
       error,
       {{ScriptCall("GetStaticData"), Unavailable("io.open")}},
       "",
       ""},
      {"os_execute",
       Outcome::Completes,
       error,
       {{ScriptCall("GetStaticData"), Unavailable("os.execute")}},
       "",
       ""},
      {"io_popen",
       Outcome::Completes,
       error,
       {{ScriptCall("GetStaticData"), Unavailable("io.popen")}},
       "",
       ""},
      {"os_remove",
       Outcome::Completes,
       error,
       {{ScriptCall("GetStaticData"), Unavailable("os.remove")}},
       "",
       ""},
      {"require_io",
       Outcome::Completes,
       error,
       {{ScriptCall("GetStaticData"), Unavailable("io.open")}},
       "",
       ""},
      {"debug_sethook",
       Outcome::Completes,
       error,
       {{ScriptCall("GetStaticData"), Unavailable("debug.sethook")}},
       "",
       ""},
      {"endless_loop_in_urn",
       Outcome::Fails,
       error,
       {{OverBudget("GetFunctionUrnByTypeId"), ""}},
       "",
       ""},
      {"loop_catching_budget", Outcome::Fails, error, {{OverBudget("GetStaticData"), ""}}, "", ""},
      {"loop_in_coroutine", Outcome::Fails, error, {{OverBudget("GetStaticData"), ""}}, "", ""},
      {"looping_gc",
       Outcome::Completes,
       error,
       {{ScriptCall("GetStaticData"),
         "__gc metamethods are not available to description scripts)."}},
       "",
       ""},
      {"gc_stopped",
       Outcome::Completes,
       error,
       {{ScriptCall("GetStaticData"),
         "collectgarbage(\"stop\") is not available to description scripts)."}},
       "",
       ""},
      {"memory_hog", Outcome::Fails, error, {{kException + "std::bad_alloc", ""}}, "", ""},
      {"nul_in_keys",
       Outcome::Completes,
       warn,
       {{"Script function 'GetParametersFromChannelTypeId' gave a text with a NUL byte for "
         "'Key': 'P\\0one'" +
             nulWarning,
         ""},
        {"Script function 'GetParametersFromChannelTypeId' gave a text with a NUL byte for "
         "'Key': 'P\\0two'" +
             nulWarning,
         ""}},
       "<parameter key=\"\" value=\"True\" />",
       "key=\"P",
       2},
      {"nul_in_urn",
       Outcome::Completes,
       warn,
       {{"Script function 'GetFunctionUrnByTypeId' returned a text with a NUL byte as result 1" +
             nulWarning,
         ""}},
       "functionUrn=\"\"",
       "hidden"},
      {"nul_in_static_data",
       Outcome::Completes,
       warn,
       {{"Script function 'GetStaticData' gave a text with a NUL byte for the name of a "
         "static-data entry: 'Weather\\0x'" +
             nulWarning,
         ""},
        {"Script function 'GetStaticData' gave a text with a NUL byte for 'Type': 'timers\\0x'" +
             nulWarning,
         ""}},
       "name=\"Timers\" type=\"\"",
       "name=\"Weather"},
      // Watched calls are counted from the first CPU-time tick on; the recursion's stack may
      // reach the memory budget before that.
      {"showif_recursion",
       Outcome::Fails,
       error,
       {{kException + "Script function with ref id '",
         std::string("' exceeded the execution budget of ") + kInstructions + " instructions."},
        {kException + "std::bad_alloc", ""}},
       "",
       "",
       1,
       kShowIfKept,
       true},
      {"error_table",
       Outcome::Completes,
       error,
       {{ScriptCall("GetStaticData") + "(error object is a table value)).", ""}},
       "",
       ""},
      {"error_nil",
       Outcome::Completes,
       error,
       {{ScriptCall("GetStaticData") + "(error object is a nil value)).", ""}},
       "",
       ""},
      {"yield_outside_coroutine",
       Outcome::Completes,
       error,
       {{ScriptCall("GetStaticData") + "attempt to yield from outside a coroutine).", ""}},
       "",
       ""},
      {"yield_in_showif",
       Outcome::Completes,
       error,
       {{"Call function with ref id'",
         "' failed (LUA_ERRRUN:attempt to yield from outside a coroutine)."}},
       "<parameters />",
       "key=\"State\"",
       1,
       kShowIfKept},
      {"metatables_on_results", Outcome::Completes, 0, {}, "", ""},
      {"globals_index_loop", Outcome::Fails, error, {{OverBudget("GetStaticData"), ""}}, "", ""},
      {"gc_on_result", Outcome::Completes, 0, {}, "", ""},
  };
}

std::string CaseName(const ::testing::TestParamInfo<Hostile>& info) { return info.param.name; }

bool StartsAndEnds(const std::string& text, const std::pair<std::string, std::string>& line) {
  const auto& [start, end] = line;
  if (end.empty()) return text == start;
  return text.size() >= start.size() + end.size() && text.compare(0, start.size(), start) == 0 &&
         text.compare(text.size() - end.size(), end.size(), end) == 0;
}

class HostileScriptTest : public ::testing::TestWithParam<Hostile> {
 protected:
  void SetUp() override {
    ::setenv("LKDH_SCRIPT_MAX_INSTRUCTIONS", kInstructions, 1);
    ::setenv("LKDH_SCRIPT_MAX_MEMORY", kMemory, 1);
  }
  void TearDown() override {
    ::unsetenv("LKDH_SCRIPT_MAX_INSTRUCTIONS");
    ::unsetenv("LKDH_SCRIPT_MAX_MEMORY");
  }

  static bool Download(Korvex::LuaKnxDownloadHandler& handler, const HandlerDownload& download,
                       int& callbacks) {
    return handler.CreateFileWithKnxData(
        download.objects, download.memory, [&] { ++callbacks; },
        Korvex::IKnxDownloadHandler::AppData_ForceWrite, download.descriptors);
  }

  TempDir dir;
};

TEST_P(HostileScriptTest, KeepsTheProcessAndTheHandlerAndItsMemory) {
  const Hostile& c = GetParam();
  const std::string good = ReadWholeFile(lkdh::test::HandlerScriptPath());
  const std::string hostile =
      ReadWholeFile(fs::path(LKDH_TEST_DATA_DIR) / "hostile" / (std::string(c.name) + ".lua"));
  const fs::path script = dir.WriteFile("device.lua", good + kPreamble + hostile);
  HandlerDownload download;
  int callbacks = 0;

  const fs::path file = dir.Path() / "etsproject.xml";
  {
    Korvex::LuaKnxDownloadHandler reference(file.string() + ";" + lkdh::test::HandlerScriptPath());
    ASSERT_TRUE(Download(reference, download, callbacks));
  }
  const std::string goodDocument = ReadWholeFile(file);

  auto handler =
      std::make_unique<Korvex::LuaKnxDownloadHandler>(file.string() + ";" + script.string());
  ASSERT_TRUE(handler->Loaded());
  callbacks = 0;
  std::vector<lkdh::test::LogLine> lines;
  bool first = false;
  {
    LogCapture capture;
    first = Download(*handler, download, callbacks);
    for (const auto& line : capture.Lines()) {
      if (line.level >= log4cplus::WARN_LOG_LEVEL) lines.push_back(line);
    }
  }
  EXPECT_EQ(first, c.outcome == Outcome::Completes);
  EXPECT_EQ(callbacks, first ? 1 : 0);
  const std::string document = ReadWholeFile(file);
  if (c.outcome == Outcome::Fails || c.documentHas.empty()) {
    EXPECT_EQ(document, goodDocument);
  } else {
    EXPECT_EQ(Occurrences(document, c.documentHas), c.documentHasCount) << document;
  }
  if (!c.documentLacks.empty()) {
    EXPECT_EQ(document.find(c.documentLacks), std::string::npos) << document;
  }
  // Every line at WARN or above is one of the expected ones, at their level, each once.
  const std::size_t expectedLines = c.oneOfTheLines ? 1 : c.lines.size();
  ASSERT_EQ(lines.size(), expectedLines) << (lines.empty() ? "" : lines.front().message);
  std::set<std::size_t> matched;
  for (const auto& line : lines) {
    EXPECT_EQ(line.level, c.level) << line.message;
    const auto found = std::find_if(c.lines.begin(), c.lines.end(), [&](const auto& expected) {
      return StartsAndEnds(line.message, expected);
    });
    ASSERT_NE(found, c.lines.end()) << line.message;
    matched.insert(static_cast<std::size_t>(found - c.lines.begin()));
  }
  EXPECT_EQ(matched.size(), expectedLines);

  // The misbehaviour again and again, with the same outcome each time; what the
  // interpreter keeps must not grow (a ShowIf function read on each download is
  // kept by its registry reference for the interpreter's life).
  const std::size_t before = handler->ScriptMemoryAfterCollection();
  std::size_t peak = 0;
  for (int i = 0; i < kRepetitions; ++i) {
    EXPECT_EQ(Download(*handler, download, callbacks), first) << "repetition " << i;
    peak = std::max(peak, handler->ScriptMemoryInUse());
  }
  const std::size_t after = handler->ScriptMemoryAfterCollection();
  EXPECT_LE(after, before + c.keptPerDownload * kRepetitions)
      << "before " << before << ", after " << after;
  EXPECT_LE(peak, std::strtoull(kMemory, nullptr, 10));

  // Once the script behaves, the same handler writes the good document.
  callbacks = 0;
  EXPECT_TRUE(Download(*handler, download, callbacks));
  EXPECT_EQ(callbacks, 1);
  EXPECT_EQ(ReadWholeFile(file), goodDocument);

  // Closing the interpreter returns, whatever the script left behind.
  Korvex::IKnxDownloadHandler* plain = handler.release();
  DeleteHandler(plain);
  EXPECT_EQ(plain, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Scripts, HostileScriptTest, ::testing::ValuesIn(Cases()), CaseName);

TEST(HostileScripts, EveryScriptOfTheFolderIsTried) {
  std::set<std::string> files;
  for (const auto& entry : fs::directory_iterator(fs::path(LKDH_TEST_DATA_DIR) / "hostile")) {
    files.insert(entry.path().stem().string());
  }
  std::set<std::string> tried;
  for (const auto& c : Cases()) tried.insert(c.name);
  EXPECT_EQ(files, tried);
}

// --- The limits' overrides -----------------------------------------------------

using Korvex::luaknxdownloadhandler::HandlerLimits;
using Korvex::luaknxdownloadhandler::ReadHandlerLimits;

class LimitsFromEnvironment : public ::testing::Test {
 protected:
  void TearDown() override {
    ::unsetenv("LKDH_SCRIPT_MAX_INSTRUCTIONS");
    ::unsetenv("LKDH_SCRIPT_MAX_MEMORY");
  }
};

TEST_F(LimitsFromEnvironment, WithoutTheVariablesTheDefaultsHold) {
  ::unsetenv("LKDH_SCRIPT_MAX_INSTRUCTIONS");
  ::unsetenv("LKDH_SCRIPT_MAX_MEMORY");
  const HandlerLimits limits = ReadHandlerLimits();
  EXPECT_EQ(limits.scriptMaxInstructions, 2000000U);
  EXPECT_EQ(limits.scriptMaxMemory, 128U * 1024U * 1024U);
}

TEST_F(LimitsFromEnvironment, DecimalValuesReplaceTheDefaultsAndZeroLiftsThem) {
  ::setenv("LKDH_SCRIPT_MAX_INSTRUCTIONS", "12345", 1);
  ::setenv("LKDH_SCRIPT_MAX_MEMORY", "0", 1);
  const HandlerLimits limits = ReadHandlerLimits();
  EXPECT_EQ(limits.scriptMaxInstructions, 12345U);
  EXPECT_EQ(limits.scriptMaxMemory, 0U);
}

TEST_F(LimitsFromEnvironment, AnythingElseKeepsTheDefaultAndSaysSoAtTrace) {
  ::setenv("LKDH_SCRIPT_MAX_INSTRUCTIONS", "12x", 1);
  ::setenv("LKDH_SCRIPT_MAX_MEMORY", "-1", 1);
  LogCapture capture;
  const HandlerLimits limits = ReadHandlerLimits();
  EXPECT_EQ(limits.scriptMaxInstructions,
            Korvex::luaknxdownloadhandler::kDefaultScriptMaxInstructions);
  EXPECT_EQ(limits.scriptMaxMemory, Korvex::luaknxdownloadhandler::kDefaultScriptMaxMemory);
  const std::vector<lkdh::test::LogLine> expected = {
      {log4cplus::TRACE_LOG_LEVEL, "KnxDownloadHandler",
       "LKDH_SCRIPT_MAX_INSTRUCTIONS '12x' is not an instruction count from 0 up; script calls "
       "are limited to 2000000 instructions (0: no bound)."},
      {log4cplus::TRACE_LOG_LEVEL, "KnxDownloadHandler",
       "LKDH_SCRIPT_MAX_MEMORY '-1' is not a byte count from 0 up; the script's memory is "
       "limited to 134217728 bytes (0: no bound)."}};
  EXPECT_EQ(capture.Lines(log4cplus::TRACE_LOG_LEVEL), expected);
}

TEST_F(LimitsFromEnvironment, TheHandlerRunsItsScriptUnderThem) {
  TempDir dir;
  const std::string good = ReadWholeFile(lkdh::test::HandlerScriptPath());
  const fs::path script =
      dir.WriteFile("device.lua", good + "local s = 0 for i = 1, 20000 do s = s + i end\n");
  ::setenv("LKDH_SCRIPT_MAX_INSTRUCTIONS", "10000", 1);
  Korvex::LuaKnxDownloadHandler limited((dir.Path() / "a.xml").string() + ";" + script.string());
  EXPECT_FALSE(limited.Loaded());
  ::setenv("LKDH_SCRIPT_MAX_INSTRUCTIONS", "100000", 1);
  Korvex::LuaKnxDownloadHandler roomy((dir.Path() / "b.xml").string() + ";" + script.string());
  EXPECT_TRUE(roomy.Loaded());
}

// --- Downloads watched by the CPU-time tick --------------------------------------

const char* const kFallbackLine =
    "Script calls are counted at every instruction: no CPU-time tick for this download.";

class WatchedDownloads : public ::testing::Test {
 protected:
  void TearDown() override { ::unsetenv("LKDH_SCRIPT_MAX_INSTRUCTIONS"); }

  // A handler whose URN function never returns on its first call.
  std::unique_ptr<Korvex::LuaKnxDownloadHandler> Looping() {
    const std::string script =
        ReadWholeFile(lkdh::test::HandlerScriptPath()) + kPreamble +
        ReadWholeFile(fs::path(LKDH_TEST_DATA_DIR) / "hostile" / "endless_loop_in_urn.lua");
    return std::make_unique<Korvex::LuaKnxDownloadHandler>(
        (dir.Path() / "etsproject.xml").string() + ";" +
        dir.WriteFile("device.lua", script).string());
  }

  static bool Download(Korvex::LuaKnxDownloadHandler& handler) {
    const HandlerDownload download;
    return handler.CreateFileWithKnxData(
        download.objects, download.memory, [] {}, Korvex::IKnxDownloadHandler::AppData_ForceWrite,
        download.descriptors);
  }

  static std::vector<std::string> Lines(const LogCapture& capture, int level) {
    std::vector<std::string> messages;
    for (const auto& line : capture.Lines()) {
      if (line.level == level) messages.push_back(line.message);
    }
    return messages;
  }

  TempDir dir;
};

TEST_F(WatchedDownloads, AnEndlessLoopIsStoppedAndTheSignalIsGivenBack) {
  ::setenv("LKDH_SCRIPT_MAX_INSTRUCTIONS", kInstructions, 1);
  auto handler = Looping();
  ASSERT_TRUE(handler->Loaded());
  LogCapture capture;
  EXPECT_FALSE(Download(*handler));
  EXPECT_EQ(Lines(capture, log4cplus::ERROR_LOG_LEVEL),
            std::vector<std::string>{OverBudget("GetFunctionUrnByTypeId")});
  // Watched: no line says the calls were counted at every instruction.
  const auto traces = Lines(capture, log4cplus::TRACE_LOG_LEVEL);
  EXPECT_EQ(std::count(traces.begin(), traces.end(), kFallbackLine), 0);
  struct sigaction after {};
  ASSERT_EQ(sigaction(ovslua::Lua::WatchedCallsSignal(), nullptr, &after), 0);
  EXPECT_EQ(after.sa_flags & SA_SIGINFO, 0);
  EXPECT_EQ(after.sa_handler, SIG_DFL);
}

void HostsOwnHandler(int /*signal*/) {}

TEST_F(WatchedDownloads, WhenTheHostHandlesTheSignalEveryInstructionIsCountedAndSaidAtTrace) {
  ::setenv("LKDH_SCRIPT_MAX_INSTRUCTIONS", kInstructions, 1);
  auto handler = Looping();
  ASSERT_TRUE(handler->Loaded());
  struct sigaction host {};
  host.sa_handler = &HostsOwnHandler;
  sigemptyset(&host.sa_mask);
  struct sigaction before {};
  ASSERT_EQ(sigaction(ovslua::Lua::WatchedCallsSignal(), &host, &before), 0);
  LogCapture capture;
  const bool written = Download(*handler);
  struct sigaction after {};
  ASSERT_EQ(sigaction(ovslua::Lua::WatchedCallsSignal(), &before, &after), 0);
  EXPECT_FALSE(written);
  EXPECT_EQ(Lines(capture, log4cplus::ERROR_LOG_LEVEL),
            std::vector<std::string>{OverBudget("GetFunctionUrnByTypeId")});
  const auto traces = Lines(capture, log4cplus::TRACE_LOG_LEVEL);
  EXPECT_EQ(std::count(traces.begin(), traces.end(), kFallbackLine), 1);
  EXPECT_EQ(after.sa_handler, &HostsOwnHandler);
}

TEST_F(WatchedDownloads, AnEndlessLoopOnOneThreadIsStoppedWhileValidDownloadsRunOnAnother) {
  ::setenv("LKDH_SCRIPT_MAX_INSTRUCTIONS", kInstructions, 1);
  auto looping = Looping();
  TempDir other;
  Korvex::LuaKnxDownloadHandler valid((other.Path() / "etsproject.xml").string() + ";" +
                                      lkdh::test::HandlerScriptPath());
  ASSERT_TRUE(looping->Loaded());
  ASSERT_TRUE(valid.Loaded());
  constexpr int kLooping = 20;
  int stopped = 0;
  int written = 0;
  std::atomic<bool> loopsDone{false};
  // Each watch of the valid side begins and ends while the other side's tick runs: the
  // handler they share must stay until the last watch ends, or a tick would end the process.
  std::thread validSide([&] {
    while (!loopsDone.load()) {
      if (Download(valid)) ++written;
    }
  });
  for (int i = 0; i < kLooping; ++i) {
    if (!Download(*looping)) ++stopped;
  }
  loopsDone.store(true);
  validSide.join();
  EXPECT_EQ(stopped, kLooping);
  EXPECT_GT(written, 0);
  struct sigaction after {};
  ASSERT_EQ(sigaction(ovslua::Lua::WatchedCallsSignal(), nullptr, &after), 0);
  EXPECT_EQ(after.sa_handler, SIG_DFL);
  EXPECT_EQ(after.sa_flags & SA_SIGINFO, 0);
}

TEST_F(WatchedDownloads, WithoutABudgetNothingIsWatchedAndNothingSaid) {
  ::setenv("LKDH_SCRIPT_MAX_INSTRUCTIONS", "0", 1);
  Korvex::LuaKnxDownloadHandler handler((dir.Path() / "etsproject.xml").string() + ";" +
                                        lkdh::test::HandlerScriptPath());
  ASSERT_TRUE(handler.Loaded());
  LogCapture capture;
  EXPECT_TRUE(Download(handler));
  const auto traces = Lines(capture, log4cplus::TRACE_LOG_LEVEL);
  EXPECT_EQ(std::count(traces.begin(), traces.end(), kFallbackLine), 0);
}

}  // namespace
