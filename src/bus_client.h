/* Zelvo: an in-process message bus. The threads of one program join it as named nodes, publish,
 * subscribe and call each other.
 *
 * Threads.  The library starts none. One thread of yours runs the bus (busClientBindServer), and
 *           one thread for each node runs that node (busClientSpin); every handler of a node runs
 *           in that thread, one at a time. Any other function may be called from any thread,
 *           handlers included, unless it says otherwise. A handler returns: it is not left by
 *           longjmp, pthread_exit, pthread_cancel or a C++ exception.
 * Memory.   Whatever you pass in is copied before the call returns. What a handler is handed is
 *           valid until the handler returns. The two texts that change hands are the answer of
 *           a call handler (from malloc; the library frees it) and the answer of busClientCall
 *           (the node's; you only read it). JSON goes through cJSON, whose memory functions are the
 *           process's: each busClientNew while there is no other bus sets malloc and free. An
 *           application that gives cJSON a pair of its own does so after each of these, before that
 *           bus runs, and at no other time; and it keeps no cJSON object of its own across one.
 * Blocking. busClientConnect, busClientSubscribe, busClientUnsubscribe and busClientCall wait for
 *           an answer, for "callTimeout" milliseconds at most where that is configured and without
 *           a limit otherwise, and need the bus to be running in another thread. Nothing else
 *           waits, except the two loops and what busClientClose and busClientDelete say of
 *           themselves.
 * Limits.   2,048 nodes, 2,048 topics for each node, "bus.event" among them, 2,048 sticky topics;
 *           2,048 messages wait for the bus and 1,024 for each node, and for the bus 2,048 more of
 *           those that a flood of publications must not keep out: answers, leave requests, exits. A
 *           message that finds its queue full is dropped with a warning in the log. A node can be
 *           called when its name has 1 to 127 bytes, holds no "/" after its first byte, and is no
 *           prefix of "bus" or "localKeys" ("b" is one); busClientConnect warns in the log about
 *           any other.
 * Errors.   Integers: 0 for success, -1 for arguments that are refused. Pointers: null. A refusal
 *           changes nothing. Its reason stands in the log, except for arguments that are null.
 *
 * Windows.  The C library whose malloc is meant is msvcrt.dll, whatever the application itself uses
 *           (docs/windows.md). Waits end at a tick of the system, 16 ms where no program asks for
 *           finer ones. A log file or key store that another program has open may be impossible to
 *           replace: lines then go to standard output, and a change stays in memory.
 *
 * Start: busClientNew, busClientBindServer in its thread; for each node busClientConnect, then
 *        busClientSpin in its thread.
 * Stop:  for each node busClientSpinExit, wait for its thread, busClientClose; then
 *        busClientServerExit, wait for the bus's thread, busClientDelete.
 *        The bus may stop before or while nodes stop, and be run again. What is not allowed:
 *        busClientClose while anything else uses the node, its loop included; any use of a node
 *        after its busClientClose, and of a bus or of its nodes after busClientDelete. Without
 *        "callTimeout" a call that has no answer when the bus stops, also one made before that,
 *        waits until the bus is run again.
 *        The library stays loaded after dlclose.
 */
#ifndef ZELVO_BUS_CLIENT_H
#define ZELVO_BUS_CLIENT_H

#if defined(_WIN32)
#if defined(ZELVO_STATIC)
#define ZELVO_API
#elif defined(ZELVO_BUILDING)
#define ZELVO_API __declspec(dllexport)
#else
#define ZELVO_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define ZELVO_API __attribute__((visibility("default")))
#else
#define ZELVO_API
#endif

#if defined(__cplusplus) && (__cplusplus >= 201103L || defined(_MSC_VER))
#define ZELVO_NOEXCEPT noexcept
#else
#define ZELVO_NOEXCEPT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A bus, and a node of a bus. */
typedef struct Zelvo_t Zelvo_t;
typedef struct client_t client_t;

/* Receives one published message. topic and data are valid during the call; data holds len bytes,
 * any bytes, with a NUL behind them, or is null with len 0 when the message has none. The result
 * is ignored. */
typedef int (*onmessage_callback)(void *userdata, client_t *client, char *topic, char *data,
                                  int len);

