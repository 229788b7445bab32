/* An application that uses the JSON library too: with memory functions of its own while a bus runs,
 * and after the bus's library has been closed. argv[1]: that library. */
#include <zelvo/bus_client.h>

#include <cJSON.h>
#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

static int blocks;

/* Blocks of the one heap are none of the other. */
static void *own_malloc(size_t size) {
    char *const block = (char *)malloc(size + 16);
    blocks += block != NULL;
    return block ? block + 16 : NULL;
}
static void own_free(void *block) {
    blocks -= block != NULL;
    free(block ? (char *)block - 16 : NULL);
}

static void *library;

#define LOAD(name) __typeof__(&name) p_##name = (__typeof__(&name))dlsym(library, #name)

static void *run_bus(void *bus) {
    LOAD(busClientBindServer);
    p_busClientBindServer((Zelvo_t *)bus);
    return NULL;
}

static void *use_bus(void *unused) {
    LOAD(busClientNew);
    LOAD(busClientConnect);
    LOAD(busClientCall);
    LOAD(busClientClose);
    LOAD(busClientServerExit);
    LOAD(busClientDelete);
    cJSON_Hooks own = {own_malloc, own_free};
    pthread_t thread;
    Zelvo_t *const bus = p_busClientNew("{\"level\":6}");
    (void)unused;
    cJSON_InitHooks(&own);
    pthread_create(&thread, NULL, run_bus, bus);
    client_t *const node = p_busClientConnect(bus, "node", NULL, NULL, NULL);
    puts(p_busClientCall(node, "/bus/nodes", NULL, 0));
    puts(p_busClientCall(node, "/localKeys/k", "{\"operation\":\"set\",\"data\":[1]}", 31));
    puts(p_busClientCall(node, "/localKeys/k", "{\"operation\":\"get\"}", 19));
    p_busClientClose(node);
    p_busClientServerExit(bus);
    pthread_join(thread, NULL);
    p_busClientDelete(bus);
    p_busClientDelete(p_busClientNew("{\"level\":6}")); /* takes the C library's memory again */
    return NULL;
}

int main(int argc, char **argv) {
    pthread_t thread;
    library = argc > 1 ? dlopen(argv[1], RTLD_NOW) : NULL;
    if (!library)
        return 1;
    pthread_create(&thread, NULL, use_bus, NULL);
    pthread_join(thread, NULL);
    if (dlclose(library) != 0)
        return 2;
    cJSON *const json = cJSON_Parse("{\"after\": [1, 2]}");
    if (!json)
        return 3;
    cJSON_Delete(json);
    return blocks == 0 ? 0 : 4;
}
