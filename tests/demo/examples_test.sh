#!/usr/bin/env bash
# Runs each example and compares its exit status and a line of its output.
#
#   examples_test.sh EXAMPLES_DIR
set -euo pipefail
cd "$1"

# Example and arguments | exit status | a line of the output. Both are regular expressions, for
# programs that this processor may refuse or serve in several ways (emulated_test knows which).
rows='processor      | 0     | ^vendor  +[[:print:]]{12}$
dispatch       | 0     | ^sum 17000000 by the version for (AVX2|SSE2)$
startup_sse3   | [01]  | ^(built for SSE3: started|The allowed processors are: .*SSE3.* support\.)$
startup_avx2   | [01]  | ^built for AVX2: started$|AVX2.* instructions\.$
level          | [01]  | ^started: .* to 328350$|instructions\.$
early_check    | [01]  | ^started: the sine of 30 degrees is 0\.500$|SSE3 and SSSE3 instructions\.$
memory         | 0     | ^move  by _zorva_fast_memmove\.[PMA] .*"the brown fox"$
gap_buffer     | 0     | ^The quick brown fox jumps over the sleeping dog$
quad           | 0     | ^  true value   3\.141592653589793238462643383279503$
parse_column   | 0     | ^5 numbers, sum 123456790183 
words          | 0     | ^5  and$
binary128      | 0     | ^e = 0x40005bf0a8b1457695355fb8ac404e7., 2\.718281828459045, after [0-9]+ t
float128       | 0     | ^[+]+[*]+#+ +\.:-=# \+=-
float128_libgcc | 0    | ^[+]+[*]+#+ +\.:-=# \+=-
pool           | 0     | ^the pool has started over: the next two are 64 bytes apart$
pool_resource  | 0     | ^6000 numbers below 100000
matrix 200     | 0     | ^1000 elements agree with naive sums
matrix_fortran | 0     | MATMUL
fourier        | 0     | ^transformed back, the signals are the same$
histogram      | 0     | ^55 letters$
reduction      | 0     | ^6000000 rolls by 4 threads$
checks         | 0     | ^all checks passed$
checks narrow  | 134   | ^Conversion Run-Time Check Failure$
narrow         | 0     | ^60000 is 60000 in four bytes, 60000 in two$
narrow 65536   | 134   | ^Conversion Run-Time Check Failure$
failure        | 0     | ^failure +[0-9A-F]{16}  _ZL13harmonic_mea +34  failure\.cpp$
crash          | 134   | ^#[0-9]+   average at .*crash\.c:14 \(crash\+0x[0-9a-f]+\)$
traceback      | 139   | ^liborders\.so +[0-9A-F]{16}  add_order +18  traceback_orders\.c$'

diff <(find . -maxdepth 1 -type f -executable ! -name '*.so' -printf '%f\n' | sort) \
  <(awk '{ print $1 }' <<<"$rows" | sort -u)
while IFS='|' read -r command expected_status line; do
  status=0
  output=$(eval "./$command" 2>&1) || status=$?
  [[ $status =~ ^${expected_status// /}$ ]] && grep -qE -- "${line# }" <<<"$output" && continue
  printf '%s: exit status %s, expected%s and a line %s\n%s\n' \
    "$command" "$status" "$expected_status" "$line" "$output"
  exit 1
done <<<"$rows"
