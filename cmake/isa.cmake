# The one table of the library's sources and the instructions that each may use.
#
# "baseline" is plain x86-64. "general" is less: no vector register, for routines that promise to
# leave them alone. A source that needs more than the baseline stands under the name of its
# instruction set, and nothing it instantiates may have external linkage besides what it defines
# on purpose. The ABI tests read the same table: only objects of the last kind may contain VEX or
# EVEX instructions, and none of those may have a weak symbol.

set(ZORVAC_FLAGS_baseline "")
set(ZORVAC_FLAGS_general -mgeneral-regs-only)
set(ZORVAC_FLAGS_ssse3 -mssse3)
set(ZORVAC_FLAGS_avx2 -mavx2)
set(ZORVAC_FLAGS_avx512f -mavx512f)

# zorvac_sources(<list> <instruction set> <source>...)
function(zorvac_sources list isa)
  list(TRANSFORM ARGN PREPEND "${PROJECT_SOURCE_DIR}/src/" OUTPUT_VARIABLE sources)
  set_property(SOURCE ${sources} APPEND PROPERTY COMPILE_OPTIONS ${ZORVAC_FLAGS_${isa}})
  set(${list} ${${list}} ${sources} PARENT_SCOPE)
  if(NOT isa MATCHES "^(baseline|general)$")
    set(ZORVAC_EXTENDED_SOURCES ${ZORVAC_EXTENDED_SOURCES} ${sources} PARENT_SCOPE)
  endif()
endfunction()

# What the vendor rule enters into; everything else is the same in every flavour of the library.
zorvac_sources(ZORVAC_IDENTIFICATION_SOURCES general
  cpu/cpu_disp.cpp
  cpu/cpu_feature_disp.cpp)
zorvac_sources(ZORVAC_IDENTIFICATION_SOURCES baseline
  cpu/fast_mem_ops.cpp)

zorvac_sources(ZORVAC_COMMON_SOURCES baseline
  cpu/dispfail.cpp
  startup/bad_proc.cpp
  startup/bad_proc_os.cpp
  startup/new_proc_init.cpp
  startup/proc_init.cpp
  startup/proc_init.S
  startup/proc_init_utils.cpp
  startup/vrt_msg_support.cpp)

# Block copies, moves, fills and comparisons. A loop of theirs must not become a call of the very
# routine that it belongs to, and which registers a block travels in is decided by the source.
# Their entries begin on a cache line, or a handful of instructions would cost what the neighbours
# make of their place.
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
  $<$<COMPILE_LANGUAGE:CXX>:-fno-builtin\;-falign-functions=64\;-fno-tree-vectorize\;-fno-tree-slp-vectorize>
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-fno-tree-loop-distribute-patterns>)
list(APPEND ZORVAC_COMMON_SOURCES ${ZORVAC_MEMORY_SOURCES})

# These read the aligned blocks that hold the ends of a source, which a sanitizer takes for overruns.
if(ZORVAC_SANITIZE)
  set_property(SOURCE
    ${PROJECT_SOURCE_DIR}/src/mem/zorva_new_copy.cpp
    ${PROJECT_SOURCE_DIR}/src/mem/zorva_ssse3_copy.cpp
    ${PROJECT_SOURCE_DIR}/src/mem/zorva_ssse3_rep_copy.cpp
    APPEND PROPERTY COMPILE_OPTIONS -fno-sanitize=address,thread)
endif()
