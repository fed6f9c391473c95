# The Debian package and its working-directory script, in temp dirs and a
# throw-away dpkg root. Installing needs a package of this machine's own
# architecture, so a cross build leaves that test out.
set(PACKAGE_TEST ${CMAKE_CURRENT_SOURCE_DIR}/package_test.sh)

add_test(NAME Package.PrepareWorkdir
  COMMAND ${PACKAGE_TEST} workdir ${CMAKE_SOURCE_DIR}/packaging/lumbra-prepare-workdir ${CMAKE_SOURCE_DIR}/examples)
set_tests_properties(Package.PrepareWorkdir PROPERTIES TIMEOUT 120)

if(NOT CMAKE_CROSSCOMPILING)
  # cpack strips every binary and runs dpkg-shlibdeps: minutes on two cores.
  add_test(NAME Package.InstallsInAFreshRoot
    COMMAND ${PACKAGE_TEST} install ${CMAKE_CPACK_COMMAND} ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR} ${PROJECT_VERSION})
  set_tests_properties(Package.InstallsInAFreshRoot PROPERTIES TIMEOUT 600)
endif()
