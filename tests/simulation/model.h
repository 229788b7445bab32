// What the application of a simulated world does: operations over the public header, which follow
// from the world's number, and the threads and handlers that carry them out.
//
// And what the bus promises, beside the bus itself. The model is told what the application does and
// is handed, and reads the log: a warning or an error has to be one that the world explains. In an
// exact world (no shortage, no time limit, no stop, a sound disk) it also follows the bus message
// by message: what the bus takes, what it sends then, and what each node takes, in which order.
// Whatever differs ends the world.
#ifndef ZELVO_SIMULATION_MODEL_H
#define ZELVO_SIMULATION_MODEL_H

#include "world.h"

#include <set>

namespace simulation {

// Who carries an operation out: the thread that has made the node, a handler of the node, or a
// second thread that uses it.
enum Place { kOwner, kHandler, kHelper };

struct Operation {
    void (*act)(struct Actor &, const Operation &);
    unsigned actor, place;
    unsigned a, b; // which topic, node, key, timer; how long, how large, how
    bool begun = false;
};

struct Program {
    std::uint64_t order = 0; // of events
    unsigned actors = 2;
    int level = 1;          // of the log
    unsigned timeLimit = 0; // of calls, in milliseconds; 0: none
    Shortage shortage{};
    std::vector<Operation> operations{};

    bool isExact() const { return level <= 1; } // else only what the application sees is compared
    bool loses() const {
        return timeLimit > 0 || shortage.oneIn > 0 || shortage.nth > 0 || shortage.disk > 0;
    }
};
inline Program program; // the world's

Program makeProgram(std::uint64_t seed);
void play(); // the body of a world's first thread

struct Message {
    Node *node;   // that has sent it
    string trace; // in the log, from its action to the length of its payload
    string requestor{};
    std::uint64_t sent = world.now();
    const Thread *thread = world.current; // by this one
};

struct Timer {
    int type;
    unsigned delay;
    std::uint64_t begun = world.now(); // when the call that sets it began; it is due after that
    int id = 0;                        // once that call has returned
    std::uint64_t set = kNever;        // when it had
    bool killed = false;               // somebody has asked for it
    bool gone = false;                 // it has run, or can't any more

    std::uint64_t due(std::uint64_t after) const { return (after / 1'000'000 + delay) * 1'000'000; }
    // Whether it must have run before a message is taken or another timer runs, where a look at the
    // timers that were there has found it due.
    bool isMissed(std::uint64_t there, std::uint64_t look) const {
        return !gone && !killed && set <= there && due(set) <= look;
    }
};

// From its connect to its close.
struct Node {
    string name;
    struct Actor *actor;
    bool leaves = false, drains = false; // it is going to; it has heard of that
    unsigned mayTake = 1000;             // messages, before it hears of that
    bool isBusy = true;                  // its thread has something else to do than to take one
    std::deque<Message> inbox{};         // what the bus has sent it
    string calls{};                      // the host whose answer it waits for, as the bus knows
    std::set<string> topics{};
    string taken{};  // by it, last
    string answer{}; // to its latest call, as the bus has handed it over
    std::deque<Timer> timers{};
    std::uint64_t lookBegan = 0;   // at timers, the latest; not before then
    std::uint64_t lookedUntil = 0; // timers due by then have had their turn

    void getsAnswer(const char *text, const string &asked) const;
    void isHanded(const string &about, const char *data, int length) const;
    void runs(Timer &timer);
};

inline long losses[2] = {};     // of messages and answers, that bus and nodes tell of in the log
inline bool nameIsLost = false; // by a loss of power: the key file's directory is not on the disk

void readLine(const string &line); // of the log, from the current thread

} // namespace simulation

#endif
