/* Prints by how many bytes the process's resident memory has grown once a bus and three nodes run,
 * have called each other once, and are at rest. script/package runs it with the packaged library.
 */
#include <zelvo/bus_client.h>

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

enum { kNodes = 3 };

static void *run_bus(void *bus) {
    busClientBindServer((Zelvo_t *)bus);
    return NULL;
}
static void *run_node(void *node) {
    busClientSpin((client_t *)node);
    return NULL;
}
static char *on_call(void *userdata, client_t *self, char *url, char *data, int len) {
    (void)userdata, (void)self, (void)url, (void)data, (void)len;
    return (char *)calloc(1, 16);
}

static long resident(void) {
    long pages = 0;
    FILE *file = fopen("/proc/self/statm", "r");
    if (!file || fscanf(file, "%*d %ld", &pages) != 1)
        exit(1);
    fclose(file);
    return pages * sysconf(_SC_PAGESIZE);
}

int main(void) {
    static const char *const names[kNodes] = {"one", "two", "three"};
    pthread_t bus_thread, threads[kNodes];
    client_t *nodes[kNodes];
    resident(); /* what the C library needs for it */
    const long before = resident();

    Zelvo_t *bus = busClientNew("{\"level\": 4}");
    pthread_create(&bus_thread, NULL, run_bus, bus);
    for (int i = 0; i < kNodes; ++i) {
        nodes[i] = busClientConnect(bus, names[i], NULL, on_call, NULL);
        if (!nodes[i])
            return 1;
        pthread_create(&threads[i], NULL, run_node, nodes[i]);
    }
    for (int i = 0; i < kNodes; ++i) {
        char url[16];
        snprintf(url, sizeof url, "/%s/state", names[(i + 1) % kNodes]);
        if (!busClientCall(nodes[i], url, NULL, 0))
            return 1;
    }
    printf("%ld\n", resident() - before);

    for (int i = 0; i < kNodes; ++i) {
        busClientSpinExit(nodes[i]);
        pthread_join(threads[i], NULL);
        busClientClose(nodes[i]);
    }
    busClientServerExit(bus);
    pthread_join(bus_thread, NULL);
    busClientDelete(bus);
    return 0;
}
