#include "program.h"

#include <sys/wait.h>

#include <cstdio>

namespace mvgps::test
{

Outcome run_program(const std::vector<std::string>& args)
{
    std::string command = MVGPS_PROGRAM;
    for (const std::string& a : args) {
        command += " '" + a + "'";
    }
    Outcome o;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return o;
    }
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;) {
        o.out.append(chunk, n);
    }
    const int status = pclose(pipe);
    o.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return o;
}

} // namespace mvgps::test
