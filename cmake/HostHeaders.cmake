# A cross build takes the header-only dependencies (xtensor, xtl, spdlog, fmt)
# from the build machine's Debian packages. Only their own folders are exposed,
# through links in the build tree: the machine's /usr/include as a whole would
# put its C library headers in front of the target's.
find_path(TONWERK_HOST_INCLUDE_DIR xtensor/xtensor.hpp PATHS /usr/include NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(NOT TONWERK_HOST_INCLUDE_DIR)
  message(FATAL_ERROR "xtensor headers not found on the build machine. Run scripts/bootstrap.sh.")
endif()

set(_host_headers ${CMAKE_BINARY_DIR}/host-headers)
file(MAKE_DIRECTORY ${_host_headers})
foreach(_dir xtensor xtl spdlog fmt)
  if(NOT IS_DIRECTORY ${TONWERK_HOST_INCLUDE_DIR}/${_dir})
    message(FATAL_ERROR "${TONWERK_HOST_INCLUDE_DIR}/${_dir} is missing. Run scripts/bootstrap.sh.")
  endif()
  file(CREATE_LINK ${TONWERK_HOST_INCLUDE_DIR}/${_dir} ${_host_headers}/${_dir} SYMBOLIC)
endforeach()

# The same target names as the packages' own CMake files give a native build.
add_library(xtensor INTERFACE IMPORTED)
set_target_properties(xtensor PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${_host_headers})
add_library(fmt::fmt-header-only INTERFACE IMPORTED)
set_target_properties(fmt::fmt-header-only PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES ${_host_headers} INTERFACE_COMPILE_DEFINITIONS FMT_HEADER_ONLY=1)
set(SPDLOG_INCLUDE_DIR ${_host_headers})
