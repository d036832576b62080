// A reply printed for a person (a status line, then what the output means) or as one JSON
// object a line.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "tools/ctl/ctl.h"

namespace mvgps::ctl
{

// One control request as a subcommand built it.
struct Request {
    std::string command; // the subcommand's name
    std::uint32_t code = 0;
    std::vector<std::uint8_t> input;
    std::uint32_t output_length = 0;
};

// Prints the reply. `frame` numbers the replies of a read loop from 1: their text leaves out
// the status line while the reads succeed, their JSON carries the number.
void report(std::ostream& out, bool json, const Request& request, const Reply& reply,
            std::uint64_t frame = 0);

} // namespace mvgps::ctl
