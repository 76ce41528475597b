# cmake --install: the libraries with the runtime beside them, headers, tools,
# the default model, a CMake package (find_package(Tonwerk) gives
# Tonwerk::multistem, Tonwerk::c and Tonwerk::live) and pkg-config files.
include(CMakePackageConfigHelpers)

set(TONWERK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tonwerk)
# The library loads the runtime from its own folder: lib/ here, bin/ beside the DLLs on Windows.
if(WIN32)
  set(tonwerk_runtime_dir ${CMAKE_INSTALL_BINDIR})
else()
  set(tonwerk_runtime_dir ${CMAKE_INSTALL_LIBDIR})
endif()

set_target_properties(tonwerk_proc_multistem PROPERTIES EXPORT_NAME multistem)
set_target_properties(tonwerk_c PROPERTIES EXPORT_NAME c)
set_target_properties(tonwerk_live PROPERTIES EXPORT_NAME live)
install(TARGETS tonwerk_proc_multistem tonwerk_c tonwerk_live EXPORT TonwerkTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${TONWERK_ORT_RUNTIME} DESTINATION ${tonwerk_runtime_dir} RENAME ${TONWERK_ORT_RUNTIME_NAME})
if(TONWERK_DIRECTML_DLL)
  install(FILES ${TONWERK_DIRECTML_DLL} DESTINATION ${tonwerk_runtime_dir})
endif()
install(FILES include/tonwerk/tonwerk_proc_multistem.h include/tonwerk/tonwerk_c.h include/tonwerk/tonwerk_live.h
              include/tonwerk/tonwerk_live.hpp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tonwerk)

install(EXPORT TonwerkTargets NAMESPACE Tonwerk:: DESTINATION ${TONWERK_CMAKE_DIR})
# Staged outside the build folder's top, where find_package would take them
# for an installed tree.
set(tonwerk_package_stage ${CMAKE_BINARY_DIR}/package)
configure_package_config_file(cmake/TonwerkConfig.cmake.in ${tonwerk_package_stage}/TonwerkConfig.cmake
  INSTALL_DESTINATION ${TONWERK_CMAKE_DIR})
# 0.x: a new minor version may change the interface.
write_basic_package_version_file(${tonwerk_package_stage}/TonwerkConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${tonwerk_package_stage}/TonwerkConfig.cmake ${tonwerk_package_stage}/TonwerkConfigVersion.cmake
  DESTINATION ${TONWERK_CMAKE_DIR})

# Relative to the .pc file, so that the installed tree can move.
file(RELATIVE_PATH TONWERK_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" TONWERK_PC_TO_PREFIX "${TONWERK_PC_TO_PREFIX}")
foreach(pc tonwerk tonwerk_c)
  configure_file(cmake/${pc}.pc.in ${tonwerk_package_stage}/${pc}.pc @ONLY)
  install(FILES ${tonwerk_package_stage}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

if(MINGW)
  # MSVC hosts make their import library from it: lib /def:tonwerk_c.def /machine:x64
  install(FILES ${CMAKE_BINARY_DIR}/tonwerk_c.def DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

if(TONWERK_BUILD_TOOLS AND NOT WIN32)
  install(TARGETS tonwerk-separate tonwerk-model)
  set_target_properties(tonwerk-separate tonwerk-model PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(FILES ${TONWERK_SHIPPED_MODELS} DESTINATION ${CMAKE_INSTALL_DATADIR}/tonwerk/models)
endif()

# The LV2 bundle as it is built: self-contained, found by hosts in lib/lv2.
if(TARGET tonwerk_stems AND NOT WIN32)
  install(DIRECTORY ${TONWERK_LV2_BUNDLE} DESTINATION ${CMAKE_INSTALL_LIBDIR}/lv2 USE_SOURCE_PERMISSIONS)
endif()
