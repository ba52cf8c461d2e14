#include "AllocationFaults.h"

#include <ovslua/detail/AllocationFailureHook.h>

#include <pugixml.hpp>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace lkdh::test {

namespace {

std::atomic<bool> g_armed{false};
std::atomic<int> g_paused{0};
std::atomic<std::uint64_t> g_counted{0};
std::atomic<std::uint64_t> g_first{0};
std::atomic<std::uint64_t> g_count{0};
std::atomic<std::uint64_t> g_countedByKind[3] = {};
std::atomic<std::uint64_t> g_injected[3] = {};

void* PugixmlAllocate(std::size_t size) {
  if (AllocationFaults::ShouldFail(AllocationKind::Pugixml)) return nullptr;
  return std::malloc(size);
}

void PugixmlDeallocate(void* block) { std::free(block); }

bool LuaShouldFail(std::size_t) noexcept {
  return AllocationFaults::ShouldFail(AllocationKind::Lua);
}

}  // namespace

void AllocationFaults::Install() {
  pugi::set_memory_management_functions(&PugixmlAllocate, &PugixmlDeallocate);
  ovslua::detail::SetAllocationFailureHook(&LuaShouldFail);
}

void AllocationFaults::Arm(std::uint64_t first, std::uint64_t count) noexcept {
  g_armed.store(false);
  g_counted.store(0);
  for (auto& injected : g_injected) injected.store(0);
  for (auto& counted : g_countedByKind) counted.store(0);
  g_first.store(first);
  g_count.store(count);
  g_armed.store(true);
}

std::uint64_t AllocationFaults::Disarm() noexcept {
  g_armed.store(false);
  return g_counted.load();
}

std::uint64_t AllocationFaults::Injected() noexcept {
  std::uint64_t total = 0;
  for (const auto& injected : g_injected) total += injected.load();
  return total;
}

std::uint64_t AllocationFaults::Counted(AllocationKind kind) noexcept {
  return g_countedByKind[static_cast<int>(kind)].load();
}

std::uint64_t AllocationFaults::Injected(AllocationKind kind) noexcept {
  return g_injected[static_cast<int>(kind)].load();
}

AllocationFaults::Pause::Pause() noexcept { g_paused.fetch_add(1); }

AllocationFaults::Pause::~Pause() { g_paused.fetch_sub(1); }

bool AllocationFaults::ShouldFail(AllocationKind kind) noexcept {
  if (!g_armed.load(std::memory_order_relaxed) || g_paused.load(std::memory_order_relaxed) > 0) {
    return false;
  }
  const std::uint64_t number = g_counted.fetch_add(1) + 1;
  g_countedByKind[static_cast<int>(kind)].fetch_add(1);
  const std::uint64_t first = g_first.load();
  if (number < first || number - first >= g_count.load()) return false;
  g_injected[static_cast<int>(kind)].fetch_add(1);
  return true;
}

}  // namespace lkdh::test

// ---- operator new and delete of this program: malloc and free, with faults ----

namespace {

using lkdh::test::AllocationFaults;
using lkdh::test::AllocationKind;

void* Allocate(std::size_t size) noexcept {
  if (AllocationFaults::ShouldFail(AllocationKind::OperatorNew)) return nullptr;
  return std::malloc(size == 0 ? 1 : size);
}

void* AllocateAligned(std::size_t size, std::align_val_t alignment) noexcept {
  if (AllocationFaults::ShouldFail(AllocationKind::OperatorNew)) return nullptr;
  std::size_t align = static_cast<std::size_t>(alignment);
  if (align < sizeof(void*)) align = sizeof(void*);
  void* block = nullptr;
  if (posix_memalign(&block, align, size == 0 ? 1 : size) != 0) return nullptr;
  return block;
}

void* AllocateOrThrow(std::size_t size) {
  void* block = Allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void* AllocateAlignedOrThrow(std::size_t size, std::align_val_t alignment) {
  void* block = AllocateAligned(size, alignment);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

void* operator new(std::size_t size) { return AllocateOrThrow(size); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return AllocateAlignedOrThrow(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return AllocateAlignedOrThrow(size, alignment);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return AllocateAligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return AllocateAligned(size, alignment);
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete[](void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }
void operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept {
  std::free(block);
}
void operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept {
  std::free(block);
}
