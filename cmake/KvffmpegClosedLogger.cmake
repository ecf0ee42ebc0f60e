# kvffmpeg::closed_logger: a closed liblog.so (lib/) and its header (include/logger/logger.h) below the prefix
# KVFFMPEG_LOGGER_ROOT. Included by the build, and installed for the package of a library that was built so.

if(NOT TARGET kvffmpeg::closed_logger)
  find_path(KVFFMPEG_LOGGER_INCLUDE_DIR logger/logger.h
            PATHS "${KVFFMPEG_LOGGER_ROOT}/include" NO_DEFAULT_PATH)
  find_library(KVFFMPEG_LOGGER_LIBRARY NAMES log
               PATHS "${KVFFMPEG_LOGGER_ROOT}/lib" "${KVFFMPEG_LOGGER_ROOT}/lib64" NO_DEFAULT_PATH)
  mark_as_advanced(KVFFMPEG_LOGGER_INCLUDE_DIR KVFFMPEG_LOGGER_LIBRARY)
  if(KVFFMPEG_LOGGER_INCLUDE_DIR AND KVFFMPEG_LOGGER_LIBRARY)
    add_library(kvffmpeg::closed_logger SHARED IMPORTED GLOBAL)
    set_target_properties(kvffmpeg::closed_logger PROPERTIES
      IMPORTED_LOCATION "${KVFFMPEG_LOGGER_LIBRARY}"
      INTERFACE_INCLUDE_DIRECTORIES "${KVFFMPEG_LOGGER_INCLUDE_DIR}")
  endif()
endif()
