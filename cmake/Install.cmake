# Installation and the Debian packages.
#
# `cmake --install` lays the programs out as a Debian system does (GNU
# install folders): zentiq, tavrin and tavrind in bin/, the help file in
# share/zentiq/, man pages, desktop entry, icon, bash completion and systemd
# units in their usual folders, the service's defaults in etc/default/. The
# programs find share/zentiq through their own executable (base/datadir.h), so
# the build folder gets the same layout: <build>/share/zentiq beside
# <build>/app, <build>/tools and <build>/server.
#
# tavrind goes to bin/, not sbin/: besides the system service, users run a
# server of their own in their own namespace (./run.sh does), and sbin/ is not
# in an ordinary user's PATH on Debian.
#
# CPack makes three packages (scripts/package): zentiq (the viewer, which pulls
# in Qt), tavrin (the client) and tavrind (the server with its service), so a
# server machine needs no Qt and a desktop can take the client without a
# server of its own. Depends come from the libraries actually linked
# (dpkg-shlibdeps).
include(GNUInstallDirs)

# The version of the packages and man pages is the viewer's own.
file(STRINGS ${PROJECT_SOURCE_DIR}/app/viewer.h zentiq_version_line REGEX "ZQ_VERSION = ")
string(REGEX MATCH "\"([0-9.]+)\"" zentiq_version_line "${zentiq_version_line}")
set(ZENTIQ_VERSION ${CMAKE_MATCH_1})
if(NOT ZENTIQ_VERSION)
  message(FATAL_ERROR "no ZQ_VERSION \"N.N.N\" found in app/viewer.h")
endif()

# Installing (and so packaging) takes what was built and does not build the
# whole tree first; scripts/package builds the programs before it packs.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(zentiq_pkg ${PROJECT_SOURCE_DIR}/packaging)
set(zentiq_datadir ${CMAKE_INSTALL_DATADIR}/zentiq)

install(TARGETS zentiq RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT viewer)
install(TARGETS tavrin RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT client)
install(TARGETS tavrind RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT server)
install(FILES app/zentiq.hlp DESTINATION ${zentiq_datadir} COMPONENT viewer)

# The build folder's share/zentiq links to the sources, so a help text edited
# in a viewer run from the build folder lands in the source tree.
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/share/zentiq)
file(CREATE_LINK ${PROJECT_SOURCE_DIR}/app/zentiq.hlp
     ${PROJECT_BINARY_DIR}/share/zentiq/zentiq.hlp SYMBOLIC)

# Man pages from their roff templates, at build time; tavrin(1) takes its
# command texts from the built client (cmake/manpage.cmake).
set(zentiq_man_pages "")
foreach(page zentiq.1:viewer tavrin.1:client tavrind.8:server)
  string(REPLACE ":" ";" page "${page}")
  list(GET page 0 name)
  list(GET page 1 component)
  string(REGEX MATCH "[0-9]$" section "${name}")
  set(out ${PROJECT_BINARY_DIR}/share/man/man${section}/${name})
  set(deps ${zentiq_pkg}/man/${name}.in ${PROJECT_SOURCE_DIR}/cmake/manpage.cmake)
  set(tavrin_arg "")
  if(name STREQUAL "tavrin.1")
    list(APPEND deps tavrin)
    set(tavrin_arg -DTAVRIN=$<TARGET_FILE:tavrin>)
  endif()
  add_custom_command(OUTPUT ${out} ${out}.gz
    COMMAND ${CMAKE_COMMAND} -DIN=${zentiq_pkg}/man/${name}.in -DOUT=${out}
            -DVERSION=${ZENTIQ_VERSION} ${tavrin_arg} -P ${PROJECT_SOURCE_DIR}/cmake/manpage.cmake
    DEPENDS ${deps}
    COMMENT "Generating man page ${name}")
  list(APPEND zentiq_man_pages ${out})
  install(FILES ${out}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endforeach()
add_custom_target(man_pages ALL DEPENDS ${zentiq_man_pages})

# Desktop entry and icon of the viewer.
install(FILES ${zentiq_pkg}/zentiq.desktop
        DESTINATION ${CMAKE_INSTALL_DATADIR}/applications COMPONENT viewer)
install(FILES ${zentiq_pkg}/zentiq.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps COMPONENT viewer)

# bash completion of the client.
install(FILES ${zentiq_pkg}/tavrin.bash-completion RENAME tavrin
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT client)

# The service: units with the installed paths filled in, and its defaults.
# Both are placed when installing, since the prefix is known only then (CPack
# installs with /usr, a build folder is configured for /usr/local).
install(CODE "set(ZENTIQ_PACKAGING \"${zentiq_pkg}\")
set(ZENTIQ_BINDIR_NAME \"${CMAKE_INSTALL_BINDIR}\")" COMPONENT server)
install(SCRIPT cmake/install_service.cmake COMPONENT server)

# ---- Debian packages ----------------------------------------------------------------------

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zentiq)
set(CPACK_PACKAGE_VERSION ${ZENTIQ_VERSION})
set(CPACK_PACKAGE_CONTACT "Zentiq developers <zentiq@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
# Install into the staging folder through DESTDIR, so that the files for /etc
# land there too and nothing is written on this machine.
set(CPACK_SET_DESTDIR ON)
set(CPACK_COMPONENTS_ALL viewer client server)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION database)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_VIEWER_PACKAGE_NAME zentiq)
set(CPACK_DEBIAN_VIEWER_PACKAGE_SECTION database)
set(CPACK_DEBIAN_VIEWER_PACKAGE_RECOMMENDS "tavrind, tavrin")
set(CPACK_DEBIAN_VIEWER_DESCRIPTION
    "Desktop viewer for the databases of a TAVRIN server\nZentiq looks into and repairs the databases of a TAVRIN server on the same\nmachine: SELECT queries built from a table name, any SQL command, rows\nshown as a list and changed or deleted through their key.")

set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME tavrin)
set(CPACK_DEBIAN_CLIENT_PACKAGE_RECOMMENDS "tavrind")
set(CPACK_DEBIAN_CLIENT_DESCRIPTION
    "Command-line client of the TAVRIN database server\ntavrin runs SQL statements on the databases of a local TAVRIN server, saves\nand loads tables as TABLE files and compresses files in the Varne format.")

set(CPACK_DEBIAN_SERVER_PACKAGE_NAME tavrind)
set(CPACK_DEBIAN_SERVER_PACKAGE_DEPENDS "adduser")
set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_EXTRA
    ${zentiq_pkg}/debian/tavrind/postinst ${zentiq_pkg}/debian/tavrind/prerm
    ${zentiq_pkg}/debian/tavrind/postrm ${zentiq_pkg}/debian/tavrind/conffiles)
set(CPACK_DEBIAN_SERVER_DESCRIPTION
    "TAVRIN database server\ntavrind serves databases kept as SQLite files to TAVRIN clients on the same\nmachine through shared memory. The package holds the systemd units\ntavrind.service and tavrind@.service (one server per namespace).")

include(CPack)
