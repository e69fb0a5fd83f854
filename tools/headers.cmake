# Header-only libraries, which are the same for every processor.

include_guard(GLOBAL)

# zarvo_headers(TARGET ENTRY...): an imported target for files and folders of /usr/include. A cross build sees them
# through a folder that holds nothing else of the building machine.
function(zarvo_headers target)
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  foreach(entry IN LISTS ARGN)
    if(NOT EXISTS "/usr/include/${entry}")
      message(FATAL_ERROR "/usr/include/${entry} is missing; the file `packages` lists the packages to install")
    endif()
    if(CMAKE_CROSSCOMPILING)
      file(MAKE_DIRECTORY "${PROJECT_BINARY_DIR}/headers")
      file(CREATE_LINK "/usr/include/${entry}" "${PROJECT_BINARY_DIR}/headers/${entry}" SYMBOLIC)
      target_include_directories(${target} INTERFACE "${PROJECT_BINARY_DIR}/headers")
    endif()
  endforeach()
endfunction()
