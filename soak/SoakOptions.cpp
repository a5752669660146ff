#include "soak/SoakOptions.h"

#include "soak/SoakService.h"

#include <cwchar>

namespace soak {

Options ParseOptions(int argc, wchar_t** argv, int first) {
    Options options;
    options.seed = DefaultSeed();
    struct Named {
        const wchar_t* name;
        unsigned long* value;
    };
    unsigned long seed = options.seed;
    const Named named[] = {
        {L"--seed", &seed},           {L"--rounds", &options.rounds},   {L"--holders", &options.holders},
        {L"--calls", &options.calls}, {L"--clients", &options.clients}, {L"--files", &options.files},
        {L"--batch", &options.batch}, {L"--steps", &options.steps},     {L"--shards", &options.shards},
        {L"--shard", &options.shard}};
    for (int i = first; i < argc; ++i) {
        const Named* found = nullptr;
        for (const Named& n : named)
            if (std::wcscmp(argv[i], n.name) == 0) found = &n;
        if (!found) {
            options.words.emplace_back(argv[i]);
            continue;
        }
        wchar_t* end = nullptr;
        if (i + 1 >= argc || (*found->value = std::wcstoul(argv[i + 1], &end, 10), *end != L'\0')) {
            options.error = std::wstring(found->name) + L" takes a number";
            return options;
        }
        ++i;
    }
    options.seed = static_cast<unsigned>(seed);
    if (options.holders == 0 || options.clients == 0 || options.batch == 0 || options.shards == 0)
        options.error = L"sizes must be positive";
    else if (options.shard >= options.shards)
        options.error = L"--shard counts from 0 and must be below --shards";
    return options;
}

}  // namespace soak
