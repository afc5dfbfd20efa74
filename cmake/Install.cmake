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
include(GNUInstallDirs)

# The version of the packages and man pages is the viewer's own.
file(STRINGS ${PROJECT_SOURCE_DIR}/app/viewer.h zentiq_version_line REGEX "ZQ_VERSION = ")
string(REGEX MATCH "\"([0-9.]+)\"" zentiq_version_line "${zentiq_version_line}")
set(ZENTIQ_VERSION ${CMAKE_MATCH_1})

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
