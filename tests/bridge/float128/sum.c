// A sum, a product and a conversion of binary128 numbers. Prints 1 if all are right.
#include <stdio.h>

int main(void) {
  volatile __float128 third = 1, one = 1;
  third = third / 3;
  const __float128 sum = third + third + third, product = third * third;
  printf("%d\n", sum == one && product * 9 - one < 0x1p-112 && (long)(third * 300) == 100);
  return 0;
}
