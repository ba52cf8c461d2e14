#pragma once
// Makes chosen allocations of this test program fail: the ones through C++
// operator new (replaced in this program), through pugixml's allocation
// functions and through the Lua interpreters' allocator. All three count in one
// sequence, so "the N-th allocation" means the N-th of any kind after Arm().

#include <cstdint>

namespace lkdh::test {

/// Which allocator a counted allocation went to.
enum class AllocationKind { OperatorNew, Pugixml, Lua };

class AllocationFaults {
 public:
  /// Installs the counting allocators of pugixml and Lua (operator new is
  /// replaced for the whole program). Call once before anything allocates
  /// through pugixml.
  static void Install();

  /// From now on counts allocations and fails the count ones from the first-th
  /// (1-based) on.
  static void Arm(std::uint64_t first, std::uint64_t count = 1) noexcept;
  /// Stops counting and failing; returns how many allocations were counted.
  static std::uint64_t Disarm() noexcept;

  /// Allocations of one kind counted since Arm().
  static std::uint64_t Counted(AllocationKind kind) noexcept;
  /// Failures injected since Arm(), in all and of one kind.
  static std::uint64_t Injected() noexcept;
  static std::uint64_t Injected(AllocationKind kind) noexcept;

  /// While one lives, allocations are neither counted nor failed: for the
  /// test's own instruments (such as its log recorder), not the code under test.
  class Pause {
   public:
    Pause() noexcept;
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;
  };

  /// Counts one allocation of kind; true when it is to fail.
  static bool ShouldFail(AllocationKind kind) noexcept;
};

}  // namespace lkdh::test
