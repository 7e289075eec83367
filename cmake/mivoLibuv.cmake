# Makes mivo::libuv, from pkg-config or else from libuv's own CMake package. Used by our build and, installed beside the
# package configuration, by projects that need libuv through us (the static library, <mivo/tcpserver.h>).
#
# Leaves mivo::libuv undefined and the reason in mivo_libuv_problem when there is no libuv that will do.

if(TARGET mivo::libuv)
  return()
endif()

set(mivo_libuv_minimum 1.44)
set(mivo_libuv_target "")
set(mivo_libuv_problem "libuv ${mivo_libuv_minimum} or newer is needed; neither pkg-config nor a CMake package has it")

find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(MIVO_LIBUV QUIET IMPORTED_TARGET GLOBAL libuv>=${mivo_libuv_minimum})
  if(MIVO_LIBUV_FOUND)
    set(mivo_libuv_target PkgConfig::MIVO_LIBUV)
  endif()
endif()

if(NOT mivo_libuv_target)
  find_package(libuv CONFIG QUIET GLOBAL)
  # The shared library; libuv::uv_a is the static one.
  if(TARGET libuv::uv)
    # Not every release has a version file in its package; the header always tells.
    set(mivo_libuv_version "${libuv_VERSION}")
    if(NOT mivo_libuv_version)
      get_target_property(mivo_libuv_includes libuv::uv INTERFACE_INCLUDE_DIRECTORIES)
      find_file(mivo_libuv_version_header uv/version.h PATHS ${mivo_libuv_includes} NO_DEFAULT_PATH NO_CACHE)
      if(mivo_libuv_version_header)
        file(STRINGS "${mivo_libuv_version_header}" mivo_libuv_lines REGEX "define UV_VERSION_(MAJOR|MINOR) +[0-9]+")
        string(REGEX MATCHALL "[0-9]+" mivo_libuv_version "${mivo_libuv_lines}")
        string(REPLACE ";" "." mivo_libuv_version "${mivo_libuv_version}")
      endif()
    endif()
    if(mivo_libuv_version VERSION_GREATER_EQUAL mivo_libuv_minimum)
      set(mivo_libuv_target libuv::uv)
    else()
      set(mivo_libuv_problem "libuv ${mivo_libuv_minimum} or newer is needed; found \"${mivo_libuv_version}\" in ${libuv_DIR}")
    endif()
  endif()
endif()

if(mivo_libuv_target)
  add_library(mivo::libuv INTERFACE IMPORTED GLOBAL)
  target_link_libraries(mivo::libuv INTERFACE ${mivo_libuv_target})
endif()
