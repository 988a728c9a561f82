# Installs the three shared libraries with versioned sonames, their headers (keeping the
# "bastion/", "carafe/", "quiver/", "plexa/<subsystem>/" include prefixes), a CMake package
# (find_package(Plexa) gives Plexa::Plexa, Plexa::Carafe, Plexa::Bastion, Plexa::Quiver) and a
# pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(_plexa_targets Quiver Bastion)
foreach(t Carafe Plexa)
  if(TARGET ${t})
    list(APPEND _plexa_targets ${t})
  endif()
endforeach()

install(TARGETS ${_plexa_targets} EXPORT PlexaTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

foreach(dir quiver bastion carafe)
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/platform/${dir}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir}
    FILES_MATCHING PATTERN "*.hpp" PATTERN "*Test.hpp" EXCLUDE)
endforeach()
install(DIRECTORY ${CMAKE_SOURCE_DIR}/plexa/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/plexa
  FILES_MATCHING PATTERN "*.hpp" PATTERN "*Test.hpp" EXCLUDE PATTERN "*TestSupport.hpp" EXCLUDE)

install(EXPORT PlexaTargets NAMESPACE Plexa:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Plexa)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/PlexaConfig.cmake.in
  ${CMAKE_BINARY_DIR}/PlexaConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Plexa)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/PlexaConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/PlexaConfig.cmake ${CMAKE_BINARY_DIR}/PlexaConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Plexa)
# The .pc file finds its prefix relative to itself, so a staged install (--prefix) works too.
file(RELATIVE_PATH PLEXA_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" PLEXA_PC_TO_PREFIX "${PLEXA_PC_TO_PREFIX}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/plexa.pc.in ${CMAKE_BINARY_DIR}/plexa.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/plexa.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
