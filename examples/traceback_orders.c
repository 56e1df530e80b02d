// The shared object that traceback.c fails in.
#include <stddef.h>

struct order {
  int amount;
  const struct order* next;
};

int add_order(const struct order* order, int sum) {
  return sum + order->amount;  // nobody asked whether there is one
}

int add_orders(const struct order* first, int count) {
  int sum = 0;
  for (const struct order* order = first; count-- > 0; order = order->next)
    sum = add_order(order, sum);
  return sum;
}

int sum_of_orders(const char* file) {
  static const struct order second = {20, NULL}, first = {10, &second};
  const int announced = file[0] == 'o' ? 3 : 2;  // what the file's first line says
  const int sum = add_orders(&first, announced);
  return sum > 100;
}
