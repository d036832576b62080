// Transmit packets: a frame built in a pool buffer padded with 0xFF to a multiple of 8.
#include "link/codec/hci.h"
#include "os/debug_log.h"
#include "os/pool_tags.h"

_Use_decl_annotations_ hci_tx_packet* create_hci_tx_packet(UCHAR crc_flag, UCHAR pid, UCHAR sid,
                                                           const UCHAR* payload, USHORT payload_len)
{
    if ((payload_len != 0 && payload == NULL) || payload_len > HCI_PAYLOAD_MAX) {
        MvDbgPrint(DBG_ERROR, "invalid arguments\n");
        return NULL;
    }

    hci_tx_packet* packet =
        (hci_tx_packet*)ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(*packet), DRIVER_POOL_TAG);
    if (packet == NULL) {
        MvDbgPrint(DBG_ERROR, "failed to alloc packet struct\n");
        return NULL;
    }
    RtlZeroMemory(packet, sizeof(*packet));

    // The frame size rounded up to a multiple of 8.
    USHORT buffer_len =
        (USHORT)((((crc_flag != 0) + (payload_len != 0)) * 2 + 13 + payload_len) & 0xFFF8);
    PUCHAR buffer = (PUCHAR)ExAllocatePoolWithTag(NonPagedPoolNx, buffer_len, DRIVER_POOL_TAG);
    if (buffer == NULL) {
        MvDbgPrint(DBG_ERROR, "failed to alloc packet\n");
        ExFreePoolWithTag(packet, ANY_POOL_TAG);
        return NULL;
    }

    if (payload_len != 0) {
        packet->has_payload = 1;
        packet->payload = buffer + HCI_PAYLOAD_OFFSET;
        packet->payload_len = payload_len;
        packet->payload_len_copy = payload_len;
    }
    packet->sid = sid;
    packet->crc_flag = crc_flag;
    packet->pid = pid;
    packet->buffer = buffer;
    packet->buffer_len = buffer_len;

    // Bit 12 of a length of 4096 or more is not masked: it lands in a reserved bit of byte 1
    // and the chip rejects the frame, which is how an oversized command fails.
    ULONG length = (payload_len != 0 ? payload_len + 2 : 0) + 2;
    buffer[0] = HCI_SYNC;
    buffer[1] = (UCHAR)((length >> 8) | (crc_flag != 0 ? HCI_CRC_PRESENT : 0));
    buffer[2] = (UCHAR)(length & 0xFF);
    buffer[3] = pid;
    buffer[4] = sid;

    ULONG p = HCI_HEADER_SIZE;
    if (payload_len != 0) {
        buffer[5] = (UCHAR)(payload_len >> 8);
        buffer[6] = (UCHAR)(payload_len & 0xFF);
        RtlCopyMemory(buffer + HCI_PAYLOAD_OFFSET, payload, payload_len);
        p = payload_len + HCI_PAYLOAD_OFFSET;
    }
    if (crc_flag != 0) {
        USHORT crc = hci_crc16(buffer + 1, (USHORT)(p - 1));
        buffer[p] = (UCHAR)(crc >> 8);
        buffer[p + 1] = (UCHAR)(crc & 0xFF);
        p += 2;
    }
    buffer[p++] = HCI_TAIL;
    if (p < buffer_len) {
        RtlFillMemory(buffer + p, buffer_len - p, HCI_PAD);
    }
    return packet;
}

_Use_decl_annotations_ VOID free_hci_tx_packet(hci_tx_packet* packet)
{
    if (packet == NULL) {
        return;
    }
    if (packet->buffer != NULL) {
        ExFreePoolWithTag(packet->buffer, ANY_POOL_TAG);
        packet->payload = NULL;
        packet->buffer = NULL;
    }
    ExFreePoolWithTag(packet, ANY_POOL_TAG);
}
