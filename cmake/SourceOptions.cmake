# Fused multiply-add: on in the matrix products, off everywhere else.
#
# The products live by it; their results are the same bits on every run of one build, whatever the team size.
# Everywhere else a*b+c stays two roundings, on every machine. -ffp-contract=off says so, but GCC 12 still
# fuses the multiply and add/subtract pairs of complex products that it vectorises (a test of complex
# arithmetic compares bits and shows it), so its instructions are taken away as well.
set(product_sources ${ornik_sources})
list(FILTER product_sources INCLUDE REGEX "/cpu_product_[a-z]+\\.cpp$")
set(other_sources ${ornik_sources})
list(REMOVE_ITEM other_sources ${product_sources})

set_source_files_properties(${product_sources} PROPERTIES
  COMPILE_OPTIONS $<$<CXX_COMPILER_ID:GNU,Clang>:-ffp-contract=fast>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  set_source_files_properties(${other_sources} PROPERTIES COMPILE_OPTIONS "-mno-fma;-mno-avx512f")
endif()

# Rows of exponentials: GCC turns their loops into vectors only where comparisons need not raise floating-point
# exceptions in order. No value depends on it.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set_property(SOURCE ${PROJECT_SOURCE_DIR}/src/hardware/cpu/nn/cpu_attention.cpp
                      ${PROJECT_SOURCE_DIR}/src/hardware/cpu/nn/cpu_class_losses.cpp
               APPEND PROPERTY COMPILE_OPTIONS -fno-trapping-math)
endif()

# Printing works on a null tensor, too: its test of `this` must stay.
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  set_property(SOURCE ${PROJECT_SOURCE_DIR}/src/tensor/tensor_print.cpp APPEND PROPERTY
    COMPILE_OPTIONS -fno-delete-null-pointer-checks
                    $<IF:$<CXX_COMPILER_ID:GNU>,-Wno-nonnull-compare,-Wno-tautological-undefined-compare>)
endif()
