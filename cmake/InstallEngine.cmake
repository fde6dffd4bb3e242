# What `cmake --install` puts in place of the engine: its headers below include/rvio, its static libraries, the
# package for find_package(rvio) with the target rvio::rvio, and rvio.pc for pkg-config.
include(CMakePackageConfigHelpers)

set(rv_engine_include ${CMAKE_INSTALL_INCLUDEDIR}/rvio)
set(rv_engine_package ${CMAKE_INSTALL_LIBDIR}/cmake/rvio)

# rv_install_library(<target> <header>...): headers named from the root of the project. Each is compiled alone by
# the target all_verify_interface_header_sets.
function(rv_install_library target)
  list(TRANSFORM ARGN PREPEND ${PROJECT_SOURCE_DIR}/)
  target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${ARGN})
  set_target_properties(${target} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
  install(TARGETS ${target} EXPORT rvio
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    FILE_SET HEADERS DESTINATION ${rv_engine_include})
endfunction()

rv_install_library(rvkevent platform/kevent.h)
rv_install_library(rvcapture platform/packet_capture.h)
rv_install_library(rvplatform
  platform/lock.h platform/oslog.h platform/peer_credentials.h platform/socket_address.h
  platform/stream_socket.h platform/thread.h platform/wakeup.h)
rv_install_library(rvio
  libio-macOS/AcceptedConnection.h libio-macOS/BufferedInput.h libio-macOS/ByteBuffer.h
  libio-macOS/EventBlockSlot.h libio-macOS/FilterRecord.h libio-macOS/Listening.h libio-macOS/MakeEndpoint.h
  libio-macOS/PendingOutput.h libio-macOS/RvKQueue.h libio-macOS/RvKQueueBPF.h
  libio-macOS/RvKQueueBipipeClient.h libio-macOS/RvKQueueEventProtocol.h libio-macOS/RvKQueueStreamSocket.h
  libio-macOS/RvKQueueTCPClient.h libio-macOS/RvKQueueTCPServer.h libio-macOS/RvKQueueTimer.h
  libio-macOS/RvKQueueUnixClient.h libio-macOS/RvKQueueUnixServer.h libio-macOS/TimerIdents.h
  libio-macOS/UnixPath.h)

install(EXPORT rvio NAMESPACE rvio:: DESTINATION ${rv_engine_package} FILE rvioTargets.cmake)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/rvioConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/rvioConfig.cmake INSTALL_DESTINATION ${rv_engine_package})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/rvioConfigVersion.cmake COMPATIBILITY SameMinorVersion)
configure_file(${PROJECT_SOURCE_DIR}/cmake/rvio.pc.in ${CMAKE_CURRENT_BINARY_DIR}/rvio.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/rvioConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/rvioConfigVersion.cmake
  DESTINATION ${rv_engine_package})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/rvio.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
