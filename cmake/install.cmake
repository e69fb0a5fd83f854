# The components that `cmake --install` and cpack install.
#
#   device   zarvo, a link for each applet except ctest, and their manual pages
#   ctest    the link and the page of that applet, since CMake has a program of that name
#   tools    webfront, dcore, rtraceview, archiveview and their pages
#   standin  platform libraries for a machine without them, in a folder that only zarvo and webfront search
#
# The device gets the first two, and the tools only if they are named; it has its own platform libraries.
# A development machine gets all of them, its Debian package all except ctest.

get_target_property(applets zarvo ZARVO_APPLETS)
set(tools webfront dcore)
if(CMAKE_CROSSCOMPILING)
  set(when_asked EXCLUDE_FROM_ALL)
else()
  list(APPEND tools rtraceview archiveview)
  set(when_asked "")
  set_target_properties(zarvo webfront PROPERTIES INSTALL_RPATH "$ORIGIN/../lib/zarvo")
endif()

# zarvo_install_pages(COMPONENT NAMES... [EXCLUDE_FROM_ALL]): installs the programs' manual pages, compressed as
# Debian requires.
find_program(ZARVO_GZIP gzip REQUIRED)
function(zarvo_install_pages component)
  cmake_parse_arguments(arg "EXCLUDE_FROM_ALL" "" "" ${ARGN})
  foreach(name IN LISTS arg_UNPARSED_ARGUMENTS)
    set(page "${PROJECT_SOURCE_DIR}/man/${name}.1")
    set(compressed "${PROJECT_BINARY_DIR}/man/${name}.1.gz")
    add_custom_command(OUTPUT "${compressed}"
      COMMAND ${CMAKE_COMMAND} -E make_directory "${PROJECT_BINARY_DIR}/man"
      COMMAND "${ZARVO_GZIP}" -9nc "${page}" > "${compressed}"
      DEPENDS "${page}" VERBATIM)
    list(APPEND pages "${compressed}")
  endforeach()
  add_custom_target(man_${component} ALL DEPENDS ${pages})
  set(when "")
  if(arg_EXCLUDE_FROM_ALL)
    set(when EXCLUDE_FROM_ALL)
  endif()
  install(FILES ${pages} DESTINATION share/man/man1 COMPONENT ${component} ${when})
endfunction()

# Installed programs are stripped; those in the build folder keep their symbols.
install(CODE "set(CMAKE_INSTALL_DO_STRIP TRUE)" ALL_COMPONENTS)

install(TARGETS zarvo RUNTIME DESTINATION bin COMPONENT device)
foreach(applet IN LISTS applets)
  set(component device)
  if(applet STREQUAL "ctest")
    set(component ctest)
  endif()
  install(FILES "$<TARGET_FILE_DIR:zarvo>/${applet}" DESTINATION bin COMPONENT ${component})
endforeach()
install(TARGETS ${tools} RUNTIME DESTINATION bin COMPONENT tools ${when_asked})
if(NOT CMAKE_CROSSCOMPILING)
  install(TARGETS qorlink vextor mirnel hollisk
    LIBRARY DESTINATION lib/zarvo COMPONENT standin NAMELINK_SKIP)
  # The tools contain these libraries, whose licences must come with them.
  install(FILES /usr/share/doc/libjs-dygraphs/copyright
    DESTINATION share/doc/zarvo RENAME dygraphs.copyright COMPONENT tools)
  install(FILES /usr/share/doc/rapidjson-dev/copyright
    DESTINATION share/doc/zarvo RENAME rapidjson.copyright COMPONENT tools)
endif()

set(device_pages zarvo ${applets})
list(REMOVE_ITEM device_pages ctest)
zarvo_install_pages(device ${device_pages})
zarvo_install_pages(ctest ctest)
zarvo_install_pages(tools ${tools} ${when_asked})

# A tarball to unpack in the device's root folder, or a Debian package for a development machine.
set(CPACK_PACKAGE_VENDOR "zarvo")
set(CPACK_PACKAGE_CONTACT "zarvo <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_GENERATOR TGZ)
  set(CPACK_PACKAGE_FILE_NAME "zarvo-${PROJECT_VERSION}-${CMAKE_SYSTEM_PROCESSOR}")
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
  set(CPACK_MONOLITHIC_INSTALL ON)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_COMPONENTS_ALL device tools standin)
  set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION devel)
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS libcurl4)
  # The package depends on the libraries that its programs are linked with, except its own stand-ins.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
endif()
include(CPack)
