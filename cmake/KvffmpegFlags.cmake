# kvffmpeg_flags: how this project compiles its own sources. Never installed.

if(kvffmpeg_is_top_level AND NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

add_library(kvffmpeg_flags INTERFACE)
target_compile_features(kvffmpeg_flags INTERFACE cxx_std_17)
target_compile_options(kvffmpeg_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wcast-qual -Wnon-virtual-dtor
  -Woverloaded-virtual $<$<BOOL:${KVFFMPEG_WERROR}>:-Werror>)

if(KVFFMPEG_SANITIZE)
  target_compile_options(kvffmpeg_flags INTERFACE -fsanitize=${KVFFMPEG_SANITIZE} -fno-sanitize-recover=all
                                                  -fno-omit-frame-pointer)
  target_link_options(kvffmpeg_flags INTERFACE -fsanitize=${KVFFMPEG_SANITIZE})
endif()

if(KVFFMPEG_COVERAGE)
  # Counted atomically: some tests start threads.
  target_compile_options(kvffmpeg_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(kvffmpeg_flags INTERFACE --coverage)
endif()

# Without this a compiler's own default would stand in, extensions included.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
