# The device: MIPS32 release 2 little endian, O32, glibc. Two settings select a device's own SDK:
#   -DZARVO_CROSS_PREFIX=mipsel-linux-gnu-   prefix of g++, ar, strip, ...; may begin with a folder
#   -DZARVO_SYSROOT=/path                    headers and libraries of the device
# The default is Debian's cross compiler, with the sysroot that board/fetch prepares if that exists.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)

set(ZARVO_CROSS_PREFIX "mipsel-linux-gnu-" CACHE STRING "Prefix of the cross compiler's programs")
set(ZARVO_SYSROOT "" CACHE PATH
  "Headers and libraries of the device; empty: build/board/sysroot if it exists, or the cross compiler's own")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZARVO_CROSS_PREFIX ZARVO_SYSROOT)

# CMake looks for ar, ranlib, nm and so on under the compiler's prefix.
set(CMAKE_CXX_COMPILER "${ZARVO_CROSS_PREFIX}g++")

set(zarvo_board_sysroot "${CMAKE_CURRENT_LIST_DIR}/../build/board/sysroot")
if(ZARVO_SYSROOT)
  set(CMAKE_SYSROOT "${ZARVO_SYSROOT}")
elseif(ZARVO_CROSS_PREFIX STREQUAL "mipsel-linux-gnu-" AND IS_DIRECTORY "${zarvo_board_sysroot}")
  get_filename_component(CMAKE_SYSROOT "${zarvo_board_sysroot}" ABSOLUTE)
endif()

# Programs are searched on the build machine, everything else in the sysroot. Floating point is the compiler's
# default. Executables have a fixed address: on this processor, position-independent code is 50 % larger.
set(CMAKE_CXX_FLAGS_INIT "-mips32r2 -mabi=32 -fno-pie -mplt")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-no-pie")
set(CMAKE_POSITION_INDEPENDENT_CODE OFF)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
