#include "SmallBlockPool.h"

#include <ovslua/PoolUsage.h>
#include <ovslua/detail/AllocationFailureHook.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

namespace ovslua::detail {

static_assert(alignof(double) <= 8 && alignof(long long) <= 8 && alignof(void*) <= 8,
              "Lua objects need at most 8-byte alignment");

namespace {

// Process-wide, since interpreters may live on several threads; relaxed, since
// they are statistics that order nothing else.
std::atomic<std::size_t> g_chunkBytes{0};
std::atomic<std::size_t> g_blockBytes{0};
std::atomic<AllocationFailureHook> g_failureHook{nullptr};

}  // namespace

void SetAllocationFailureHook(AllocationFailureHook hook) noexcept {
  g_failureHook.store(hook, std::memory_order_relaxed);
}

SmallBlockPool::~SmallBlockPool() {
  while (m_chunks != nullptr) {
    Chunk* next = m_chunks->next;
    std::free(m_chunks);
    g_chunkBytes.fetch_sub(kChunkBytes, std::memory_order_relaxed);
    m_chunks = next;
  }
  // Blocks the interpreter did not give back die with their chunks.
  g_blockBytes.fetch_sub(m_blockBytes, std::memory_order_relaxed);
}

void* SmallBlockPool::Allocate(void* ud, void* block, std::size_t oldSize,
                               std::size_t newSize) noexcept {
  auto* pool = static_cast<SmallBlockPool*>(ud);
  // For a new block Lua passes a type tag as oldSize, not a size.
  const std::size_t heldBefore = block != nullptr ? oldSize : 0;
  if (newSize == 0) {
    if (block != nullptr) {
      pool->Delete(block, oldSize);
      pool->m_bytesInUse -= heldBefore;
    }
    return nullptr;
  }
  if (newSize > heldBefore && pool->m_limit != 0 &&
      newSize - heldBefore > pool->m_limit - std::min(pool->m_limit, pool->m_bytesInUse)) {
    ++pool->m_failures;
    return nullptr;
  }
  if (newSize > heldBefore) {
    const AllocationFailureHook hook = g_failureHook.load(std::memory_order_relaxed);
    if (hook != nullptr && hook(newSize)) {
      ++pool->m_failures;
      return nullptr;
    }
  }
  void* result = block == nullptr ? pool->New(newSize) : pool->Resize(block, oldSize, newSize);
  if (result == nullptr) {
    ++pool->m_failures;
    return nullptr;
  }
  pool->m_bytesInUse = pool->m_bytesInUse - heldBefore + newSize;
  return result;
}

void* SmallBlockPool::AllocateTrackingPeak(void* ud, void* block, std::size_t oldSize,
                                           std::size_t newSize) noexcept {
  void* result = Allocate(ud, block, oldSize, newSize);
  auto* pool = static_cast<SmallBlockPool*>(ud);
  pool->m_peakBytesInUse = std::max(pool->m_peakBytesInUse, pool->m_bytesInUse);
  return result;
}

void* SmallBlockPool::New(std::size_t size) noexcept {
  if (!IsSmall(size)) return std::malloc(size);
  const std::size_t sizeClass = ClassOf(size);
  FreeBlock* free = m_free[sizeClass];
  void* block = free;
  if (free != nullptr) {
    m_free[sizeClass] = free->next;
  } else {
    block = Carve(sizeClass);
    if (block == nullptr) return nullptr;
  }
  CountBlocks(static_cast<std::ptrdiff_t>(sizeClass * kGranule));
  return block;
}

void SmallBlockPool::CountBlocks(std::ptrdiff_t bytes) noexcept {
  m_blockBytes += static_cast<std::size_t>(bytes);  // wraps back for a negative step
  g_blockBytes.fetch_add(static_cast<std::size_t>(bytes), std::memory_order_relaxed);
}

void SmallBlockPool::Delete(void* block, std::size_t size) noexcept {
  if (!IsSmall(size)) {
    std::free(block);
    return;
  }
  const std::size_t sizeClass = ClassOf(size);
  auto* free = static_cast<FreeBlock*>(block);
  free->next = m_free[sizeClass];
  m_free[sizeClass] = free;
  CountBlocks(-static_cast<std::ptrdiff_t>(sizeClass * kGranule));
}

void* SmallBlockPool::Resize(void* block, std::size_t oldSize, std::size_t newSize) noexcept {
  const bool wasSmall = IsSmall(oldSize);
  const bool isSmall = IsSmall(newSize);
  if (!wasSmall && !isSmall) return std::realloc(block, newSize);
  if (wasSmall && isSmall && ClassOf(oldSize) == ClassOf(newSize)) return block;
  // Between size classes, or between the pool and malloc: move the contents.
  void* moved = New(newSize);
  if (moved == nullptr) return nullptr;  // the old block stays valid, as Lua expects
  std::memcpy(moved, block, std::min(oldSize, newSize));
  Delete(block, oldSize);
  return moved;
}

void* SmallBlockPool::Carve(std::size_t sizeClass) noexcept {
  const std::size_t bytes = sizeClass * kGranule;
  if (static_cast<std::size_t>(m_end - m_next) < bytes) {
    // The rest of the old chunk (less than one block) is left unused.
    auto* chunk = static_cast<Chunk*>(std::malloc(kChunkBytes));
    if (chunk == nullptr) return nullptr;
    g_chunkBytes.fetch_add(kChunkBytes, std::memory_order_relaxed);
    chunk->next = m_chunks;
    m_chunks = chunk;
    m_next = reinterpret_cast<char*>(chunk) + kChunkHeader;
    m_end = reinterpret_cast<char*>(chunk) + kChunkBytes;
  }
  void* block = m_next;
  m_next += bytes;
  return block;
}

}  // namespace ovslua::detail

namespace ovslua {

PoolUsage InterpreterPoolUsage() noexcept {
  PoolUsage usage;
  usage.chunkBytes = detail::g_chunkBytes.load(std::memory_order_relaxed);
  usage.blockBytes = detail::g_blockBytes.load(std::memory_order_relaxed);
  return usage;
}

}  // namespace ovslua