/* Answers one call to this node. url is the whole address, "/name/path"; url and data are valid
 * during the call, data as above. The result is the answer: a text from malloc, which the library
 * takes over and frees, or null, which the caller receives as {"msg":"not implement"}; so it does
 * where the text is longer than an int can tell.
 * The calling node waits meanwhile. */
typedef char *(*oncall_callback)(void *userdata, client_t *client, char *url, char *data, int len);

/* Runs when a timer is due; userdata and type are those of busClientSettimer. The result is
 * ignored. */
typedef int (*timer_callback)(void *userdata, client_t *client, int type);

/* ---- the bus ---- */

/* Makes a bus and opens the log. jsondata is a JSON object, or null; members, matched without
 * regard to case, each optional:
 *   "level"    least level that is logged, 0 to 5: 1 verbose, 2 debug (the default), 3 information,
 *              4 warnings, 5 errors
 *   "path"     log file (default: standard output)
 *   "mode"     0 empties the log file (the default), any other number appends to it
 *   "size"     megabytes at which the log file is deleted and begun anew (20; 0: never)
 *   "homePath" directory of the key store (".")
 *   "persistSync" false: a persisted set does not wait for the disk (true)
 *   "callTimeout" milliseconds that a call, a connect or a subscription waits at most, its turn
 *              included, and a connect with both of its steps (0, or less: no limit)
 *   "stats"    true: "/bus/stats" is answered with what has been counted
 * A log file that cannot be opened gives way to standard output. Lines that the log does not take
 * (a full disk) are lost, and counted in it when it takes lines again; standard error is told why,
 * once, and gets the errors meanwhile.
 * On Windows "path" and "homePath" are in UTF-8, with "/" or an escaped "\\".
 * A text that is not JSON counts as none. Of a number the fraction is dropped; where a number is
 * wanted true counts as 1 and any other type as 0, and where a text is wanted, as no text.
 * Does not block. To be called while no other call into the library is running, the loops apart.
 * Returns null when memory is short, or, with an error in the log, a bus that refuses every node.
 * The log is one for the process: a second bus only changes its level. */
ZELVO_API Zelvo_t *busClientNew(const char *jsondata) ZELVO_NOEXCEPT;

/* Runs the bus in the calling thread until busClientServerExit; this is the bus's own thread.
 * Returns 0 when it has ended, and 0 at once without a bus or while another thread runs it. It
 * may be run again: what was queued behind the exit is then handled. */
ZELVO_API int busClientBindServer(Zelvo_t *busManager) ZELVO_NOEXCEPT;

/* Asks busClientBindServer to return once everything queued before this request is handled; there
 * are places for it beyond a full queue. Does not wait. Always 0; when these are taken too, or
 * memory stays short, the bus goes on, with an error in the log. A call whose answer has not come
 * by then, whenever it was made, finds nobody to hand it over: stop the nodes first. */
ZELVO_API int busClientServerExit(Zelvo_t *busManager) ZELVO_NOEXCEPT;

/* Destroys the bus and closes the log, also for any other bus. A bus that still runs is stopped
 * first, as by busClientServerExit, and waited for; a thread that is about to call
 * busClientBindServer must have got into it (a connect has returned) or never get there. Nodes are
 * not closed by it; close them before. To be called while no other call into the library is
 * running, the loop apart. Null: only a log line. Always 0. */
ZELVO_API int busClientDelete(Zelvo_t *busManager) ZELVO_NOEXCEPT;

/* ---- a node ---- */

/* Makes a node, joins it to the bus under name and subscribes it to "bus.event", the notices of
 * joining nodes: {"event":"join", "name": "..."}, with the name as JSON has it. Either handler may
 * be null: messages are then dropped, calls answered {"msg":"not implement"}. userdata is handed to
 * both handlers. Blocks until the bus has answered.
 * Returns null, with nothing left behind: bus or name missing, the name taken, 2,048 nodes on the
 * bus, memory short, no answer in time. When the bus's queue was full the join is lost: the node is
 * returned and is not on the bus. It receives nothing and makes no call but "/bus/join", which
 * joins it; all else works. A node that joins by such a call of its own has no topics: it
 * subscribes to "bus.event" itself if it wants the notices. A node that has joined is returned
 * also when the answer to its subscription to "bus.event" did not come in time (it takes effect
 * when the bus gets to it) or the bus's queue had no place for it (it is lost); the log says so. */
