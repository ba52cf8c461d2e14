# Warnings are errors for our own targets only; third-party headers come in as
# SYSTEM includes through their imported targets.
add_library(lkdh_warnings INTERFACE)
target_compile_options(lkdh_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
  -Wcast-align -Woverloaded-virtual -Wnull-dereference -Wformat=2 -Werror)
