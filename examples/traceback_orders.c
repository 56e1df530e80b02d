// The shared object that traceback.c fails in.
#include <stddef.h>

struct order {
  int amount;
  const struct order* next;
};
extern struct order orders[];
struct order orders[] = {{10, &orders[1]}, {20, NULL}};

// Exported and not inlined, so that each is a routine of its own.
#define ROUTINE __attribute__((noinline)) int
int add_order(const struct order* order, int sum);
int add_orders(const struct order* first, int count);
int sum_of_orders(const char* file);

ROUTINE add_order(const struct order* order, int sum) {
  return sum + order->amount;  // does not check for a null pointer
}

ROUTINE add_orders(const struct order* first, int count) {
  int sum = 0;
  for (const struct order* order = first; count-- > 0; order = order->next)
    sum = add_order(order, sum);
  return sum;
}

ROUTINE sum_of_orders(const char* file) {
  const int announced = file[0] == 'o' ? 3 : 2;  // what the file's first line says
  const int sum = add_orders(orders, announced);
  return sum > 100;
}