ZELVO_API client_t *busClientConnect(Zelvo_t *busManager, const char *name,
                                     onmessage_callback onmessage, oncall_callback oncall,
                                     void *userdata) ZELVO_NOEXCEPT;

/* Frees a node: what its queues still hold, its latest answer, the record. To be called after
 * busClientSpin has returned, or when it was never run, and while nothing else uses the node.
 * A node that is still on a running bus leaves it first, which blocks until the bus has answered,
 * has stopped, or "callTimeout" has passed (first it waits for its turn to call); without the
 * answer, the bus takes the node off when it runs next, and its name may be used again at once.
 * Calls that still wait for the node are answered
 * {"msg":"not implement"}. Null: no effect. Always 0. */
ZELVO_API int busClientClose(client_t *client) ZELVO_NOEXCEPT;

/* Adds topics to those the node receives, or removes them. jsondata is a JSON array of topics,
 * ["a","b"]; a topic is any text and matches exactly. Elements that are not texts, topics already
 * there (or not there) are skipped. A topic that has a sticky message delivers it at once. The
 * node receives its own publications too.
 * Block until the bus has answered. -1: client or jsondata null, or not a JSON array. Otherwise 0,
 * also when the request was refused (the bus's queue full, the node has left) or timed out. */
ZELVO_API int busClientSubscribe(client_t *client, const char *jsondata) ZELVO_NOEXCEPT;
ZELVO_API int busClientUnsubscribe(client_t *client, const char *jsondata) ZELVO_NOEXCEPT;

/* ---- messages ---- */

/* Publishes len bytes of data, any bytes, to every node that has subscribed to topic; data may be
 * null (len is then ignored). Messages of one thread arrive in the order in which they were
 * published. Does not block, and does not tell whether anybody received it: where the bus's queue
 * or a subscriber's is full, the message is lost there, with a warning in the log.
 * -1: client or topic null, or len negative. Otherwise 0. */
ZELVO_API int busClientPublish(client_t *client, const char *topic, const char *data,
                               int len) ZELVO_NOEXCEPT;

/* As busClientPublish, and the bus keeps the message: every node that subscribes to topic later
 * receives it at once. It stays, also when its publisher has left, until another sticky message
 * of the topic replaces it or busClientRemoveSticky removes it. */
ZELVO_API int busClientPublishSticky(client_t *client, const char *topic, const char *data,
                                     int len) ZELVO_NOEXCEPT;

/* Drops the sticky messages of the topics in jsondata, a JSON array. What nodes have received
 * stays theirs. Does not block. -1: client or jsondata null, or not a JSON array. Otherwise 0. */
ZELVO_API int busClientRemoveSticky(client_t *client, const char *jsondata) ZELVO_NOEXCEPT;

