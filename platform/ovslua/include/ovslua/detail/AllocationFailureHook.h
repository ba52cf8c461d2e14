#pragma once
// For tests only: makes the interpreters' allocator refuse chosen requests, so
// that a test can check how every caller copes with a failed allocation.

#include <cstddef>

namespace ovslua::detail {

/// Asked before each request that needs more memory (a new block or a larger
/// one); true makes the request fail as if memory had run out.
using AllocationFailureHook = bool (*)(std::size_t newSize) noexcept;

/// Installs hook for every interpreter of the process; null removes it.
void SetAllocationFailureHook(AllocationFailureHook hook) noexcept;

}  // namespace ovslua::detail
