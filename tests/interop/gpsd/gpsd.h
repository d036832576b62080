// Debian's gpsd for one device, with gpspipe watching it, on a port of its own: the reports
// a GPS application would get from that device.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/process.h"

namespace mvgps::test
{

// Why the gpsd tests cannot run here, or empty.
std::string gpsd_missing();

class Gpsd
{
  public:
    // gpsd opens the device when gpspipe asks to watch it, as it would for any client.
    static std::unique_ptr<Gpsd> start(const std::string& device, const TempDir& dir,
                                       const std::string& name);
    // Once gpsd has the device open and active.
    bool wait_active();
    // Until no new report has come for a while; then gpsd and gpspipe are stopped.
    void finish();
    // The TPV reports so far, with the fields two runs over the same sentences must share.
    std::vector<nlohmann::json> tpv() const;
    std::string output() const { return read_file(output_); }

  private:
    std::string output_;
    std::unique_ptr<Process> gpsd_;
    std::unique_ptr<Process> pipe_;
};

// A pseudo-terminal that a test writes NMEA into, as a plain cat into a serial line would;
// its slave is open to gpsd's group, as a serial port is.
class FeedPty
{
  public:
    FeedPty();
    ~FeedPty();
    const std::string& path() const { return path_; }
    // Once the reader has stopped changing the line settings (gpsd tries a few, flushing
    // what waits each time).
    bool wait_settled();
    void write(const std::string& bytes);

  private:
    int master_ = -1;
    std::string path_;
};

} // namespace mvgps::test
