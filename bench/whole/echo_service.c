/* The smallest service that can answer on the bus. The daemon is compared with it.
 *
 * A service in plain C on sd-bus. It answers every getProxyurl with the texts of its command line.
 * It has the daemon's path and interface, but its own bus name. So both services get the same call
 * and give the same answer. It logs nothing and has no configuration.
 *
 * usage: echo_service NAME TEXT... */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-bus.h>

static char** answer;

static int get_proxyurl(sd_bus_message* call, void* context, sd_bus_error* error) {
  (void)context;
  (void)error;
  const char* url = NULL;
  sd_bus_message* reply = NULL;
  int result = sd_bus_message_read_basic(call, 's', &url);
  if (result >= 0) result = sd_bus_message_new_method_return(call, &reply);
  if (result >= 0) result = sd_bus_message_append_strv(reply, answer);
  if (result >= 0) result = sd_bus_send(NULL, reply, NULL);
  sd_bus_message_unref(reply);
  return result;
}

static const sd_bus_vtable methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("getProxyurl", "s", "as", get_proxyurl, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s NAME TEXT...\n", argv[0]);
    return EXIT_FAILURE;
  }
  answer = argv + 2;
  sd_bus* bus = NULL;
  int result = sd_bus_open_system(&bus);
  if (result >= 0) {
    result = sd_bus_add_object_vtable(bus, NULL, "/com/zentu/ProxyManagerService",
                                      "com.zentu.ProxyManagerServiceInterface", methods, NULL);
  }
  if (result >= 0) result = sd_bus_request_name(bus, argv[1], 0);
  while (result >= 0) {
    result = sd_bus_process(bus, NULL);
    if (result == 0) result = sd_bus_wait(bus, UINT64_MAX);
    if (result == -EINTR) result = 0;
  }
  fprintf(stderr, "echo_service: %s\n", strerror(-result));
  sd_bus_unref(bus);
  return EXIT_FAILURE;
}
