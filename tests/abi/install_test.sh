#!/usr/bin/env bash
# Installs the Debian packages into an empty system, looks at what is there, and builds programs
# against it in each way that the README names.
#
#   install_test.sh SOURCE_DIR BUILD_DIR C_COMPILER
set -euo pipefail
example=$1/examples/processor.c build_dir=$2 cc=$3
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
fail() { echo "$*" && exit 1; }

# A system that has nothing but what the packages depend on, in the versions of this one.
(cd "$build_dir" && cpack -B "$folder/packages" >/dev/null)
mkdir -p root/var/lib/dpkg/{info,updates}
for package in packages/*.deb; do dpkg-deb -f "$package" Depends; done | tr ',|' '\n' |
  sed 's/(.*//; s/ //g; /zorvac/d' | sort -u |
  while read -r package; do dpkg-query -s "$package"; echo; done >root/var/lib/dpkg/status
fakeroot dpkg --root="$folder/root" --log=/dev/null --force-not-root \
  --force-script-chrootless --install packages/*.deb >log 2>&1 || fail "dpkg refuses: $(cat log)"

# What a reader of the package list sees, where files go, who may write them.
for package in packages/*.deb; do
  doc=root/usr/share/doc/$(dpkg-deb -f "$package" Package)
  cat root/usr/share/man/man7/zorvac.7.gz "$doc"/{copyright,changelog.gz} >/dev/null
  [ "$(dpkg-deb -f "$package" Section Maintainer Depends | wc -l)" = 3 ] || fail "$package: fields"
done
rm -r root/var # what dpkg keeps
if find root/* ! -path 'root/usr*' -o ! -type l -perm /022 | grep .; then fail "place or mode"; fi
runtime=$(echo packages/libzorvac5_*)
dpkg-deb -I "$runtime" triggers | grep -x 'activate-noawait ldconfig'
dpkg-deb -I "$runtime" shlibs | grep -x 'libzorvac 5 libzorvac5 (>= 5.0.0)'

# A program: pkg-config, plainly static, CMake with a .trace section where the tool is installed.
prefix=$folder/root/usr
lib=$(dirname "$(find "$prefix" -name libzorvac.so.5)")
tool=$(find "$prefix" -name zorvac-mktrace)
[ "$(readlink "$lib/libzorvac.so")" = libzorvac.so.5 ] || fail "no link for the linker"
read -ra flags <<<"$(PKG_CONFIG_LIBDIR=$lib/pkgconfig pkg-config --cflags --libs zorvac)"
"$cc" -o by-pkg-config "$example" "${flags[@]}"
"$cc" -o static -I"$prefix/include" "$example" "$lib/libzorvac.a"
if ldd static | grep zorvac; then fail "not linked statically"; fi
cat >CMakeLists.txt <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(client C)
find_package(zorvac 5 REQUIRED)
add_executable(by-cmake $example)
target_link_libraries(by-cmake PRIVATE zorvac::zorvac)
${tool:+zorvac_add_trace(by-cmake DEMANGLE short)}
install(TARGETS by-cmake)
CMAKE
for strip in strip llvm-strip eu-strip; do
  cmake -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_STRIP="$(command -v "$strip")" . >/dev/null
  cmake --build . >/dev/null
  cmake --install . --strip --prefix "$strip-installed" >/dev/null
  [ -z "$tool" ] || "$tool" --dump "$strip-installed/bin/by-cmake" |
    grep '/processor\.c:[1-9]' >/dev/null || fail "$strip leaves no .trace section"
done
for program in by-pkg-config static by-cmake; do
  LD_LIBRARY_PATH=$lib "./$program" | grep '^vendor ' || fail "$program does not run"
done

# Another package's program: the symbols file tells its dependency, name by name.
dpkg-deb -R "$runtime" runtime && rm runtime/DEBIAN/shlibs
mkdir debian
printf 'Source: client\n\nPackage: client\nArchitecture: any\n' >debian/control
dpkg-shlibdeps -O -Sruntime -lruntime/usr/lib by-cmake | grep -F 'libzorvac5 (>= 5.0.0)'
