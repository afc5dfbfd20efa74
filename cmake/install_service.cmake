# Install step of the service files, run by `cmake --install` and CPack with
# ZENTIQ_PACKAGING (the packaging/ folder) and ZENTIQ_BINDIR_NAME set: writes
# tavrind.service and tavrind@.service into <prefix>/lib/systemd/system with
# the program's installed path, the defaults file into <etc>/default and the
# login snippet that points the group's members at the service into
# <etc>/profile.d
# (<etc> is /etc for the prefix /usr, else <prefix>/etc, as GNUInstallDirs has
# it). DESTDIR is honoured.
set(ZENTIQ_BINDIR "${CMAKE_INSTALL_PREFIX}/${ZENTIQ_BINDIR_NAME}")
set(ZENTIQ_SYSCONFDIR "${CMAKE_INSTALL_PREFIX}/etc")
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(ZENTIQ_SYSCONFDIR /etc)
endif()
set(root "$ENV{DESTDIR}")
foreach(unit tavrind.service tavrind@.service)
  set(to "${root}${CMAKE_INSTALL_PREFIX}/lib/systemd/system/${unit}")
  message(STATUS "Installing: ${to}")
  configure_file(${ZENTIQ_PACKAGING}/${unit}.in "${to}" @ONLY)
endforeach()
set(to "${root}${ZENTIQ_SYSCONFDIR}/default/tavrind")
message(STATUS "Installing: ${to}")
configure_file(${ZENTIQ_PACKAGING}/tavrind.default "${to}" COPYONLY)
set(to "${root}${ZENTIQ_SYSCONFDIR}/profile.d/tavrin.sh")
message(STATUS "Installing: ${to}")
configure_file(${ZENTIQ_PACKAGING}/tavrin.profile "${to}" COPYONLY)
