#include <kelo/kelo.h>
#include <stdio.h>

int main(void) {
  /* Logging is off: nothing is written. An unknown key reads -1. */
  KELO_CLOG("consumer %d", 1);
  long long missing = getStateForC("noSuchKey");
  printf("c consumer: version %d.%d.%d, noSuchKey=%lld\n", KELO_VERSION_MAJOR, KELO_VERSION_MINOR,
         KELO_VERSION_PATCH, missing);
  return missing == -1 ? 0 : 1;
}
