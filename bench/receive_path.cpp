#include "receive_path.h"

#include "link/codec/hci.h"

namespace mvgps::bench
{
namespace
{

LONG count_frame(const UCHAR*, USHORT, UCHAR, PVOID context)
{
    ++*static_cast<std::size_t*>(context);
    return 0;
}

} // namespace

std::size_t receive_stream(const NmeaStream& stream)
{
    hci_circ circ;
    init_hci_circ(&circ);
    set_pkt_parse_callback(count_frame);
    std::size_t delivered = 0;
    const std::uint8_t* read = stream.bytes.data();
    for (std::size_t n : stream.reads) {
        recv_hci_buffer(read, static_cast<USHORT>(n), &delivered, &circ);
        read += n;
    }
    return delivered;
}

} // namespace mvgps::bench
