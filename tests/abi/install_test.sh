#!/usr/bin/env bash
# Installs the Debian packages into an empty system, checks what is installed, and builds programs
# against it in each way that the README names.
#
#   install_test.sh SOURCE_DIR BUILD_DIR C_COMPILER CXX_COMPILER GENERATOR [PART]...
#
# PART: level, float128, crash: a part for programs of other compilers that the build has
set -euo pipefail
export LC_ALL=C CMAKE_GENERATOR=$5
exports=$1/abi/exports.txt build_dir=$2 cc=$3 cxx=$4
example=$1/examples/processor.c cxx_example=$1/examples/quad.cpp
parts=" ${*:6} "
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
fail() { echo "$*" && exit 1; }

# Packages that are built again later are the same.
for packages in packages later; do
  (cd "$build_dir" && cpack -B "$folder/$packages") >log 2>&1 || fail "$(<log)"
  rm -r "$packages/_CPack_Packages"
done
for package in packages/*.deb; do cmp "$package" "later/${package#*/}"; done

# A system with only the packages' dependencies, in the versions of this system; and a second one,
# where the flavour for any vendor then replaces the other.
runtime=$(echo packages/libzorvac5_*)
any=$(find packages -name 'libzorvac5-any_*') # none if the build itself is that flavour
install() { # ROOT PACKAGE...
  fakeroot dpkg --root="$folder/$1" --log=/dev/null --force-not-root --force-script-chrootless \
    --install "${@:2}" >log 2>&1 || fail "dpkg refuses: $(<log)"
}
mkdir -p root/var/lib/dpkg/{info,updates}
for package in packages/*.deb; do dpkg-deb -f "$package" Depends; done | tr ',|' '\n' |
  sed 's/(.*//; s/ //g; /zorvac/d; /^$/d' | sort -u |
  while read -r package; do dpkg-query -s "$package"; echo; done >root/var/lib/dpkg/status
mapfile -t usual < <(find packages -name '*.deb' ! -path "$any")
install root "${usual[@]}"
if [ -n "$any" ]; then
  cp -a root root-any
  install root-any "$any"
  [ ! -e root-any/usr/share/doc/libzorvac5 ] || fail "both flavours are installed"
fi

# What the package list shows. The packages have no scripts, because the trigger is enough.
for package in packages/*.deb; do
  doc=root${any:+-any}/usr/share/doc/$(dpkg-deb -f "$package" Package)
  [ "$package" != "$runtime" ] || doc=${doc/root-any/root}
  cat "$doc/copyright" >/dev/null
  gzip -dc "$doc/changelog.gz" >changelog
  [ "$(dpkg-parsechangelog -l changelog -S Version)" = "$(dpkg-deb -f "$package" Version)" ] ||
    fail "$package: the changelog is of another version"
  fields=(Section Maintainer Depends) # only the arithmetic may have no dependency
  [[ $package != *float128* ]] || unset 'fields[2]'
  for field in "${fields[@]}"; do
    [ -n "$(dpkg-deb -f "$package" "$field")" ] || fail "$package: no $field"
  done
  if dpkg-deb --ctrl-tarfile "$package" | tar -t | grep -E '(pre|post)(inst|rm)$'; then
    fail "$package: it brings scripts"
  fi
done
for package in "$runtime" $any; do
  dpkg-deb -I "$package" triggers | grep -x 'activate-noawait ldconfig'
  dpkg-deb -I "$package" shlibs | grep -x 'libzorvac 5 libzorvac5 (>= 5.0.0)'
  diff <(dpkg-deb -I "$package" symbols) <(echo 'libzorvac.so.5 libzorvac5 #MINVER#' &&
    awk '/^(function|data)/ { print " " $3 "@Base " $2 }' "$exports")
done

# The places and modes of files. The archive has no debug information.
rm -r root*/var # what dpkg keeps
prefix=$folder/root/usr lib=$folder/root/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
if find root*/* ! -path 'root*/usr*' -o ! -type l -perm /022 | grep .; then fail "place or mode"; fi
if find root*/usr/lib/* -prune ! -name "${lib##*/}" ! -name zorvac.specs | grep .; then
  fail "outside ${lib##*/}"
fi
grep -q 'INPUT(libzorvac.so.5 ' "$lib/libzorvac.so" || fail "no script for the linker"
gzip -t "$prefix"/share/man/man7/zorvac{,-bridge}.7.gz
if readelf -WS "$lib/libzorvac.a" | grep -m 1 '\.debug'; then fail "debug information"; fi

