# Flags for our own code. No -Wpedantic: it refuses "%m". No -Wformat-nonliteral: the formatting
# template takes its format as a parameter.
add_library(project_warnings INTERFACE)
target_compile_options(project_warnings INTERFACE
  -Wall -Wextra -Werror
  -Wshadow                # a name that hides another
  -Wconversion            # a value that an implicit conversion may change
  -Wnon-virtual-dtor      # deletion through a base without a virtual destructor
  -Woverloaded-virtual    # an override that hides instead
  -Wold-style-cast
  -Wcast-qual
  -Wundef
  -Wformat=2 -Wno-format-nonliteral
  -Wduplicated-cond -Wlogical-op)
# For other processors GCC 12 sees null pointers in what it inlines of libstdc++.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
  target_compile_options(project_warnings INTERFACE -Wnull-dereference)
endif()
