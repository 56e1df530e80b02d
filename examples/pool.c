/* A million small objects in two threads. Each thread builds lists and frees those of the other.
 * The block sizes are registered once; everything else is as with malloc and free. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <zorvac/mem.h>

enum { objects = 500000, list_length = 1000, lists = objects / list_length };

struct object {
  struct object* next;
  long value;
  char rest[48];
};

/* Finished lists of both threads: each is built by one thread and freed by the other. */
static struct object* mailbox[2][lists];
static pthread_barrier_t all_built;

static void* work(void* argument) {
  const int self = *(const int*)argument;
  for (int l = 0; l < lists; ++l) {
    for (int i = 0; i < list_length; ++i) {
      struct object* const o = __i_pool_malloc(sizeof *o);
      if (o == NULL) abort();
      o->value = self;
      o->next = mailbox[self][l];
      mailbox[self][l] = o;
    }
  }
  pthread_barrier_wait(&all_built);
  long* const sum = __i_pool_calloc(1, sizeof(long)); /* from calloc: no pool has this size */
  for (int l = 0; l < lists; ++l) {
    for (struct object* o = mailbox[1 - self][l]; o != NULL;) {
      struct object* const next = o->next;
      *sum += o->value;
      __i_pool_free(o);
      o = next;
    }
  }
  return sum;
}

int main(void) {
  static const uint32_t sizes[] = {sizeof(struct object), 0};
  __i_pool_init(sizes, 0);
  pthread_barrier_init(&all_built, NULL, 2);

  const int numbers[2] = {0, 1};
  pthread_t threads[2];
  for (int i = 0; i < 2; ++i) pthread_create(&threads[i], NULL, work, (void*)&numbers[i]);
  long sum = 0;
  for (int i = 0; i < 2; ++i) {
    void* part;
    pthread_join(threads[i], &part);
    sum += *(long*)part;
    __i_pool_free(part);
  }
  printf(
      "%d objects of %zu bytes, half of them from either thread (%ld from the second), each\n"
      "freed by the other one\n",
      2 * objects, sizeof(struct object), sum);

  /* All blocks are free, so the pools start again at their beginning. */
  struct object* const o = __i_pool_malloc(sizeof *o);
  struct object* const after = __i_pool_malloc(sizeof *o);
  printf("the pool has started over: the next two are %td bytes apart\n", (char*)after - (char*)o);
  return 0;
}