/* Calls url, "/host/path", and waits for the answer. host is a node's name, answered by that
 * node's call handler in its own thread, or one that the bus answers itself:
 *   /bus/nodes                    {"data": [...]}, the names on the bus in the order they joined,
 *                                 printed with line breaks and tabs
 *   /bus/subscribe, /bus/unsubscribe, /bus/join, /bus/disjoin     what the functions here use
 *   /bus/stats                    where "stats" is configured, what has been counted since the bus
 *       was made: {"data": {"server": ..., "nodes": [...], "left": ...}}, for the bus, for each
 *       node on it and, summed, for those that have been freed. "taken": messages taken from the
 *       own queue (a node's: publications and calls); "sent": messages that another's queue took;
 *       "posted": the bus's answers to itself; "queue": how many wait, and the most that did;
 *       "drops": messages lost, by cause; "calls": made, answered, refused, timedOut, givenUp (to
 *       leave a bus that has stopped); "timers": how many wait
 *   /localKeys/key                the key store; data is a JSON object:
 *       {"operation":"set", "data": VALUE}   stores any JSON value under key; with
 *                                            "persist":"true" also writes the store to its file
 *       {"operation":"get"}                  is answered with the value, printed as JSON
 *     Anything else, a get of no key included, is answered {"data":""}. Keys match without regard
 *     to ASCII case. The file is keys.json in the directory "homePath"; it is read at the first
 *     request. A persisted set replaces it as a whole, on the disk before the answer comes; the bus
 *     serves nobody meanwhile, often for milliseconds. With "persistSync" false the system writes
 *     it to the disk when it likes: the file is whole after a crash of the program, and may not be
 *     after one of the machine. A new file is its owner's alone (0600); another keeps mode and
 *     owner, and what a symbolic link leads to is replaced, not the link. A file that may be
 *     written in a directory that may not is written in place, with a warning in the log, once; a
 *     crash or a full disk then tears it.
 *     A file that can't be read is left as it is, and read at the next request that succeeds, below
 *     what has been set meanwhile. One that is no JSON object counts as empty, and is renamed to
 *     keys.json.bad (.bad.1, ...) once the new file stands beside it. A persisted set that can't be
 *     written stays in memory, with an error in the log; the next one writes it too. Of several
 *     buses or programs with one home the last that writes wins, and none sees a torn file.
 * data may be null (len is then ignored). The answer is the node's: read it, do not free it; it
 * stays valid until the node's next call has been posted (subscribing and leaving are calls too),
 * or until the node is closed.
 * Answers made by the bus: {"data":"not implement"} when there is no such node, its queue is full,
 * memory is short for handing the call on, url is no address, or it is one of the bus's own that
 * there is not; {"data":""} at once when the call would close a ring of nodes that wait
 * for each other (also a node calling itself), with a notice to the topic "bus.error".
 * Blocks the calling thread, also a handler's: the node handles nothing meanwhile. A call to a node
 * whose thread does not run waits until it does, or the node is closed. One thread at a time calls
 * through a node: a second one waits for its turn, but its call, subscription or leave ends the
 * life of the answer that the first still reads. After a time-out the node can call again
 * at once; the called node may still handle the request, and its answer is dropped.
 * Null: client or url null, len negative, the node is not on the bus (any more), the bus's queue
 * is full, memory is short, or "callTimeout" has passed (a warning in the log). */
ZELVO_API char *busClientCall(client_t *client, const char *url, const char *data,
                              int len) ZELVO_NOEXCEPT;

/* ---- a node's thread ---- */

/* Runs the node in the calling thread: waits for messages and runs its handlers, until
 * busClientSpinExit. It then leaves the bus (as busClientClose does), answers the calls that were
 * already waiting (a handler that calls gets null by then), and returns; publications that were
 * waiting are not handled. One thread for each node. Returns 0, at once when client is null. */
ZELVO_API int busClientSpin(client_t *client) ZELVO_NOEXCEPT;

/* Asks busClientSpin to return, ahead of everything that waits for the node. Does not wait.
 * Always 0; when the node's queue is full the request is dropped with a warning in the log: where
 * a node may be that far behind, ask again until its thread has ended. */
ZELVO_API int busClientSpinExit(client_t *client) ZELVO_NOEXCEPT;

/* Sets a timer: the node's thread calls timer_func(userdata, client, type) once, mstimeout
 * milliseconds from now (0 or less: at the next look), on a clock that does not follow the
 * wall clock. A node looks after each message, and every 3 milliseconds while it has nothing to
 * do (on Windows every tick). A look runs what is due in the order in which it was set, also what
 * falls due while another timer's handler runs; one that is set by a timer's handler waits for the
 * next look, so a handler may set its own timer again. Does not block. A node whose thread does not
 * run calls nothing; the timers go with the node. Returns the timer's id, 2 to 32767 and then 2
 * again; -1: client is null or memory is short. At most 1,024 timers wait: one more is dropped with
 * a warning in the log, and its id returned all the same. Without timer_func a warning is logged
 * when the timer is due. */
ZELVO_API int busClientSettimer(client_t *client, timer_callback timer_func, long mstimeout,
                                int type, void *userdata) ZELVO_NOEXCEPT;

/* Asks the node's thread to remove the timer id. It does so when it reaches the request; a timer
 * that is due at a look before that runs. An id that does not wait (any more) has no effect. Does
 * not block. Always 0; when the node's queue is full the request is dropped with a warning in the
 * log. */
ZELVO_API int busClientKilltimer(client_t *client, int id) ZELVO_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
