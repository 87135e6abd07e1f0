# How the C reader of the host table is installed: one header, the library, a CMake package VxlanHosts (target
# VxlanHosts::vxlan-hosts) that a project in C alone can use, the pkg-config file vxlan-hosts.pc, and the Python module.

function(vcc_install_hosts target)
  # What vcc_shared_library says to users is for C++.
  set_target_properties(${target} PROPERTIES INTERFACE_COMPILE_FEATURES ""
    INTERFACE_INCLUDE_DIRECTORIES "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
  set(room "${CMAKE_SOURCE_DIR}/Vxlan/hosts")
  install(FILES "${room}/vxlan_hosts.h" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development)
  install(TARGETS ${target} EXPORT VxlanHostsConfig
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT hosts NAMELINK_COMPONENT development)
  set(package "${CMAKE_INSTALL_LIBDIR}/cmake/VxlanHosts")
  install(EXPORT VxlanHostsConfig NAMESPACE VxlanHosts:: DESTINATION "${package}" COMPONENT development)
  write_basic_package_version_file("${CMAKE_BINARY_DIR}/packaging/VxlanHostsConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
  install(FILES "${CMAKE_BINARY_DIR}/packaging/VxlanHostsConfigVersion.cmake" DESTINATION "${package}"
    COMPONENT development)

  vcc_pkg_config_paths()
  cmake_path(GET VCC_PC_INCLUDE_DIR PARENT_PATH VCC_PC_PLAIN_INCLUDE_DIR)
  configure_file("${CMAKE_SOURCE_DIR}/packaging/vxlan-hosts.pc.in" "${CMAKE_BINARY_DIR}/packaging/vxlan-hosts.pc" @ONLY)
  install(FILES "${CMAKE_BINARY_DIR}/packaging/vxlan-hosts.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
    COMPONENT development)

  install(FILES "${room}/vxlan_hosts.py" DESTINATION lib/python3/dist-packages COMPONENT python)
endfunction()
