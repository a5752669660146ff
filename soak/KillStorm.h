#pragma once
// Kill storm: rounds of holder processes that register, take over, release and exit at random
// while Tarrow is ended by force at random moments and started again; afterwards every credential
// Tarrow accepted must have reached the agent's journal at least once.

#include "soak/SoakOptions.h"

namespace soak {

// The orchestrating process. 0 when nothing was lost and nothing was left behind.
int RunKillStorm(const Options& options);
// One holder process: words = seed, round, index, ledger path.
int RunHolder(const Options& options);

}  // namespace soak
