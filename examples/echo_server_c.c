/* Sends back what it receives, to one client after the other: echo_server_c PORT (0 for any) */
#include <ZuNetwork/ZuSocket_C.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>

/* [echo_server_c] */
static int open_listener(int port, KDSOCKET* listener) {
  ZUNET_SockAddr address;
  int err = ZUNET_str2ip("127.0.0.1", &address);
  if (err != 0) return err;
  ZUNET_setport(&address, port);
  err = ZUNET_socket(AF_INET, listener);
  if (err != 0) return err;
  err = ZUNET_bind(*listener, &address);
  if (err == 0) err = ZUNET_listen(*listener, 5);
  if (err == 0) err = ZUNET_getsockname(*listener, &address);
  if (err != 0) {
    ZUNET_close(*listener);
    return err;
  }
  printf("listening on port %d\n", ZUNET_getport(&address));
  fflush(stdout);
  return 0;
}

/* Until the client closes: a short count without an error. What has come by the time its first
 * byte is there is received with it. */
static int echo(KDSOCKET client) {
  enum { kSeconds = 60, kSize = 4096 };
  char buffer[kSize];
  for (;;) {
    int count = 0;
    int more = 0;
    int timedout = 0;
    unsigned waiting = 0;
    int err = ZUNET_recvwithtimeout(client, buffer, 1, &count, kSeconds, &timedout, 0);
    if (err != 0 || count == 0) return err;
    err = ZUNET_ioctl(client, FIONREAD, &waiting);
    if (err != 0) return err;
    if (waiting > kSize - 1) waiting = kSize - 1;
    err = ZUNET_recv(client, buffer + 1, (int)waiting, &more, 0);
    if (err != 0) return err;
    err = ZUNET_sendwithtimeout(client, buffer, 1 + more, &count, kSeconds, &timedout, 0);
    if (err != 0 || timedout != 0) return err;
  }
}
/* [echo_server_c] */

int main(int argc, char** argv) {
  KDSOCKET listener = -1;
  int err;
  if (argc != 2) {
    fputs("usage: echo_server_c PORT\n", stderr);
    return 2;
  }
  err = open_listener(atoi(argv[1]), &listener);
  while (err == 0) {
    KDSOCKET client = -1;
    ZUNET_SockAddr peer;
    err = ZUNET_accept(listener, &client, &peer);
    if (err == 0) {
      const int client_err = echo(client);
      if (client_err != 0) fprintf(stderr, "client: %s\n", strerror(client_err));
      ZUNET_close(client);
    }
  }
  fprintf(stderr, "echo_server_c: %s\n", err > 0 ? strerror(err) : gai_strerror(err));
  return 1;
}
