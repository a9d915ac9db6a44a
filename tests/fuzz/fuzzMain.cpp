/// Searches, when it is built with the fuzzer, as the fuzzer's own options tell; else replays:
///
///   PROGRAM TARGET CORPUS   each input of a corpus, a line of hexadecimal digits each
///   PROGRAM --dictionary    prints the numbers of all interfaces, as the fuzzer wants them
///   PROGRAM --list          prints the targets
#include "fuzzTarget.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <google/protobuf/stubs/logging.h>
#include <iostream>
#include <memory>

namespace fuzz {

void require(bool holds, const char* rule)
{
    if (!holds) {
        (void)std::fprintf(stderr, "Broken: %s\n", rule);
        std::abort();
    }
}

namespace {

const Target* find(const char* name)
{
    for (const Target& target : targets) {
        if (name != nullptr && std::strcmp(target.name, name) == 0) {
            return &target;
        }
    }
    return nullptr;
}

/// In a heap block of exactly its size, so that a byte too many is noticed.
Form run(const Target& target, std::span<const std::uint8_t> bytes)
{
    const std::unique_ptr<std::uint8_t[]> block(new std::uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), block.get());
    google::protobuf::SetLogHandler(nullptr); // most bodies are no messages
    Input input(std::span<const std::uint8_t>(block.get(), bytes.size()));
    target.run(input);
    return input.takeForm();
}

/// What the first argument asks for besides a target; false when it is none of that.
bool tell(const char* argument)
{
    if (std::strcmp(argument, "--dictionary") == 0) {
        for (const std::string& line : dictionary()) {
            std::cout << line << '\n';
        }
        return true;
    }
    if (std::strcmp(argument, "--list") == 0) {
        for (const Target& target : targets) {
            std::cout << target.name << '\n';
        }
        return true;
    }
    return false;
}

#ifndef MERLOW_FUZZ
int valueOf(char digit)
{
    constexpr const char* digits = "0123456789abcdef";
    const char* const found = digit == 0 ? nullptr : std::strchr(digits, digit);
    require(found != nullptr, "a corpus is lines of small hexadecimal digits");
    return static_cast<int>(found - digits);
}

int replay(const Target& target, const char* corpus)
{
    std::ifstream file(corpus);
    unsigned int inputs = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with('#')) {
            continue;
        }
        Bytes bytes;
        require(line.size() % 2 == 0, "an input is whole bytes");
        for (std::size_t i = 0; i < line.size(); i += 2) {
            bytes.push_back(static_cast<std::uint8_t>(valueOf(line[i]) * 16 + valueOf(line[i + 1])));
        }
        static_cast<void>(run(target, bytes));
        ++inputs;
    }
    std::cout << inputs << " inputs\n";
    require(inputs > 0, "a corpus has inputs");
    return 0;
}
#endif

} // namespace
} // namespace fuzz

#ifdef MERLOW_FUZZ
namespace {

const fuzz::Target* chosen = nullptr;

} // namespace

// The fuzzer starts this program again, with its own arguments only: the target is in the environment.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    if (*argc > 1 && fuzz::tell((*argv)[1])) {
        std::exit(0);
    }
    if (*argc > 1 && fuzz::find((*argv)[1]) != nullptr) {
        setenv("MERLOW_FUZZ_TARGET", (*argv)[1], 1);
        (*argv)[1] = (*argv)[0];
        ++*argv;
        --*argc;
    }
    chosen = fuzz::find(std::getenv("MERLOW_FUZZ_TARGET"));
    fuzz::require(chosen != nullptr, "the first argument is a target");
    return 0;
}

fuzz::Form fuzz::runOn(std::span<const std::uint8_t> bytes)
{
    return run(*chosen, bytes);
}
#else
int main(int argc, char** argv)
{
    if (argc == 2 && fuzz::tell(argv[1])) {
        return 0;
    }
    const fuzz::Target* const target = argc == 3 ? fuzz::find(argv[1]) : nullptr;
    if (target == nullptr) {
        std::cerr << "usage: " << argv[0] << " TARGET CORPUS | --dictionary | --list\n";
        return 2;
    }
    return fuzz::replay(*target, argv[2]);
}
#endif
