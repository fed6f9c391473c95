# The Debian package (`make package`): what a box needs, where Debian wants it.
# Included last from the top-level CMakeLists, so every program and plug-in
# target exists by the time its install rule asks for it.
#
# Destinations are relative and the packaging prefix is "/", because the
# package spans /usr, /etc and /lib/systemd. `cmake --install <build> --prefix
# <dir>` stages the same tree under <dir>.

foreach(program Lumbra lumbra-agent lumbra-plcsim)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION usr/bin)
  else()
    message(WARNING "packaging: no target ${program}; the package will lack it")
  endif()
endforeach()

# The platform side runs beside the broker; a build without its libraries
# (the armhf one) ships the box's programs only.
if(TARGET lumbra-platform)
  install(TARGETS lumbra-platform RUNTIME DESTINATION usr/bin)
  # The console as the build put it together: the page and uPlot from npm.
  install(DIRECTORY ${CMAKE_BINARY_DIR}/tools/platform/www/ DESTINATION usr/share/lumbra/platform/www)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/lumbra-platform.service DESTINATION lib/systemd/system)
  install(DIRECTORY DESTINATION etc/lumbra/platform-config)
else()
  message(STATUS "packaging: lumbra-platform is not built here; the package leaves it out")
endif()

# Only the gateway loads these (through links in its working directory), so
# they live in a private directory rather than on the linker's path.
foreach(driver modbus_rtu modbus_tcp)
  if(TARGET ${driver})
    install(TARGETS ${driver} LIBRARY DESTINATION usr/lib/lumbra/driver)
  else()
    message(WARNING "packaging: no target ${driver}; the package will lack it")
  endif()
endforeach()

set(LUMBRA_PKG_DIR ${CMAKE_SOURCE_DIR}/packaging)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/examples/ DESTINATION usr/share/lumbra/examples)
install(PROGRAMS ${LUMBRA_PKG_DIR}/lumbra-prepare-workdir DESTINATION usr/share/lumbra)
install(FILES ${LUMBRA_PKG_DIR}/agent.ini DESTINATION etc/lumbra)
install(FILES ${LUMBRA_PKG_DIR}/lumbra.service DESTINATION lib/systemd/system)
install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION usr/share/doc/lumbra)

# The architecture is the compiler's target, not the build machine's: the ARM
# cross build makes an armhf package from these same rules.
set(LUMBRA_DEB_ARCH "" CACHE STRING "Debian architecture of the package (empty: the compiler's target)")
if(NOT LUMBRA_DEB_ARCH)
  set(lumbra_triplet ${CMAKE_CXX_COMPILER_TARGET})
  if(NOT lumbra_triplet)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpmachine
      OUTPUT_VARIABLE lumbra_triplet OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
  execute_process(COMMAND dpkg-architecture -t${lumbra_triplet} -qDEB_HOST_ARCH
    OUTPUT_VARIABLE LUMBRA_DEB_ARCH OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE lumbra_arch_rc ERROR_QUIET)
  if(NOT lumbra_arch_rc EQUAL 0 OR NOT LUMBRA_DEB_ARCH)
    message(WARNING "packaging: no Debian architecture for '${lumbra_triplet}'; set LUMBRA_DEB_ARCH")
    set(LUMBRA_DEB_ARCH unknown)
  endif()
endif()

# dpkg-shlibdeps reads Depends off the binaries, but it maps each library to
# its package through the dpkg database, and the cross build links against an
# unpacked sysroot that has none: there the list below stands in. A cross
# build with the target's libraries installed under multiarch
# (libqt5core5a:armhf, ...) can switch it back on.
if(CMAKE_CROSSCOMPILING)
  set(lumbra_shlibdeps_default OFF)
else()
  set(lumbra_shlibdeps_default ON)
endif()
option(LUMBRA_DEB_SHLIBDEPS "compute the package's Depends with dpkg-shlibdeps" ${lumbra_shlibdeps_default})
# Not a cache default, so a changed list reaches existing build dirs; -D overrides it.
if(NOT DEFINED LUMBRA_DEB_DEPENDS)
  set(LUMBRA_DEB_DEPENDS
    "libc6, libstdc++6, libgcc-s1, zlib1g, libqt5core5a (>= 5.15), libqt5network5, libnanomsg5, libmosquitto1, libsqlite3-0, liblua5.2-0, libcurl4, libmodbus5, libspdlog1.10-fmt9")
  if(TARGET lumbra-platform)
    string(APPEND LUMBRA_DEB_DEPENDS ", libpqxx-6.4, libcpp-httplib0.11")
  endif()
endif()
# The package test checks that this list still names every package
# dpkg-shlibdeps finds, so a new library cannot slip past the ARM package.
file(WRITE ${CMAKE_BINARY_DIR}/packaging/fallback-depends "${LUMBRA_DEB_DEPENDS}\n")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lumbra)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Lumbra developers <lumbra@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "industrial IoT gateway with its local MQTT agent")
set(CPACK_PACKAGE_DESCRIPTION [[Lumbra reads PLCs, meters and other devices through protocol-driver
plug-ins, keeps real-time, historical and alarm data, runs Lua macros and
speaks MQTT to the cloud platform and to the user's own brokers.
The package holds the gateway, the agent that connects it to the platform
and supervises it, the Modbus RTU/TCP drivers, a simulated PLC, the open
platform side (lumbra-platform) and systemd services.]])
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${LUMBRA_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "mosquitto, postgresql")
if(LUMBRA_DEB_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # Opened with dlopen when first needed, so dpkg-shlibdeps cannot see them;
  # what it finds is added to these.
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libcurl4, libmosquitto1")
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "${LUMBRA_DEB_DEPENDS}")
endif()

# Without this dpkg treats the agent's settings as an ordinary file and an
# upgrade would overwrite the user's broker and credentials.
file(WRITE ${CMAKE_BINARY_DIR}/packaging/conffiles "/etc/lumbra/agent.ini\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# cpack reads this before it packs: dpkg-shlibdeps picks the objdump and the
# library directories of DEB_HOST_ARCH, which is the target in a cross build.
file(WRITE ${CMAKE_BINARY_DIR}/packaging/cpack-project.cmake
  "set(ENV{DEB_HOST_ARCH} \"${LUMBRA_DEB_ARCH}\")\n")
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_BINARY_DIR}/packaging/cpack-project.cmake)

include(CPack)
