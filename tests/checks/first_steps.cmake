# Runs the example PROGRAM on CLIP in FOLDER and looks at what it prints and leaves there.

file(REMOVE_RECURSE "${FOLDER}")
file(MAKE_DIRECTORY "${FOLDER}")
execute_process(COMMAND "${PROGRAM}" "${CLIP}" WORKING_DIRECTORY "${FOLDER}"
                RESULT_VARIABLE result OUTPUT_VARIABLE output)
message("${output}")
if(NOT result EQUAL 0)
  message(FATAL_ERROR "The example ended with ${result}")
endif()
if(NOT output MATCHES "^track 0: h264\ntrack 1: aac\nvideo frame 320x180, yuv420p")
  message(FATAL_ERROR "The example printed something else than two tracks and its frames")
endif()

file(GLOB pictures RELATIVE "${FOLDER}" "${FOLDER}/*")
if(NOT pictures STREQUAL "picture1.png;picture2.png;picture3.png")
  message(FATAL_ERROR "The example left \"${pictures}\"")
endif()
foreach(picture IN LISTS pictures)
  # Signature, then the header's length, name, width 640 and height 360.
  file(READ "${FOLDER}/${picture}" start LIMIT 24 HEX)
  if(NOT start STREQUAL "89504e470d0a1a0a0000000d494844520000028000000168")
    message(FATAL_ERROR "${picture} is no PNG of 640x360: ${start}")
  endif()
endforeach()
