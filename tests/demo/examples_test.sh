#!/usr/bin/env bash
# Runs each example and compares its exit status and a line of its output.
#
#   examples_test.sh EXAMPLES_DIR VENDOR          (VENDOR: the one that the library was built for)
set -euo pipefail
cd "$1"
vendor=$2

# What the machine has: the processor's features, and `served` if the library serves its vendor.
machine=" $(sed -n 's/^flags.*: //p;/^flags/q' /proc/cpuinfo) "
maker=$(sed -n 's/^vendor_id.*: //p;/^vendor_id/q' /proc/cpuinfo)
if [ "$vendor" = any ] || [ "$vendor" = "$maker" ]; then machine+="served "; fi
has() { for feature; do [[ $machine = *" $feature "* ]] || return; done; }

# Example and arguments | exit status | what it needs, as the system names features | a line of the
# output, as a regular expression. The first row of an example that has what it needs is used.
rows='processor      | 0   | | ^vendor  +[[:print:]]{12}$
dispatch       | 0   | served avx2 | ^sum 17000000 by the version for AVX2$
dispatch       | 0   | | ^sum 17000000 by the version for SSE2$
startup_sse3   | 0   | served pni | ^built for SSE3: started$
startup_sse3   | 1   | | ^The allowed processors are: .*SSE3.* instruction support\.$
startup_avx2   | 0   | served avx2 bmi1 bmi2 fma f16c abm popcnt | ^built for AVX2: started$
startup_avx2   | 1   | | AVX2.* instructions\.$
level          | 0   | avx2 bmi1 bmi2 fma f16c abm movbe | ^started: .* to 328350$
level          | 1   | | instructions\.$
early_check    | 0   | served ssse3 | ^started: the sine of 30 degrees is 0\.500$
early_check    | 1   | | SSE3 and SSSE3 instructions\.$
memory         | 0   | served sse4_2 popcnt | ^move  by _zorva_fast_memmove\.P .*"the brown fox"$
memory         | 0   | served ssse3 | ^move  by _zorva_fast_memmove\.M .*"the brown fox"$
memory         | 0   | | ^move  by _zorva_fast_memmove\.A .*"the brown fox"$
gap_buffer     | 0   | | ^The quick brown fox jumps over the sleeping dog$
quad           | 0   | | ^  true value   3\.141592653589793238462643383279503$
parse_column   | 0   | | ^5 numbers, sum 123456790183 
words          | 0   | | ^5  and$
binary128      | 0   | | ^e = 0x40005bf0a8b1457695355fb8ac404e7., 2\.718281828459045, after [0-9]+ t
float128       | 0   | | ^[+]+[*]+#+ +\.:-=# \+=-
float128_libgcc | 0  | | ^[+]+[*]+#+ +\.:-=# \+=-
pool           | 0   | | ^the pool has started over: the next two are 64 bytes apart$
pool_resource  | 0   | | ^6000 numbers below 100000
matrix 200     | 0   | | ^1000 elements agree with naive sums
matrix_fortran | 0   | | MATMUL
fourier        | 0   | | ^transformed back, the signals are the same$
histogram      | 0   | | ^55 letters$
reduction      | 0   | | ^6000000 rolls by 4 threads$
checks         | 0   | | ^all checks passed$
checks narrow  | 134 | | ^Conversion Run-Time Check Failure$
narrow         | 0   | | ^60000 is 60000 in four bytes, 60000 in two$
narrow 65536   | 134 | | ^Conversion Run-Time Check Failure$
failure        | 0   | | ^failure +[0-9A-F]{16}  _ZL13harmonic_mea +34  failure\.cpp$
crash          | 134 | | ^#[0-9]+   average at .*crash\.c:14 \(crash\+0x[0-9a-f]+\)$
traceback      | 139 | | ^liborders\.so +[0-9A-F]{16}  add_order +18  traceback_orders\.c$'

diff <(find . -maxdepth 1 -type f -executable ! -name '*.so' -printf '%f\n' | sort) \
  <(awk '{ print $1 }' <<<"$rows" | sort -u)
last=
while IFS='|' read -r command expected_status features line; do
  [ "$command" != "$last" ] || continue
  read -ra features <<<"$features"
  has "${features[@]}" || continue
  last=$command status=0
  output=$(eval "./$command" 2>&1) || status=$?
  ((status == expected_status)) && grep -qE -- "${line# }" <<<"$output" && continue
  printf '%s: exit status %s, expected%s and a line %s\n%s\n' \
    "$command" "$status" "$expected_status" "$line" "$output"
  exit 1
done <<<"$rows"
