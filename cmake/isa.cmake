# The one table of the library's sources and the instructions that each may use.
#
# "baseline" is plain x86-64. "general" is less: no vector registers, for routines that promise not
# to change them. A source that needs more than the baseline is listed under the name of its
# instruction set. Only the names that it exports on purpose may have external linkage, and nothing
# that it instantiates. The ABI tests read the same table: only objects of this last kind may
# contain instructions beyond SSE2, and none of them may have a weak symbol.

set(ZORVAC_FLAGS_baseline "")
# No sanitizer: its calls would change registers. No sibling calls: clang restores the argument
# registers of a register-preserving routine before it jumps to the callee, which then never sees
# its arguments.
set(ZORVAC_FLAGS_general -mgeneral-regs-only -fno-sanitize=all -fno-optimize-sibling-calls)
set(ZORVAC_FLAGS_sse3 -msse3)
set(ZORVAC_FLAGS_ssse3 -mssse3)
set(ZORVAC_FLAGS_sse4_2 -msse4.2)
set(ZORVAC_FLAGS_avx2 -mavx2)
set(ZORVAC_FLAGS_avx512f -mavx512f)
set(ZORVAC_FLAGS_avx512dq_vl -mavx512f -mavx512dq -mavx512vl)

# zorvac_sources(<list> <instruction set> <source>...)
function(zorvac_sources list isa)
  list(TRANSFORM ARGN PREPEND "${PROJECT_SOURCE_DIR}/src/" OUTPUT_VARIABLE sources)
  set_property(SOURCE ${sources} APPEND PROPERTY COMPILE_OPTIONS ${ZORVAC_FLAGS_${isa}})
  set(${list} ${${list}} ${sources} PARENT_SCOPE)
  if(NOT isa MATCHES "^(baseline|general)$")
    set(ZORVAC_EXTENDED_SOURCES ${ZORVAC_EXTENDED_SOURCES} ${sources} PARENT_SCOPE)
  endif()
endfunction()

# The sources that use the vendor rule. All others are the same in every flavour of the library.
zorvac_sources(ZORVAC_IDENTIFICATION_SOURCES general
  cpu/cpu_disp.cpp
  cpu/cpu_feature_disp.cpp)
zorvac_sources(ZORVAC_IDENTIFICATION_SOURCES baseline cpu/fast_mem_ops.cpp)
# Its constructor has a priority that is reserved for the implementation. g++ warns about that.
set_property(SOURCE ${PROJECT_SOURCE_DIR}/src/cpu/fast_mem_ops.cpp APPEND PROPERTY COMPILE_OPTIONS
  $<$<CXX_COMPILER_ID:GNU>:-Wno-prio-ctor-dtor>)

# The end of a failed dispatch, the start-up checks and the messages.
zorvac_sources(ZORVAC_COMMON_SOURCES baseline
  cpu/dispfail.cpp
  startup/bad_proc.cpp
  startup/bad_proc_os.cpp
  startup/new_proc_init.cpp
  startup/proc_init.cpp
  startup/proc_init.S
  startup/proc_init_utils.cpp
  startup/vrt_msg_support.cpp)

# Block copies, moves, fills and comparisons. The compiler must not turn a loop into a call of the
# routine that the loop belongs to, and the source decides which registers hold a block. Entries
# begin on a cache line: otherwise the time of a few instructions would depend on the place that
# the code before them leaves.
zorvac_sources(ZORVAC_MEMORY_SOURCES baseline
  mem/fastmemcpy.S
  mem/fastmemmove.S
  mem/fastmemset.S
  mem/ivecmemcpy.cpp
  mem/ivecmemset.cpp
  mem/ivecmemzero.cpp
  mem/vecmemcpy.cpp
  mem/vecmemset.cpp
  mem/vecmemzero.cpp
  mem/x86_memcmp.cpp
  mem/zorva_new_copy.cpp
  mem/zorva_new_memcmp.cpp
  mem/zorva_new_memset.cpp)
zorvac_sources(ZORVAC_MEMORY_SOURCES ssse3
  mem/zorva_ssse3_copy.cpp
  mem/zorva_ssse3_rep_copy.cpp)
zorvac_sources(ZORVAC_MEMORY_SOURCES avx2
  mem/zorva_avx_rep_memcpy.cpp
  mem/zorva_avx_rep_memset.cpp)
