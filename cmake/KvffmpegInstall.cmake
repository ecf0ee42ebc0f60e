# The library, its headers and the logger, found by find_package(kvffmpeg) as well as by pkg-config. The
# installed tree can be moved, and `cmake --install` be given another prefix, unless CMAKE_INSTALL_LIBDIR or
# CMAKE_INSTALL_INCLUDEDIR is an absolute path.
#
# Components: "runtime", what programs that are there need to run, and "development", what building them needs besides.
# The tool is "tools". KvffmpegPackages makes a package of each.

include(CMakePackageConfigHelpers)

set(kvffmpeg_config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kvffmpeg)

install(TARGETS kvffmpeg kvffmpeg_logger EXPORT kvffmpegTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT kvffmpegTargets NAMESPACE kvffmpeg:: DESTINATION ${kvffmpeg_config_dir} COMPONENT development)

# A closed logger is not installed: the package says where it was found, and lets its user say otherwise.
set(kvffmpeg_logger_libs "-llog")
set(kvffmpeg_logger_cflags "")
set(kvffmpeg_logger_root "")
if(KVFFMPEG_LOGGER_ROOT)
  get_filename_component(kvffmpeg_logger_root "${KVFFMPEG_LOGGER_ROOT}" ABSOLUTE BASE_DIR "${CMAKE_BINARY_DIR}")
  get_filename_component(kvffmpeg_logger_libdir "${KVFFMPEG_LOGGER_LIBRARY}" DIRECTORY)
  # Where the library looks for it at run time, after its own folder.
  set_property(TARGET kvffmpeg APPEND PROPERTY INSTALL_RPATH "${kvffmpeg_logger_libdir}")
  file(RELATIVE_PATH kvffmpeg_logger_libdir "${kvffmpeg_logger_root}" "${kvffmpeg_logger_libdir}")
  set(kvffmpeg_logger_libs "-L\${logger_root}/${kvffmpeg_logger_libdir} -llog")
  set(kvffmpeg_logger_cflags "-I\${logger_root}/include")
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/KvffmpegClosedLogger.cmake DESTINATION ${kvffmpeg_config_dir}
          COMPONENT development)
endif()

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kvffmpegConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/kvffmpegConfig.cmake
                              INSTALL_DESTINATION ${kvffmpeg_config_dir})
# Before 1.0 every minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kvffmpegConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kvffmpegConfig.cmake ${PROJECT_BINARY_DIR}/kvffmpegConfigVersion.cmake
        DESTINATION ${kvffmpeg_config_dir} COMPONENT development)

# kvffmpeg.pc names its prefix relative to itself, so that the prefix given at configuration does not matter.
set(kvffmpeg_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(kvffmpeg_pc_prefix ${CMAKE_INSTALL_PREFIX})
if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  file(RELATIVE_PATH kvffmpeg_pc_up "/${kvffmpeg_pc_dir}" "/")
  string(REGEX REPLACE "/$" "" kvffmpeg_pc_up "${kvffmpeg_pc_up}")
  set(kvffmpeg_pc_prefix "\${pcfiledir}/${kvffmpeg_pc_up}")
endif()
foreach(dir IN ITEMS LIBDIR INCLUDEDIR)
  set(kvffmpeg_pc_${dir} "${CMAKE_INSTALL_${dir}}")
  if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(kvffmpeg_pc_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/kvffmpeg.pc.in ${PROJECT_BINARY_DIR}/kvffmpeg.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kvffmpeg.pc DESTINATION ${kvffmpeg_pc_dir} COMPONENT development)
