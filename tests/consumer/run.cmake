# Installs the built library into a scratch prefix, then configures, builds
# and runs a small consumer that uses find_package(com) and pkg-config.
file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BINARY_DIR}" --prefix "${prefix}"
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
foreach(forbidden IN ITEMS internal)
  file(GLOB_RECURSE leaked "${prefix}/include/com/*/${forbidden}/*.h")
  if(leaked)
    message(FATAL_ERROR "private headers installed: ${leaked}")
  endif()
endforeach()
# Every installed header must compile from the installed tree alone.
file(GLOB_RECURSE installed_headers RELATIVE "${prefix}/include/com"
     "${prefix}/include/com/*.h")
set(all_headers "")
foreach(h IN LISTS installed_headers)
  string(APPEND all_headers "#include \"${h}\"\n")
endforeach()
file(WRITE "${WORK_DIR}/all_headers.cpp" "${all_headers}")
execute_process(
  COMMAND ${CMAKE_COMMAND} -S "${SOURCE_DIR}/tests/consumer/project"
          -B "${WORK_DIR}/build" -DCMAKE_PREFIX_PATH=${prefix}
          -DALL_HEADERS_SOURCE=${WORK_DIR}/all_headers.cpp
  RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer configure failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build "${WORK_DIR}/build" RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer build failed: ${rc}")
endif()
execute_process(COMMAND "${WORK_DIR}/build/consumer" RESULT_VARIABLE rc
                OUTPUT_VARIABLE out)
if(rc OR NOT out MATCHES "consumer ok")
  message(FATAL_ERROR "consumer run failed: ${rc} ${out}")
endif()
# pkg-config sees the same package.
execute_process(
  COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${prefix}/lib/pkgconfig
          pkg-config --cflags --libs com
  RESULT_VARIABLE rc OUTPUT_VARIABLE flags)
if(rc OR NOT flags MATCHES "-I[^ ]*include/com" OR NOT flags MATCHES "-lcom")
  message(FATAL_ERROR "pkg-config com gave: ${rc} ${flags}")
endif()
