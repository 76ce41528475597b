# Per-target settings shared by every target of the project; nothing here is
# set globally so that dependencies build with their own flags.
function(tonwerk_target_defaults target)
  if(MSVC)
    target_compile_options(${target} PRIVATE /W4)
  else()
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wpedantic>)
  endif()
  tonwerk_sanitize(${target})
  tonwerk_static_runtime(${target})
endfunction()

# mingw programs and DLLs carry their C++ runtime and thread library inside, so
# that they load with Windows' own DLLs alone.
function(tonwerk_static_runtime target)
  if(MINGW)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE" OR type STREQUAL "SHARED_LIBRARY")
      target_link_options(${target} PRIVATE -static)
    endif()
  endif()
endfunction()

function(tonwerk_sanitize target)
  if(TONWERK_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-omit-frame-pointer
                                             -fno-sanitize-recover=undefined)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
    if(TONWERK_BUILD_FUZZERS)
      # Coverage feedback for libFuzzer from every object of the project.
      target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
    endif()
  elseif(TONWERK_SANITIZE_THREAD)
    target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=thread)
  else()
    return()
  endif()
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/sanitizer_defaults.cpp)
  endif()
endfunction()

# Hidden by default: only what the public header marks for export leaves the library.
function(tonwerk_hidden target)
  set_target_properties(${target} PROPERTIES
    C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
endfunction()

# A library hosts load: built into the build folder's top (beside the ONNX
# Runtime it loads), named alike on every toolchain, exporting only what its
# header marks, versioned, and finding its sibling libraries beside itself
# once installed. EXPORT_MAP: a linker version script that keeps the template
# code of the standard library and header-only dependencies in (ELF only).
function(tonwerk_shared_library target)
  cmake_parse_arguments(L "" "EXPORT_MAP" "" ${ARGN})
  set_target_properties(${target} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR} RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}
    ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  if(WIN32)
    # name.dll with every toolchain (mingw would add "lib").
    set_target_properties(${target} PROPERTIES PREFIX "" IMPORT_PREFIX "")
  else()
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
    if(L_EXPORT_MAP)
      target_link_options(${target} PRIVATE -Wl,--version-script=${L_EXPORT_MAP})
      set_target_properties(${target} PROPERTIES LINK_DEPENDS ${L_EXPORT_MAP})
    endif()
  endif()
  if(NOT MSVC)
    # The static C++ runtime (mingw) and static helper libraries must not
    # re-export their own symbols.
    target_link_options(${target} PRIVATE -Wl,--exclude-libs,ALL -Wl,--no-undefined)
  endif()
  tonwerk_hidden(${target})
  tonwerk_target_defaults(${target})
endfunction()
