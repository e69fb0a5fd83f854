# The device: MIPS32 release 2 little endian, O32, glibc. Both settings can be given for a device's own SDK:
#   -DZARVO_CROSS_PREFIX=mipsel-linux-gnu-   what comes before g++, ar, strip, ...; may begin with a folder
#   -DZARVO_SYSROOT=/path                    headers and libraries of the device
# The default is Debian's cross compiler with the sysroot that board/fetch prepares, when that is there.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)

set(ZARVO_CROSS_PREFIX "mipsel-linux-gnu-" CACHE STRING "Prefix of the cross compiler's programs")
set(ZARVO_SYSROOT "" CACHE PATH
  "Headers and libraries of the device; empty: build/board/sysroot, or else the cross compiler's own")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZARVO_CROSS_PREFIX ZARVO_SYSROOT)

# The compiler brings ar, ranlib, nm and the rest along: CMake looks for them under the same prefix.
set(CMAKE_CXX_COMPILER "${ZARVO_CROSS_PREFIX}g++")

set(zarvo_board_sysroot "${CMAKE_CURRENT_LIST_DIR}/../build/board/sysroot")
if(ZARVO_SYSROOT)
  set(CMAKE_SYSROOT "${ZARVO_SYSROOT}")
elseif(ZARVO_CROSS_PREFIX STREQUAL "mipsel-linux-gnu-" AND IS_DIRECTORY "${zarvo_board_sysroot}")
  get_filename_component(CMAKE_SYSROOT "${zarvo_board_sysroot}" ABSOLUTE)
endif()

# Programs are the machine's, everything else is the device's. Floating point stays as the compiler is set up.
# Programs stay at a fixed address: on this processor, code that can be anywhere is half as large again.
set(CMAKE_CXX_FLAGS_INIT "-mips32r2 -mabi=32 -fno-pie -mplt")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-no-pie")
set(CMAKE_POSITION_INDEPENDENT_CODE OFF)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