zorvac_sources(ZORVAC_MEMORY_SOURCES avx512f
  mem/zorva_vpx_avx512f_memcpy.cpp
  mem/zorva_vpx_avx512f_memset.cpp)
set_property(SOURCE ${ZORVAC_MEMORY_SOURCES} APPEND PROPERTY COMPILE_OPTIONS
  $<$<COMPILE_LANGUAGE:CXX>:-fno-builtin\;-falign-functions=64>
  $<$<COMPILE_LANGUAGE:CXX>:-fno-tree-vectorize\;-fno-tree-slp-vectorize>
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-fno-tree-loop-distribute-patterns>)
list(APPEND ZORVAC_COMMON_SOURCES ${ZORVAC_MEMORY_SOURCES})

# These call themselves by their exported names, so that a program's own routine can replace the
# callee. clang would turn such a call into a loop.
set_property(SOURCE
  ${PROJECT_SOURCE_DIR}/src/mem/ivecmemcpy.cpp
  ${PROJECT_SOURCE_DIR}/src/mem/ivecmemset.cpp
  ${PROJECT_SOURCE_DIR}/src/mem/ivecmemzero.cpp
  ${PROJECT_SOURCE_DIR}/src/mem/vecmemcpy.cpp
  ${PROJECT_SOURCE_DIR}/src/mem/vecmemset.cpp
  ${PROJECT_SOURCE_DIR}/src/mem/vecmemzero.cpp
  APPEND PROPERTY COMPILE_OPTIONS $<$<CXX_COMPILER_ID:Clang>:-fno-optimize-sibling-calls>)

# These read the whole aligned blocks that hold the ends of a source. Sanitizers would report that
# as an overrun.
if(ZORVAC_SANITIZE)
  set_property(SOURCE
    ${PROJECT_SOURCE_DIR}/src/mem/zorva_new_copy.cpp
    ${PROJECT_SOURCE_DIR}/src/mem/zorva_ssse3_copy.cpp
    ${PROJECT_SOURCE_DIR}/src/mem/zorva_ssse3_rep_copy.cpp
    APPEND PROPERTY COMPILE_OPTIONS -fno-sanitize=address,thread)
endif()

# Allocation. The compiler must treat malloc like any other routine (-fno-builtin): it must not
# assume that the word in front of a block is inaccessible, nor combine an allocation and a fill
# into one call. Entries begin on a cache line here, too.
zorvac_sources(ZORVAC_ALLOCATION_SOURCES baseline
  mem/fastcalloc.cpp
  mem/imalloc.cpp
  mem/single_threaded.cpp
  mem/xmm_malloc.cpp)
zorvac_sources(ZORVAC_ALLOCATION_SOURCES general mem/stacksecurity.cpp)
set_property(SOURCE ${ZORVAC_ALLOCATION_SOURCES} APPEND PROPERTY COMPILE_OPTIONS
  -fno-builtin -falign-functions=64)
list(APPEND ZORVAC_COMMON_SOURCES ${ZORVAC_ALLOCATION_SOURCES})

# The string routines, one source each. They are optimised in every build: a compiler that does not
# optimise stores their arguments in the 32 bytes above the return address, which belong to the
# caller here. They read whole blocks around strings, which sanitizers would report. Members of a
# higher level that use none of its instructions are baseline, too.
zorvac_sources(ZORVAC_STRING_SOURCES baseline
  string/faststring_util.cpp
  string/sse2_stpcpy.cpp
  string/sse2_stpncpy.cpp
  string/sse2_strcat.cpp
  string/sse2_strchr.cpp
  string/sse2_strcpy.cpp
  string/sse2_strcspn.cpp
  string/sse2_strdup.cpp
  string/sse2_strend.cpp
  string/sse2_strlen.cpp
  string/sse2_strncat.cpp
  string/sse2_strncmp.cpp
  string/sse2_strncpy.cpp
  string/sse2_strnlen.cpp
  string/sse2_strpbrk.cpp
  string/sse2_strrchr.cpp
  string/sse2_strspn.cpp
  string/sse2_strtok.cpp
  string/sse4_stpcpy.cpp
  string/sse4_stpncpy.cpp
  string/sse4_strcat.cpp
  string/sse4_strcpy.cpp
  string/sse4_strdup.cpp
  string/sse4_strend.cpp
  string/sse4_strlen.cpp
  string/sse4_strncat.cpp
  string/sse4_strncmp.cpp
  string/sse4_strncpy.cpp
  string/sse4_strnlen.cpp
  string/ssse3_stpcpy.cpp
  string/ssse3_stpncpy.cpp
  string/ssse3_strcpy.cpp
  string/ssse3_strncpy.cpp)
