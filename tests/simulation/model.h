// What the bus promises, beside the bus itself. The model is told what the application does and is
// handed, and reads the log: a warning or an error has to be one that the world explains. In an
// exact world (no shortage, no time limit, no stop, a sound disk) it also follows the bus message
// by message: what it takes, and what it must say and send then, to whom and in which order.
// Whatever differs ends the world.
#ifndef ZELVO_SIMULATION_MODEL_H
#define ZELVO_SIMULATION_MODEL_H

#include "program.h"

#include <deque>
#include <map>

namespace simulation {

struct Message {
    Node *node;        // that has sent it; null: the bus
    std::string trace; // in the log, from its action to the length of its payload
    std::string requestor{};
    std::uint64_t sent = world.now();

    std::string name() const; // of who has sent it
    std::string field(const std::string &which) const;
};

struct Timer {
    Node *node;
    int type;
    unsigned delay;
    bool hasFunction;
    std::uint64_t begun = world.now(); // when the call that sets it began; it is due after that
    int id = 0;                        // once that call has returned
    std::uint64_t set = kNever;        // when it had
    bool killed = false;               // somebody has asked for it
    bool gone = false;                 // it has run, or can't any more

    std::uint64_t due(std::uint64_t after) const { return (after / 1'000'000 + delay) * 1'000'000; }
    // Whether it must have run before a message is taken or another timer runs, where a look at the
    // timers that were there has found it due.
    bool isMissed(std::uint64_t there, std::uint64_t look) const {
        return !gone && !killed && hasFunction && set <= there && due(set) <= look;
    }
};

// From its connect to its close.
struct Node {
    std::string name;
    struct Actor *actor;
    bool leaves = false, drains = false; // it is going to; it has heard of that
    unsigned mayTake = 1000;             // messages, before it hears of that
    bool isBusy = true;                  // its thread has something else to do than to take one
    std::deque<Message> inbox{};         // what the bus has sent it
    std::string taken{};                 // by it, last
    std::string answer{};                // to its latest call, as the bus has handed it over
    std::deque<Timer> timers{};
    std::uint64_t lookBegan = 0;   // at timers, the latest; not before then
    std::uint64_t lookedUntil = 0; // timers due by then have had their turn

    void getsAnswer(const char *text, const std::string &asked) const;
    void isHanded(const std::string &about, const char *data, int length) const;
    void runs(Timer &timer);
};

inline long losses = 0;         // of messages and answers, that the log tells of
inline bool nameIsLost = false; // by a loss of power: the key file's directory is not on the disk

void readLine(const std::string &line); // of the log, from the current thread
void expectNothingOnItsWay();
void expectAllTaken(); // where nobody can go on

} // namespace simulation

#endif
