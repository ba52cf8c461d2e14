#include "CpuTick.h"

#include <lua.hpp>

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

namespace ovslua::detail {

namespace {

// Arms the count hook on the call the tick found running, once per call. Only
// lua_sethook is called, which Lua allows from a signal handler.
void OnTick(int /*signal*/, siginfo_t* info, void* /*context*/) {
  if (info == nullptr || info->si_code != SI_TIMER) return;  // not one of our timers
  auto* target = static_cast<TickTarget*>(info->si_value.sival_ptr);
  if (target == nullptr) return;
  const int savedErrno = errno;
  lua_State* running = target->running;
  if (running != nullptr && target->armed == 0) {
    target->armed = 1;
    lua_sethook(running, target->hook, LUA_MASKCOUNT, target->step);
  }
  errno = savedErrno;
}

// The handler is process-wide while any tick runs; the disposition found
// before is put back by the last one, so an unloaded library leaves none behind.
std::mutex g_handlerMutex;
int g_handlerUsers = 0;
struct sigaction g_previous;

bool AcquireHandler(int signal) {
  std::lock_guard<std::mutex> lock(g_handlerMutex);
  if (g_handlerUsers > 0) {
    ++g_handlerUsers;
    return true;
  }
  struct sigaction current {};
  if (sigaction(signal, nullptr, &current) != 0) return false;
  // A handler or SIG_IGN means the host uses the signal: it is not ours to take.
  if ((current.sa_flags & SA_SIGINFO) != 0 || current.sa_handler != SIG_DFL) return false;
  struct sigaction ours {};
  ours.sa_sigaction = &OnTick;
  ours.sa_flags = SA_SIGINFO | SA_RESTART;  // the host's interrupted system calls resume
  sigemptyset(&ours.sa_mask);
  if (sigaction(signal, &ours, &g_previous) != 0) return false;
  g_handlerUsers = 1;
  return true;
}

void ReleaseHandler(int signal) noexcept {
  try {
    std::lock_guard<std::mutex> lock(g_handlerMutex);
    if (g_handlerUsers > 0 && --g_handlerUsers == 0) sigaction(signal, &g_previous, nullptr);
  } catch (...) {
    // A mutex that cannot be locked leaves our handler in place, which ignores stray signals.
  }
}

bool BlockedOnThisThread(int signal) {
  sigset_t blocked;
  sigemptyset(&blocked);
  if (pthread_sigmask(SIG_BLOCK, nullptr, &blocked) != 0) return true;
  return sigismember(&blocked, signal) == 1;
}

}  // namespace

int CpuTick::Signal() noexcept { return SIGRTMIN + 6; }

bool CpuTick::Start(TickTarget& target) noexcept {
  if (m_running) return true;
  const int signal = Signal();
  // A blocked signal would never arrive, and a call would never be counted.
  if (signal > SIGRTMAX || BlockedOnThisThread(signal)) return false;
  bool acquired = false;
  try {
    acquired = AcquireHandler(signal);
  } catch (...) {
    return false;
  }
  if (!acquired) return false;
  struct sigevent event {};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = signal;
  event.sigev_value.sival_ptr = &target;
#ifdef sigev_notify_thread_id
  event.sigev_notify_thread_id = gettid();
#else
  event._sigev_un._tid = gettid();
#endif
  if (timer_create(CLOCK_THREAD_CPUTIME_ID, &event, &m_timer) != 0) {
    ReleaseHandler(signal);
    return false;
  }
  struct itimerspec period {};
  period.it_value.tv_nsec = kPeriodNanoseconds;
  period.it_interval.tv_nsec = kPeriodNanoseconds;
  if (timer_settime(m_timer, 0, &period, nullptr) != 0) {
    timer_delete(m_timer);
    ReleaseHandler(signal);
    return false;
  }
  m_running = true;
  return true;
}

void CpuTick::Stop() noexcept {
  if (!m_running) return;
  m_running = false;
  const int signal = Signal();
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signal);
  sigset_t before;
  sigemptyset(&before);
  const bool masked = pthread_sigmask(SIG_BLOCK, &only, &before) == 0;
  timer_delete(m_timer);
  if (masked) {
    // A tick sent before the timer was deleted is still pending: take it here,
    // while its target still exists.
    const struct timespec now {};
    while (sigtimedwait(&only, nullptr, &now) == signal) {
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
  ReleaseHandler(signal);
}

}  // namespace ovslua::detail
