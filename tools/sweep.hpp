// sweep.hpp - 'tcamwrap-sim sweep': the seeded workload (sweep_workload.hpp)
// killed at every crash point it passes, and run with every store call and
// every forwarding-driver write failing once; after each run a new client
// restarts with restore and the whole card is verified (card_model.hpp).
//
// Processes: the parent never starts the library (nor opens a card). Per card
// it has a template state directory made, then forks J job runners, which take
// runs from a shared counter. A run forks its clients: one that runs the
// workload until the fault injector kills it (or to the end, with a failing
// call), then one that restarts and verifies; a second-crash run also kills a
// restart at each of its points first. Clients report through shared memory.
#pragma once

#include <vector>

#include "cli_args.hpp"

namespace tcamwrap::cli
{

int cmd_sweep(const Args &args);
// The sweep's options, and the ones that each name a single run.
std::vector<OptionDef> sweep_options();
std::vector<Exclusive> sweep_exclusive();

} // namespace tcamwrap::cli
