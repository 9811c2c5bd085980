#include <stdio.h>
#include <vntr/vntr.h>
int main(void) {
  printf("pkg-config consumer: %s\n", (const char*)VNTRTagManagerVersionString);
  return vntr_log_level() > 0 ? 0 : 1;
}