# A program built with pkg-config, statically, and with CMake (with a .trace section if the tool is
# installed).
tool=$(find "$prefix" -name zorvac-mktrace)
read -ra flags <<<"$(PKG_CONFIG_LIBDIR=$lib/pkgconfig pkg-config --cflags --libs zorvac)"
"$cc" -o by-pkg-config "$example" "${flags[@]}"
"$cc" -o static -I"$prefix/include" "$example" "$lib/libzorvac.a"
"$cxx" -std=c++17 -o number-by-pkg-config "$cxx_example" "${flags[@]}"
"$cxx" -std=c++17 -o number-static -I"$prefix/include" "$cxx_example" "$lib/libzorvac.a"
cat >CMakeLists.txt <<CMAKE
cmake_minimum_required(VERSION 3.21)
project(client C CXX)
find_package(zorvac 5 REQUIRED)
link_libraries(zorvac::zorvac)
add_executable(by-cmake $example)
add_executable(number-by-cmake $cxx_example)
target_compile_features(number-by-cmake PRIVATE cxx_std_17)
${tool:+zorvac_add_trace(by-cmake DEMANGLE short)}
install(TARGETS by-cmake)
CMAKE
for strip in strip llvm-strip eu-strip; do
  cmake -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_STRIP="$(command -v "$strip")" . >/dev/null
  cmake --build . >/dev/null
  cmake --install . --strip --prefix "$strip-installed" >/dev/null
  [ -z "$tool" ] || "$tool" --dump "$strip-installed/bin/by-cmake" |
    grep '/processor\.c:[1-9]' >/dev/null || fail "$strip leaves no .trace section"
done
for program in by-pkg-config static by-cmake; do
  LD_LIBRARY_PATH=$lib "./$program" | grep '^vendor ' || fail "$program does not run"
  LD_LIBRARY_PATH=$lib "./number-$program" | grep 'true value .*3.14159' ||
    fail "number-$program does not run"
done

# With the other flavour, the same program accepts any vendor.
if [ -n "$any" ]; then
  features=$(LD_LIBRARY_PATH=${lib/root/root-any} ./by-cmake |
    sed -n 's/^features, vendor checked *//p')
  (((features & 0x3f) == 0x3f)) || fail "of any vendor: features $features"
fi

# Programs of other compilers. The library that they need gives the package that they depend on.
part() { [[ $parts = *" $1 "* ]]; }
by_pkg_config() { # NAME COMPILER [OPTION]...: builds ./NAME of NAME.c
  read -ra flags <<<"$(PKG_CONFIG_LIBDIR=$lib/pkgconfig pkg-config --cflags --libs "zorvac-$1")"
  "${@:2}" -o "$1" "$1.c" "${flags[@]}"
}
by_cmake() { # NAME: builds client/NAME
  mkdir -p client
  cat >client/CMakeLists.txt <<CMAKE
cmake_minimum_required(VERSION 3.21)
project(client C)
find_package(zorvac 5 REQUIRED)
add_executable($1 ../$1.c)
target_link_libraries($1 PRIVATE zorvac::$1)
CMAKE
  cmake -B client -S client -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" >/dev/null
  cmake --build client >/dev/null
}
uses() { # NAME LIBRARY PACKAGE TEXT: programs need the library and print the text
  by_pkg_config "$1" "$cc" && by_cmake "$1"
  for program in "./$1" "client/$1"; do
    readelf -d "$program" | grep -F "Shared library: [$2]" >/dev/null ||
      fail "$program does not need $2"
    { LD_LIBRARY_PATH=$lib $program 2>&1 || true; } | grep "$4" || fail "$program: no $4"
  done
  dpkg-deb -I "packages/$3"_* shlibs | grep -x "${2%.so*} ${2##*.} $3 (>= 5.0.0)" ||
    fail "$3 is not what needs $2"
}
if part level; then
  echo 'int main(void) { return 0; }' >level.c
  by_pkg_config level gcc
  gcc -B"$prefix/lib/" -specs=zorvac.specs level.c -o level-by-folder # as gcc looks into /usr/lib
  for program in ./level ./level-by-folder; do
    $program || fail "$program does not run"
    nm $program | grep -w zorvac_level_of_this_file >/dev/null || fail "$program is not checked"
  done
fi
if part float128; then
  echo 'int puts(const char *); volatile __float128 third = 3;
    int main(void) { return puts(third / 3 == 1 ? "right" : "wrong") < 0; }' >float128.c
  uses float128 libzorvac_float128.so.1 libzorvac-float128-1 right
  "$cc" float128.c -o static "$lib/libzorvac_float128.a"
  ./static | grep right || fail "the static library: a wrong quotient"
fi
if part crash; then
  echo 'int main(void) { return *(volatile int *)8; }' >crash.c
  uses crash libzorvac_crash.so.1 libzorvac-crash1 SIGSEGV
fi
