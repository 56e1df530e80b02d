#!/usr/bin/env bash
# Installs into an empty folder and builds a program against it in each way that the README names;
# unpacks the Debian packages and looks for what they must hold.
#
#   install_test.sh SOURCE_DIR BUILD_DIR C_COMPILER CXX_COMPILER
set -euo pipefail
source_dir=$1 build_dir=$2 cc=$3 cxx=$4
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
prefix=$folder/prefix

cmake --install "$build_dir" --prefix "$prefix" >/dev/null
lib=$(dirname "$(find "$prefix" -name libzorvac.so.5 | head -n 1)")
[ "$(readlink "$lib/libzorvac.so")" = libzorvac.so.5 ]

expect_run() {
  LD_LIBRARY_PATH=$lib "$1" | grep -q '^vendor ' || { echo "$1 does not run"; exit 1; }
}

# pkg-config, shared and static
export PKG_CONFIG_PATH=$lib/pkgconfig
sed -i "s|^prefix=.*|prefix=$prefix|" "$lib/pkgconfig/zorvac.pc"
read -ra flags <<<"$(pkg-config --cflags --libs zorvac)"
"$cc" -o "$folder/by-pkg-config" "$source_dir/examples/processor.c" "${flags[@]}"
expect_run "$folder/by-pkg-config"
"$cc" -o "$folder/static" -I"$prefix/include" "$source_dir/examples/processor.c" "$lib/libzorvac.a"
expect_run "$folder/static"
if ldd "$folder/static" | grep -q zorvac; then echo "not linked statically"; exit 1; fi

# find_package, and a .trace section where the tool is built
trace='' tool=$prefix/bin/zorvac-mktrace
if [ -x "$tool" ]; then trace='zorvac_add_trace(client)'; fi
mkdir "$folder/project"
cat >"$folder/project/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(client C)
find_package(zorvac 5 REQUIRED)
add_executable(client $source_dir/examples/processor.c)
target_link_libraries(client PRIVATE zorvac::zorvac)
$trace
CMAKE
cmake -S "$folder/project" -B "$folder/project/build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" >/dev/null
cmake --build "$folder/project/build" >/dev/null
expect_run "$folder/project/build/client"
if [ "$trace" ]; then
  "$tool" --dump "$folder/project/build/client" | grep -q '/processor\.c:[1-9]' ||
    { echo "no lines in .trace"; exit 1; }
fi

# Every public header stands alone, in C and in C++ of any standard we promise.
for header in "$prefix"/include/zorvac/*.h; do
  echo "#include <zorvac/$(basename "$header")>" >"$folder/header.c"
  "$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror -I"$prefix/include" -fsyntax-only "$folder/header.c"
  "$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Werror -I"$prefix/include" -fsyntax-only -x c++ \
    "$folder/header.c"
done

# The packages
(cd "$build_dir" && cpack -B "$folder/packages" >/dev/null)
for package in "$folder"/packages/*.deb; do dpkg-deb -x "$package" "$folder/root"; done
for file in lib/*/libzorvac.so.5.0.0 lib/libzorvac.so.5.0.0 include/zorvac/cpu.h \
  bin/zorvac-mktrace; do
  compgen -G "$folder/root/usr/$file" >>"$folder/found" || true
done
[ "$(wc -l <"$folder/found")" -eq "$([ "$trace" ] && echo 3 || echo 2)" ] || { echo "packages lack files"; find "$folder/root"; exit 1; }
