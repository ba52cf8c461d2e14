#pragma once
// The script bridge: hosts the description script and answers the builder.

#include <LuaKnxDownloadHandler/Diagnostics.h>
#include <LuaKnxDownloadHandler/LuxHelperBase.h>

#include <ovslua/Lua.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Korvex::luaknxdownloadhandler {

class LuxHelper : public LuxHelperBase, private ovslua::Lua {
 public:
  LuxHelper() = default;
  ~LuxHelper() override;

  /// Bounds each script call to maxInstructions Lua instructions and the
  /// interpreter to maxMemory bytes (0: no bound). Set before Load.
  void SetLimits(std::uint64_t maxInstructions, std::size_t maxMemory);
  /// Creates the interpreter and loads the script; the result is also kept.
  bool Load(const std::string& scriptPath);

  // A download's calls are watched by a CPU-time tick instead of counted at
  // every instruction (see ovslua::Lua::BeginWatchedCalls).
  using ovslua::Lua::BeginWatchedCalls;
  using ovslua::Lua::EndWatchedCalls;
  using ovslua::Lua::GetInstructionLimit;
  using ovslua::Lua::WatchingCalls;

  // What the interpreter holds and has used (measurements, tests).
  using ovslua::Lua::CollectGarbage;
  using ovslua::Lua::LargestCallInstructions;
  using ovslua::Lua::MemoryInUse;
  using ovslua::Lua::PeakMemoryInUse;
  using ovslua::Lua::SetInstructionStep;
  using ovslua::Lua::TrackPeakMemory;

  bool IsThereUrnsByPropertyIndex(std::uint32_t typeId) override;
  PropertyInfo GetPropertyIndexForUrns(std::uint32_t typeId) override;
  boost::optional<std::string> GetFunctionUrnByTypeId(std::uint32_t typeId) override;
  boost::optional<std::string> GetChannelUrnByTypeId(std::uint32_t typeId) override;
  boost::optional<std::string> GetFunctionUrnByTypeIdAndPropertyIndex(
      std::uint32_t typeId, std::uint32_t propertyIndex) override;
  boost::optional<std::string> GetChannelUrnByTypeIdAndPropertyIndex(
      std::uint32_t typeId, std::uint32_t propertyIndex) override;
  boost::optional<std::string> GetLuaTemplateIndexByTypeIdAndPropertyIndex(
      std::uint32_t typeId, std::uint32_t propertyIndex) override;
  std::vector<LuaParameter> GetParametersFromChannelTypeId(std::uint32_t channelTypeId) override;
  std::map<std::string, PropertyInfo> GetPropertyIds() override;
  std::vector<LuxStaticData> GetStaticData() override;
  bool CallShowIfFunction(std::int32_t refId, ovslua::Lua::Args& args) override;
  bool HandleDcsType(std::uint32_t dcsType) override;
  void SetDiagnostics(Diagnostics* diagnostics) override;
  bool LastCallFailed() const override;

  // Table readers: each reads the table at the top of the stack and leaves it
  // there. They run under the mutex of the calling query and never lock.
  PropertyInfo FillProperty() const;
  std::map<std::string, PropertyInfo> InGetPropertyIds() const;
  std::vector<LuaParameter> GetLuaParameters();
  void FillLuaParameter(std::vector<LuaParameter>& parameters);
  LuaParameterShowIf FillLuaParameterShowIf() const;
  void FillLuaParameterShowIfPropertyIds(
      std::vector<LuaParameterShowIfPropertyIds>& propertyIds) const;
  std::vector<LuxStaticData> InGetStaticData();
  void FillLuxStaticData(std::vector<LuxStaticData>& staticData, std::string&& name);

 protected:
  // check-script runs the script in this bridge, with its own print and count
  // hook installed between creating the interpreter and loading the script,
  // and reads the script's answers off the stack between the queries.
  using ovslua::Lua::Initialize;
  using ovslua::Lua::m_errorMessage;
  using ovslua::Lua::m_luaState;
  using ovslua::Lua::PushArguments;
  bool LoadInitialized(const std::string& scriptPath) {
    m_loaded = ovslua::Lua::Load(scriptPath);
    return m_loaded;
  }

