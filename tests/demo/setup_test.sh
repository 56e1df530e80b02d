#!/usr/bin/env bash
# Tests what scripts/setup installs for a purpose, and what it prints where it may not install. The
# system is replaced by programs that give prepared answers.
#
#   setup_test.sh SOURCE_DIR
set -euo pipefail
setup=$1/scripts/setup
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

# Programs that record how they are called and print the file that has their name.
mkdir bin
cat >bin/dpkg-query <<'PROGRAM'
#!/bin/bash
echo "${0##*/} $*" >>calls
cat "${0##*/}.says"
PROGRAM
for name in apt-cache apt-get id; do ln -s dpkg-query "bin/$name"; done
printf '#!/bin/bash\n[ -e sudoers ] && exec "$@"\n' >bin/sudo
chmod +x bin/*
echo 'Setting up something (1) ...' >apt-get.says

# shellcheck disable=SC2053  # the expected output is a pattern
# expect NAME STATUS OUTPUT PACKAGES PURPOSE...: PACKAGES are those that apt-get must install.
expect() {
  local status=0 options='-q --yes --no-install-recommends'
  : >calls
  PATH=$PWD/bin:$PATH "$setup" "${@:5}" >said 2>&1 || status=$?
  [ "$status" = "$2" ] || { echo "$1: status $status, expected $2: $(<said)" && exit 1; }
  [[ $(<said) == $3 ]] || { echo "$1: it says $(<said)" && exit 1; }
  diff <(echo "${4:+apt-get update -q
apt-get install $options $4}") <(grep ^apt-get calls || echo) || { echo "$1: installs" && exit 1; }
}
installed() { printf 'installed %s\n' "$@" >dpkg-query.says; }

demo=(cmake g++ libdw-dev libelf-dev ninja-build qemu-user)
printf '%s\n' g++ libclang-rt-{9,19,20}-dev libclang-rt-19-dev-wasm32 >apt-cache.says
echo 1000 >id.says
installed "${demo[@]}"
expect 'nothing is missing' 0 '' '' demo
installed "${demo[@]/g++/g}" x-g++
expect 'nobody may install' 1 '*
  apt-get update && apt-get install --yes --no-install-recommends g++' '' demo
touch sudoers
expect 'sudo may' 0 '*: installing what demo needs: g++
*Setting up something*' 'g++' demo
rm sudoers
echo 0 >id.says
expect 'root may' 0 '*Setting up something*' 'g++' demo
expect 'no such purpose' 2 '*PURPOSE*' '' demo nonsense

bench=(gfortran libbenchmark-dev libblis-dev libeigen3-dev libjemalloc-dev libmimalloc-dev
  libopenblas-dev python3)
installed "${demo[@]}" "${bench[@]}" libclang-rt-14-dev
expect 'the highest release is found' 0 '*' libclang-rt-20-dev bench
installed "${demo[@]}" "${bench[@]}" libclang-rt-19-dev
expect 'another is there' 0 '' '' bench
