# Installs the built library into a scratch prefix, then builds and runs a
# consumer through find_package and through pkg-config.
file(REMOVE_RECURSE ${KVR_WORK_DIR})
file(MAKE_DIRECTORY ${KVR_WORK_DIR})
set(prefix ${KVR_WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${KVR_WORK_DIR} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${KVR_BUILD_DIR} --prefix ${prefix})

run(${CMAKE_COMMAND} -S ${KVR_CONSUMER_DIR} -B ${KVR_WORK_DIR}/consumer_build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${KVR_CXX})
run(${CMAKE_COMMAND} --build ${KVR_WORK_DIR}/consumer_build)
run(${KVR_WORK_DIR}/consumer_build/consumer)

set(ENV{PKG_CONFIG_PATH} ${prefix}/${KVR_LIBDIR}/pkgconfig)
run(pkg-config --cflags --libs kvr_decode)
string(STRIP "${last_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${KVR_CXX} -std=c++20 ${KVR_CONSUMER_DIR}/main.cpp ${flags}
    -Wl,-rpath,${prefix}/${KVR_LIBDIR} -o ${KVR_WORK_DIR}/consumer_pc)
run(${KVR_WORK_DIR}/consumer_pc)

# The point layer: a consumer through the "cloud" component and through
# kvr_cloud.pc reads the points of a simulated scan, as many as the tool's PLY holds.
if(KVR_KVRSCAN)
  run(${KVR_KVRSCAN} simulate ${KVR_WORK_DIR}/scan_set)
  run(${KVR_KVRSCAN} export ${KVR_WORK_DIR}/scan_set/scan.raw -o ${KVR_WORK_DIR}/points.ply)
  file(STRINGS ${KVR_WORK_DIR}/points.ply vertex_line REGEX "^element vertex " LIMIT_COUNT 1)
  string(REGEX REPLACE "^element vertex ([0-9]+).*" "\\1" vertices "${vertex_line}")

  run(${CMAKE_COMMAND} -S ${KVR_CONSUMER_DIR}/../cloud_consumer -B ${KVR_WORK_DIR}/cloud_build
      -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${KVR_CXX})
  run(${CMAKE_COMMAND} --build ${KVR_WORK_DIR}/cloud_build)
  run(${KVR_WORK_DIR}/cloud_build/cloud_consumer ${KVR_WORK_DIR}/scan_set/scan.raw)
  # The decoder may print notes of its own first: the count is the last line.
  string(REGEX MATCH "([0-9]+)[ \t\r\n]*$" tail "${last_output}")
  set(points "${CMAKE_MATCH_1}")
  if(NOT points STREQUAL vertices)
    message(FATAL_ERROR "the layer read ${points} points, the PLY holds ${vertices}")
  endif()

  run(pkg-config --cflags --libs kvr_cloud)
  string(STRIP "${last_output}" flags)
  separate_arguments(flags UNIX_COMMAND "${flags}")
  run(${KVR_CXX} -std=c++20 ${KVR_CONSUMER_DIR}/../cloud_consumer/main.cpp ${flags}
      -Wl,-rpath,${prefix}/${KVR_LIBDIR} -o ${KVR_WORK_DIR}/cloud_consumer_pc)
  run(${KVR_WORK_DIR}/cloud_consumer_pc ${KVR_WORK_DIR}/scan_set/scan.raw)
  string(REGEX MATCH "([0-9]+)[ \t\r\n]*$" tail "${last_output}")
  set(points "${CMAKE_MATCH_1}")
  if(NOT points STREQUAL vertices)
    message(FATAL_ERROR "through pkg-config the layer read ${points} points, the PLY holds ${vertices}")
  endif()
endif()
