# 64-bit Windows, by Debian's g++-mingw-w64-x86-64-posix (std::thread needs its POSIX threads); programs run under wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_CROSSCOMPILING_EMULATOR wine)
# The compiler's own libraries go into each program and DLL: they are found wherever these are started.
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -static)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libgomp.a OUTPUT_VARIABLE gomp
                OUTPUT_STRIP_TRAILING_WHITESPACE)
set(OpenMP_gomp_LIBRARY ${gomp} CACHE FILEPATH "OpenMP's runtime; otherwise a DLL of it would be found")
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
