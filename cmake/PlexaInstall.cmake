# Installs the three shared libraries with versioned sonames, their public headers (keeping the
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

# The public API: the headers an application includes (Peer, Version, RemoteNode, SyncFlags, the
# recorder and its reader, the Carafe tree) and exactly the headers they include in turn. Internals and test helpers stay in the
# source tree, so nothing outside the library can come to depend on them. `./run examples` compiles
# the installed headers with nothing but the install, which fails when one of them includes a
# header missing from this list.
file(GLOB _plexa_carafe_headers RELATIVE ${CMAKE_SOURCE_DIR}/platform ${CMAKE_SOURCE_DIR}/platform/carafe/*.hpp)
file(GLOB _plexa_quiver_headers RELATIVE ${CMAKE_SOURCE_DIR}/platform ${CMAKE_SOURCE_DIR}/platform/quiver/*.hpp)
set(PLEXA_PUBLIC_HEADERS
  ${_plexa_carafe_headers}
  ${_plexa_quiver_headers}
  bastion/BinaryData.hpp
  bastion/Color.hpp
  bastion/ColorPMA.hpp
  bastion/FlatHash.hpp
  bastion/Log.hpp
  bastion/MemGrid8u.hpp
  bastion/Mutex.hpp
  bastion/SharedMutex.hpp
  bastion/SymbolRegistry.hpp
  bastion/ThreadSafety.hpp
  bastion/TimeStamp.hpp)
if(TARGET Plexa)
  list(APPEND PLEXA_PUBLIC_HEADERS
    plexa/app/Peer.hpp
    plexa/app/QtPeerDriver.hpp
    plexa/app/Version.hpp
    plexa/record/Recorder.hpp
    plexa/record/Recording.hpp
    plexa/record/RecordingPlayer.hpp
    plexa/remote/RemoteNode.hpp
    plexa/remote/SliceAssembler.hpp
    plexa/remote/SyncFlags.hpp
    plexa/session/BundleControllerParams.hpp
    plexa/tracking/AttributeCache.hpp
    plexa/tracking/NodeWatcher.hpp
  )
endif()
list(FILTER PLEXA_PUBLIC_HEADERS EXCLUDE REGEX "Test[A-Za-z]*\\.hpp$")
# Full paths, for the API reference (PlexaDocs.cmake).
set(PLEXA_PUBLIC_HEADER_FILES)
foreach(header ${PLEXA_PUBLIC_HEADERS})
  if(header MATCHES "^plexa/")
    set(file ${CMAKE_SOURCE_DIR}/${header})
  else()
    set(file ${CMAKE_SOURCE_DIR}/platform/${header})
  endif()
  list(APPEND PLEXA_PUBLIC_HEADER_FILES ${file})
  get_filename_component(dir ${header} DIRECTORY)
  install(FILES ${file} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir})
endforeach()

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
