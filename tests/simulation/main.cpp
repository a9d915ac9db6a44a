/// Runs simulated units, one for each seed, until one of them breaks a rule.
#include "world.h"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

namespace {

struct Options {
    std::uint64_t first = 1;
    std::optional<std::uint64_t> seeds;
    std::optional<std::uint64_t> seconds;
    std::optional<std::uint64_t> only;
    bool isTraced = false;
};

constexpr const char* usage =
    "Usage: simulation [--first SEED] [--seeds N] [--seconds S]\n"
    "       simulation --seed SEED [--trace]\n"
    "Runs a simulated unit for each of the seeds FIRST, FIRST + 1, ... until N have run, S seconds are "
    "over,\n"
    "or one of them fails; without limits for 10 seconds. Ends with 0, or with 1 when a seed failed.\n";

std::optional<std::uint64_t> toNumber(const char* text)
{
    std::uint64_t number = 0;
    const char* end = text + std::strlen(text);
    const auto result = std::from_chars(text, end, number);
    return result.ec == std::errc() && result.ptr == end ? std::optional(number) : std::nullopt;
}

std::optional<Options> parse(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--trace") {
            options.isTraced = true;
            continue;
        }
        const auto value = i + 1 < argc ? toNumber(argv[++i]) : std::nullopt;
        if (!value) {
            return {};
        }
        if (name == "--first") {
            options.first = *value;
        } else if (name == "--seeds") {
            options.seeds = value;
        } else if (name == "--seconds") {
            options.seconds = value;
        } else if (name == "--seed") {
            options.only = value;
        } else {
            return {};
        }
    }
    return options;
}

/// False, with the command that shows it again, when the seed breaks a rule.
bool runSeed(std::uint64_t seed, bool isTraced, const char* program, std::uint64_t& steps)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    sim::World world(seed, isTraced);
    try {
        world.run();
    } catch (const std::exception& e) {
        std::printf("FAILED in step %u: %s\nTo see it: %s --seed %llu --trace\n", world.steps(), e.what(),
                    program, static_cast<unsigned long long>(seed));
        return false;
    }
    steps += world.steps();
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    auto options = parse(argc, argv);
    if (!options) {
        std::fputs(usage, stderr);
        return 2;
    }
    std::uint64_t steps = 0;
    if (options->only) {
        return runSeed(*options->only, options->isTraced, argv[0], steps) ? 0 : 1;
    }
    if (!options->seeds && !options->seconds) {
        options->seconds = 10;
    }
    const auto begin = std::chrono::steady_clock::now();
    const auto elapsed = [begin] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    };
    std::uint64_t done = 0;
    while ((!options->seeds || done < *options->seeds) &&
           (!options->seconds || elapsed() < static_cast<double>(*options->seconds))) {
        if (!runSeed(options->first + done, options->isTraced, argv[0], steps)) {
            return 1;
        }
        ++done;
    }
    std::printf("%llu seeds from %llu, %llu steps, %.1f s: no rule was broken\n",
                static_cast<unsigned long long>(done), static_cast<unsigned long long>(options->first),
                static_cast<unsigned long long>(steps), elapsed());
    return 0;
}
