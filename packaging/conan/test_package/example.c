#include <zelvo/bus_client.h>

int main(void) {
    Zelvo_t *bus = busClientNew("{\"level\": 4}");
    if (!bus) return 1;
    busClientDelete(bus);
    return 0;
}
