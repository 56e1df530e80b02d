/* A library of jemalloc that exports only mallocx and dallocx: see CMakeLists.txt. */
