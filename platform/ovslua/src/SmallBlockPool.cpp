#include "SmallBlockPool.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace ovslua::detail {

static_assert(alignof(double) <= 8 && alignof(long long) <= 8 && alignof(void*) <= 8,
              "Lua objects need at most 8-byte alignment");

SmallBlockPool::~SmallBlockPool() {
  while (m_chunks != nullptr) {
    Chunk* next = m_chunks->next;
    std::free(m_chunks);
    m_chunks = next;
  }
}

void* SmallBlockPool::Allocate(void* ud, void* block, std::size_t oldSize,
                               std::size_t newSize) noexcept {
  auto* pool = static_cast<SmallBlockPool*>(ud);
  if (newSize == 0) {
    if (block != nullptr) pool->Delete(block, oldSize);
    return nullptr;
  }
  if (block == nullptr) return pool->New(newSize);
  return pool->Resize(block, oldSize, newSize);
}

void* SmallBlockPool::New(std::size_t size) noexcept {
  if (!IsSmall(size)) return std::malloc(size);
  const std::size_t sizeClass = ClassOf(size);
  FreeBlock* free = m_free[sizeClass];
  if (free != nullptr) {
    m_free[sizeClass] = free->next;
    return free;
  }
  return Carve(sizeClass);
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
