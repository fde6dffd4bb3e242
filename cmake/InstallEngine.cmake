# What `cmake --install --component Development` puts in place of the engine: its public headers below include/rvio,
# its static libraries, the package for find_package(rvio) with the target rvio::rvio, rvio.pc for pkg-config, and
# librvio(3).
include(CMakePackageConfigHelpers)

set(rv_engine_include ${CMAKE_INSTALL_INCLUDEDIR}/rvio)
set(rv_engine_package ${CMAKE_INSTALL_LIBDIR}/cmake/rvio)

# rv_install_library(<target> <header>...): headers named from the root of the project. Each is compiled alone by
# the target all_verify_interface_header_sets, and by tests/install.
function(rv_install_library target)
  list(TRANSFORM ARGN PREPEND ${PROJECT_SOURCE_DIR}/)
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${ARGN})
  set_target_properties(${target} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
  install(TARGETS ${target} EXPORT rvio
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
    FILE_SET HEADERS DESTINATION ${rv_engine_include} COMPONENT Development)
endfunction()

# The headers that users include, and those that these include for the members of a class. What only the sources of
# the engine include stays out.
rv_install_library(rvkevent platform/kevent.h)
rv_install_library(rvcapture platform/packet_capture.h)
rv_install_library(rvplatform
  platform/lock.h platform/oslog.h platform/peer_credentials.h platform/thread.h platform/ticker.h
  platform/wakeup.h)
rv_install_library(rvio
  libio-macOS/AcceptedConnection.h libio-macOS/ByteBuffer.h libio-macOS/EndpointTable.h libio-macOS/EventBlockSlot.h
  libio-macOS/OutputRun.h libio-macOS/ParentLoop.h libio-macOS/PendingOutput.h libio-macOS/RvKQueue.h
  libio-macOS/RvKQueueBPF.h
  libio-macOS/RvKQueueBipipeClient.h libio-macOS/RvKQueueEventProtocol.h libio-macOS/RvKQueueStreamSocket.h
  libio-macOS/RvKQueueTCPClient.h libio-macOS/RvKQueueTCPServer.h libio-macOS/RvKQueueTimer.h
  libio-macOS/RvKQueueUnixClient.h libio-macOS/RvKQueueUnixServer.h libio-macOS/TimerIdents.h)

install(EXPORT rvio NAMESPACE rvio:: DESTINATION ${rv_engine_package} FILE rvioTargets.cmake COMPONENT Development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/rvioConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/rvioConfig.cmake INSTALL_DESTINATION ${rv_engine_package}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/rvioConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/rvioConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/rvioConfigVersion.cmake
  DESTINATION ${rv_engine_package} COMPONENT Development)

# rvio.pc finds its prefix from where it lies, so that an installed tree may be moved, and packaged under another
# prefix than it was configured with.
set(rv_pc_directory ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH rv_pc_prefix ${rv_pc_directory} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" rv_pc_prefix "${rv_pc_prefix}")
cmake_path(APPEND rv_pc_libdir "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
cmake_path(APPEND rv_pc_includedir "\${prefix}" ${rv_engine_include})
configure_file(${PROJECT_SOURCE_DIR}/cmake/rvio.pc.in ${CMAKE_CURRENT_BINARY_DIR}/rvio.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/rvio.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

install(FILES ${PROJECT_SOURCE_DIR}/docs/man/librvio.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
  COMPONENT Development)
