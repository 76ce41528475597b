# Cross-built Windows programs run under Wine: ctest, test discovery and
# custom commands start them through build-windows/wine-run, which keeps Wine's
# prefix inside the build tree, quiet and without a display.
# Debian's 64-bit loader directly: its wine wrapper complains about a missing wine32.
find_program(TONWERK_WINE NAMES wine64 wine PATHS /usr/lib/wine /usr/lib64/wine)
if(NOT TONWERK_WINE)
  message(FATAL_ERROR "Wine is needed to run the Windows tests (scripts/build-windows.sh installs it), "
                      "or configure with -DTONWERK_BUILD_TESTS=OFF.")
endif()
set(TONWERK_WINE_PREFIX ${CMAKE_BINARY_DIR}/wine-prefix)
configure_file(${CMAKE_CURRENT_LIST_DIR}/wine-run.sh.in ${CMAKE_BINARY_DIR}/wine-run @ONLY
               FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                                WORLD_EXECUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/wine-run)
