#!/usr/bin/env bash
# The library as a part of other projects: checks the parent's targets, installation and packages,
# and how the library is compiled there. The two parents are in different folders and set no build
# type; they must build the same files, byte for byte.
#
#   subproject_test.sh SOURCE_DIR C_COMPILER CXX_COMPILER
set -euo pipefail
source=$1 cc=$2 cxx=$3
export CCACHE_DISABLE=1 # it would use the objects of the other folder
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
fail() { echo "$*" && exit 1; }

# parent NAME HOW OPTION...: configures a parent that includes the library by the commands in HOW.
parent() {
  mkdir -p "$1/sources"
  cp -r "$source"/{CMakeLists.txt,CHANGELOG.md,abi,bridge,cmake,docs,include,src,tools} \
    "$1/sources"
  cat >"$1/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.21)
project(parent VERSION 1 LANGUAGES C CXX)
$2
install(FILES CMakeLists.txt DESTINATION .)
add_executable(client EXCLUDE_FROM_ALL client.c)
target_link_libraries(client PRIVATE zorvac::zorvac)
if(TARGET zorvac-mktrace)
  zorvac_add_trace(client)
endif()
CMAKE
  cp "$source/examples/processor.c" "$1/client.c"
  cmake -S "$1" -B "$1/build" -G Ninja -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
    "${@:3}" >"$1/log" 2>&1 || fail "$1: $(<"$1/log")"
}
parent added 'add_subdirectory(sources zorvac)'
parent in/another/folder/fetched 'include(FetchContent)
FetchContent_Declare(zorvac URL https://nowhere.invalid)
FetchContent_MakeAvailable(zorvac)' \
  -DFETCHCONTENT_SOURCE_DIR_ZORVAC="$PWD/in/another/folder/fetched/sources"

for parent in added in/another/folder/fetched; do
  build=$parent/build
  cmake --build $build --target help >targets
  if grep -wE 'package|test|example_.*' targets; then fail "$parent: it has these targets"; fi
  cmake --install $build --prefix $parent/installed >log || fail "$parent: $(<log)"
  diff <(cd $parent/installed && find . -type f) - <<<./CMakeLists.txt
  cmake --build $build -- -n >steps
  grep -q cpu_feature_disp steps || fail "$parent: the library is not built"
  if grep mktrace steps; then fail "$parent: the tool is built without need"; fi
  cmake --build $build --target client -- -n >steps
  for part in libzorvac.so libzorvac_quad.a; do
    grep -q $part steps || fail "$parent: a program cannot have $part"
  done
  grep '"command": .*/sources/src/' $build/compile_commands.json >commands ||
    fail "$parent: no commands"
  if grep -v -- ' -O2 ' commands; then fail "$parent: not optimised"; fi
  cmake --build $build --target zorvac_identification >log || fail "$parent: $(<log)"
done

mapfile -t made < <(cd added/build && find . -name '*.o')
[ ${#made[@]} = 3 ] || fail "three objects are made, not ${made[*]}"
for file in "${made[@]}"; do
  cmp "added/build/$file" "in/another/folder/fetched/build/${file/zorvac/_deps\/zorvac-build}"
done
