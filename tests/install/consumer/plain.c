/* The plain functions, from C. */
#include <ZuNetwork/ZuSocket_C.h>
#include <stdio.h>

int main(void) {
  ZUNET_SockAddr address;
  char text[46];
  if (ZUNET_str2ip("127.0.0.1", &address) != 0) return 1;
  if (ZUNET_ip2str(&address, text, sizeof text) != 0) return 1;
  puts(text);
  return 0;
}
