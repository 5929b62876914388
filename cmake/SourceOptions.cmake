# Fused multiply-add: written out by hand in the row kernels of mathematical functions and of products, off everywhere
# else. Each group of files is an object library of its own; linking ornik_objects brings both.
#
# Everywhere else a*b+c stays two roundings, on every machine. -ffp-contract=off says so, but GCC 12 still
# fuses the multiply and add/subtract pairs of complex products that it vectorises (a test of complex
# arithmetic compares bits and shows it), so its instructions are taken away as well.

# The check of the processor is no part of either.
set(check_source ${PROJECT_SOURCE_DIR}/src/hardware/processor_check.cpp)
list(REMOVE_ITEM ornik_sources ${check_source})

# Row kernels, and the rows of exponentials in softmax, losses and layers, say fused() where one rounding is meant.
# Without the flags that errno and traps would need, and with branches left to be turned into selections, their loops
# become vector code. No complex operators here. The same goes for what is written in vectors (vector_types.h): files
# named *_vector.cpp.
set(row_sources ${ornik_sources})
list(FILTER row_sources INCLUDE REGEX "/cpu_(unary_real|unary_grad|binary_real|exp|attention|attention_rows|softmax|layer_norm|class_losses|losses|activation|recurrent|instruction_set|[a-z_]+_vector)\\.cpp$")
set(other_sources ${ornik_sources})
list(REMOVE_ITEM other_sources ${row_sources})

# Decompositions do have complex numbers and rotations: GCC would weave pairs of their products into instructions that
# add and subtract with one rounding.
set(decomposition_sources ${row_sources})
list(FILTER decomposition_sources INCLUDE REGEX "/linear_algebra/")
set_property(SOURCE ${decomposition_sources} APPEND PROPERTY COMPILE_OPTIONS
  $<$<CXX_COMPILER_ID:GNU>:-fno-tree-slp-vectorize>)

function(ornik_add_objects name options)
  add_library(${name} OBJECT ${ARGN})
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden
                                           VISIBILITY_INLINES_HIDDEN ON)
  target_compile_definitions(${name} PRIVATE ORNIK_BUILDING)
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(${name} PUBLIC ornik_options OpenMP::OpenMP_CXX PRIVATE ${options})
endfunction()

# The two groups as <prefix>_objects, of the sources given, and <prefix>_row_objects; <prefix>_check_objects see whether
# the processor can run them.
function(ornik_add_library_objects prefix options arch)
  add_library(${prefix}_check_objects OBJECT ${check_source})
  set_target_properties(${prefix}_check_objects PROPERTIES POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden)
  target_include_directories(${prefix}_check_objects PRIVATE ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(${prefix}_check_objects PRIVATE ornik_options)
  ornik_compile_for_all(${prefix}_check_objects "${arch}")

  ornik_add_objects(${prefix}_objects ${options} ${ARGN})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
    target_compile_options(${prefix}_objects PRIVATE -mno-fma -mno-avx512f)
  endif()

  ornik_add_objects(${prefix}_row_objects ${options} ${row_sources})
  target_compile_options(${prefix}_row_objects PRIVATE $<$<CXX_COMPILER_ID:GNU,Clang>:-fno-math-errno;-fno-trapping-math>
                                                       $<$<CXX_COMPILER_ID:GNU>:-fno-thread-jumps>)
  # Without the fused instruction, row kernels call a function for each step (vector_types.h), which has to stay out of
  # branches.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
    get_target_property(level_options ${options} INTERFACE_COMPILE_OPTIONS)
    list(FILTER level_options INCLUDE REGEX "^-march=")
    string(MAKE_C_IDENTIFIER "ORNIK_HAVE_FMA${level_options}" have_fma)
    set(CMAKE_REQUIRED_FLAGS "${level_options}")
    check_cxx_source_compiles("#ifndef __FMA__\n#error none\n#endif\nint main() { return 0; }" ${have_fma})
    if(NOT ${have_fma})
      target_compile_options(${prefix}_row_objects PRIVATE -fno-tree-sink)
    endif()
  endif()
endfunction()
ornik_add_library_objects(ornik ornik_kernel_options "${ORNIK_ARCH}" ${other_sources})

target_sources(ornik_objects INTERFACE $<TARGET_OBJECTS:ornik_row_objects> $<TARGET_OBJECTS:ornik_check_objects>)
# Programs made of the objects themselves import nothing from a DLL.
target_compile_definitions(ornik_objects INTERFACE $<$<PLATFORM_ID:Windows>:ORNIK_STATIC>)

# Printing works on a null tensor, too: its test of `this` must stay.
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  set_property(SOURCE ${PROJECT_SOURCE_DIR}/src/tensor/tensor_print.cpp APPEND PROPERTY
    COMPILE_OPTIONS -fno-delete-null-pointer-checks
                    $<IF:$<CXX_COMPILER_ID:GNU>,-Wno-nonnull-compare,-Wno-tautological-undefined-compare>)
  set_source_files_properties(${PROJECT_SOURCE_DIR}/src/tensor/tensor_print.cpp PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
endif()

# What a cache needs to see through compiled headers: their names in what the preprocessor writes, and no time in the file.
set(ORNIK_PRECOMPILE_OPTIONS "")
if(ORNIK_PRECOMPILE AND CMAKE_CXX_COMPILER_LAUNCHER)
  set(ORNIK_PRECOMPILE_OPTIONS
      $<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess> "$<$<CXX_COMPILER_ID:Clang>:SHELL:-Xclang -fno-pch-timestamp>")
endif()

# Most files are small: reading the same headers is more than half of their compilation.
if(ORNIK_PRECOMPILE AND NOT ORNIK_PRECOMPILE STREQUAL "TESTS")
  target_compile_options(ornik_objects PRIVATE ${ORNIK_PRECOMPILE_OPTIONS})
  target_precompile_headers(ornik_objects PRIVATE <algorithm> <cmath> <cstring> <limits> <numeric>
                                                  ${PROJECT_SOURCE_DIR}/include/descriptors/tensoriterator.h
                                                  ${PROJECT_SOURCE_DIR}/include/ktensor/record.h)
endif()
