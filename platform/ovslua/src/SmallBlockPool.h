#pragma once
// The interpreter's allocator. A script call creates and drops many small
// objects (tables, their parts, strings, closures); taking them from free lists
// per size is several times cheaper than malloc and free. Larger blocks go to
// malloc. The pool keeps its chunks until the interpreter is closed.

#include <cstddef>

namespace ovslua::detail {

class SmallBlockPool {
 public:
  SmallBlockPool() = default;
  ~SmallBlockPool();
  SmallBlockPool(const SmallBlockPool&) = delete;
  SmallBlockPool& operator=(const SmallBlockPool&) = delete;

  /// A lua_Alloc with the pool as ud: frees when newSize is 0, allocates when
  /// block is null (oldSize is then a type tag), resizes otherwise; null on failure.
  static void* Allocate(void* ud, void* block, std::size_t oldSize, std::size_t newSize) noexcept;
  /// Allocate, also keeping the most the pool has held (for measurements; the
  /// interpreter is switched to it, so that Allocate itself pays nothing).
  static void* AllocateTrackingPeak(void* ud, void* block, std::size_t oldSize,
                                    std::size_t newSize) noexcept;

  /// How many requests this pool could not satisfy since it was made. Lua may
  /// recover from a failed request (a script can even catch the error), so the
  /// wrapper compares this count around a call to learn that memory ran out.
  std::size_t FailureCount() const noexcept { return m_failures; }

  /// Requests that would take the bytes in use past limit fail; 0 sets no limit.
  /// Shrinking never fails, as Lua requires of its allocator.
  void SetLimit(std::size_t limit) noexcept { m_limit = limit; }
  /// What the interpreter holds, by the sizes it asked for.
  std::size_t BytesInUse() const noexcept { return m_bytesInUse; }
  /// The most it has held at once while AllocateTrackingPeak was its allocator.
  std::size_t PeakBytesInUse() const noexcept { return m_peakBytesInUse; }
  void ResetPeak() noexcept { m_peakBytesInUse = m_bytesInUse; }

 private:
  // 8 bytes: the strictest alignment of any Lua object (lua_Number, lua_Integer,
  // pointers), on the 32-bit device as here.
  static constexpr std::size_t kGranule = 8;
  static constexpr std::size_t kChunkBytes = 64 * 1024;
  // Under AddressSanitizer every block comes from malloc, so that overflows and
  // uses after free inside the interpreter's memory are still caught.
#if defined(__SANITIZE_ADDRESS__)
  static constexpr std::size_t kLargestSmall = 0;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
  static constexpr std::size_t kLargestSmall = 0;
#else
  static constexpr std::size_t kLargestSmall = 256;
#endif
#else
  static constexpr std::size_t kLargestSmall = 256;
#endif
  static constexpr std::size_t kClasses = kLargestSmall / kGranule + 1;

  struct FreeBlock {
    FreeBlock* next;
  };
  struct Chunk {
    Chunk* next;
  };
  static constexpr std::size_t kChunkHeader = (sizeof(Chunk) + kGranule - 1) / kGranule * kGranule;

  static bool IsSmall(std::size_t size) noexcept { return size <= kLargestSmall; }
  static std::size_t ClassOf(std::size_t size) noexcept { return (size + kGranule - 1) / kGranule; }

  void* New(std::size_t size) noexcept;
  void Delete(void* block, std::size_t size) noexcept;
  void* Resize(void* block, std::size_t oldSize, std::size_t newSize) noexcept;
  void* Carve(std::size_t sizeClass) noexcept;
  void CountBlocks(std::ptrdiff_t bytes) noexcept;

  FreeBlock* m_free[kClasses] = {};
  Chunk* m_chunks = nullptr;
  char* m_next = nullptr;  // the newest chunk's space not yet handed out
  char* m_end = nullptr;
  std::size_t m_blockBytes = 0;  // this pool's share of the process-wide count
  std::size_t m_failures = 0;
  std::size_t m_limit = 0;
  std::size_t m_bytesInUse = 0;
  std::size_t m_peakBytesInUse = 0;
};

}  // namespace ovslua::detail
