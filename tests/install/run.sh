#!/usr/bin/env bash
# Installs the library and uses it from outside in every way we promise. Called by `./dev consumer`.
#
#   run.sh <work folder>
#
# The work folder is emptied first. One line for each check; what a failed one printed follows it.
set -euo pipefail

work=${1:?usage: run.sh <work folder>}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source_dir=$(cd "$here/../.." && pwd)
rm -rf "$work"
mkdir -p "$work"
work=$(cd "$work" && pwd)
jobs=$(nproc)

strict=(-Werror -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual)

passed=0
failed=0

# check <what> <command>...: the command runs in a subshell with -e, in the work folder.
check() {
  local what=$1
  shift
  local status=0
  # Not in a condition: there bash would ignore -e inside the function called.
  set +e
  (
    set -e
    cd "$work"
    "$@"
  ) >"$work/check.log" 2>&1
  status=$?
  set -e
  if ((status == 0)); then
    printf 'ok      %s\n' "$what"
    passed=$((passed + 1))
  else
    printf 'FAILED  %s\n' "$what"
    sed 's/^/        /' "$work/check.log"
    failed=$((failed + 1))
  fi
}

build() { cmake --build "$1" -j "$jobs"; }

# configure <folder> <source> [cmake arguments]
configure() {
  local folder=$1 from=$2
  shift 2
  cmake -S "$from" -B "$folder" -G Ninja -DCMAKE_BUILD_TYPE=Release "$@"
}

# The default for the kind of library, a promise, so it is not spelled out for the shared one.
install_library() {
  local kind=$1
  shift
  configure "build-$kind" "$source_dir" -DBUILD_TESTING=OFF -DCMAKE_INSTALL_PREFIX="$work/somewhere" "$@"
  build "build-$kind"
  # To another prefix than the configured one, then moved: nothing installed may know where it lies.
  cmake --install "build-$kind" --prefix "$work/installed-$kind"
  mv "installed-$kind" "prefix-$kind"
  [[ ! -e somewhere ]]
}

builds_nothing_but_the_library() {
  local built
  built=$(find build-shared -path '*/CMakeFiles' -prune -o -type f \
    \( -perm -u+x -o -name '*.a' -o -name '*.o' -o -name '*.so*' \) -printf '%f\n' | sort)
  printf 'built: %s\n' "$built"
  [[ $built == libmivo.so.1.1.0 ]]
}

holds_exactly() {
  local prefix=$1
  shift
  {
    (cd "$source_dir" && find include/mivo -name '*.h')
    printf '%s\n' lib/pkgconfig/mivo.pc lib/pkgconfig/mivo-tcpserver.pc
    printf 'lib/cmake/mivo/%s\n' mivoConfig.cmake mivoConfigVersion.cmake mivoLibuv.cmake mivoTargets.cmake \
      mivoTargets-release.cmake mivoTcpserverTargets.cmake
    printf '%s\n' "$@"
  } | sort >expected-files
  (cd "$prefix" && find . -not -type d -printf '%P\n') | sort >installed-files
  diff expected-files installed-files
}

names_itself_by_its_major_version() {
  local lib=prefix-shared/lib
  [[ $(readlink $lib/libmivo.so) == libmivo.so.1 ]]
  [[ $(readlink $lib/libmivo.so.1) == libmivo.so.1.1.0 ]]
  readelf -d $lib/libmivo.so.1.1.0 | tee dynamic
  grep -q 'SONAME.*\[libmivo\.so\.1\]' dynamic
  # libuv as a shared library, and no path of this machine.
  grep -q 'NEEDED.*\[libuv\.so\.1\]' dynamic
  if grep -E 'RPATH|RUNPATH' dynamic; then return 1; fi
}

exports_what_is_listed_and_nothing_else() {
  nm -D --defined-only -C prefix-shared/lib/libmivo.so | cut -c20- | grep -v '^MIVO_1$' >versioned
  # Every one carries the version.
  if grep -v '@@MIVO_1$' versioned; then return 1; fi
  sed 's/@@MIVO_1$//' versioned | LC_ALL=C sort -u >exported
  grep -v -e '^#' -e '^?' -e '^$' "$here/exported_symbols.txt" | LC_ALL=C sort -u >required
  sed -n 's/^? //p' "$here/exported_symbols.txt" >tolerated
  [[ -s required && -s tolerated ]]
  local bad=0
  LC_ALL=C comm -13 exported required | sed 's/^/missing: /' | grep . && bad=1
  LC_ALL=C comm -23 exported required | grep -v -x -E -f tolerated | sed 's/^/should not be there: /' | grep . && bad=1
  return $bad
}

