// What the application of a simulated world does: operations over the public header, which follow
// from the world's number, and the threads and handlers that carry them out.
#ifndef ZELVO_SIMULATION_PROGRAM_H
#define ZELVO_SIMULATION_PROGRAM_H

#include "world.h"

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

} // namespace simulation

#endif
