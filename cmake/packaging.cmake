# Debian packages (`make package`): CPack's DEB generator over the install
# components. Every install() names its component, or takes its directory's
# default (dev here, tools in the programs' folders).
#   lib    -> libgikraidrum1         the core library, soname 1
#   client -> libgikraidrum-client1  the client library, soname 1
#   dev    -> libgikraidrum-dev      headers, namelinks, static libraries, pkg-config, CMake package
#   tools  -> gikraidrum-tools       cmdbctl, cmdbd, man pages, systemd files, completion, Python module
# plus a -dbgsym package of each one's stripped debug symbols.

# Manual pages go out compressed, as Debian (and every man reader) expects.
function(gk_install_man page section)
  get_filename_component(name ${page} NAME)
  set(gz ${CMAKE_BINARY_DIR}/man/${name}.gz)
  add_custom_command(OUTPUT ${gz}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND sh -c "gzip -9n -c '${page}' > '${gz}'"
    DEPENDS ${page} VERBATIM)
  add_custom_target(man_${name} ALL DEPENDS ${gz})
  install(FILES ${gz} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endfunction()

set(GK_DEB_MAINTAINER "gikraidrum developers <developers@gikraidrum.invalid>")
option(GK_PACKAGE "Install the files a Debian package carries in /usr/share/doc" OFF)
if(NOT GK_PACKAGE)
  return()
endif()

set(GK_DEB_NAMES libgikraidrum1 libgikraidrum-client1 libgikraidrum-dev gikraidrum-tools)
set(GK_DEB_COMPONENTS lib client dev tools)

# Debian's changelog entry, once per package.
string(TIMESTAMP GK_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(pkg component IN ZIP_LISTS GK_DEB_NAMES GK_DEB_COMPONENTS)
  set(doc ${CMAKE_BINARY_DIR}/debian-doc/${pkg})
  file(WRITE ${doc}/changelog.Debian "${pkg} (${PROJECT_VERSION}) unstable; urgency=medium\n\n"
       "  * Built from the gikraidrum tree.\n\n -- ${GK_DEB_MAINTAINER}  ${GK_DEB_DATE}\n")
  add_custom_command(OUTPUT ${doc}/changelog.Debian.gz COMMAND gzip -9n -f -k ${doc}/changelog.Debian
    DEPENDS ${doc}/changelog.Debian)
  add_custom_target(debian_doc_${pkg} ALL DEPENDS ${doc}/changelog.Debian.gz)
  install(FILES ${doc}/changelog.Debian.gz ${PROJECT_SOURCE_DIR}/packaging/copyright
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${pkg} COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME gikraidrum)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${GK_DEB_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "shared-memory configuration store")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${GK_DEB_COMPONENTS})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The debug symbols go to -dbgsym packages; the binaries are stripped.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
# Our own libraries are found in the packages being built, not the system's.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(GK_DEB_EXACT "(= ${PROJECT_VERSION}-1)")

# Each library package: its shlibs entry, and the ldconfig trigger that
# Debian prefers to maintainer scripts.
foreach(lib gikraidrum gikraidrum-client)
  set(dir ${CMAKE_BINARY_DIR}/debian-control/lib${lib}1)
  file(WRITE ${dir}/shlibs "lib${lib} 1 lib${lib}1 (>= ${PROJECT_VERSION})\n")
  file(WRITE ${dir}/triggers "activate-noawait ldconfig\n")
endforeach()
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA
    ${CMAKE_BINARY_DIR}/debian-control/libgikraidrum1/shlibs ${CMAKE_BINARY_DIR}/debian-control/libgikraidrum1/triggers)
set(CPACK_DEBIAN_CLIENT_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/debian-control/libgikraidrum-client1/shlibs
    ${CMAKE_BINARY_DIR}/debian-control/libgikraidrum-client1/triggers)
set(CPACK_DEBIAN_LIB_PACKAGE_NAME libgikraidrum1)
set(CPACK_COMPONENT_LIB_DESCRIPTION "shared-memory configuration store: core library
 The library every daemon and tool of the appliance maps the configuration
 region with: attach, cross-process read/write locks, lookups and change events.")

set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME libgikraidrum-client1)
set(CPACK_DEBIAN_CLIENT_PACKAGE_DEPENDS "libgikraidrum1 ${GK_DEB_EXACT}")
set(CPACK_COMPONENT_CLIENT_DESCRIPTION "shared-memory configuration store: client library
 Requests to cmdbd, the owner daemon (transactions, status), and by-name reads
 and decoded change watches of the configuration region.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libgikraidrum-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libgikraidrum1 ${GK_DEB_EXACT}, libgikraidrum-client1 ${GK_DEB_EXACT}, libjsoncpp-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "shared-memory configuration store: development files
 Headers, pkg-config files and the CMake package of the core and client
 libraries, and the static configuration writer and schema loader.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME gikraidrum-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "libgikraidrum1 ${GK_DEB_EXACT}, libgikraidrum-client1 ${GK_DEB_EXACT}, adduser, python3")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/postinst)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "shared-memory configuration store: cmdbctl and cmdbd
 cmdbctl reads, changes, dumps and watches the configuration; cmdbd owns the
 region and keeps every acknowledged change durable. Also the systemd unit,
 the tmpfiles.d entry, bash completion and the Python module.")

include(CPack)
