# Settings for all targets, and the functions with which folders declare their targets.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
if(NOT DEFINED CMAKE_POSITION_INDEPENDENT_CODE)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
endif()
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/archives")
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

set(ZARVO_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")
option(ZARVO_FUZZ "Build the fuzz targets (clang only)" OFF)

find_program(ZARVO_CCACHE ccache)
if(ZARVO_CCACHE)
  # Paths in the tree are hashed as relative ones, so that clones share compiled objects.
  set(CMAKE_CXX_COMPILER_LAUNCHER
    ${CMAKE_COMMAND} -E env "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}" CCACHE_NOHASHDIR=1 "${ZARVO_CCACHE}")
endif()

find_package(Threads REQUIRED)

# Options for the whole tree, including tests and tools.
add_library(zarvo_common_options INTERFACE)
target_include_directories(zarvo_common_options INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_definitions(zarvo_common_options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_compile_options(zarvo_common_options INTERFACE
  -Wall -Wextra -Werror -Wshadow -Wundef -Wformat=2 -Wvla -Wcast-align -Wnon-virtual-dtor)
if(ZARVO_SANITIZE)
  target_compile_options(zarvo_common_options INTERFACE
    "-fsanitize=${ZARVO_SANITIZE}" -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(zarvo_common_options INTERFACE "-fsanitize=${ZARVO_SANITIZE}")
  if(ZARVO_SANITIZE MATCHES thread)
    # gcc warns that the thread sanitizer does not support fences; the standard library has some.
    target_compile_options(zarvo_common_options INTERFACE -Wno-tsan)
  endif()
endif()
if(ZARVO_FUZZ)
  target_compile_options(zarvo_common_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# The device's program is optimized as a whole, which makes it a tenth smaller. Its object files hold ordinary code, too,
# with which the tests and tools are linked.
set(ZARVO_WHOLE_PROGRAM -flto=auto)
if(CMAKE_CROSSCOMPILING)
  target_link_options(zarvo_common_options INTERFACE $<$<NOT:$<STREQUAL:$<TARGET_PROPERTY:NAME>,zarvo>>:-fno-lto>)
endif()

# Options for code on the device: no exceptions, no run-time type information, separate sections.
add_library(zarvo_product_options INTERFACE)
target_link_libraries(zarvo_product_options INTERFACE zarvo_common_options)
target_compile_options(zarvo_product_options INTERFACE
  -fno-exceptions -fno-rtti -ffunction-sections -fdata-sections -fno-asynchronous-unwind-tables)

# zarvo_folder(NAME SOURCES file... [USES folder...]): one folder of the product as a static library.
function(zarvo_folder name)
  cmake_parse_arguments(arg "" "" "SOURCES;USES" ${ARGN})
  add_library(zarvo_${name} STATIC ${arg_SOURCES})
  target_link_libraries(zarvo_${name} PUBLIC zarvo_common_options PRIVATE zarvo_product_options)
  if(CMAKE_CROSSCOMPILING)
    target_compile_options(zarvo_${name} PRIVATE ${ZARVO_WHOLE_PROGRAM} -ffat-lto-objects)
  endif()
  foreach(used IN LISTS arg_USES)
    target_link_libraries(zarvo_${name} PUBLIC zarvo_${used})
  endforeach()
endfunction()
