if(DDT_COVERAGE)
  # gcov's runtime, shared by all that is linked after it. Only our own products are counted, so that a process
  # has little to write at its end.
  add_library(coverage_data SHARED tests/support/coverage_data.cpp)
  target_link_libraries(coverage_data PRIVATE gcov ${CMAKE_DL_LIBS})
  # Not among the platform's libraries, which tests list; and found by programs with a fixed RUNPATH too.
  set_target_properties(coverage_data PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
  add_link_options(-Wl,-rpath,${PROJECT_BINARY_DIR})
  add_compile_options(--coverage -fprofile-update=atomic
    "-fprofile-filter-files=^${PROJECT_SOURCE_DIR}/(src|platform|support_service)/")
  foreach(function init merge_add exit fork execve)
    add_link_options(-Wl,--wrap=__gcov_${function})
  endforeach()
  add_link_options(-Wl,-z,nodelete)  # its list of objects may not lose one
  link_libraries(coverage_data)
endif()
