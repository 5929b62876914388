# Fused multiply-add: on in the matrix products and decompositions, written out by hand in the row kernels of
# mathematical functions, off everywhere else.
#
# The products live by it; their results are the same bits on every run of one build, whatever the team size.
# Everywhere else a*b+c stays two roundings, on every machine. -ffp-contract=off says so, but GCC 12 still
# fuses the multiply and add/subtract pairs of complex products that it vectorises (a test of complex
# arithmetic compares bits and shows it), so its instructions are taken away as well.
#
# All files that include the matrix library belong to the first group: its inline functions are one symbol for
# the whole library, and the linker keeps the code of whichever file it meets first.
set(product_sources ${ornik_sources})
list(FILTER product_sources INCLUDE REGEX "/cpu_(product_[a-z]+|eigh)\\.cpp$")
# Row kernels, and the rows of exponentials in softmax, losses and layers, say fused() where one rounding is meant. Without
# the flags that errno and traps would need, and with branches left to be turned into selections, their loops
# become vector code. No complex arithmetic here.
set(row_sources ${ornik_sources})
list(FILTER row_sources INCLUDE REGEX "/cpu_(unary_real|unary_grad|binary_real|exp|attention|class_losses|losses|activation|recurrent)\\.cpp$")
set_source_files_properties(${row_sources} PROPERTIES
  COMPILE_OPTIONS "$<$<CXX_COMPILER_ID:GNU,Clang>:-fno-math-errno;-fno-trapping-math>;$<$<CXX_COMPILER_ID:GNU>:-fno-thread-jumps>")

set(other_sources ${ornik_sources})
list(REMOVE_ITEM other_sources ${product_sources} ${row_sources})

# GCC 12 takes the deliberately undefined registers of its own AVX-512 headers for uninitialised variables.
set_source_files_properties(${product_sources} PROPERTIES
  COMPILE_OPTIONS "$<$<CXX_COMPILER_ID:GNU,Clang>:-ffp-contract=fast>;$<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized$<SEMICOLON>-Wno-uninitialized>")
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  set_source_files_properties(${other_sources} PROPERTIES COMPILE_OPTIONS "-mno-fma;-mno-avx512f")
endif()

# Printing works on a null tensor, too: its test of `this` must stay.
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  set_property(SOURCE ${PROJECT_SOURCE_DIR}/src/tensor/tensor_print.cpp APPEND PROPERTY
    COMPILE_OPTIONS -fno-delete-null-pointer-checks
                    $<IF:$<CXX_COMPILER_ID:GNU>,-Wno-nonnull-compare,-Wno-tautological-undefined-compare>)
endif()

# Checks of every pointer in every inlined expression of the decompositions cost minutes and gigabytes of compilation;
# the other checks of undefined behaviour, and AddressSanitizer, stay on.
if(ORNIK_SANITIZE STREQUAL "address")
  set_property(SOURCE ${PROJECT_SOURCE_DIR}/src/hardware/cpu/cpu_eigh.cpp
               APPEND PROPERTY COMPILE_OPTIONS -fno-sanitize=null,alignment,object-size,pointer-overflow,vptr)
endif()
