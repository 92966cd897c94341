# What `cmake --install` installs: the four programs, the library with its headers, and the CMake package "norvel".
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(NORVEL_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/norvel)
set(NORVEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/norvel)

install(TARGETS norvel-bench norvel-cli norvel-miner norveld DESTINATION ${CMAKE_INSTALL_BINDIR})
target_compile_features(norvel INTERFACE cxx_std_20)
install(TARGETS norvel EXPORT norvelTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${NORVEL_INCLUDE_DIR})
install(EXPORT norvelTargets NAMESPACE norvel:: DESTINATION ${NORVEL_CMAKE_DIR})

foreach(room core crypto script consensus chain mempool network rpc mining)
  install(DIRECTORY src/${room} DESTINATION ${NORVEL_INCLUDE_DIR}
    FILES_MATCHING PATTERN "*.h")
endforeach()

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/norvelConfig.cmake.in ${PROJECT_BINARY_DIR}/norvelConfig.cmake
  INSTALL_DESTINATION ${NORVEL_CMAKE_DIR} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/norvelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/norvelConfig.cmake ${PROJECT_BINARY_DIR}/norvelConfigVersion.cmake
  DESTINATION ${NORVEL_CMAKE_DIR})
