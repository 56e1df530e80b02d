/* An almost empty library: the least cost of loading. */
int zorvac_bench_empty(void);
int zorvac_bench_empty(void) { return 0; }
