/* jemalloc with nothing visible but its own interface (see CMakeLists.txt beside this file). */
