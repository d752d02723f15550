# The one-command demo (make demo): the scanner simulator writes its default
# furnished room into DEMO_DIR, and kvrscan reads it: header, map, panorama and
# point cloud, then a short summary.
#   cmake -DKVRSCAN=path/to/kvrscan -DDEMO_DIR=build/demo -P demo.cmake

file(MAKE_DIRECTORY "${DEMO_DIR}")

# Runs one kvrscan command in DEMO_DIR, its report on the terminal.
function(kvrscan)
  string(JOIN " " shown ${ARGN})
  message("\n$ kvrscan ${shown}")
  execute_process(COMMAND "${KVRSCAN}" ${ARGN} WORKING_DIRECTORY "${DEMO_DIR}" RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "kvrscan ${shown} failed (${status})")
  endif()
endfunction()

# Runs one kvrscan command with --json and returns its document.
function(kvrscan_json out)
  execute_process(COMMAND "${KVRSCAN}" ${ARGN} --json WORKING_DIRECTORY "${DEMO_DIR}"
                  RESULT_VARIABLE status OUTPUT_VARIABLE json)
  if(NOT status EQUAL 0)
    string(JOIN " " shown ${ARGN})
    message(FATAL_ERROR "kvrscan ${shown} --json failed (${status})")
  endif()
  set(${out} "${json}" PARENT_SCOPE)
endfunction()

# "1 998 971" for 1998971.
function(grouped out number)
  set(text "${number}")
  while(text MATCHES "^([0-9]+)([0-9][0-9][0-9])(.*)$")
    set(text "${CMAKE_MATCH_1} ${CMAKE_MATCH_2}${CMAKE_MATCH_3}")
  endwhile()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# "12.3 MiB" for a file.
function(size_of out file)
  file(SIZE "${DEMO_DIR}/${file}" bytes)
  if(bytes GREATER_EQUAL 1048576)
    math(EXPR whole "${bytes} / 1048576")
    math(EXPR tenth "(${bytes} % 1048576) * 10 / 1048576")
    set(${out} "${whole}.${tenth} MiB" PARENT_SCOPE)
  else()
    math(EXPR whole "${bytes} / 1024")
    set(${out} "${whole} KiB" PARENT_SCOPE)
  endif()
endfunction()

kvrscan(simulate .)
kvrscan(info scan.raw)
kvrscan(map scan.raw -o scan.map)
kvrscan(render scan.raw --map scan.map -o panorama.png)
kvrscan(export scan.raw --map scan.map --ticks Serial.dat -o points.ply)

kvrscan_json(info info scan.raw --stats)
kvrscan_json(map map scan.raw --load scan.map)
kvrscan_json(render render scan.raw --map scan.map -o panorama.png)
string(JSON blocks GET "${info}" stats blocks_read)
string(JSON shots GET "${info}" stats num_shots)
string(JSON returns GET "${info}" stats num_returns)
string(JSON points GET "${info}" num_points)
string(JSON lines GET "${map}" num_lines)
string(JSON width GET "${render}" width)
string(JSON height GET "${render}" height)
foreach(count blocks shots returns points lines)
  grouped(${count} "${${count}}")
endforeach()
size_of(scan_size scan.raw)
size_of(png_size panorama.png)
size_of(ply_size points.ply)

message("
kvrscan demo: a simulated room in ${DEMO_DIR}
  scan          scan.raw, ${scan_size}: ${blocks} blocks, ${shots} shots, ${returns} returns, ${lines} scan lines
  panorama      ${DEMO_DIR}/panorama.png (${width} x ${height} pixels, ${png_size})
  point cloud   ${DEMO_DIR}/points.ply (${points} points, binary PLY, ${ply_size})
")
