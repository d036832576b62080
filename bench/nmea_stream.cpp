#include "nmea_stream.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "link/codec/hci.h"

namespace mvgps::bench
{
namespace
{

std::vector<std::string> sentences(const std::filesystem::path& dir)
{
    std::vector<std::filesystem::path> logs;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().extension() == ".log") {
            logs.push_back(entry.path());
        }
    }
    std::sort(logs.begin(), logs.end());
    std::vector<std::string> out;
    for (const auto& path : logs) {
        std::ifstream in(path, std::ios::binary);
        for (std::string line; std::getline(in, line);) {
            while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) {
                line.pop_back();
            }
            if (!line.empty() && (line[0] == '$' || line[0] == '!')) {
                out.push_back(line + "\r\n");
            }
        }
    }
    return out;
}

void append_frame(std::vector<std::uint8_t>& bytes, std::uint8_t pid, const std::string& payload)
{
    hci_tx_packet* packet =
        create_hci_tx_packet(1, pid, 0, reinterpret_cast<const UCHAR*>(payload.data()),
                             static_cast<USHORT>(payload.size()));
    if (packet != nullptr) {
        bytes.insert(bytes.end(), packet->buffer, packet->buffer + packet->buffer_len);
        free_hci_tx_packet(packet);
    }
}

} // namespace

NmeaStream make_nmea_stream(std::uint64_t seed, std::string& error)
{
    const char* env = std::getenv("MVGPS_NMEA_DIR");
    const std::filesystem::path dir = env != nullptr ? env : MVGPS_NMEA_DIR;
    NmeaStream stream;
    std::error_code ec;
    if (!std::filesystem::is_directory(dir, ec)) {
        error = "no NMEA captures in " + dir.string() + " (set MVGPS_NMEA_DIR)";
        return stream;
    }
    const std::vector<std::string> lines = sentences(dir);
    for (std::size_t i = 0; i < lines.size(); i++) {
        append_frame(stream.bytes, HCI_PID_NMEA, lines[i]);
        stream.frames++;
        if (i % 10 == 9) {
            append_frame(stream.bytes, HCI_PID_STATUS, std::string(8, '\x01'));
            stream.frames++;
        }
    }
    std::mt19937_64 random(seed);
    for (std::size_t at = 0; at < stream.bytes.size();) {
        const std::size_t n = std::min<std::size_t>(1 + random() % 2048, stream.bytes.size() - at);
        stream.reads.push_back(n);
        at += n;
    }
    if (stream.frames == 0) {
        error = "no NMEA sentences in " + dir.string();
    }
    return stream;
}

} // namespace mvgps::bench
