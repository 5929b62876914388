# The library once more for each further instruction set of ORNIK_LEVELS: ornik_level_<level>. The loader takes the best
# one that the processor has from folders named after them, below the library's own.
#
# Only the kernels are compiled again: everything else checks, allocates and calls them, and is the first level's. Kernels
# stand before it when a level is linked, so that of functions in headers the level's own code stays.

# A package carries everything that is no kernel as often as there are levels. None of it loops over elements: it is
# compiled for less room, and what a program calls for whole tensors, modules and files, for the least.
if(ORNIK_LEVELS AND CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  set(front_sources ${ornik_sources})
  list(FILTER front_sources EXCLUDE REGEX "/src/hardware/")
  set(long_sources ${front_sources})
  set(long_folders "apis/|io/(json|np|safetensors|zip)|ktensor/|layers/|losses/|modules/|optimizers/|random/|tensor/|utils/")
  list(FILTER long_sources INCLUDE REGEX "/src/(${long_folders})")
  list(REMOVE_ITEM front_sources ${long_sources})
  set_property(SOURCE ${front_sources} APPEND PROPERTY COMPILE_OPTIONS $<$<CONFIG:Release>:-O2>)
  set_property(SOURCE ${long_sources} APPEND PROPERTY COMPILE_OPTIONS $<$<CONFIG:Release>:-Os>)
  # Headers compiled for speed are refused there.
  set_property(SOURCE ${long_sources} PROPERTY SKIP_PRECOMPILE_HEADERS ON)
endif()

set(level_sources ${other_sources})
list(FILTER level_sources INCLUDE REGEX "/src/hardware/cpu/")

foreach(level IN LISTS ornik_further_levels)
  ornik_add_kernel_options(ornik_kernel_options_${level} ${level})
  set(kernels ornik_${level}_objects)
  # But for the row kernels, which use all of it, the two levels are the same instructions.
  if(level STREQUAL "x86-64-v4" AND TARGET ornik_x86-64-v3_objects AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set(kernels ornik_x86-64-v3_objects)
  endif()
  ornik_add_library_objects(ornik_${level} ornik_kernel_options_${level} ${level} ${level_sources})
  if(NOT kernels STREQUAL "ornik_${level}_objects")
    set_target_properties(ornik_${level}_objects PROPERTIES EXCLUDE_FROM_ALL ON)
  endif()
  add_library(ornik_level_${level} SHARED
    $<TARGET_OBJECTS:ornik_${level}_row_objects> $<TARGET_OBJECTS:ornik_${level}_check_objects>
    $<TARGET_OBJECTS:${kernels}> $<FILTER:$<TARGET_OBJECTS:ornik_objects>,EXCLUDE,/src/hardware/cpu/>)
  target_link_libraries(ornik_level_${level} PRIVATE OpenMP::OpenMP_CXX ${ornik_zlib} ornik_options)
  target_link_options(ornik_level_${level} PRIVATE ${ornik_link_options})
  ornik_link_for(ornik_level_${level} ${level})
  set_target_properties(ornik_level_${level} PROPERTIES
    OUTPUT_NAME ornik VERSION ${ornik_soversion} SOVERSION ${ornik_soversion}
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/levels/${level})
  if(ORNIK_INSTALL AND NOT SKBUILD)
    install(TARGETS ornik_level_${level} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/glibc-hwcaps/${level}
            COMPONENT runtime NAMELINK_SKIP)
  endif()
endforeach()
