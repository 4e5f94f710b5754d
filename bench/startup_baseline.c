// The smallest C program, as a start-up baseline for process_startup.
#include <stdio.h>

int main(void) {
  puts("hello");
  return 0;
}
