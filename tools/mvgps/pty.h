// The pseudo-terminal `mvgps run` writes the driver's NMEA to, one sentence a line, for
// gpsd or any serial NMEA reader to open at its slave path.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace mvgps::tool
{

class NmeaPty
{
  public:
    // A new pty in raw mode, its slave also reachable at `link` when one is given. The slave
    // belongs to group dialout, like a serial port, so a GPS daemon that gave up root can open
    // it.
    static std::unique_ptr<NmeaPty> open(const std::string& link, std::string& error);
    ~NmeaPty();
    NmeaPty(const NmeaPty&) = delete;
    NmeaPty& operator=(const NmeaPty&) = delete;

    const std::string& path() const { return path_; }
    // Whether a reader has the slave open now.
    bool reader_present() const;
    // The line settings as the reader left them: a reader such as gpsd tries a few before it
    // settles, and flushes what was waiting each time.
    std::string settings() const;
    // The sentence and CRLF; false when it was dropped, for want of a reader or because the
    // reader is too slow.
    bool write(const std::string& sentence);
    std::uint64_t dropped() const { return dropped_; }

  private:
    NmeaPty(int master, std::string path, std::string link);

    const int master_;
    const std::string path_;
    const std::string link_;
    std::uint64_t dropped_ = 0;
};

} // namespace mvgps::tool
