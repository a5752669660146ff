#pragma once
// The crash-point sweep: one scripted workload through the real Tarrow.exe and the stand-in agent,
// run once per file step of the service (each write, flush, open, rename and delete of a
// credential file or holder list, and the call right after it), each time with the service killed
// at that step (strace injects SIGKILL at the step's call in the step's thread), then started again
// to let the workload finish; every run is checked for lost, early and doubly held credentials.

#include "soak/SoakOptions.h"

namespace soak {

// --steps N: at most N steps, spread over the whole workload (0: every step); --shards N --shard I:
// the I-th of N parts of them.
int RunCrashSweep(const Options& options);
// The process that shows the sweep which Wine server request deletes a file through its handle.
int RunDeleteCalibration();

}  // namespace soak
