include(CMakePackageConfigHelpers)

set(kvffmpeg_config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kvffmpeg)

install(TARGETS kvffmpeg kvffmpeg_logger EXPORT kvffmpegTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT kvffmpegTargets NAMESPACE kvffmpeg:: DESTINATION ${kvffmpeg_config_dir})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kvffmpegConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/kvffmpegConfig.cmake
                              INSTALL_DESTINATION ${kvffmpeg_config_dir})
# Before 1.0 every minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kvffmpegConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kvffmpegConfig.cmake ${PROJECT_BINARY_DIR}/kvffmpegConfigVersion.cmake
        DESTINATION ${kvffmpeg_config_dir})

configure_file(${CMAKE_CURRENT_LIST_DIR}/kvffmpeg.pc.in ${PROJECT_BINARY_DIR}/kvffmpeg.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kvffmpeg.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
