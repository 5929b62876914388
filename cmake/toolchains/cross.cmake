# What the toolchain files share: libraries and packages of the system that builds are not those of the target, but for
# Eigen, which is headers alone.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
if(EXISTS /usr/share/eigen3/cmake)
  set(Eigen3_DIR /usr/share/eigen3/cmake CACHE PATH "Eigen's CMake package")
endif()
