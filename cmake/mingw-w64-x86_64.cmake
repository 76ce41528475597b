# Cross-compiling the Windows x86-64 DLL on Debian with mingw-w64 (the posix
# thread model, for std::thread and std::mutex). Used by scripts/build-windows.sh:
#   cmake -S . -B build-windows -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(TONWERK_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${TONWERK_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TONWERK_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${TONWERK_MINGW_TRIPLE}-windres)
set(CMAKE_DLLTOOL ${TONWERK_MINGW_TRIPLE}-dlltool)

# Libraries and CMake packages come from the mingw-w64 root only: a Linux
# library must never end up in a Windows link. Header-only dependencies are
# taken from the build machine explicitly (cmake/Dependencies.cmake).
set(CMAKE_FIND_ROOT_PATH /usr/${TONWERK_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
