# Cross build for 64-bit Windows with the MinGW-w64 GCC (POSIX thread model, so
# std::thread and std::mutex are there). The programs run under Wine on the
# build machine: CROSSCOMPILING_EMULATOR lets ctest and gtest_discover_tests
# start them as if they were native.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(KVR_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${KVR_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KVR_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${KVR_MINGW_PREFIX}-windres)
set(CMAKE_AR ${KVR_MINGW_PREFIX}-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${KVR_MINGW_PREFIX}-ranlib CACHE FILEPATH "")
set(CMAKE_NM ${KVR_MINGW_PREFIX}-nm CACHE FILEPATH "")
set(CMAKE_OBJDUMP ${KVR_MINGW_PREFIX}-objdump CACHE FILEPATH "")

set(CMAKE_FIND_ROOT_PATH /usr/${KVR_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The compiler's own run-time (libstdc++, libgcc, winpthread) is linked in, so
# the DLL and the programs need nothing beside them but system DLLs.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")

# Debian's loader is not on PATH.
if(NOT DEFINED KVR_WINE)
  find_program(KVR_WINE NAMES wine64 wine PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
endif()
# Each build folder has a Wine prefix of its own, so no run touches the user's
# ~/.wine, and Wine's own diagnostics stay out of the tests' output.
if(KVR_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR
    env WINEPREFIX=${CMAKE_BINARY_DIR}/wine-prefix WINEDEBUG=-all ${KVR_WINE})
endif()
