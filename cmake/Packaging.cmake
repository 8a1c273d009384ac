# The Debian packages, made by CPack from this build tree (cpack -G DEB in
# the build folder; the test DebPackage builds, installs and removes them):
#   libqxlitecommon7     the two shared libraries
#   libqxlitecommon-dev  headers, the CMake package, the pkg-config file
#   qxlite               the three programs and the service's systemd unit,
#                        with the maintainer scripts of packaging/deb/
#   qxlite-ui            the desktop program, its desktop entry and icon
#                        (when Qt is found); a package of its own, so that
#                        the service's never pulls in Qt
# Each install rule names its package by its component (libs, dev, qxlite, ui);
# a rule that names none goes to qxlite (CMAKE_INSTALL_DEFAULT_COMPONENT_NAME).

set(QX_DEB_SOURCE_DIR ${PROJECT_SOURCE_DIR}/packaging/deb)
set(QX_DEB_MAINTAINER "QXLite developers <maintainers@users.noreply.c-seed-19cf7034.example>")

# Each package carries the copyright file and the changelog in its own
# documentation folder, the changelog compressed as Debian wants it
# (gzip -9n: no name or time inside, so the same bytes every time).
set(QX_DEB_CHANGELOG_GZ ${PROJECT_BINARY_DIR}/packaging/changelog.gz)
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/packaging)
execute_process(
  COMMAND gzip -9n -c ${QX_DEB_SOURCE_DIR}/changelog
  OUTPUT_FILE ${QX_DEB_CHANGELOG_GZ}
  RESULT_VARIABLE qx_gzip_result)
if(NOT qx_gzip_result EQUAL 0)
  message(FATAL_ERROR "gzip of ${QX_DEB_SOURCE_DIR}/changelog failed: ${qx_gzip_result}")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${QX_DEB_SOURCE_DIR}/changelog)

set(QX_DEB_COMPONENTS libs dev)
if(QX_BUILD_APPS)
  list(APPEND QX_DEB_COMPONENTS qxlite)
endif()
if(TARGET qxlite-ui)
  list(APPEND QX_DEB_COMPONENTS ui)
endif()
set(CPACK_DEBIAN_LIBS_PACKAGE_NAME libqxlitecommon7)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libqxlitecommon-dev)
set(CPACK_DEBIAN_QXLITE_PACKAGE_NAME qxlite)
set(CPACK_DEBIAN_UI_PACKAGE_NAME qxlite-ui)
foreach(component IN LISTS QX_DEB_COMPONENTS)
  string(TOUPPER ${component} upper)
  install(FILES ${QX_DEB_SOURCE_DIR}/copyright ${QX_DEB_CHANGELOG_GZ}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
          COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qxlitecommon)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${QX_DEB_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL ${QX_DEB_COMPONENTS})
set(CPACK_DEB_COMPONENT_INSTALL ON)

set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${QX_DEB_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Dependencies on other packages' libraries come from dpkg-shlibdeps; the
# packages' own libraries are found in the build tree and named below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# A shlibs file for each package that holds a shared library (the libraries').
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(qx_exact "(= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_LIBS_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBS_PACKAGE_CONTROL_EXTRA ${QX_DEB_SOURCE_DIR}/triggers)
set(CPACK_COMPONENT_LIBS_DESCRIPTION
  "shared libraries of the QXLite document upload product
libQXShared (JSON text, the process log, the internet and e-mail records,
the command frame and its TCP transport with a secret-token handshake) and
libQXLiteCommon (the configuration record and the nine IPC commands between
the user interface and the upload service).")

set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libqxlitecommon7 ${qx_exact}, libboost-filesystem-dev, libboost-thread-dev, libjansson-dev, pkg-config")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "development files of the QXLite document upload libraries
The headers of libQXShared and libQXLiteCommon, their CMake package
(find_package(QXLiteCommon CONFIG): QX::Shared, QX::LiteCommon) and the
pkg-config file qxlitecommon.pc.")

set(CPACK_DEBIAN_QXLITE_PACKAGE_SECTION net)
set(CPACK_DEBIAN_QXLITE_PACKAGE_DEPENDS "libqxlitecommon7 ${qx_exact}, adduser")
set(CPACK_DEBIAN_QXLITE_PACKAGE_CONTROL_EXTRA
  ${QX_DEB_SOURCE_DIR}/postinst ${QX_DEB_SOURCE_DIR}/prerm ${QX_DEB_SOURCE_DIR}/postrm)
set(CPACK_COMPONENT_QXLITE_DESCRIPTION
  "document upload service of QXLite, its client and configuration tool
qxlite-svc uploads what arrives in its spool to an S3-compatible object
store or a WebDAV server, crash-safe, and runs as its own user under
systemd. qxlite drives it (status, drops, uploads, configuration);
qxlite-cfg checks and normalises a configuration file.")

# Qt's libraries come from dpkg-shlibdeps. The program talks to the service
# on this machine: most often the one of the package qxlite, but one
# installed without the package serves as well, hence only Recommends.
set(CPACK_DEBIAN_UI_PACKAGE_SECTION net)
set(CPACK_DEBIAN_UI_PACKAGE_DEPENDS "libqxlitecommon7 ${qx_exact}")
set(CPACK_DEBIAN_UI_PACKAGE_RECOMMENDS qxlite)
set(CPACK_COMPONENT_UI_DESCRIPTION
  "desktop program of the QXLite document upload service
qxlite-ui hands files and folders to the QXLite upload service (dragged
from the file manager, chosen in a dialog, or opened with it), lists the
uploads as they go, pauses and resumes the service, edits its settings and
runs its configuration check. It talks to qxlite-svc through the service's
secret token, as a member of the group qxlite.")

include(CPack)