zorvac_sources(ZORVAC_STRING_SOURCES ssse3
  string/ssse3_strrchr.cpp)
zorvac_sources(ZORVAC_STRING_SOURCES sse4_2
  string/sse4_atoi.cpp
  string/sse4_atol.cpp
  string/sse4_atoll.cpp
  string/sse4_strchr.cpp
  string/sse4_strcspn.cpp
  string/sse4_strpbrk.cpp
  string/sse4_strrchr.cpp
  string/sse4_strspn.cpp
  string/sse4_strtok.cpp)
set_property(SOURCE ${ZORVAC_STRING_SOURCES} APPEND PROPERTY COMPILE_OPTIONS
  -O2 -fno-builtin -fno-sanitize=address,thread
  $<$<CXX_COMPILER_ID:GNU>:-fno-tree-loop-distribute-patterns>)
list(APPEND ZORVAC_COMMON_SOURCES ${ZORVAC_STRING_SOURCES})

# Quad arithmetic. Its entries begin on a cache line, too: many are shorter than one.
zorvac_sources(ZORVAC_QUAD_SOURCES baseline
  quad/fp.cpp
  quad/fp2int128.cpp
  quad/fp2q.cpp
  quad/int128tofp.cpp
  quad/ints2q.cpp
  quad/negq.cpp
  quad/q2fp.cpp
  quad/q2ints.cpp
  quad/qcomp.cpp
  quad/x86_addsubq.cpp
  quad/x86_divq.cpp
  quad/x86_divq.S
  quad/x86_mulq.cpp
  quad/x86_mulq.S)
set_property(SOURCE ${ZORVAC_QUAD_SOURCES} APPEND PROPERTY COMPILE_OPTIONS
  $<$<COMPILE_LANGUAGE:CXX>:-falign-functions=64>)
list(APPEND ZORVAC_COMMON_SOURCES ${ZORVAC_QUAD_SOURCES})

# The alternate and complex entry points of quad arithmetic, one small source each: a program that
# is linked with the static library gets only the entries that it calls, and may define the others.
zorvac_sources(ZORVAC_COMMON_SOURCES baseline
  quad/w_addq.S quad/w_compareq.S quad/w_cqtod.S quad/w_cqtof.S quad/w_ctoq.S quad/w_divq.S
  quad/w_dtoq.S quad/w_eqq.S quad/w_ftoq.S quad/w_geq.S quad/w_gtq.S quad/w_itoq.S quad/w_jtoq.S
  quad/w_leq.S quad/w_ltoq.S quad/w_ltq.S quad/w_mulq.S quad/w_negq.S quad/w_neq.S quad/w_qtoc.S
  quad/w_qtod.S quad/w_qtof.S quad/w_qtoi.S quad/w_qtoj.S quad/w_qtol.S quad/w_qtos.S
  quad/w_stoq.S quad/w_subq.S
  quad/w_caddq.cpp quad/w_cdivq.cpp quad/w_cdtocq.cpp quad/w_ceqq.cpp quad/w_chtocq.cpp
  quad/w_cmulq.cpp quad/w_cnegq.cpp quad/w_cneq.cpp quad/w_cqtoc.cpp quad/w_cqtocd.cpp
  quad/w_cqtoch.cpp quad/w_cqtoi.cpp quad/w_cqtoj.cpp quad/w_cqtoq.cpp quad/w_cqtos.cpp
  quad/w_csubq.cpp quad/w_ctocq.cpp quad/w_dtocq.cpp quad/w_ftocq.cpp quad/w_itocq.cpp
  quad/w_jtocq.cpp quad/w_qtocq.cpp quad/w_stocq.cpp)

