# How libvxsdm is found by applications, the same way in the build tree and
# once installed: headers under include/vxsdm/, a pkg-config file
# (libvxsdm.pc; libvxsdm-uninstalled.pc in the build tree), and a CMake
# package (find_package(vxsdm), target vxsdm::vxsdm). Included from
# libvxsdm/CMakeLists.txt, where the vxsdm target and its header list live.
include(CMakePackageConfigHelpers)

# Build tree: <build>/include/vxsdm/*.h, copied again whenever one changes.
foreach(h ${VXSDM_PUBLIC_HEADERS})
  configure_file(${CMAKE_CURRENT_SOURCE_DIR}/${h} ${CMAKE_BINARY_DIR}/include/vxsdm/${h} COPYONLY)
endforeach()

# pkg-config looks for <name>-uninstalled.pc first, so PKG_CONFIG_PATH=<build>
# compiles a client against the build tree with the same command line.
set(VXPC_PREFIX ${CMAKE_BINARY_DIR})
set(VXPC_LIBDIR ${CMAKE_CURRENT_BINARY_DIR})
set(VXPC_INCLUDEDIR ${CMAKE_BINARY_DIR}/include)
configure_file(${PROJECT_SOURCE_DIR}/cmake/libvxsdm.pc.in ${CMAKE_BINARY_DIR}/libvxsdm-uninstalled.pc @ONLY)

# Build tree package: -Dvxsdm_DIR=<build>.
export(TARGETS vxsdm NAMESPACE vxsdm:: FILE ${CMAKE_BINARY_DIR}/vxsdmTargets.cmake)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vxsdmConfig.cmake.in
  ${CMAKE_BINARY_DIR}/vxsdmConfig.cmake INSTALL_DESTINATION ${CMAKE_BINARY_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/vxsdmConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)

# Installed. The .pc is written at install time, so that `cmake --install
# --prefix` is what it says.
set(VXSDM_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/vxsdm)
install(TARGETS vxsdm EXPORT vxsdmTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
list(TRANSFORM VXSDM_PUBLIC_HEADERS PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/ OUTPUT_VARIABLE VXSDM_HEADER_PATHS)
install(FILES ${VXSDM_HEADER_PATHS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vxsdm)
install(CODE "
  set(VXPC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  cmake_path(ABSOLUTE_PATH VXPC_PREFIX NORMALIZE)
  cmake_path(APPEND VXPC_PREFIX \"${CMAKE_INSTALL_LIBDIR}\" OUTPUT_VARIABLE VXPC_LIBDIR)
  cmake_path(APPEND VXPC_PREFIX \"${CMAKE_INSTALL_INCLUDEDIR}\" OUTPUT_VARIABLE VXPC_INCLUDEDIR)
  set(PROJECT_VERSION ${PROJECT_VERSION})
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/libvxsdm.pc.in\" \"${CMAKE_BINARY_DIR}/install/libvxsdm.pc\" @ONLY)")
install(FILES ${CMAKE_BINARY_DIR}/install/libvxsdm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(EXPORT vxsdmTargets NAMESPACE vxsdm:: DESTINATION ${VXSDM_CMAKEDIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vxsdmConfig.cmake.in
  ${CMAKE_BINARY_DIR}/install/vxsdmConfig.cmake INSTALL_DESTINATION ${VXSDM_CMAKEDIR})
install(FILES ${CMAKE_BINARY_DIR}/install/vxsdmConfig.cmake ${CMAKE_BINARY_DIR}/vxsdmConfigVersion.cmake
        DESTINATION ${VXSDM_CMAKEDIR})
