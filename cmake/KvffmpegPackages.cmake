# Debian packages by CPack, one per component: libkvffmpeg0 (runtime), libkvffmpeg-dev (development) and
# kvffmpeg-tools (tools). scripts/check-packages makes them so and uses them in a clean Debian:
#
#     cmake -S . -B build/packages -DKVFFMPEG_PACKAGES=ON -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_SKIP_INSTALL_RPATH=ON
#     cmake --build build/packages
#     cpack -G DEB --config build/packages/CPackConfig.cmake

if(KVFFMPEG_LOGGER_ROOT)
  message(FATAL_ERROR "KVFFMPEG_PACKAGES with KVFFMPEG_LOGGER_ROOT: a package cannot depend on what no package has")
endif()

set(KVFFMPEG_PACKAGE_CONTACT "The kvffmpeg authors" CACHE STRING "Who answers for the packages")
set(KVFFMPEG_PACKAGE_REVISION 1 CACHE STRING "Debian's revision of this version")
mark_as_advanced(KVFFMPEG_PACKAGE_CONTACT KVFFMPEG_PACKAGE_REVISION)

set(kvffmpeg_runtime_package libkvffmpeg${PROJECT_VERSION_MAJOR})
set(kvffmpeg_development_package libkvffmpeg-dev)
set(kvffmpeg_tools_package kvffmpeg-tools)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kvffmpeg)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${KVFFMPEG_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development)
if(KVFFMPEG_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${KVFFMPEG_PACKAGE_REVISION})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(kvffmpeg_package_version ${PROJECT_VERSION}-${KVFFMPEG_PACKAGE_REVISION})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${kvffmpeg_runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# For packages of programs that link the library. Exactly this version: before 1.0 every minor version may change it.
file(WRITE ${PROJECT_BINARY_DIR}/packages/shlibs
     "libkvffmpeg ${PROJECT_VERSION_MAJOR} ${kvffmpeg_runtime_package} (= ${kvffmpeg_package_version})\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packages/shlibs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "A value-oriented C++ object model over FFmpeg: runtime library
Opens, decodes, filters, scales, draws on and saves media through FFmpeg.
This package has the library that programs need to run, and the logging
library that it writes to.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${kvffmpeg_development_package})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The headers include FFmpeg's, and the CMake package asks pkg-config for them. cmake itself is the user's choice.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${kvffmpeg_runtime_package} (= ${kvffmpeg_package_version})"
    "libavformat-dev (>= 7:3.4)" "libavcodec-dev (>= 7:3.4)" "libavutil-dev (>= 7:3.4)" "pkgconf | pkg-config")
list(JOIN CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ", " CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "A value-oriented C++ object model over FFmpeg: development files
Opens, decodes, filters, scales, draws on and saves media through FFmpeg.
This package has the headers, and what CMake's find_package and pkg-config
need to find the library.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${kvffmpeg_tools_package})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps finds these here, and knows no package that they come from: the one that must be there is named.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/src;${PROJECT_BINARY_DIR}/logger")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${kvffmpeg_runtime_package} (= ${kvffmpeg_package_version})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "fonts-dejavu-core")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "Contact sheets, pictures, waveforms and facts from media files
The command-line tool kvffmpeg tells what is in media files and makes contact
sheets, single pictures, waveforms and pictures of text.")

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  # Where Debian looks for it.
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/debian/copyright
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${kvffmpeg_${component}_package} COMPONENT ${component})
endforeach()

include(CPack)
