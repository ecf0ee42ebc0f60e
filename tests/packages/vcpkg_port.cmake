# Carries out the vcpkg port with stand-ins for vcpkg's functions, which build and install for real, and builds a user of
# what came out:
#
#     cmake -DROOT=TREE -DPORT=FOLDER-OF-THE-PORT -DWORK=FOLDER -P vcpkg_port.cmake
#
# It cannot tell whether the ports that this one depends on exist by these names: that takes vcpkg itself.

cmake_minimum_required(VERSION 3.19)  # string(JSON)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${result}: ${ARGN}")
  endif()
endfunction()

# parse(PREFIX "OPTIONS" "ONE" "MANY" ARGUMENT...): what the function does not know is an error, as it is in vcpkg.
macro(parse options one many)
  cmake_parse_arguments(arg "${options}" "${one}" "${many}" ${ARGN})
  if(arg_UNPARSED_ARGUMENTS OR arg_KEYWORDS_MISSING_VALUES)
    message(FATAL_ERROR "Unknown or without a value: ${arg_UNPARSED_ARGUMENTS} ${arg_KEYWORDS_MISSING_VALUES}")
  endif()
endmacro()

function(vcpkg_check_linkage)
  parse("ONLY_STATIC_LIBRARY;ONLY_DYNAMIC_LIBRARY;ONLY_DYNAMIC_CRT;ONLY_STATIC_CRT" "" "" ${ARGN})
endfunction()

function(vcpkg_check_features)
  parse("" "OUT_FEATURE_OPTIONS" "FEATURES;INVERTED_FEATURES" ${ARGN})
  set(options "")
  while(arg_FEATURES)
    list(POP_FRONT arg_FEATURES feature variable)
    string(JSON description ERROR_VARIABLE error GET "${manifest}" features ${feature} description)
    if(error)
      message(FATAL_ERROR "vcpkg.json has no feature ${feature}: ${error}")
    endif()
    if(feature IN_LIST FEATURES)
      list(APPEND options -D${variable}=ON)
    else()
      list(APPEND options -D${variable}=OFF)
    endif()
  endwhile()
  set(${arg_OUT_FEATURE_OPTIONS} "${options}" PARENT_SCOPE)
endfunction()

function(vcpkg_find_acquire_program name)
  find_program(${name} NAMES pkgconf pkg-config REQUIRED)
  set(${name} "${${name}}" PARENT_SCOPE)
endfunction()

# Not optimised, since only the build is the question.
function(vcpkg_cmake_configure)
  parse("" "SOURCE_PATH" "OPTIONS;OPTIONS_DEBUG;OPTIONS_RELEASE" ${ARGN})
  run(${CMAKE_COMMAND} -S ${arg_SOURCE_PATH} -B ${WORK}-build -G Ninja -DCMAKE_BUILD_TYPE=Debug
      -DCMAKE_CXX_FLAGS_DEBUG=-O0 -DCMAKE_INSTALL_PREFIX=${CURRENT_PACKAGES_DIR} -DCMAKE_INSTALL_LIBDIR=lib -DBUILD_SHARED_LIBS=ON
      ${arg_OPTIONS} ${arg_OPTIONS_DEBUG})
endfunction()

function(vcpkg_cmake_install)
  parse("DISABLE_PARALLEL;ADD_BIN_TO_PATH" "" "" ${ARGN})
  run(${CMAKE_COMMAND} --build ${WORK}-build)
  run(${CMAKE_COMMAND} --install ${WORK}-build)
endfunction()