has_coroutines() { "$1" -std="$2" -dM -E -x c++ /dev/null | grep -q __cpp_impl_coroutine; }

# each_header <compiler> <standard> [flags]: alone, and twice in one source.
compiles_each_header() {
  local compiler=$1 standard=$2 header
  shift 2
  for header in prefix-shared/include/mivo/*.h prefix-shared/include/mivo/rpc/*.h; do
    header=${header#prefix-shared/include/}
    if [[ $header == */coroutine.h ]] && ! has_coroutines "$compiler" "$standard"; then
      printf '%s: left out, for this compiler has no coroutines\n' "$header"
      continue
    fi
    printf '#include <%s>\n#include <%s>\n' "$header" "$header" >header.cpp
    printf '%s\n' "$header"
    "$compiler" -std="$standard" "${strict[@]}" -fsyntax-only -Iprefix-shared/include "$@" header.cpp
  done
}

# A uv.h that is an error, found before the system's.
needs_no_libuv_header() {
  mkdir -p no-libuv
  printf '#error a header of libuv is included\n' >no-libuv/uv.h
  local header
  for header in mivo port_handoff; do
    printf '#include <mivo/%s.h>\n' "$header" >header.cpp
    g++ -std=c++17 -fsyntax-only -Ino-libuv -Iprefix-shared/include header.cpp
  done
  # The trap works: the one header that is meant to include it falls into it.
  printf '#include <mivo/tcpserver.h>\n' >header.cpp
  if g++ -std=c++17 -fsyntax-only -Ino-libuv -Iprefix-shared/include header.cpp; then return 1; fi
}

# The programs say what they found; the last line is theirs when all was well.
runs() {
  local folder=$1
  "$folder/rpc_objects" | tee output
  [[ $(tail -n 1 output) == "rpc objects: fine" ]]
  "$folder/tcp_listener" | tee output
  [[ $(tail -n 1 output) == "tcp listener: fine" ]]
}

works_through_find_package() {
  local kind=$1
  configure "find-package-$kind" "$here/consumer" -DCMAKE_PREFIX_PATH="$work/prefix-$kind"
  build "find-package-$kind"
  runs "find-package-$kind"
}

asks_for_the_right_version() {
  mkdir -p wrong-version
  printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(wrong LANGUAGES CXX)' \
    'find_package(mivo 2 CONFIG REQUIRED)' >wrong-version/CMakeLists.txt
  if configure wrong-version/build wrong-version -DCMAKE_PREFIX_PATH="$work/prefix-shared" 2>wrong-version/errors; then
    return 1
  fi
  cat wrong-version/errors
  grep -q 'version: 1.1.0' wrong-version/errors
}

# with_pkg_config <kind> <module> <source> <program>: one compiler line, as in a makefile.
with_pkg_config() {
  local kind=$1 module=$2 from=$3 program=$4
  local -x PKG_CONFIG_PATH=$work/prefix-$kind/lib/pkgconfig
  local flags
  read -r -a flags <<<"$(pkg-config --cflags --libs "$module")"
  printf '%s\n' "$module: ${flags[*]}"
  g++ -std=c++17 -Wall -Wextra -Werror -o "$program" "$from" "${flags[@]}"
}

works_through_pkg_config() {
  local kind=$1
  mkdir -p "pkg-config-$kind"
  with_pkg_config "$kind" mivo "$here/consumer/rpc_objects.cpp" "pkg-config-$kind/rpc_objects"
  with_pkg_config "$kind" mivo-tcpserver "$here/consumer/tcp_listener.cpp" "pkg-config-$kind/tcp_listener"
  local -x LD_LIBRARY_PATH=$work/prefix-$kind/lib
  runs "pkg-config-$kind"
}

pkg_config_file_is_enough_without_libuv() {
  local -x PKG_CONFIG_LIBDIR=$work/prefix-shared/lib/pkgconfig PKG_CONFIG_PATH=
  pkg-config --cflags --libs mivo
  [[ $(pkg-config --modversion mivo) == 1.1.0 ]]
  if pkg-config --exists mivo-tcpserver; then return 1; fi
}

