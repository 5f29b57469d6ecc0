/* A round trip over loop-back in plain C11, through the two headers that are usable from C. */
#include <ZuNetwork/ZuFdset_C.h>
#include <ZuNetwork/ZuSocket_C.h>
#include <stdio.h>
#include <string.h>

static int failures;
static int closed;

#define CHECK(condition)                                                                    \
  do {                                                                                      \
    if (!(condition)) {                                                                     \
      fprintf(stderr, "%s:%d: %s: not so: %s\n", __FILE__, __LINE__, __func__, #condition); \
      ++failures;                                                                           \
    }                                                                                       \
  } while (0)

static void CountClose(KDSOCKET s) {
  CHECK(s >= 0);
  ++closed;
}

static void TryDescriptorSets(void) {
  kdfdset set;
  kdfdset copy;
  kdfdset_maxsock_set(20000);
  CHECK(kdfdset_alloc(kdfdset_maxsock_get(), &set) == 0);
  CHECK(set.sock_cnt == KDFDSET_INTERNAL_SOCKETS);
  CHECK(fdset_sz_bytes(KDFDSET_INTERNAL_SOCKETS) == sizeof set.__pvt_buff);
  CHECK(kdfdset_set(5, &set) == 0);
  CHECK(kdfdset_set(9000, &set) == 0);
  CHECK(kdfdset_set(-1, &set) == -1);
  CHECK(kdfdset_isset(9000, &set) == 1);
  CHECK(kdfdset_get_maxfd(&set) == 9000);

  CHECK(kdfdset_alloc(20000, &copy) == 0);
  CHECK(kdfdset_copy_fdset(&copy, &set) == 0);
  CHECK(kdfdset_clr(9000, &copy) == 0);
  CHECK(kdfdset_get_maxfd(&copy) == 5);
  kdfdset_zero(&set);
  CHECK(kdfdset_isset(5, &set) == 0);
  kdfdset_free(&copy);
  kdfdset_free(&set);
  CHECK(kdfdset_get_fdsetp(&set) == NULL);
}

/* True when `s` can be read from at once. */
static int IsReadable(KDSOCKET s) {
  struct timeval wait = {5, 0};
  int ready = -1;
  kdfdset set;
  CHECK(kdfdset_alloc(0, &set) == 0);
  CHECK(kdfdset_set(s, &set) == 0);
  CHECK(ZUNET_select(kdfdset_get_maxfd(&set) + 1, kdfdset_get_fdsetp(&set), NULL, NULL, &wait,
                     &ready) == 0);
  const int is = ready == 1 && kdfdset_isset(s, &set) == 1;
  kdfdset_free(&set);
  return is;
}

static void TryRoundTrip(const char* text) {
  ZUNET_SockAddr address;
  ZUNET_SockAddr peer;
  char back[64];
  char buffer[16] = "";
  KDSOCKET listener = -1;
  KDSOCKET client = -1;
  KDSOCKET server = -1;
  int count = -1;
  int timedout = -1;

  CHECK(ZUNET_str2ip(text, &address) == 0);
  CHECK(ZUNET_socket(address.addr.f.family, &listener) == 0);
  CHECK(ZUNET_bind(listener, &address) == 0);
  CHECK(ZUNET_listen(listener, 1) == 0);
  CHECK(ZUNET_getsockname(listener, &address) == 0);
  CHECK(ZUNET_socket(address.addr.f.family, &client) == 0);
  CHECK(ZUNET_connect(client, &address) == 0);
  CHECK(IsReadable(listener));
  CHECK(ZUNET_accept(listener, &server, &peer) == 0);
  CHECK(ZUNET_addrequal(&peer, &address, 0, 0) == 1);
  CHECK(ZUNET_ip2str(&peer, back, sizeof back) == 0);
  CHECK(strcmp(back, text) == 0);

  CHECK(ZUNET_send(client, "hello", 5, &count, 0) == 0);
  CHECK(count == 5);
  CHECK(IsReadable(server));
  CHECK(ZUNET_recvwithtimeout(server, buffer, 5, &count, 5, &timedout, 0) == 0);
  CHECK(count == 5 && timedout == 0 && strcmp(buffer, "hello") == 0);
  CHECK(ZUNET_sendwithtimeout(server, "world", 5, &count, 5, &timedout, 0) == 0);
  CHECK(ZUNET_shutdown(server, SHUT_WR) == 0);
  CHECK(ZUNET_recv(client, buffer, sizeof buffer, &count, 0) == 0);
  CHECK(count == 5 && memcmp(buffer, "world", 5) == 0);

  ZUNET_setclosecb(CountClose);
  ZUNET_close(server);
  ZUNET_close(client);
  ZUNET_close(listener);
  ZUNET_setclosecb(NULL);
}

static void TryNames(void) {
  ZUNET_HostEnt host = {0, NULL};
  ZUNET_SockAddr address;
  struct servent* service = NULL;
  CHECK(ZUNET_name2ip("10.1.2.3", &host, 0) == 0);
  CHECK(host.addr_count == 1);
  CHECK(ZUNET_getport(&host.addr_list[0]) == 0);
  ZUNET_freehostent(&host);
  CHECK(ZUNET_str2ip("127.0.53.53", &address) == ZUNET_NAME_COLLISION);
  CHECK(ZUNET_getservbyname("http", "tcp", &service) == 0);
}

int main(void) {
  TryDescriptorSets();
  TryRoundTrip("127.0.0.1");
  TryRoundTrip("::1");
  CHECK(closed == 6);
  TryNames();
  return failures == 0 ? 0 : 1;
}
