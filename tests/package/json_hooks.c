/* An application that uses the JSON library too: with memory functions of its own while a bus runs,
 * and after the bus's library has been closed. argv[1]: that library. */
#include <zelvo/bus_client.h>

#include <assert.h>
#include <cJSON.h>
#include <dlfcn.h>
#include <pthread.h>
#include <stdlib.h>

static int blocks;
static void *library;

/* Blocks of the one heap are none of the other. */
static void *own_malloc(size_t size) {
    ++blocks;
    return (char *)malloc(size + 16) + 16;
}
static void own_free(void *block) {
    blocks -= block != NULL;
    free(block ? (char *)block - 16 : NULL);
}

/* A function of the library that is open. */
#define OPEN(name) ((__typeof__(&name))dlsym(library, #name))

static void *run_bus(void *bus) {
    OPEN(busClientBindServer)((Zelvo_t *)bus);
    return NULL;
}

static void *use_bus(void *key) {
    cJSON_Hooks own = {own_malloc, own_free};
    pthread_t thread;
    Zelvo_t *const bus = OPEN(busClientNew)("{\"level\":6}");
    cJSON_InitHooks(&own);
    pthread_create(&thread, NULL, run_bus, bus);
    client_t *const node = OPEN(busClientConnect)(bus, "node", NULL, NULL, NULL);
    assert(OPEN(busClientCall)(node, "/bus/nodes", NULL, 0));
    assert(OPEN(busClientCall)(node, key, "{\"operation\":\"set\",\"data\":[1]}", 31));
    assert(OPEN(busClientCall)(node, key, "{\"operation\":\"get\"}", 19));
    OPEN(busClientClose)(node);
    OPEN(busClientServerExit)(bus);
    pthread_join(thread, NULL);
    OPEN(busClientDelete)(bus);
    OPEN(busClientDelete)
    (OPEN(busClientNew)("{\"level\":6}")); /* takes the C library's memory again */
    return NULL;
}

int main(int argc, char **argv) {
    pthread_t thread;
    library = dlopen(argv[argc - 1], RTLD_NOW);
    pthread_create(&thread, NULL, use_bus, "/localKeys/k");
    pthread_join(thread, NULL);
    assert(dlclose(library) == 0);
    cJSON_Delete(cJSON_Parse("{\"after\": [1, 2]}"));
    return blocks;
}
