// A recorded NMEA capture, cut into epochs for playback.
//
// Lines starting with '#' are the capture's comments and are skipped; CRLF and LF endings
// both occur and are dropped. Every other line is one sentence, kept as recorded (broken
// ones included: a real receiver sends those too). An epoch is what one fix produces: it
// runs until a GGA or RMC sentence carries a different time, or until one of those two
// types repeats. The epoch period is the usual step between epoch times (1 s when the
// capture does not show one).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/sched/sched.h"

namespace mvgps::sim::chip
{

struct Epoch {
    std::vector<std::string> sentences;
};

class Capture
{
  public:
    static Capture parse(std::string_view text);
    // Empty when the file cannot be read or holds no sentence.
    static std::optional<Capture> load(const std::string& path);

    const std::vector<Epoch>& epochs() const { return epochs_; }
    sched::Nanos period() const { return period_; }
    std::size_t sentence_count() const;

  private:
    std::vector<Epoch> epochs_;
    sched::Nanos period_ = sched::kSecond;
};

// Milliseconds of the day in a GGA or RMC sentence's time field, if it has a valid one.
std::optional<long> sentence_time(std::string_view sentence);

} // namespace mvgps::sim::chip
