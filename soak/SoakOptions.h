#pragma once
// The soak program's command line: a mode, then options that every mode accepts (each takes the
// ones it needs), so that one line can size all three.

#include <string>
#include <vector>

namespace soak {

struct Options {
    unsigned seed = 0;
    unsigned long rounds = 100;       // kill storm
    unsigned long holders = 16;       // kill storm: holder processes per round
    unsigned long calls = 100000;     // hostile calls, over all clients
    unsigned long clients = 4;        // hostile calls: client processes at once
    unsigned long files = 1000000;    // parser run
    unsigned long batch = 1000;       // parser run: files per start-up enumeration
    unsigned long steps = 0;          // crash sweep: at most this many steps, spread (0: all)
    unsigned long shards = 1;         // crash sweep: the plan is split into this many runs at once
    unsigned long shard = 0;          // crash sweep: which of them this run sweeps
    std::vector<std::wstring> words;  // the arguments of the internal modes
    std::wstring error;
};

// argv[first..]: --seed N, --rounds N, --holders N, --calls N, --clients N, --files N, --batch N,
// --steps N, --shards N, --shard N;
// any other word is kept in `words`.
Options ParseOptions(int argc, wchar_t** argv, int first);

}  // namespace soak
