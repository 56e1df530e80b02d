/* A library of jemalloc that shows mallocx and dallocx alone: CMakeLists.txt tells how. */