 private:
  /// The static-data readers at a nesting depth (a table's records are at its
  /// depth plus 1), bounded by kMaxStaticDataDepth: it bounds the C stack.
  std::vector<LuxStaticData> InGetStaticData(int depth);
  void FillLuxStaticData(std::vector<LuxStaticData>& staticData, std::string&& name, int depth);

  /// The one call protocol of the bridge's own calls: under the mutex, the
  /// stack put back after; run() pushes and runs the function (or says why it
  /// cannot) and answers the status, take() reads the result, head() begins
  /// the ERROR line of a failure.
  template <typename Result, typename Run, typename Take, typename Head>
  Result CallProtected(Result failure, Run&& run, Take&& take, Head&& head);
  /// The table queries: the global function name with the arguments, one
  /// result read by read().
  template <typename Result, typename Read>
  Result CallTable(const char* name, std::initializer_list<std::uint32_t> arguments, Result failure,
                   Read&& read);
  /// Call()'s protocol for one result, read by read() from the top of the
  /// stack, without building an argument and a result list per call.
  template <typename Read>
  bool CallOneResult(const char* name, std::initializer_list<std::uint32_t> arguments, Read&& read);
  /// Pushes the global function name and the arguments and runs it protected
  /// for one result; the caller has made room on the stack.
  int RunGlobal(const char* name, std::initializer_list<std::uint32_t> arguments);
  /// A query with one string result: none when the call failed.
  boost::optional<std::string> StringQuery(const char* name,
                                           std::initializer_list<std::uint32_t> arguments);

  /// With diagnostics: notes what the reader at hand skips, and reports the notes
  /// made since mark once the record's key is known.
  void Note(SkipReason reason, std::string detail) const;
  void NoteWrongType(const char* field, const char* expected, const char* consequence) const;
  void NoteUnknownField(std::string_view field) const;
  /// The key at -2 of the walk at hand, which is neither string nor number;
  /// nothing without a sink.
  void NoteOtherKey(const char* table) const;
  void ReportNotes(std::size_t mark, std::string_view subject, std::string_view key) const {
    if (m_diagnostics != nullptr) TellNotes(mark, subject, key);
  }
  void TellNotes(std::size_t mark, std::string_view subject, std::string_view key) const;
  /// The field of the table on top, which the record needs, when it lacks it.
  void NoteMissing(const char* field, const char* consequence) const;
  /// A number of which only the low bits are read.
  void NoteLowBits(const char* field, std::int64_t value, std::int64_t read,
                   const char* bits) const;
  /// Puts the field that holds them before the fields of the notes since mark;
  /// an empty field: the list index at -2 of the walk at hand.
  void NoteWithin(std::size_t mark, std::string field) const;
  /// Reports the keys that more than one of the sorted parameters have.
  void NoteDuplicateKeys(const std::vector<LuaParameter>& parameters) const;
  /// A numeric key ends the walk of a table with named fields with an error:
  /// told at once, since the notes of the record never are.
  void TellNumericKey(const char* table, const char* subject, std::string_view key) const;
  /// The same for a table inside the record, at that field.
  void TellNumericKey(const char* table, const char* subject, std::string_view key,
                      std::string_view field) const;
  /// The same for the table under name in the table on top, when it is one.
  void TellNumericKeyIn(std::string_view name, const char* table, const char* subject,
                        std::string_view key, const std::string& field) const;
  /// TellNumericKey for the parameter table on top and the tables in it.
  void TellParameterNumericKeys() const;
  std::size_t NoteMark() const noexcept { return m_notes.size(); }
  void EnterRecord() const;

  struct PendingSkip {
    SkipReason reason;
    std::string detail;
    std::string field;  // its path in the record, for a field
  };

  bool m_loaded = false;
  Diagnostics* m_diagnostics = nullptr;
  mutable std::vector<PendingSkip> m_notes;  // of the records being read, innermost last
  std::string m_recordPath;  // of the static-data record being read, with diagnostics
  const char* m_query = "";  // the query whose result the readers read
};

}  // namespace Korvex::luaknxdownloadhandler
