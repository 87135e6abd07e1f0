# How the shared library is put together out of the rooms, and how it is installed: headers below
# include/vxlan-controller-client, a CMake package, a pkg-config file. A consumer links the one library; the rooms
# inside it are not installed, only their headers are.

include(CMakePackageConfigHelpers)

set(VCC_INCLUDE_DIR "${CMAKE_INSTALL_INCLUDEDIR}/vxlan-controller-client")

# vcc_shared_library(TARGET ROOMS ... [SOURCES ...]) makes the shared library that consists of whole rooms (each a
# target of vcc_room, static or interface) and of SOURCES. Symbols that are marked for export are visible, all others
# hidden. Programs of the project that link it include the headers of its rooms, and must not link the rooms themselves:
# the library would be in them twice.
function(vcc_shared_library target)
  cmake_parse_arguments(LIB "" "" "ROOMS;SOURCES" ${ARGN})
  add_library(${target} SHARED ${LIB_SOURCES})
  set_target_properties(${target} PROPERTIES
    VERSION "${PROJECT_VERSION}" SOVERSION "${VCC_SOVERSION}"
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
    VCC_ROOMS "${LIB_ROOMS}")
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_link_libraries(${target} PRIVATE vcc_build)
  if(NOT VCC_SANITIZE)
    # Their runtime is in the program, so that a sanitized library has undefined symbols.
    target_link_options(${target} PRIVATE "LINKER:--no-undefined")
  endif()
  foreach(room IN LISTS LIB_ROOMS)
    get_target_property(type ${room} TYPE)
    if(type STREQUAL "STATIC_LIBRARY")
      # The object files rather than the archive: factories and registrations that nothing in the library itself
      # calls must be in it, and a room that several rooms need must be in it once.
      target_sources(${target} PRIVATE "$<TARGET_OBJECTS:${room}>")
    endif()
    foreach(reach PRIVATE INTERFACE)
      target_include_directories(${target} ${reach} "$<BUILD_INTERFACE:${CMAKE_BINARY_DIR}/roots/${room}>")
    endforeach()
  endforeach()
  set_target_properties(${target} PROPERTIES LINKER_LANGUAGE CXX)
  target_include_directories(${target} INTERFACE "$<INSTALL_INTERFACE:${VCC_INCLUDE_DIR}>")
endfunction()

# vcc_install_library(TARGET) installs what vcc_shared_library made: the library, every header of its rooms, the
# CMake package VxlanControllerClient (target VxlanControllerClient::VxlanControllerClient) and the pkg-config file
# vxlan-controller-client.pc.
function(vcc_install_library target)
  get_target_property(rooms ${target} VCC_ROOMS)
  foreach(room IN LISTS rooms)
    get_target_property(headers ${room} HEADER_SET)
    foreach(header IN LISTS headers)
      cmake_path(RELATIVE_PATH header BASE_DIRECTORY "${CMAKE_BINARY_DIR}/roots/${room}" OUTPUT_VARIABLE relative)
      cmake_path(GET relative PARENT_PATH folder)
      install(FILES "${header}" DESTINATION "${VCC_INCLUDE_DIR}/${folder}" COMPONENT development)
    endforeach()
  endforeach()

  install(TARGETS ${target} EXPORT VxlanControllerClientTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT library NAMELINK_COMPONENT development)
  set(package "${CMAKE_INSTALL_LIBDIR}/cmake/VxlanControllerClient")
  install(EXPORT VxlanControllerClientTargets NAMESPACE VxlanControllerClient:: DESTINATION "${package}"
    COMPONENT development)
  configure_package_config_file("${CMAKE_SOURCE_DIR}/packaging/VxlanControllerClientConfig.cmake.in"
    "${CMAKE_BINARY_DIR}/packaging/VxlanControllerClientConfig.cmake" INSTALL_DESTINATION "${package}")
  write_basic_package_version_file("${CMAKE_BINARY_DIR}/packaging/VxlanControllerClientConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
  install(FILES "${CMAKE_BINARY_DIR}/packaging/VxlanControllerClientConfig.cmake"
                "${CMAKE_BINARY_DIR}/packaging/VxlanControllerClientConfigVersion.cmake"
    DESTINATION "${package}" COMPONENT development)

  vcc_pkg_config_paths()
  configure_file("${CMAKE_SOURCE_DIR}/packaging/vxlan-controller-client.pc.in"
    "${CMAKE_BINARY_DIR}/packaging/vxlan-controller-client.pc" @ONLY)
  install(FILES "${CMAKE_BINARY_DIR}/packaging/vxlan-controller-client.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)
endfunction()

# The paths of the pkg-config file: found from where that file lies, so that the installed tree can be moved or
# installed under another prefix than it was configured with; as they stand where they are absolute.
function(vcc_pkg_config_paths)
  file(RELATIVE_PATH up "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" up "${up}")
  set(prefix "\${pcfiledir}/${up}")
  if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(prefix "${CMAKE_INSTALL_PREFIX}")
  endif()
  set(VCC_PC_PREFIX "${prefix}" PARENT_SCOPE)
  foreach(which INCLUDE LIBRARY)
    set(path "${VCC_INCLUDE_DIR}")
    if(which STREQUAL "LIBRARY")
      set(path "${CMAKE_INSTALL_LIBDIR}")
    endif()
    if(NOT IS_ABSOLUTE "${path}")
      string(PREPEND path "\${prefix}/")
    endif()
    set(VCC_PC_${which}_DIR "${path}" PARENT_SCOPE)
  endforeach()
endfunction()

# vcc_install_programs(TARGET...) installs programs that find the library beside themselves, wherever the prefix is.
# A target that is not built is left out.
function(vcc_install_programs)
  foreach(target IN LISTS ARGN)
    if(TARGET ${target})
      file(RELATIVE_PATH up "/${CMAKE_INSTALL_BINDIR}" "/${CMAKE_INSTALL_LIBDIR}")
      set_target_properties(${target} PROPERTIES INSTALL_RPATH "\$ORIGIN/${up}")
      install(TARGETS ${target} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT agent)
    endif()
  endforeach()
endfunction()
