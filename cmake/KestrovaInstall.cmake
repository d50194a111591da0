# `cmake --install`: the shared library, the public headers, the CMake package (both
# find_package(Kestrova) and find_package(kestrova) work), a pkg-config file, and the
# kestrova and kestrova-server commands.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KESTROVA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Kestrova)

install(TARGETS kestrova_shared EXPORT KestrovaTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
)
install(TARGETS kestrova kestrova-server RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES
  ${PROJECT_SOURCE_DIR}/include/kestrova/facade.h
  ${PROJECT_SOURCE_DIR}/include/kestrova/config.h
  ${PROJECT_SOURCE_DIR}/include/kestrova/error.h
  ${PROJECT_SOURCE_DIR}/include/kestrova/delivery.h
  ${PROJECT_SOURCE_DIR}/include/kestrova/data_type.h
  ${PROJECT_SOURCE_DIR}/include/kestrova/kestrova.h
  ${PROJECT_BINARY_DIR}/generated/kestrova/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kestrova
)

install(EXPORT KestrovaTargets NAMESPACE Kestrova:: DESTINATION ${KESTROVA_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KestrovaConfig.cmake.in
  ${PROJECT_BINARY_DIR}/package/KestrovaConfig.cmake
  INSTALL_DESTINATION ${KESTROVA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/KestrovaConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
file(WRITE ${PROJECT_BINARY_DIR}/package/kestrova-config.cmake
  "include(\${CMAKE_CURRENT_LIST_DIR}/KestrovaConfig.cmake)\n")
file(WRITE ${PROJECT_BINARY_DIR}/package/kestrova-config-version.cmake
  "include(\${CMAKE_CURRENT_LIST_DIR}/KestrovaConfigVersion.cmake)\n")
install(FILES
  ${PROJECT_BINARY_DIR}/package/KestrovaConfig.cmake
  ${PROJECT_BINARY_DIR}/package/KestrovaConfigVersion.cmake
  ${PROJECT_BINARY_DIR}/package/kestrova-config.cmake
  ${PROJECT_BINARY_DIR}/package/kestrova-config-version.cmake
  DESTINATION ${KESTROVA_CMAKE_DIR})

configure_file(${PROJECT_SOURCE_DIR}/cmake/kestrova.pc.in ${PROJECT_BINARY_DIR}/package/kestrova.pc
               @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/kestrova.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
