#pragma once
// The script's own share of a download: every call the handler makes into the
// description script, recorded once, then made again with the same arguments
// in the same order on an interpreter set up as the handler's, the results
// discarded. What a download costs beyond that and the floor is the bridge's.

#include <Korvex/IKnxDownloadHandler.h>
#include <ovslua/Lua.h>

#include <boost/filesystem/path.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace lkdh::bench {

/// One argument of a recorded call.
struct ScriptValue {
  enum class Type { Nil, Boolean, Integer, Float, String } type = Type::Nil;
  bool boolean = false;
  std::int64_t integer = 0;
  double number = 0;
  std::string text;
};

struct ScriptCall {
  /// A global function, or the ShowIf function of a parameter in a list that
  /// GetParametersFromChannelTypeId returned.
  enum class Kind { Global, ShowIf } kind = Kind::Global;
  std::string name;          // Global: the function's name
  bool returnsList = false;  // Global: GetParametersFromChannelTypeId, kept for ShowIf calls
  std::uint64_t list = 0;    // ShowIf: which list, counting the lists from 1
  std::int64_t key = 0;      // ShowIf: the parameter's position in that list
  std::vector<ScriptValue> arguments;
};

/// Runs one download through a handler whose script is scriptPath wrapped in a
/// recorder (written to workDir) and returns the calls it made, in order.
std::vector<ScriptCall> RecordScriptCalls(const Korvex::InterfaceObjectMap& objects,
                                          const KnxStack::BinaryData& memory,
                                          const Korvex::CoDescriptorDataMap& descriptors,
                                          const boost::filesystem::path& scriptPath,
                                          const boost::filesystem::path& workDir);

/// The script loaded into an interpreter made and limited as the handler makes
/// its own, able to make recorded calls again.
class ScriptReplay : private ovslua::Lua {
 public:
  ScriptReplay(const boost::filesystem::path& scriptPath, std::vector<ScriptCall> calls);
  ~ScriptReplay() override;
  /// Makes every call, through the same protected call as the handler, and
  /// drops what it returns except the latest parameter list.
  void Run();

 private:
  void Push(const ScriptValue& value) const;

  std::vector<ScriptCall> m_calls;
  std::vector<int> m_functions;  // per call, the global function's registry reference
};

}  // namespace lkdh::bench
