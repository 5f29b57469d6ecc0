/* Sends a text to an echo server and prints what comes back: echo_client_c HOST PORT TEXT */
#include <ZuNetwork/ZuSocket_C.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* [echo_client_c] */
static int connect_to_address(ZUNET_SockAddr* address, KDSOCKET* sock) {
  int err = ZUNET_socket(address->addr.f.family, sock);
  if (err != 0) return err;
  err = ZUNET_connect(*sock, address);
  if (err != 0) ZUNET_close(*sock);
  return err;
}

/* A name may have several addresses, and a server need not listen on the first one. */
static int connect_to(const char* host, int port, KDSOCKET* sock) {
  ZUNET_HostEnt found;
  int i;
  int err = ZUNET_name2ip(host, &found, AF_UNSPEC);
  if (err != 0) return err;
  err = EADDRNOTAVAIL;
  for (i = 0; err != 0 && i < found.addr_count; ++i) {
    ZUNET_setport(&found.addr_list[i], port);
    err = connect_to_address(&found.addr_list[i], sock);
  }
  ZUNET_freehostent(&found);
  return err;
}

static int exchange(KDSOCKET sock, const char* text, char* reply) {
  enum { kSeconds = 10 };
  const int size = (int)strlen(text);
  int count = 0;
  int timedout = 0;
  int err = ZUNET_sendwithtimeout(sock, text, size, &count, kSeconds, &timedout, 0);
  if (err == 0 && timedout == 0) {
    err = ZUNET_recvwithtimeout(sock, reply, size, &count, kSeconds, &timedout, 0);
  }
  if (err != 0) return err;
  if (timedout != 0) return ETIMEDOUT;
  return count < size ? ECONNRESET : 0; /* the server closed before all had come back */
}
/* [echo_client_c] */

int main(int argc, char** argv) {
  KDSOCKET sock = -1;
  char* reply;
  int err;
  if (argc != 4) {
    fputs("usage: echo_client_c HOST PORT TEXT\n", stderr);
    return 2;
  }
  reply = calloc(strlen(argv[3]) + 1, 1);
  if (reply == NULL) return 1;
  err = connect_to(argv[1], atoi(argv[2]), &sock);
  if (err == 0) {
    err = exchange(sock, argv[3], reply);
    ZUNET_close(sock);
  }
  if (err == 0) {
    printf("%s\n", reply);
  } else {
    fprintf(stderr, "echo_client_c: %s\n", err > 0 ? strerror(err) : gai_strerror(err));
  }
  free(reply);
  return err == 0 ? 0 : 1;
}
