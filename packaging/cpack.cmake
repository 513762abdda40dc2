# The Debian package: cpack -G DEB in a tree configured with -DCMAKE_INSTALL_PREFIX=/usr
# (scripts/package.sh does it). One package holds the programs, the client library with
# its headers, and the bus, systemd, manual and completion files.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME marquel)
set(CPACK_PACKAGE_VENDOR "Halvern")
set(CPACK_PACKAGE_CONTACT "Marquel developers <marquel@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
# Staged through DESTDIR, so that the install sees its real prefix when it names the server
# in the bus and systemd files.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The libraries the programs link come from dpkg-shlibdeps; the server needs a session bus.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "dbus")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "dbus-user-session")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "per-user server for time-coded metadata of video files
Marquel keeps time-coded metadata (tags) for video files in a per-user
background server on the D-Bus session bus. Editors, players and recorders
open a file through the server, insert and query samples, and move, copy
and shift periods so that the metadata follows their edits.
.
This package holds the server marquel64, the command-line client
marquelctl, the static C++ client library with its headers, CMake and
pkg-config files, the manual pages and the bash and zsh completions.")
include(CPack)
