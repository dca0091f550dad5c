# The Debian package: `cpack -G DEB` in a build configured with -DCMAKE_INSTALL_PREFIX=/usr
# (so that the module lands in the multiarch library directory) and with the real pass phrase.
# It holds what `cmake --install` installs (cmake/Install.cmake).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tideway)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Client plug-in module of the tideway web-filtering suite, with its host harness and agent simulator")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The package carries the binaries without their debugging sections.
set(CPACK_STRIP_FILES TRUE)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "tideway developers <tideway-dev@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
# The Debian 12 packages of the shared libraries that the module and the tools link, and no
# others (scripts/check-install.sh compares this list with their NEEDED entries). rapidxml is
# headers only. The minimum versions follow the newest symbol versions the binaries use:
# GLIBC_2.34, GLIBCXX_3.4.30 (g++ 12), OPENSSL_3.0.0.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 12), libssl3 (>= 3.0.0), \
libboost-thread1.74.0, libboost-filesystem1.74.0, libboost-chrono1.74.0")

# cpack reads this file before it builds anything, for every package it makes: a build that
# carries the development pass phrase is refused there.
get_property(TIDEWAY_PACKAGE_HAS_DEV_PHRASE GLOBAL PROPERTY TIDEWAY_DEVELOPMENT_PASSPHRASE)
# cpack reads the file without the project's policies: a quoted comparison needs none.
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/CPackProjectConfig.cmake CONTENT [[
if("@TIDEWAY_PACKAGE_HAS_DEV_PHRASE@" STREQUAL "TRUE")
  message(FATAL_ERROR
      "Refusing to package: this build uses the development pass phrase "
      "(cmake/dev-passphrase.txt), which must never go into a package. Configure a build with "
      "-DTIDEWAY_PASSPHRASE_FILE=<file holding the real phrase> and package that one.")
endif()
]] @ONLY)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/CPackProjectConfig.cmake)

include(CPack)
