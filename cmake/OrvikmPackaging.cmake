# Debian packages, built by CPack (`make package`, or `cpack -G DEB` in a
# build folder). Each install() rule names the package its files go to:
#
#   COMPONENT runtime      liborvikm0     the three shared libraries (.so.0)
#   COMPONENT development  liborvikm-dev  headers, CMake package, orvikm.pc,
#                                         the unversioned .so links
#   COMPONENT tools        orvik-tools    the programs: orvik-devnode, orvik
#
# A package's Depends are computed from its binaries by dpkg-shlibdeps, plus
# the packages of this project and the -dev packages a developer needs. The
# first line of each description is the package's summary.
set(ORVIKM_PACKAGE_MAINTAINER "orvikm developers <orvikm-dev@example.org>"
    CACHE STRING "Maintainer written into the Debian packages")
set(ORVIKM_PACKAGE_RELEASE 1 CACHE STRING "Debian revision of the packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvikm)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${ORVIKM_PACKAGE_MAINTAINER}")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${ORVIKM_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${ORVIKM_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# liborvikm0 gets a shlibs file and the ldconfig trigger.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# dpkg-shlibdeps finds the project's own libraries in the build tree; what
# they add to Depends is the explicit liborvikm0 dependency below.
set(shlibdeps_dirs "")
foreach(library orvikm orviku wxblt)
    get_target_property(dir ${library} BINARY_DIR)
    list(APPEND shlibdeps_dirs ${dir})
endforeach()
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${shlibdeps_dirs})

set(full_version "${PROJECT_VERSION}-${ORVIKM_PACKAGE_RELEASE}")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME liborvikm0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "Client library for exchanging messages with the Orvik Node
liborvik_messenging.so.0 sends messages to the Orvik Node, the message broker
running on the same machine, receives what it publishes and fetches its
registry, over ZeroMQ on loopback. Its companions liborvik_util.so.0 (errors
with context chains, UUIDs) and libzmq_wexbolt.so.0 (ZeroMQ sockets and
polling) come with it.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME liborvikm-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "liborvikm0 (= ${full_version}), libzmq3-dev, uuid-dev")
# <orvikm/asio.hpp> alone needs Asio, and only an application that includes it.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "libasio-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "Client library for the Orvik Node - development files
The headers of orvikm, orviku and wxblt, the CMake package
(find_package(orvikm CONFIG), target orvikm::orvikm), the pkg-config file
orvikm.pc and the links to build against the shared libraries.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME orvik-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "liborvikm0 (= ${full_version})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "Tools for the Orvik Node client library
orvik-devnode stands in for the Orvik Node on a developer's machine: it
acknowledges and publishes messages, answers registry requests and logs what
it sees. The orvik command-line tool, where built, sends, listens and fetches
the registry from the shell.")

include(CPack)
