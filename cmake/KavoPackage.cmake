# Debian packages from the install components (cpack -G DEB):
#   libkavo1     runtime: libkavo.so.1, libkavo_sim.so.1, the default firmware images
#   libkavo-dev  headers, the CMake package and the pkg-config files, the link names
#   kavo-tools   kavoctl, kavo-simd, kavo-mkimage and kavoctl(1)
# Packagers build with -DKAVO_WERROR=OFF and their own flags.
set(CPACK_PACKAGE_NAME kavo)
set(CPACK_PACKAGE_VENDOR "kavo-sdk developers")
set(CPACK_PACKAGE_CONTACT "kavo-sdk developers <kavo-sdk@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tools link the package's own libraries: dpkg-shlibdeps finds them in the build.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/host ${CMAKE_BINARY_DIR}/sim)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkavo1)
# Loaded at run time rather than linked (dpkg-shlibdeps cannot see them): the
# virtual device's libcrypto, and kavoctl's line editor.
if(KAVO_CRYPTO_PACKAGE)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${KAVO_CRYPTO_PACKAGE}")
endif()
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkavo-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libkavo1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kavo-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libkavo1 (= ${PROJECT_VERSION})")
if(KAVOCTL_EDITOR_PACKAGE)
  string(APPEND CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ", ${KAVOCTL_EDITOR_PACKAGE}")
endif()
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Host SDK of the kavo transport chip, and its virtual device")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Headers and package files of the kavo SDK")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "kavoctl, kavo-simd and kavo-mkimage")
include(CPack)
