// Runs its arguments through ProcessRunner and waits for the child, so that a test can kill
// this process while the child runs: tessarin_runner_hold_tool PROGRAM [ARGUMENTS...]
#include <cstdio>
#include <string>
#include <vector>

#include "engine/process/ProcessRunner.hpp"

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: tessarin_runner_hold_tool PROGRAM [ARGUMENTS...]\n", stderr);
        return 2;
    }
    const std::vector<std::string> arguments(argv + 2, argv + argc);
    tessarin::engine::ProcessRunner runner;
    return runner.run(argv[1], arguments).exitCode;
}
