// Runs the mvgps program as a child process and collects what it printed.
#pragma once

#include <string>
#include <vector>

namespace mvgps::test
{

struct Outcome {
    int status = -1; // the exit status; -1 when it did not exit by itself
    std::string out;
};

// stdout only; stderr goes where the test's goes.
Outcome run_program(const std::vector<std::string>& args);

} // namespace mvgps::test
