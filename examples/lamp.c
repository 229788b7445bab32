/* The C interface: a bus, two nodes and their threads. With the library installed:
 *     cc lamp.c $(pkg-config --cflags --libs zelvo) -pthread -o lamp && ./lamp
 * Level 2 logs every message; zelvo-view lamp.log shows them. */
#include <zelvo/bus_client.h>

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void *run_bus(void *bus) {
    busClientBindServer((Zelvo_t *)bus);
    return NULL;
}
static void *run_node(void *node) {
    busClientSpin((client_t *)node);
    return NULL;
}

/* Both run in their node's own thread; userdata is the node's state. */
static int on_message(void *userdata, client_t *self, char *topic, char *data, int len) {
    (void)self;
    (void)topic;
    (void)len;
    snprintf((char *)userdata, 16, "%s", data);
    return 0;
}
static char *on_call(void *userdata, client_t *self, char *url, char *data, int len) {
    (void)self;
    (void)url;
    (void)data;
    (void)len;
    return strcpy((char *)malloc(16), (const char *)userdata); /* the library frees it */
}

int main(void) {
    char lamp_state[16] = "on", panel_state[16] = "unknown";
    pthread_t threads[3];
    Zelvo_t *bus = busClientNew("{\"level\": 2, \"path\": \"lamp.log\"}");
    pthread_create(&threads[0], NULL, run_bus, bus);
    client_t *lamp = busClientConnect(bus, "lamp", NULL, on_call, lamp_state);
    client_t *panel = busClientConnect(bus, "panel", on_message, on_call, panel_state);
    if (!lamp || !panel)
        return 1;
    pthread_create(&threads[1], NULL, run_node, lamp);
    pthread_create(&threads[2], NULL, run_node, panel);

    busClientPublishSticky(lamp, "lamp.state", "on", 2);
    busClientSubscribe(panel, "[\"lamp.state\"]");
    printf("the lamp is %s\n", busClientCall(panel, "/lamp/state", NULL, 0));
    printf("the panel shows %s\n", busClientCall(lamp, "/panel/state", NULL, 0));
    printf("%s\n", busClientCall(panel, "/bus/nodes", NULL, 0));

    busClientSpinExit(lamp);
    pthread_join(threads[1], NULL);
    busClientClose(lamp);
    busClientSpinExit(panel);
    pthread_join(threads[2], NULL);
    busClientClose(panel);
    busClientServerExit(bus);
    pthread_join(threads[0], NULL);
    busClientDelete(bus);
    return 0;
}
