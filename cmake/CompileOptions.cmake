# Compiler choices of the library, each with its reason.

# Of every target of this build: warnings, sanitizers, and paths relative to the source tree.
add_library(ornik_options INTERFACE)
target_compile_options(ornik_options INTERFACE
  $<$<CXX_COMPILER_ID:GNU,Clang>:-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual>
  # Loops marked as independent need not all be worth vectorising.
  $<$<CXX_COMPILER_ID:Clang>:-Wno-pass-failed>
  # GCC 12 warns of impossible overlaps inside std::string.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
  # Messages name source files by their path in the source tree, whatever folder it was built in.
  $<$<CXX_COMPILER_ID:GNU,Clang>:-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=>
  # a*b+c stays two roundings: sequences and sums give the same bits on every machine. The product
  # kernels, where a fused step is the point, lift this for their own files.
  $<$<CXX_COMPILER_ID:GNU,Clang>:-ffp-contract=off>)
if(ORNIK_WERROR)
  target_compile_options(ornik_options INTERFACE $<$<CXX_COMPILER_ID:GNU,Clang>:-Werror>)
endif()

if(ORNIK_SANITIZE STREQUAL "address")
  set(sanitize_flags -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(ORNIK_SANITIZE STREQUAL "thread")
  set(sanitize_flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(ORNIK_SANITIZE)
  message(FATAL_ERROR "ORNIK_SANITIZE is 'address', 'thread' or empty, not '${ORNIK_SANITIZE}'")
endif()
if(ORNIK_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # With sanitizers, GCC takes its own instrumentation for uses of uninitialised variables.
  list(APPEND sanitize_flags -Wno-maybe-uninitialized)
endif()
target_compile_options(ornik_options INTERFACE ${sanitize_flags})
target_link_options(ornik_options INTERFACE ${sanitize_flags})

# Of the library's own code, for an instruction set. Nobody reads errno after a root, and setting it keeps loops from
# being vectorised; values do not change.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
check_cxx_compiler_flag(-mtune=haswell ORNIK_HAVE_MTUNE_HASWELL)
function(ornik_add_kernel_options name arch)
  add_library(${name} INTERFACE)
  target_compile_options(${name} INTERFACE $<$<CXX_COMPILER_ID:GNU,Clang>:-fno-math-errno>)
  target_compile_options(${name} INTERFACE
    $<$<AND:$<CXX_COMPILER_ID:GNU,Clang>,$<CONFIG:Release,RelWithDebInfo>>:-O3>)
  if(arch AND CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    target_compile_options(${name} INTERFACE -march=${arch})
  endif()
  # GCC 12's own tuning for recent AMD processors costs a third of the float32 matrix product (132 against
  # 187 GFLOP/s measured on a Zen 3 machine); the generic AVX2 tuning does not.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND ORNIK_HAVE_MTUNE_HASWELL)
    target_compile_options(${name} INTERFACE -mtune=haswell)
  endif()
endfunction()
ornik_add_kernel_options(ornik_kernel_options "${ORNIK_ARCH}")

# Calls between the library's own functions go straight to them, not by the table through which a program could put its
# own in their place: a sixth of the time of a small operation.
set(ornik_link_options $<$<AND:$<CXX_COMPILER_ID:GNU,Clang>,$<PLATFORM_ID:Linux>>:-Wl,-Bsymbolic-functions>)

# Of what has to run on every processor of the architecture, to see whether the one at hand has the instructions of
# `arch`: ORNIK_WANTED_INSTRUCTIONS lists them. Names are those that both compilers can ask a processor for.
function(ornik_compile_for_all target arch)
  if(NOT arch OR NOT CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64" OR NOT CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    return()
  endif()
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -march=${arch} -dM -E -x c++ /dev/null
                  OUTPUT_VARIABLE macros COMMAND_ERROR_IS_FATAL ANY)
  set(wanted)
  foreach(name IN ITEMS sse3 ssse3 sse4.1 sse4.2 popcnt avx avx2 bmi bmi2 fma gfni vpclmulqdq avx512f avx512bw avx512cd
                        avx512dq avx512vl avx512ifma avx512vbmi avx512vbmi2 avx512vnni avx512bitalg avx512vpopcntdq)
    string(TOUPPER ${name} macro)
    string(REPLACE "." "_" macro ${macro})
    if(macros MATCHES "#define __${macro}__ ")
      string(APPEND wanted "ORNIK_WANTED(${name}) ")
    endif()
  endforeach()
  target_compile_options(${target} PRIVATE -march=x86-64 -mtune=generic)
  if(wanted)
    target_compile_definitions(${target} PRIVATE "ORNIK_WANTED_INSTRUCTIONS=${wanted}")
  endif()
endfunction()

# The loader of glibc, too, knows the levels of x86-64 by name, and refuses a library that the processor can not run.
function(ornik_link_for target arch)
  if(arch MATCHES "^x86-64-v[234]$" AND CMAKE_SYSTEM_NAME STREQUAL "Linux")
    target_link_options(${target} PRIVATE -Wl,-z,${arch})
  endif()
endfunction()
