# The matrix products are where fused multiply-add is the point: results are the same bits on every run of
# one build, whatever the team size.
set_source_files_properties(
  ${PROJECT_SOURCE_DIR}/src/hardware/cpu/cpu_product_real.cpp
  ${PROJECT_SOURCE_DIR}/src/hardware/cpu/cpu_product_complex.cpp
  PROPERTIES COMPILE_OPTIONS $<$<CXX_COMPILER_ID:GNU,Clang>:-ffp-contract=fast>)
