// An ordinary program without a handler, linked with the crash library, which prints where the
// program fails and how it came there. Here a thread meets a day without readings.
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

struct day {
  int count, readings[3];
};
static const struct day days[] = {{3, {18, 21, 24}}, {1, {19}}, {0, {0}}};

static int average(const struct day* day) {
  int sum = 0;
  if (day->count == 0) abort();  // it never happens
  for (int i = 0; i < day->count; ++i) sum += day->readings[i];
  return sum / day->count;
}

static void* print_averages(void* unused) {
  for (size_t i = 0; i < sizeof days / sizeof *days; ++i) {
    printf("%d\n", average(&days[i]));
    fflush(stdout);
  }
  return unused;
}

int main(void) {
  pthread_t thread;
  if (pthread_create(&thread, NULL, print_averages, NULL) != 0) return 1;
  return pthread_join(thread, NULL);
}
