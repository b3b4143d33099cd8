# What `cmake --install` lays out under the prefix: the public headers, both
# libraries, the two tools, their man pages, a pkg-config file and a CMake
# package (find_package(qvaclient)). Only include/qvaclient/ is installed:
# the headers under src/ stay with the tests.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QVA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qvaclient)

install(TARGETS qvaclient qvaclient_static
  EXPORT qvaclientTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# qva-call finds the library beside it under any prefix, a temporary one too.
set_target_properties(qva-call PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
install(TARGETS qva-call qva-gateway RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/qvaclient
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

file(GLOB QVA_MAN_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.1)
if(QVA_MAN_PAGES)
  install(FILES ${QVA_MAN_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

# The CMake package: targets, a config that finds Threads first, and a version
# file that accepts any 8.x request.
install(EXPORT qvaclientTargets NAMESPACE qvaclient:: DESTINATION ${QVA_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/qvaclientConfig.cmake.in
  ${PROJECT_BINARY_DIR}/qvaclientConfig.cmake
  INSTALL_DESTINATION ${QVA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qvaclientConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qvaclientConfig.cmake ${PROJECT_BINARY_DIR}/qvaclientConfigVersion.cmake
  DESTINATION ${QVA_CMAKE_DIR})

# The pkg-config file finds the prefix from its own place, so the tree can be
# moved (or installed with --prefix) without rewriting it. An absolute library
# or include directory is written as it is.
set(QVA_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${QVA_PC_DIR}")
  set(QVA_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH QVA_PC_UP /prefix/${QVA_PC_DIR} /prefix)
  string(REGEX REPLACE "/$" "" QVA_PC_UP "${QVA_PC_UP}")
  set(QVA_PC_PREFIX "\${pcfiledir}/${QVA_PC_UP}")
endif()
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(QVA_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(QVA_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
# A static link also needs the C++ runtime and, on older C libraries, the
# thread library (empty where the C library holds the thread functions).
string(STRIP "-lstdc++ ${CMAKE_THREAD_LIBS_INIT}" QVA_PC_LIBS_PRIVATE)
configure_file(${CMAKE_CURRENT_LIST_DIR}/qvaclient.pc.in ${PROJECT_BINARY_DIR}/qvaclient.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qvaclient.pc DESTINATION ${QVA_PC_DIR})
