#pragma once
// How much of the heap the interpreters' small-block pools hold. Heap figures
// taken from malloc's statistics see whole pool chunks, not what the scripts
// use of them; these totals let a measurement count the blocks instead.

#include <cstddef>

namespace ovslua {

struct PoolUsage {
  std::size_t chunkBytes = 0;  // taken from malloc by every pool, in whole chunks
  std::size_t blockBytes = 0;  // handed to interpreters and not given back yet
};

/// Totals over every interpreter of the process, at this moment.
PoolUsage InterpreterPoolUsage() noexcept;

}  // namespace ovslua
