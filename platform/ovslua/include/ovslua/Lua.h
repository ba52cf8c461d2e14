#pragma once
// The device's Lua wrapper: one Lua 5.4 interpreter, a lock, and typed calls.

#include <log4cplus/logger.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

struct lua_State;

namespace ovslua {

namespace detail {
class SmallBlockPool;
struct ExecutionBudget;
struct CallWatch;
}  // namespace detail

/// Thrown out of the interpreter when Lua raises an error outside any protected
/// call, where stock Lua would call abort() and take the host process down.
class LuaPanicError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Thrown out of a call whose script ran past its execution budget, also when
/// the script caught the budget's error: a script stopped half-way has given no
/// answer, so the caller must not take one from it.
class ExecutionBudgetExceeded : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Lua {
 public:
  /// A positional list of values: the arguments of a call, or the declared
  /// kinds of its results. Positions are kept as decimal text keys ("0", "1").
  class Args {
   public:
    class Arg {
     public:
      enum Kind : int {
        None = 0,
        Boolean = 1,
        Integer = 2,   // signed 64-bit
        Unsigned = 3,  // unsigned, never pushed as a negative Lua integer
        Number = 4,    // double
        String = 5,
      };

      Arg() = default;
      static Arg FromBool(bool value);
      static Arg FromInt(std::int64_t value);
      static Arg FromUnsigned(std::uint64_t value);
      static Arg FromDouble(double value);
      static Arg FromString(std::string value);
      /// An empty entry of that kind, to declare an expected result.
      static Arg OfKind(int kind);

      int GetKind() const noexcept { return m_kind; }
      bool GetBool() const noexcept { return m_value.b; }
      std::int64_t GetInt() const noexcept { return m_value.i; }
      std::uint64_t GetUnsigned() const noexcept { return m_value.u; }
      double GetDouble() const noexcept { return m_value.d; }
      const std::string& GetText() const noexcept { return m_text; }

      // Both conversions are implicit, as on the device's wrapper, so that code
      // written against it (`std::string urn = results[0];`) builds here too.

      /// Truthiness by kind: a boolean's value, a number not 0, a string not empty.
      operator bool() const noexcept;
      /// The text of a string entry, or the decimal text of a numeric one.
      operator std::string() const;

     private:
      friend class Lua;
      int m_kind = None;
      union Value {
        std::int64_t i;
        std::uint64_t u;
        double d;
        bool b;
      } m_value{0};
      std::string m_text;
    };

    /// Appends a kind-3 entry holding value.
    Args& operator+=(unsigned int& value);
    /// Appends the entry, moved.
    Args& operator+=(Arg&& arg);
    /// The entry at that position, or a default entry of kind none.
    Arg& operator[](unsigned int position);
    const Arg& operator[](unsigned int position) const;

    std::size_t Count() const noexcept { return m_args.size(); }
    bool Empty() const noexcept { return m_args.empty(); }
    /// Entries by their text position (so "10" sorts before "2").
    const std::map<std::string, Arg>& Entries() const noexcept { return m_args; }

   private:
    std::map<std::string, Arg> m_args;
    Arg m_none;
  };

  Lua();
  virtual ~Lua();
  Lua(const Lua&) = delete;
  Lua& operator=(const Lua&) = delete;

  /// Creates the interpreter (closing any earlier one), opens the libraries a
  /// description script needs (nothing that ends the process or touches files
  /// beyond loading source modules) and installs the panic handler. False when
  /// Lua has no memory.
  bool Initialize();
  /// Loads and runs the script file, source text only: precompiled bytecode is
  /// refused because crafted bytecode can crash the interpreter.
  bool Load(const std::string& scriptPath) const;
  /// Calls the global function name with in pushed in position order, reading
  /// as many results as out has entries into their declared kinds. Takes the
  /// mutex. Logs a failure on sm_logger.
  bool Call(const std::string& name, const Args& in, Args& out) const;

  void PushArguments(const Args& args) const;
  void PopReturnValues(Args& results) const;
  /// Copies the error object of a failed protected call into the last error
  /// message and removes it from the stack.
  void SetErrorMessage() const;
  /// "LUA_ERRRUN" and its kin, or null for a status Lua does not define.
  static const char* GetErrorAsText(int status);
  /// Closes the interpreter; safe when there is none.
  void Release();

