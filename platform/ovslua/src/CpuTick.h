#pragma once
// A periodic tick on the calling thread's CPU time that arms Lua's count hook
// on the call it finds running. Lua checks a count hook before every VM
// instruction whatever the count, which costs a few percent of a download;
// setting the hook only when a call has run for a tick keeps that check to the
// calls that run long. Lua's own standalone interpreter stops a running script
// the same way (lua_sethook from a signal handler).

#include <csignal>
#include <ctime>

struct lua_State;
struct lua_Debug;

namespace ovslua::detail {

/// What the tick's signal handler reads and writes. Only the thread that owns
/// the tick touches it, and the handler runs on that thread, so volatile with
/// signal fences is all the ordering it needs.
struct TickTarget {
  lua_State* volatile running = nullptr;  // the interpreter while a call runs, else null
  volatile std::sig_atomic_t armed = 0;   // the tick has set the count hook on it
  void (*hook)(lua_State*, lua_Debug*) = nullptr;
  int step = 1000;
};

class CpuTick {
 public:
  /// The real-time signal the ticks arrive on (SIGRTMIN + 6).
  static int Signal() noexcept;
  /// Period of the tick in CPU time of the watched thread.
  static constexpr long kPeriodNanoseconds = 10L * 1000L * 1000L;

  CpuTick() = default;
  ~CpuTick() { Stop(); }
  CpuTick(const CpuTick&) = delete;
  CpuTick& operator=(const CpuTick&) = delete;

  /// Starts ticking on the calling thread for target. False, with nothing
  /// changed in the process, when the signal is the host's (a handler or
  /// SIG_IGN is set), blocked on this thread, or no timer can be had.
  bool Start(TickTarget& target) noexcept;
  /// Stops the ticks and takes back one already sent, so that no signal for
  /// target arrives afterwards; the signal's earlier disposition is restored
  /// when no other tick runs. Call on the thread that started it.
  void Stop() noexcept;
  bool Running() const noexcept { return m_running; }

 private:
  timer_t m_timer{};
  bool m_running = false;
};

}  // namespace ovslua::detail
