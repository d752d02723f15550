# The shared library exports its functions and nothing else: no template
# instantiation of the standard library, no guard variable, no type info.
#   cmake -DKVR_LIBRARY=<.so or .dll> -DKVR_LISTER=<nm or objdump> -DKVR_DEMANGLER=<c++filt>
#         -P exported_symbols.cmake
set(expected
  ApplyLagCorrection
  CalculateIdist
  CalculatePanAngle
  CalculateRange
  CalculateScanAngle
  CalculateTimeInCounts
  CalculateTimeInSecs
  CreateNmeaTicksManager
  DecodeFifoBlock
  DecodeFileHeader
  DecodeNextFifoBlock
  DeleteNmeaTicksManager
  Dump
  GetCalibrationParameters
  GetCfValue
  GetNextCameraFileRecord
  GetPolarTriplet
  GetScanFileMap
  GetScanLineIndexFromRelativePosition
  GetShotsFromScanLineIndex
  LoadScanFileMap
  OpticalScanArcToCounts
  QueryCheat
  ReadCameraFileHeader
  ReadDeviceDataInfo
  ReadFileHeader
  ReleaseCameraFileHeader
  ReleaseCameraFileRecord
  ReleaseFileHeader
  ReleaseScanFileMap
  SaveScanFileMap
  SetCheat
  UpdateScanParameters)

if(KVR_LIBRARY MATCHES "\\.dll$")
  # The export table's name list: "\t[   3] _Z10QueryCheati".
  execute_process(COMMAND ${KVR_LISTER} -p ${KVR_LIBRARY} OUTPUT_VARIABLE listing RESULT_VARIABLE failed)
  string(FIND "${listing}" "[Ordinal/Name Pointer] Table" start)
  if(failed OR start EQUAL -1)
    message(FATAL_ERROR "no export table in ${KVR_LIBRARY}")
  endif()
  string(SUBSTRING "${listing}" ${start} -1 listing)
  string(REGEX MATCHALL "\n\t\\[ *[0-9]+\\] [^\n]+" rows "${listing}")
  list(TRANSFORM rows REPLACE "^\n\t\\[ *[0-9]+\\] " "")
else()
  # Every defined dynamic symbol, whatever its kind: "0000000000037c60 T _Z10QueryCheati".
  execute_process(COMMAND ${KVR_LISTER} -D --defined-only ${KVR_LIBRARY}
    OUTPUT_VARIABLE listing RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "${KVR_LISTER} could not read ${KVR_LIBRARY}")
  endif()
  string(REGEX MATCHALL "[^\n]+" rows "${listing}")
  list(TRANSFORM rows REPLACE "^[0-9a-f]* *[A-Za-z] " "")
endif()

# Compared by function name: "ReadFileHeader(wchar_t const*, RawFileHeader&)".
execute_process(COMMAND ${KVR_DEMANGLER} ${rows} OUTPUT_VARIABLE demangled)
string(REGEX MATCHALL "[^\n]+" actual "${demangled}")
list(TRANSFORM actual REPLACE "\\(.*$" "")
list(SORT actual)

set(extra ${actual})
list(REMOVE_ITEM extra ${expected})
set(missing ${expected})
list(REMOVE_ITEM missing ${actual})
list(LENGTH actual count)
list(LENGTH expected expectedCount)
if(extra OR missing OR NOT count EQUAL expectedCount)
  list(JOIN extra "\n  " extraText)
  list(JOIN missing "\n  " missingText)
  message(FATAL_ERROR "${KVR_LIBRARY}: ${count} exported symbols, ${expectedCount} expected\n"
    "exported but not expected:\n  ${extraText}\nexpected but not exported:\n  ${missingText}")
endif()
message(STATUS "${count} exported symbols, as expected")
