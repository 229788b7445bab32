// Whether what the bus has counted agrees with itself and with the program.
#ifndef ZELVO_STRESS_LEDGER_H
#define ZELVO_STRESS_LEDGER_H

#include "node.h"

namespace stress {

// What does not balance, a line each, of the answer of "/bus/stats" to the observer, the only node
// that has not been closed.
std::string imbalance(const World &world, const std::string &stats);

} // namespace stress

#endif
