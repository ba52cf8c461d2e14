# Warnings are errors for our own targets only; third-party headers come in as
# SYSTEM includes through their imported targets. No -Wnull-dereference: GCC 12
# reports false positives inside libstdc++'s stream buffers at -O2.
add_library(lkdh_warnings INTERFACE)
target_compile_options(lkdh_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
  -Wcast-align -Woverloaded-virtual -Wformat=2 -Werror)
