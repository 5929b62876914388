# The library once more for each further instruction set of ORNIK_LEVELS: ornik_level_<level>. The loader takes the best
# one that the processor has from folders named after them (python/CMakeLists.txt installs them so).
#
# Only the kernels are compiled again: everything else checks, allocates and calls them, and is the first level's. Kernels
# stand before it when a level is linked, so that of functions in headers the level's own code stays.

set(level_sources ${other_sources})
list(FILTER level_sources INCLUDE REGEX "/src/hardware/cpu/")

foreach(level IN LISTS ornik_further_levels)
  ornik_add_kernel_options(ornik_kernel_options_${level} ${level})
  set(kernels ornik_${level}_objects)
  # But for the row kernels, which use all of it, the two levels are the same instructions.
  if(level STREQUAL "x86-64-v4" AND TARGET ornik_x86-64-v3_objects AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set(kernels ornik_x86-64-v3_objects)
  endif()
  ornik_add_library_objects(ornik_${level} ornik_kernel_options_${level} ${level_sources})
  if(NOT kernels STREQUAL "ornik_${level}_objects")
    set_target_properties(ornik_${level}_objects PROPERTIES EXCLUDE_FROM_ALL ON)
  endif()
  add_library(ornik_level_${level} SHARED
    $<TARGET_OBJECTS:ornik_${level}_row_objects>
    $<TARGET_OBJECTS:${kernels}> $<FILTER:$<TARGET_OBJECTS:ornik_objects>,EXCLUDE,/src/hardware/cpu/>)
  target_link_libraries(ornik_level_${level} PRIVATE OpenMP::OpenMP_CXX ${ornik_zlib} ornik_options)
  target_link_options(ornik_level_${level} PRIVATE ${ornik_link_options})
  set_target_properties(ornik_level_${level} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/levels/${level})
endforeach()
