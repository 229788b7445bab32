/* Zelvo's bridge to MQTT 5: joins a bus to a broker, so that nodes of several processes and
 * machines publish to each other and call each other. It is a library of its own, beside zelvo, and
 * joins the bus as ordinary nodes. It has two connections to the broker, one for publications and
 * one for calls.
 *
 * Threads.  The bridge starts its own and ends them in zelvo_mqtt_close, all with every signal
 *           blocked: one for each connection; one for each of its nodes, which are
 *             mqtt.SITE           takes the publications that go out
 *             mqtt.SITE.in        where "in" is configured; publishes those that come in
 *             each node of "call"
 *             mqtt.SITE.serve.N   one for each node of "serve"; makes the calls that come in
 *           and, while a broker's name is being looked up, one that waits for the name service. A
 *           second bridge of the same site on one bus has the nodes mqtt.SITE.2, and so on.
 * Blocking. Nothing on the bus waits for the network but a caller for its answer. The broker's
 *           absence is no reason to wait either, see "buffer" and "call".
 * Log.      Refusals, losses and changes of the connection are lines of the form that the bus's log
 *           has, on standard error or in a file ("log"); at most 100 a second, the others are
 *           counted in a line of their own, as are those that a pipe or a terminal does not take.
 * Memory.   What waits is bounded: publications by "buffer", besides those under way, at most 64
 *           and about 4 MiB; calls from outside by 1,000 for each node and its share of 16 MiB, a
 *           packet at least; messages of calls that the broker does not take by 2,048 and 16 MiB;
 *           a packet by "maxPacket". For every topic of "in" that is sticky its payload is kept.
 * Process.  What the process holds is gone with it: publications in "buffer", and those that the
 *           broker has handed over and that have not reached their nodes. Signals and rand() stay
 *           as the application has them, and no child process that runs another program inherits
 *           a connection.
 */
#ifndef ZELVO_MQTT_H
#define ZELVO_MQTT_H

#include <zelvo/bus_client.h>

#if defined(__GNUC__) && !defined(_WIN32)
#define ZELVO_MQTT_API __attribute__((visibility("default")))
#else
#define ZELVO_MQTT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zelvo_mqtt_t zelvo_mqtt_t;

