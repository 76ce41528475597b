# Locates the dependencies: Debian packages through their CMake packages, and
# the ONNX Runtime and PFFFT copies that scripts/bootstrap.sh unpacks.
find_package(Threads REQUIRED)
if(CMAKE_CROSSCOMPILING)
  include(${CMAKE_CURRENT_LIST_DIR}/HostHeaders.cmake)
else()
  find_package(xtl REQUIRED)
  find_package(xtensor REQUIRED)
  find_package(fmt REQUIRED)
  find_path(SPDLOG_INCLUDE_DIR spdlog/spdlog.h REQUIRED)
endif()

# spdlog compiled into our code (header-only) on top of header-only fmt, so the
# library carries no logging library of its own at run time.
add_library(tonwerk_spdlog INTERFACE)
target_include_directories(tonwerk_spdlog SYSTEM INTERFACE ${SPDLOG_INCLUDE_DIR})
target_compile_definitions(tonwerk_spdlog INTERFACE SPDLOG_FMT_EXTERNAL)
target_link_libraries(tonwerk_spdlog INTERFACE fmt::fmt-header-only Threads::Threads)

# ONNX Runtime: headers at build time; the runtime library itself is loaded
# on first use, never linked.
if(WIN32)
  set(_ort_file onnxruntime.dll)
  set(_ort_bundled lib/win-x64)
  # The name the library delay-loads.
  set(TONWERK_ORT_RUNTIME_NAME "onnxruntime_pelagrin.dll")
else()
  set(_ort_file libonnxruntime.so.1)
  set(_ort_bundled lib/linux-x64)
  # The name the library looks for next to itself.
  set(TONWERK_ORT_RUNTIME_NAME "libonnxruntime_pelagrin.so")
endif()
if(ONNXRUNTIME_ROOT)
  # Release folders ship lib/libonnxruntime.so.1 as a link to the versioned file.
  set(TONWERK_ORT_INCLUDE_DIR "${ONNXRUNTIME_ROOT}/include")
  set(TONWERK_ORT_RUNTIME "${ONNXRUNTIME_ROOT}/lib/${_ort_file}")
else()
  set(TONWERK_ORT_INCLUDE_DIR "${PROJECT_SOURCE_DIR}/third_party/onnxruntime/include")
  set(TONWERK_ORT_RUNTIME "${PROJECT_SOURCE_DIR}/third_party/onnxruntime/${_ort_bundled}/${_ort_file}")
endif()
if(NOT EXISTS "${TONWERK_ORT_INCLUDE_DIR}/onnxruntime_cxx_api.h" OR NOT EXISTS "${TONWERK_ORT_RUNTIME}")
  message(FATAL_ERROR "ONNX Runtime not found (headers in ${TONWERK_ORT_INCLUDE_DIR}, runtime ${TONWERK_ORT_RUNTIME}). "
                      "Run scripts/bootstrap.sh or pass -DONNXRUNTIME_ROOT=<release folder>.")
endif()
# DirectML.dll ships beside the Windows runtime, which loads it from there.
set(TONWERK_DIRECTML_DLL "")
get_filename_component(_ort_lib_dir "${TONWERK_ORT_RUNTIME}" DIRECTORY)
if(WIN32 AND EXISTS "${_ort_lib_dir}/DirectML.dll")
  set(TONWERK_DIRECTML_DLL "${_ort_lib_dir}/DirectML.dll")
endif()
add_library(tonwerk_ort_headers INTERFACE)
target_include_directories(tonwerk_ort_headers SYSTEM INTERFACE ${TONWERK_ORT_INCLUDE_DIR})
target_compile_definitions(tonwerk_ort_headers INTERFACE ORT_API_MANUAL_INIT)

# PFFFT: two C files compiled into a small static library.
set(TONWERK_PFFFT_DIR "${PROJECT_SOURCE_DIR}/third_party/pffft")
if(NOT EXISTS "${TONWERK_PFFFT_DIR}/pffft.c")
  message(FATAL_ERROR "PFFFT sources not found in ${TONWERK_PFFFT_DIR}. Run scripts/bootstrap.sh.")
endif()
add_library(tonwerk_pffft STATIC "${TONWERK_PFFFT_DIR}/pffft.c")
target_include_directories(tonwerk_pffft SYSTEM PUBLIC "${TONWERK_PFFFT_DIR}")
target_link_libraries(tonwerk_pffft PRIVATE m)
tonwerk_hidden(tonwerk_pffft)
tonwerk_sanitize(tonwerk_pffft)

# Test and default models are generated with Debian's python3-onnx.
set(TONWERK_PYTHON /usr/bin/python3 CACHE FILEPATH "Python with the onnx and numpy modules")