  /// Bounds the memory the interpreter may hold, in bytes (0: no bound); kept
  /// for interpreters made later. Reaching it fails the running call with
  /// std::bad_alloc, like any other lack of memory.
  void SetMemoryLimit(std::size_t bytes);
  std::size_t GetMemoryLimit() const noexcept { return m_memoryLimit; }
  /// What the interpreter holds now, in bytes (0 without one).
  std::size_t MemoryInUse() const;
  /// The most the interpreter has held at once while peaks were tracked, in
  /// bytes; tracking (for measurements) costs a little on every allocation.
  std::size_t PeakMemoryInUse() const;
  void TrackPeakMemory(bool track);
  /// A full collection; then what the interpreter holds, in bytes (0 without one).
  std::size_t CollectGarbage();

  /// Bounds the Lua instructions one call may run (0: no bound); kept for
  /// interpreters made later. Counted in steps of GetInstructionStep(); past the
  /// bound every further step raises an error until the call returns, and the
  /// call throws ExecutionBudgetExceeded.
  void SetInstructionLimit(std::uint64_t instructions);
  std::uint64_t GetInstructionLimit() const noexcept { return m_instructionLimit; }
  /// Instructions between two checks of the budget (1 counts exactly; for
  /// measurements). Takes effect at the next Initialize.
  void SetInstructionStep(int instructions) noexcept;
  int GetInstructionStep() const noexcept { return m_instructionStep; }
  /// The most instructions one call has run since Initialize, counted in steps
  /// (0 when no budget is set: nothing is counted then).
  std::uint64_t LargestCallInstructions() const;

  /// Until EndWatchedCalls, the calls made on this thread are not counted at
  /// every instruction: a tick of this thread's CPU time (every 10 ms, on a
  /// real-time signal) sets the count on the call it finds running, and from
  /// then on that call is held to its budget. Lua's count hook checks every
  /// instruction whatever its count, a few percent of a script-heavy run;
  /// watched, only calls that run for a tick pay it, and a call that never
  /// ends is still stopped, one tick plus its budget later. False, and every
  /// instruction counted as before, when there is no budget or the tick cannot
  /// be had (the host handles or blocks the signal, no timer). The top level
  /// (Load) is always counted exactly.
  bool BeginWatchedCalls();
  /// Back to counting every instruction; no tick arrives after it returns.
  void EndWatchedCalls() noexcept;
  /// Whether calls are watched by the tick now.
  bool WatchingCalls() const noexcept;
  /// The real-time signal the ticks arrive on (SIGRTMIN + 6); a host that
  /// handles or blocks it keeps every instruction counted.
  static int WatchedCallsSignal() noexcept;

  static log4cplus::Logger sm_logger;

 protected:
  /// lua_pcall of the function and its arguments on top of the stack: the one
  /// place where script code runs during a call. Throws std::bad_alloc when the
  /// interpreter could not get memory during the call, also when the script
  /// caught that error itself: the answer of a script that ran out of memory is
  /// not the script's answer, so the caller must not take it for one.
  /// Throws ExecutionBudgetExceeded when the call ran past its execution budget;
  /// function (or, without it, the ShowIf refId) names the call in its message.
  /// After either failure the interpreter is collected, so the next call starts
  /// from what the script really keeps.
  int ProtectedCall(int argumentCount, int resultCount, const char* function = nullptr,
                    int refId = 0) const;
  /// Pushes the global function name for a call. A global that is not there
  /// raw while _G has a metatable is looked up by a pushed helper inside the
  /// protected call instead, so that its __index runs protected and under the
  /// budget; the name (which must outlive the call) is then pushed as one more
  /// argument. Returns how many values beyond the function it pushed (0 or 1).
  int PushGlobalFunction(const char* name) const;
  /// Whether the last PopReturnValues found a string result with a NUL byte,
  /// read as a value of the wrong type; its position from 0, or -1.
  int TextWithNulPosition() const noexcept { return m_textWithNul; }

  lua_State* m_luaState = nullptr;
  mutable std::mutex m_mutex;
  mutable int m_status = 0;
  mutable std::string m_errorMessage;

 private:
  // pcall under the budget; reports whether the budget ran out or memory failed.
  int RunProtected(int argumentCount, int resultCount, bool& overBudget, bool& outOfMemory) const;
  void InstallBudgetHook() const;
  void StopWatch() const noexcept;
  void CollectAfterFailure() const;

  std::unique_ptr<detail::SmallBlockPool> m_pool;  // the interpreter's memory; outlives it
  std::unique_ptr<detail::ExecutionBudget> m_budget;
  std::unique_ptr<detail::CallWatch> m_watch;  // made at the first watch, kept for the next
  std::size_t m_memoryLimit = 0;
  std::uint64_t m_instructionLimit = 0;
  int m_instructionStep = 1000;
  mutable int m_textWithNul = -1;
};

}  // namespace ovslua
