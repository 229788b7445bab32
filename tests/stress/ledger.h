// What the bus has counted, and whether it agrees with itself and with the program.
#ifndef ZELVO_STRESS_LEDGER_H
#define ZELVO_STRESS_LEDGER_H

#include "node.h"

#include <optional>

namespace stress {

struct NodeStats {
    std::string name;
    std::uint64_t taken = 0;
    std::uint64_t sent = 0;
    std::uint64_t bus_full = 0;
    std::uint64_t own_full = 0;
    std::uint64_t no_memory = 0;
    std::uint64_t unread = 0;
    std::uint64_t made = 0;
    std::uint64_t answered = 0;
    std::uint64_t refused = 0;
    std::uint64_t timed_out = 0;
    std::uint64_t timers = 0;
};

struct Stats {
    std::uint64_t taken = 0;
    std::uint64_t sent = 0;
    std::uint64_t posted = 0;
    std::uint64_t depth = 0;
    std::vector<NodeStats> nodes;
    NodeStats left;
};

// Reads the answer of "/bus/stats"; nothing: it is something else.
std::optional<Stats> readStats(const char *text);

// Collects what does not balance.
class Ledger {
public:
    void equal(const std::string &what, std::uint64_t left, std::uint64_t right) {
        between(what, left, right, right);
    }
    void between(const std::string &what, std::uint64_t value, std::uint64_t least,
                 std::uint64_t most);
    const std::string &faults() const { return faults_; }

private:
    std::string faults_;
};

// All messages, where the statistics name every node that has not been freed, and nothing waits.
// observer is the node that has asked for them; its request is under way.
void checkMessages(Ledger &ledger, const Stats &stats, const std::string &observer);

// One node that is still on the bus while nothing goes on, against the program's own count of it.
void checkNode(Ledger &ledger, const Plan &plan, const NodeStats &stats, const Tally &tally);

// Everything, after all nodes but the observer have been closed.
void checkSums(Ledger &ledger, const World &world, const Stats &stats);

} // namespace stress

#endif
