# `cpack -G DEB` in the build directory packs what `cmake --install` lays out
# into one Debian package, under /usr.
set(QVA_PACKAGE_MAINTAINER "qvaclient developers <qvaclient@example.invalid>"
  CACHE STRING "Maintainer field of the Debian package")

set(CPACK_PACKAGE_NAME qvaclient)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "qvaclient developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Client library for calling server programs through a Gateway over TCP")
# Lines under 80 columns, as Debian's control files like them.
string(CONCAT CPACK_PACKAGE_DESCRIPTION
  "libqvaclient lets Linux applications call server programs on a remote\n"
  "transaction server through a Gateway daemon over TCP, with a COMMAREA or a\n"
  "channel of containers. The package holds the shared and static libraries, the\n"
  "C headers, pkg-config and CMake files, the qva-call command-line client and\n"
  "the qva-gateway emulator.")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${QVA_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

# The dependencies come from dpkg-shlibdeps when it is there (dpkg-dev, which
# .ci/run installs): it reads what the library and tools really link, with
# the versions they need, a sanitizer runtime included. Without it the package
# names the three runtimes every build links, unversioned.
find_program(QVA_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(QVA_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6, libgcc-s1")
endif()

include(CPack)
