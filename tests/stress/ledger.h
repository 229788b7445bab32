// What the bus has counted, and whether it agrees with itself and with the program.
#ifndef ZELVO_STRESS_LEDGER_H
#define ZELVO_STRESS_LEDGER_H

#include "node.h"

#include <map>
#include <optional>

namespace stress {

// The numbers of the bus or of a node, by their names, which no two groups share.
struct Counters {
    std::string name;
    std::map<std::string, std::uint64_t> numbers;

    std::uint64_t operator[](const char *number) const { return numbers.at(number); }
};

struct Stats {
    Counters server;
    std::vector<Counters> nodes;
    Counters left;
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
void checkNode(Ledger &ledger, const Plan &plan, const Counters &stats, const Tally &tally);

// Everything, after all nodes but the observer have been closed.
void checkSums(Ledger &ledger, const World &world, const Stats &stats);

} // namespace stress

#endif
