set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)

# For the sources that print it, so that a new version compiles no others.
function(tell_version)
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_DEFINITIONS DDT_VERSION="${PROJECT_VERSION}")
endfunction()

# The programs too are compiled as position-independent library code: with -fPIE they would take a copy
# of LoggerManager::instance_, which a library linked -Bsymbolic would never write to.
add_compile_options(-fPIC)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64)  # files may be larger than a word tells
endif()
# RUNPATH, not RPATH, so that LD_LIBRARY_PATH can swap a platform library; every symbol is bound at
# start, so that one that a swapped library lacks shows then.
add_link_options(-Wl,--enable-new-dtags -Wl,-z,now -Wl,-z,relro)
