/* Opens a bridge on a bus, to a broker that is not there, and closes it. */
#include <zelvo/mqtt.h>

#include <pthread.h>
#include <stddef.h>

static void *run_bus(void *bus) {
    busClientBindServer((Zelvo_t *)bus);
    return NULL;
}

int main(void) {
    pthread_t thread;
    zelvo_mqtt_t *bridge;
    Zelvo_t *bus = busClientNew("{\"level\": 5}");
    if (pthread_create(&thread, NULL, run_bus, bus) != 0) {
        return 1;
    }
    bridge = zelvo_mqtt_open(bus, "{\"url\": \"mqtt://127.0.0.1:1\", \"site\": \"here\"}");
    if (!bridge || zelvo_mqtt_close(bridge) != 0) {
        return 1;
    }
    busClientServerExit(bus);
    pthread_join(thread, NULL);
    return busClientDelete(bus);
}
