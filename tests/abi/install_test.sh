#!/usr/bin/env bash
# Installs into an empty folder, and the Debian packages into an empty system; builds programs against
# both in each way that the README names.
#
#   install_test.sh SOURCE_DIR BUILD_DIR C_COMPILER CXX_COMPILER
set -euo pipefail
source_dir=$1 build_dir=$2 cc=$3 cxx=$4
example=$source_dir/examples/processor.c
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
fail() { echo "$*"; exit 1; }

# Builds and runs a program against the library under a prefix: pkg-config, plainly static, CMake.
builds_against() {
  local prefix=$1 lib programs=$2 trace=''
  mkdir -p "$programs"
  lib=$(dirname "$(find "$prefix" -name libzorvac.so.5 | head -n 1)")
  [ "$(readlink "$lib/libzorvac.so")" = libzorvac.so.5 ] || fail "no link for the linker"
  read -ra flags <<<"$(PKG_CONFIG_LIBDIR=$lib/pkgconfig pkg-config --cflags --libs zorvac)"
  "$cc" -o "$programs/by-pkg-config" "$example" "${flags[@]}"
  "$cc" -o "$programs/static" -I"$prefix/include" "$example" "$lib/libzorvac.a"
  if ldd "$programs/static" | grep -q zorvac; then fail "not linked statically"; fi
  # Where the tool is installed, too, the program gets a .trace section.
  [ ! -x "$prefix/bin/zorvac-mktrace" ] || trace='zorvac_add_trace(by-cmake)'
  cat >"$programs/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(client C)
find_package(zorvac 5 REQUIRED)
add_executable(by-cmake $example)
target_link_libraries(by-cmake PRIVATE zorvac::zorvac)
$trace
CMAKE
  cmake -S "$programs" -B "$programs" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" >/dev/null
  cmake --build "$programs" >/dev/null
  [ -z "$trace" ] || "$prefix/bin/zorvac-mktrace" --dump "$programs/by-cmake" |
    grep -q '/processor\.c:[1-9]' || fail "no lines in .trace"
  for program in by-pkg-config static by-cmake; do
    LD_LIBRARY_PATH=$lib "$programs/$program" | grep -q '^vendor ' || fail "$program does not run"
  done
}

cmake --install "$build_dir" --prefix "$folder/prefix" >/dev/null
builds_against "$folder/prefix" "$folder/programs"

# Every public header stands alone, in C and in C++ of any standard we promise.
for header in "$folder"/prefix/include/zorvac/*.h; do
  echo "#include <zorvac/$(basename "$header")>" >"$folder/header.c"
  "$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror -I"$folder/prefix/include" -fsyntax-only \
    "$folder/header.c"
  "$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Werror -I"$folder/prefix/include" -fsyntax-only \
    -x c++ "$folder/header.c"
done

# The packages, each by itself: what a reader of the package list sees, and where files go.
(cd "$build_dir" && cpack -B "$folder/packages" >/dev/null)
packages=("$folder"/packages/*.deb)
for package in "${packages[@]}"; do
  name=$(dpkg-deb -f "$package" Package)
  for field in Version Section Maintainer Architecture Depends; do
    [ -n "$(dpkg-deb -f "$package" $field)" ] || fail "$name has no $field"
  done
  dpkg-deb -f "$package" Description | awk 'length > 80 { exit 1 } END { if (NR < 4) exit 1 }' ||
    fail "$name: the description is too short, or a line of it too long"
  dpkg-deb -c "$package" >"$folder/contents"
  for file in copyright changelog.gz; do
    grep -q " ./usr/share/doc/$name/$file\$" "$folder/contents" || fail "$name has no $file"
  done
  if awk '$6 !~ "^./(usr/.*)?$"' "$folder/contents" | grep .; then fail "$name: not under /usr"; fi
  if grep -v '^l' "$folder/contents" | grep -E '^.....w|^........w|/tmp/'; then fail "$name: modes"; fi
done
runtime=("$folder"/packages/libzorvac5_*.deb)
dpkg-deb -I "${runtime[0]}" triggers | grep -qx 'activate-noawait ldconfig'
dpkg-deb -I "${runtime[0]}" shlibs | grep -qx 'libzorvac 5 libzorvac5 (>= 5.0.0)'

# Together, into a system that has nothing but what they depend on, in the versions of this one.
root=$folder/root as_root=()
mkdir -p "$root"/var/lib/dpkg/{info,updates}
for package in "${packages[@]}"; do dpkg-deb -f "$package" Depends; done | tr ',|' '\n' |
  sed 's/(.*//; s/ //g; /zorvac/d' | sort -u |
  while read -r package; do dpkg-query -s "$package"; echo; done >"$root/var/lib/dpkg/status"
[ "$(id -u)" -eq 0 ] || as_root=(fakeroot)
"${as_root[@]}" dpkg --root="$root" --log=/dev/null --force-not-root --force-script-chrootless \
  --install "${packages[@]}" >"$folder/log" 2>&1 || { cat "$folder/log"; fail "dpkg refuses"; }
[ -n "$(find "$root/usr/share/man/man7" -name 'zorvac.7*')" ] || fail "no manual page"
builds_against "$root/usr" "$folder/packaged-programs"

# Another package's program: the symbols file tells its dependency, name by name.
mkdir -p "$folder/client/debian"
printf 'Source: client\n\nPackage: client\nArchitecture: any\n' >"$folder/client/debian/control"
cp "$folder/packaged-programs/by-cmake" "$folder/client/"
dpkg-deb -R "${runtime[0]}" "$folder/runtime"
(cd "$folder/client" && dpkg-shlibdeps -O -S"$folder/runtime" \
  -l"$folder/runtime/usr/lib" by-cmake) >"$folder/depends" 2>"$folder/log" ||
  { cat "$folder/log"; fail "dpkg-shlibdeps refuses"; }
grep -q 'libzorvac5 (>= 5.0.0)' "$folder/depends" || fail "wrong: $(cat "$folder/depends")"
