/* A library with nothing in it: what loading costs at least. */
int zorvac_bench_empty(void);
int zorvac_bench_empty(void) { return 0; }
