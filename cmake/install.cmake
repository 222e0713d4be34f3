# What "cmake --install" puts where: libraries, the headers that a Center or a host of its own includes, the program,
# the CMake package and the pkg-config files. Headers keep their folders below include/inet_relay, so that they are
# included as in this tree.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(installed_headers ${CMAKE_INSTALL_INCLUDEDIR}/inet_relay)
set(installed_package ${CMAKE_INSTALL_LIBDIR}/cmake/INet_Relay)

# Both libraries in one target: the relay before the host, so that the host is ready when the relay's globals are
# constructed. A linker told to drop what the program itself does not name would drop the host, which only the relay
# needs; some keep it for the relay's sake, not all do. So both are named once where nothing is dropped.
add_library(inet_relay_center_libraries INTERFACE)
target_link_libraries(inet_relay_center_libraries INTERFACE inet_relay zolt_reference_host)
string(JOIN "," kept_libraries --push-state --no-as-needed $<TARGET_FILE:$<TARGET_NAME:inet_relay>>
  $<TARGET_FILE:$<TARGET_NAME:zolt_reference_host>> --pop-state)
target_link_options(inet_relay_center_libraries INTERFACE LINKER:${kept_libraries})

# One export for each component of the package; the names are those of a build within another project too.
function(export_as component target name)
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${name})
  target_compile_features(${target} INTERFACE cxx_std_20)
  add_library(INet_Relay::${name} ALIAS ${target})
  install(TARGETS ${target} EXPORT ${component} INCLUDES DESTINATION ${installed_headers})
endfunction()
export_as(relay inet_relay relay)
export_as(reference_host zolt_reference_host reference_host)
export_as(reference_host inet_relay_center_libraries center_libraries)

install(FILES Center/INet_Relay/EPoll/inet_relay_epoll.hpp DESTINATION ${installed_headers}/Center/INet_Relay/EPoll
  COMPONENT headers)
install(DIRECTORY Host DESTINATION ${installed_headers} COMPONENT headers FILES_MATCHING PATTERN *.hpp)
install(DIRECTORY Reference_Host DESTINATION ${installed_headers} COMPONENT headers FILES_MATCHING
  PATTERN inbox.hpp PATTERN ini_file.hpp PATTERN output_sink.hpp PATTERN packet_building.hpp PATTERN packet_layout.hpp
  PATTERN packet_limits.hpp PATTERN packet_reading.hpp PATTERN relay_observer.hpp)

foreach(component relay reference_host)
  install(EXPORT ${component} NAMESPACE INet_Relay:: FILE ${component}.cmake DESTINATION ${installed_package})
endforeach()
configure_package_config_file(cmake/INet_RelayConfig.cmake.in cmake/INet_RelayConfig.cmake
  INSTALL_DESTINATION ${installed_package})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/INet_RelayConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cmake/INet_RelayConfig.cmake ${PROJECT_BINARY_DIR}/cmake/INet_RelayConfigVersion.cmake
  DESTINATION ${installed_package})

# The pkg-config files find their prefix from where they are, as the CMake package does.
file(RELATIVE_PATH prefix_from_pkgconfig /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
foreach(library inet_relay zolt_reference_host)
  configure_file(cmake/${library}.pc.in cmake/${library}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/cmake/${library}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

if(TARGET zolt-center)
  install(TARGETS zolt-center)
endif()