works_as_a_part() {
  local kind=$1 folder=embedding-$1
  shift
  configure "$folder" "$here/embedding" -DMIVO_SOURCE_DIR="$source_dir" "$@"
  build "$folder"
  runs "$folder"
  [[ $(ctest --test-dir "$folder" -N | sed -n 's/^Total Tests: //p') == 1 ]]
  cmake --install "$folder" --prefix "$work/embedding-installed-$kind"
  [[ $(cd "embedding-installed-$kind" && find . -not -type d) == ./bin/rpc_objects ]]
}

finds_libuv_through_its_cmake_package() {
  local file includes
  file=$(pkg-config --variable=libdir libuv)/libuv.so
  includes=$(pkg-config --variable=includedir libuv)
  mkdir -p libuv-package
  printf '%s\n' 'add_library(libuv::uv SHARED IMPORTED)' \
    "set_target_properties(libuv::uv PROPERTIES IMPORTED_LOCATION $file INTERFACE_INCLUDE_DIRECTORIES $includes)" \
    >libuv-package/libuvConfig.cmake
  configure with-libuv-package "$source_dir" -DBUILD_TESTING=OFF -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON \
    -Dlibuv_DIR="$work/libuv-package"
  build with-libuv-package
  readelf -d with-libuv-package/src/libmivo.so | grep 'NEEDED.*libuv\.so'
}

refuses_an_old_libuv() {
  mkdir -p old-libuv old-libuv-package/include/uv
  printf 'Name: libuv\nDescription: old\nVersion: 1.43.0\nLibs: -luv\n' >old-libuv/libuv.pc
  printf '#define UV_VERSION_MAJOR 1\n#define UV_VERSION_MINOR 43\n' >old-libuv-package/include/uv/version.h
  printf '%s\n' 'add_library(libuv::uv INTERFACE IMPORTED)' \
    "set_target_properties(libuv::uv PROPERTIES INTERFACE_INCLUDE_DIRECTORIES $work/old-libuv-package/include)" \
    >old-libuv-package/libuvConfig.cmake
  if PKG_CONFIG_LIBDIR=$work/old-libuv configure with-old-libuv "$source_dir" -DBUILD_TESTING=OFF \
    -Dlibuv_DIR="$work/old-libuv-package" 2>errors; then return 1; fi
  cat errors
  tr -s ' \n' ' ' <errors | grep -q 'libuv 1.44 or newer is needed; found "1.43"'
}

example_builds() {
  local example=$1 module=mivo
  grep -q '#include <mivo/tcpserver.h>' "$example" && module=mivo-tcpserver
  mkdir -p examples
  with_pkg_config shared "$module" "$example" "examples/$(basename "$example" .cpp)"
}

check "installs as a shared library unless told otherwise" install_library shared
check "with tests off nothing but the library is built" builds_nothing_but_the_library
check "installs the files it should, as a shared library" holds_exactly prefix-shared \
  lib/libmivo.so lib/libmivo.so.1 lib/libmivo.so.1.1.0
check "names itself by its major version" names_itself_by_its_major_version
check "exports what is listed and nothing else" exports_what_is_listed_and_nothing_else
check "installs as a static library" install_library static -DBUILD_SHARED_LIBS=OFF
check "installs the files it should, as a static library" holds_exactly prefix-static lib/libmivo.a
for compiler in g++ clang++; do
  for standard in c++17 c++20; do
    check "each header compiles alone ($compiler, $standard)" compiles_each_header $compiler $standard
  done
done
check "only the TCP server's header needs libuv's" needs_no_libuv_header
for kind in shared static; do
  check "works through find_package ($kind)" works_through_find_package $kind
  check "works through pkg-config ($kind)" works_through_pkg_config $kind
done
check "the CMake package refuses another major version" asks_for_the_right_version
check "mivo.pc needs no development files of libuv" pkg_config_file_is_enough_without_libuv
check "works as a part of another project (shared)" works_as_a_part shared
check "works as a part of another project (static)" works_as_a_part static -DBUILD_SHARED_LIBS=OFF
check "finds libuv through its CMake package" finds_libuv_through_its_cmake_package
check "refuses a libuv that is too old" refuses_an_old_libuv
while IFS= read -r example; do
  check "builds against the installed library: ${example#"$source_dir"/}" example_builds "$example"
  # Those in loops/ need a library of somebody else's as well.
done < <(find "$source_dir/examples" -name '*.cpp' ! -path '*/loops/*' | sort)

printf '%d passed, %d failed\n' $passed $failed
((failed == 0))
