# Fused multiply-add: on in the decompositions, written out by hand in the row kernels of mathematical functions and in
# the products and convolutions, off everywhere else. Each group of files is an object library of its own; linking
# ornik_objects brings all of them.
#
# The decompositions live by it. Elsewhere a*b+c stays two roundings, on every machine, unless it says fused().
# -ffp-contract=off sees to that, but GCC 12 still fuses the multiply and add/subtract pairs of complex products that it
# vectorises (a test of complex arithmetic compares bits and shows it), so its instructions are taken away as well.

# All files that include the matrix library are in this group: its inline functions are one symbol for
# the whole library, and the linker keeps the code of whichever file it meets first.
set(product_sources ${ornik_sources})
list(FILTER product_sources INCLUDE REGEX "/cpu_(product_taps|[a-z]+_solver)\\.cpp$")
# Row kernels, and the rows of exponentials in softmax, losses and layers, say fused() where one rounding is meant.
# Without the flags that errno and traps would need, and with branches left to be turned into selections, their loops
# become vector code. No complex operators here. The same goes for what is written in vectors (vector_types.h): files
# named *_vector.cpp.
set(row_sources ${ornik_sources})
list(FILTER row_sources INCLUDE REGEX "/cpu_(unary_real|unary_grad|binary_real|exp|attention|class_losses|losses|activation|recurrent|instruction_set|[a-z_]+_vector)\\.cpp$")
set(other_sources ${ornik_sources})
list(REMOVE_ITEM other_sources ${product_sources} ${row_sources})

function(ornik_add_objects name options)
  add_library(${name} OBJECT ${ARGN})
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden
                                           VISIBILITY_INLINES_HIDDEN ON)
  target_compile_definitions(${name} PRIVATE ORNIK_BUILDING)
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(${name} PUBLIC ornik_options OpenMP::OpenMP_CXX PRIVATE ${options})
endfunction()

# The three groups as <prefix>_objects, of the sources given, <prefix>_product_objects and <prefix>_row_objects.
function(ornik_add_library_objects prefix options)
  ornik_add_objects(${prefix}_objects ${options} ${ARGN})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
    target_compile_options(${prefix}_objects PRIVATE -mno-fma -mno-avx512f)
  endif()

  # GCC 12 takes the deliberately undefined registers of its own AVX-512 headers for uninitialised variables.
  ornik_add_objects(${prefix}_product_objects ${options} ${product_sources})
  target_link_libraries(${prefix}_product_objects PRIVATE Eigen3::Eigen)
  target_compile_options(${prefix}_product_objects PRIVATE
    $<$<CXX_COMPILER_ID:GNU,Clang>:-ffp-contract=fast>
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized;-Wno-uninitialized>)

  ornik_add_objects(${prefix}_row_objects ${options} ${row_sources})
  target_compile_options(${prefix}_row_objects PRIVATE $<$<CXX_COMPILER_ID:GNU,Clang>:-fno-math-errno;-fno-trapping-math>
                                                       $<$<CXX_COMPILER_ID:GNU>:-fno-thread-jumps>)
endfunction()
ornik_add_library_objects(ornik ornik_kernel_options ${other_sources})

target_sources(ornik_objects INTERFACE $<TARGET_OBJECTS:ornik_product_objects> $<TARGET_OBJECTS:ornik_row_objects>)

# Printing works on a null tensor, too: its test of `this` must stay.
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  set_property(SOURCE ${PROJECT_SOURCE_DIR}/src/tensor/tensor_print.cpp APPEND PROPERTY
    COMPILE_OPTIONS -fno-delete-null-pointer-checks
                    $<IF:$<CXX_COMPILER_ID:GNU>,-Wno-nonnull-compare,-Wno-tautological-undefined-compare>)
  set_source_files_properties(${PROJECT_SOURCE_DIR}/src/tensor/tensor_print.cpp PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
endif()

# Checks of every pointer in every inlined expression of the decompositions cost minutes and gigabytes of compilation;
# the other checks of undefined behaviour, and AddressSanitizer, stay on.
if(ORNIK_SANITIZE STREQUAL "address")
  set(solver_sources ${ornik_sources})
  list(FILTER solver_sources INCLUDE REGEX "/cpu_[a-z]+_solver\\.cpp$")
  set_property(SOURCE ${solver_sources} APPEND PROPERTY
    COMPILE_OPTIONS -fno-sanitize=null,alignment,object-size,pointer-overflow,vptr)
endif()

# Most files are small: reading the same headers is more than half of their compilation.
if(ORNIK_PRECOMPILE)
  target_precompile_headers(ornik_objects PRIVATE <algorithm> <cmath> <cstring> <limits>
                                                  ${PROJECT_SOURCE_DIR}/include/descriptors/tensoriterator.h)
endif()