# The CMake package moves to share/PORT, two folders below the prefix and not three.
function(vcpkg_cmake_config_fixup)
  parse("DO_NOT_DELETE_PARENT_CONFIG_PATH" "PACKAGE_NAME;CONFIG_PATH;TOOLS_PATH" "" ${ARGN})
  set(from ${CURRENT_PACKAGES_DIR}/${arg_CONFIG_PATH})
  set(to ${CURRENT_PACKAGES_DIR}/share/${PORT})
  if(NOT EXISTS ${from}/kvffmpegConfig.cmake)
    message(FATAL_ERROR "No CMake package in ${from}")
  endif()
  file(MAKE_DIRECTORY ${CURRENT_PACKAGES_DIR}/share)
  file(RENAME ${from} ${to})
  file(REMOVE_RECURSE ${CURRENT_PACKAGES_DIR}/lib/cmake)
  file(GLOB files ${to}/*.cmake)
  foreach(file IN LISTS files)
    file(READ ${file} text)
    string(REPLACE "/../../../" "/../../" text "${text}")
    string(REGEX REPLACE
           "(get_filename_component\\(_IMPORT_PREFIX \"\\\${CMAKE_CURRENT_LIST_FILE}\" PATH\\)\n)(get_filename_component\\(_IMPORT_PREFIX \"\\\${_IMPORT_PREFIX}\" PATH\\)\n)+"
           "\\1get_filename_component(_IMPORT_PREFIX \"\${_IMPORT_PREFIX}\" PATH)\nget_filename_component(_IMPORT_PREFIX \"\${_IMPORT_PREFIX}\" PATH)\n"
           text "${text}")
    file(WRITE ${file} "${text}")
  endforeach()
endfunction()

function(vcpkg_fixup_pkgconfig)
  parse("SKIP_CHECK" "" "" ${ARGN})
  if(NOT EXISTS ${CURRENT_PACKAGES_DIR}/lib/pkgconfig/kvffmpeg.pc)
    message(FATAL_ERROR "No kvffmpeg.pc in ${CURRENT_PACKAGES_DIR}/lib/pkgconfig")
  endif()
endfunction()

function(vcpkg_copy_tools)
  parse("AUTO_CLEAN" "SEARCH_DIR;DESTINATION" "TOOL_NAMES" ${ARGN})
  foreach(name IN LISTS arg_TOOL_NAMES)
    file(INSTALL ${CURRENT_PACKAGES_DIR}/bin/${name} DESTINATION ${CURRENT_PACKAGES_DIR}/tools/${PORT}
         USE_SOURCE_PERMISSIONS)
  endforeach()
endfunction()

function(vcpkg_install_copyright)
  parse("" "COMMENT" "FILE_LIST" ${ARGN})
  file(INSTALL ${arg_FILE_LIST} DESTINATION ${CURRENT_PACKAGES_DIR}/share/${PORT} RENAME copyright)
endfunction()

# The manifest: well formed, of this name and version.
file(READ ${PORT}/vcpkg.json manifest)
file(STRINGS ${ROOT}/CMakeLists.txt project REGEX "^project\\(kvffmpeg VERSION")
string(REGEX REPLACE "^project\\(kvffmpeg VERSION ([0-9.]+).*" "\\1" expected "${project}")
string(JSON version GET "${manifest}" version)
string(JSON name GET "${manifest}" name)
if(NOT version STREQUAL expected OR NOT name STREQUAL "kvffmpeg")
  message(FATAL_ERROR "vcpkg.json has ${name} ${version}, CMakeLists.txt kvffmpeg ${expected}")
endif()

file(REMOVE_RECURSE ${WORK}/packages)
set(CURRENT_PORT_DIR ${PORT})
set(CURRENT_PACKAGES_DIR ${WORK}/packages)
set(PORT kvffmpeg)
set(FEATURES core)
include(${CURRENT_PORT_DIR}/portfile.cmake)

# vcpkg refuses ports without these, and with these.
foreach(file IN ITEMS share/kvffmpeg/copyright share/kvffmpeg/usage share/kvffmpeg/kvffmpegConfig.cmake
                      lib/libkvffmpeg.so include/kvffmpeg/kvffmpeg.h)
  if(NOT EXISTS ${CURRENT_PACKAGES_DIR}/${file})
    message(FATAL_ERROR "The port did not make ${file}")
  endif()
endforeach()
foreach(file IN ITEMS debug/include lib/cmake bin)
  if(EXISTS ${CURRENT_PACKAGES_DIR}/${file})
    message(FATAL_ERROR "The port left ${file}")
  endif()
endforeach()

file(REMOVE_RECURSE ${WORK}/consumer)
run(${CMAKE_COMMAND} -S ${ROOT}/tests/consumer -B ${WORK}/consumer -G Ninja
    -Dkvffmpeg_DIR=${CURRENT_PACKAGES_DIR}/share/kvffmpeg)
run(${CMAKE_COMMAND} --build ${WORK}/consumer)
run(${WORK}/consumer/consumer ${ROOT}/examples/media/clip.mp4)