/* Opens a bridge between bus, which has to be running, and a broker. json is an object. It is
 * checked as a whole before anything starts; members are matched exactly, and one that is unknown,
 * twice there or wrong is refused by name. All but "url" and "site" may be left out:
 *   "url"       "mqtt://HOST[:PORT]" or "mqtts://HOST[:PORT]" (1883, 8883); an IPv6 address in [].
 *               Or an array of them, of which the first that can be reached is used. A host with
 *               several addresses is tried address by address, 3 seconds each, the last 10.
 *   "ca", "cert", "key"   files in PEM, for mqtts alone: whom to trust (without "ca" those whom the
 *               system trusts), and the own certificate with its key, both or neither, and only
 *               beside "ca". The broker's certificate has to name HOST.
 *   "user"      and "password", a text or {"file": "PATH"}, read once, without a last line feed
 *   "site"      this process's name on the broker: 1 to 32 bytes of UTF-8, without "/" and
 *               control characters, no prefix of "bus" or "localKeys" ("b" is one), which are the
 *               bus's own. Each site has one bridge at a broker: a second one puts the first out,
 *               and so on.
 *   "prefix"    first levels of every MQTT topic ("zelvo"); without wildcards
 *   "out"       [TOPIC or {"topic": TOPIC, "retain": BOOL, "expiry": SECONDS}, ...]: publications
 *               that go out. A topic with "retain" is one that is sticky on the bus: the broker
 *               keeps its latest publication; one without data takes the kept one away. Sticky
 *               publications that are there already go out at once. One with "expiry" (1 to
 *               31,622,400) is not handed over so long after it was published, by this bridge or
 *               by the broker. The two exclude each other.
 *   "in"        [TOPIC, ...]: publications that come in. A retained one becomes a sticky
 *               publication; one without data is published, and the sticky one removed. On every
 *               connection what is retained is asked for and compared: what has changed is
 *               published, what is no longer there is handled as one without data. That goes for
 *               the sticky publications that this bridge has made. What the bus had no room for
 *               is made sticky some seconds later. A topic that is no longer there when a site is
 *               opened again is unsubscribed when something comes.
 *   "call"      [SITE or {"site": SITE, "node": NAME}, ...]: sites that can be called. Each entry
 *               makes a node of the site's name (or of NAME) on the bus; "/plant2/pump/state" asks
 *               the site plant2 for its "/pump/state", data and answer unchanged (the answer up to
 *               its first NUL). The caller gets {"data":"not implement"}, and the log the reason,
 *               where the site is offline, does not serve that node, or gives no answer in time.
 *               A call is made once or not at all, and is not kept while the broker is away.
 *               A node answers one call after the other, so callers of one node wait for each
 *               other's answers, at most "callTimeout" for each. Callers that are not to wait use
 *               further names of the site ({"site": "plant2", "node": "plant2.console"}), which
 *               are independent. NAME has 1 to 71 bytes, no "/", and is no prefix of "bus" or
 *               "localKeys".
 *   "serve"     [NODE, ...]: nodes that other sites may call; no others, and "bus" and "localKeys"
 *               only where they are named; any other name as NAME above. Each has its own thread
 *               to call it, so that a slow one holds up nobody but its own callers, and 1,000
 *               calls may wait for it. How long such a call waits is up to the bus: give
 *               busClientNew a "callTimeout".
 *   "qos"       of publications: 0 or 1 (the default). Calls have 0.
 *   "callTimeout"   milliseconds that a call waits for its answer (5000; 1 to 3,600,000). The
 *               other site does not begin it later.
 *   "buffer"    {"messages": 10000, "bytes": 16777216}: publications that are kept while the broker
 *               is away or slow, beyond those under way. The oldest are dropped first. A single one
 *               that is larger is dropped itself.
 *   "maxPacket" bytes of the largest packet that the broker may send (1048576; 1024 to 268435456);
 *               it drops what is larger
 *   "sessionExpiry"   seconds for which the broker is to keep what comes in while the bridge is
 *               away (3600; 0: not at all)
 *   "log"       file that the lines are appended to (standard error); several bridges may have the
 *               same
 *   "logLevel"  least level that is logged, 1 to 5 as for busClientNew (3)
 *   "logSize"   megabytes at which the log file is deleted and begun anew (20; 0: never)
 * A topic in "out" and in "in" is refused: it would come back. A publication that has passed 8
 * brokers is dropped: sites that pass a topic on stand in a ring.
 *
 * The sticky topic "mqtt.state" tells on the bus whether there is a connection for publications,
 * which stands only while the one for calls does, and whether the broker has answered its
 * subscriptions: from then on nothing that is published passes this site by.
 *   {"bridge": "mqtt.SITE", "connected": false, "why": "Connection refused"}
 * The call "/mqtt.SITE/state" is answered, behind all publications that the node got before, with
 *   {"bridge": ..., "connected": ..., "why": ..., "waiting": publications in the buffer, "bytes":
 *    their size, "underWay": handed to the broker, and since the start "dropped": for lack of room,
 *    "refused": by the broker (with "qos" 0 it does not tell), or given up since it ended three
 *    connections at one, "expired": before they were handed over; "denied": the broker's topics to
 *    which a subscription, or the presence, is refused}
 * What is refused stands in the log with the reason, at most once a second for each topic, and the
 * number of the others behind it.
 *
 * Blocks as busClientConnect does, not for the broker: where none answers, the bridge opens and
 * goes on trying, with growing pauses of 0.1 to 10 seconds. Null: refused, the reason is in the
 * log, and nothing is left behind: no bus, a wrong text, a file that can't be read, a name that is
 * taken on the bus, a queue of the bus that is full, memory short, no thread to be had. Any thread
 * may call it. */
ZELVO_MQTT_API zelvo_mqtt_t *zelvo_mqtt_open(Zelvo_t *bus, const char *json) ZELVO_NOEXCEPT;

/* Closes a bridge: takes no more publications, gives those in the buffer 0.3 seconds to go out
 * (the log counts the others), says "offline" to the other sites, ends every call that waits,
 * leaves the bus and frees all. Ends within a second, whatever the broker, the network and the bus
 * do. To be called by one thread, none of a node's handlers of this bridge, before the bus is
 * deleted; best before it is stopped. 0: done; also for null. -1: a served node, or a bus that has
 * just been stopped, has not yet answered a call, so that the thread that made it can't end. The
 * bridge does nothing any more, but its memory and its calling nodes are still there: call again,
 * until 0. It comes when the called nodes answer, or the bus's "callTimeout" has passed; where the
 * bus has stopped and has none, when it is run again. */
ZELVO_MQTT_API int zelvo_mqtt_close(zelvo_mqtt_t *bridge) ZELVO_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