# Reductions of arrays. The compiler vectorises their loops whenever it optimises. A loop has a few
# instructions, and is half as fast if it crosses the end of a cache line. So all of them are
# aligned, also those that the compiler expects to run few times.
zorvac_sources(ZORVAC_REDUCTION_SOURCES baseline array/omp_support.cpp)
zorvac_sources(ZORVAC_REDUCTION_SOURCES avx2 array/omp_support_avx2.cpp)
set_property(SOURCE ${ZORVAC_REDUCTION_SOURCES} APPEND PROPERTY COMPILE_OPTIONS
  $<$<CXX_COMPILER_ID:GNU>:-ftree-vectorize\;-fvect-cost-model=dynamic>
  $<$<CXX_COMPILER_ID:GNU>:-falign-loops=32\;--param=align-loop-iterations=1>)
list(APPEND ZORVAC_COMMON_SOURCES ${ZORVAC_REDUCTION_SOURCES})

# Matrix products. The source decides how registers are used, and the compiler must not turn the
# clearing into a call of the C library's routine. They are optimised in every build, because the
# kernels are loops of small pieces.
zorvac_sources(ZORVAC_MATMUL_SOURCES baseline
  array/dgcopyan.cpp
  array/dgcopyat.cpp
  array/dgcopybn.cpp
  array/dgcopybt.cpp
  array/matmul.S
  array/matmul.cpp
  array/matmul_general.S
  array/matmul_pair.cpp
  array/matmul_r8_XK64w.cpp)
zorvac_sources(ZORVAC_MATMUL_SOURCES sse3 array/matmul_sse3.cpp)
zorvac_sources(ZORVAC_MATMUL_SOURCES avx2 array/matmul_avx2.cpp)
zorvac_sources(ZORVAC_MATMUL_SOURCES avx512dq_vl array/matmul_avx512.cpp)
set_property(SOURCE ${ZORVAC_MATMUL_SOURCES} APPEND PROPERTY COMPILE_OPTIONS
  $<$<COMPILE_LANGUAGE:CXX>:-O2\;-fno-builtin\;-fno-tree-vectorize\;-fno-tree-slp-vectorize>
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-fno-tree-loop-distribute-patterns>)
# Every form is sixteen kernels of one template. With both sanitizers and the shipped optimisation,
# each form would compile for minutes. Only the pair form is compiled in this way. It shows
# undefined behaviour of the template that all forms share.
if(ZORVAC_SANITIZE)
  set_property(SOURCE
    ${PROJECT_SOURCE_DIR}/src/array/matmul_sse3.cpp
    ${PROJECT_SOURCE_DIR}/src/array/matmul_avx2.cpp
    ${PROJECT_SOURCE_DIR}/src/array/matmul_avx512.cpp
    APPEND PROPERTY COMPILE_OPTIONS -Og -fno-sanitize=undefined)
endif()
list(APPEND ZORVAC_COMMON_SOURCES ${ZORVAC_MATMUL_SOURCES})

# Checks that compiled code does at run time.
zorvac_sources(ZORVAC_COMMON_SOURCES baseline
  diag/cpcheck.cpp
  diag/rt_check.S)
zorvac_sources(ZORVAC_COMMON_SOURCES general diag/rt_check.cpp)

# The traceback. It hides a fixed number of frames, so each of its routines on the way to the
# unwinder must be exactly one frame, and must have an unwind table.
zorvac_sources(ZORVAC_TRACEBACK_SOURCES baseline
  diag/byte_source.cpp
  diag/elf_image.cpp
  diag/heap_code.cpp
  diag/images.cpp
  diag/pc_info.cpp
  diag/process_files.cpp
  diag/tbk_backtrace.cpp
  diag/tbk_display.cpp
  diag/trace_scan.cpp
  diag/traceback.cpp)
set_property(SOURCE ${ZORVAC_TRACEBACK_SOURCES} APPEND PROPERTY COMPILE_OPTIONS
  -fno-optimize-sibling-calls -fasynchronous-unwind-tables)
list(APPEND ZORVAC_COMMON_SOURCES ${ZORVAC_TRACEBACK_SOURCES})

# Nothing in src is forgotten.
file(GLOB present ${PROJECT_SOURCE_DIR}/src/*/*.cpp ${PROJECT_SOURCE_DIR}/src/*/*.S)
list(REMOVE_ITEM present ${ZORVAC_IDENTIFICATION_SOURCES} ${ZORVAC_COMMON_SOURCES})
if(present)
  message(FATAL_ERROR "${present}: not in cmake/isa.cmake, the table of what each source may use")
endif()
