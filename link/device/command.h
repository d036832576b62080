// The link's work over a device: commands sent to the chip and acknowledged by it, the
// handling of every frame the receive path completes, and chip memory access built on both.
//
// Results are signed 32-bit: 0 success, -1 a local failure (no frame built, a failed write,
// a refused argument), 3 no acknowledgement after every attempt, another positive value a
// failed wait (the OS_* codes).
#pragma once

#include "driver/driver.h"

// Attempts of one acknowledged command, each waiting this long, with a pause between them.
#define HCI_TX_ATTEMPTS 5
#define HCI_ACK_TIMEOUT_MS 1000
#define HCI_RESEND_DELAY_MS 50
// Bytes of the first transmit line that the send trace shows.
#define HCI_TX_TRACE_BYTES 16

// Frame offsets of an acknowledgement: err_status, then the data of a memory read.
#define HCI_ACK_STATUS_OFFSET 7
#define HCI_ACK_DATA_OFFSET 11

// Memory commands and the largest write that fits the 2048-byte work buffer after the
// 4-byte address.
#define HCI_MEM_WORK_SIZE 2048
#define HCI_MEM_WRITE_MAX (HCI_MEM_WORK_SIZE - 4)
#define HCI_CHIP_GUARD_REGISTER 0xB9002212u
#define HCI_CHIP_CTRL_BYTE 0xB9002214u
#define HCI_CHIP_GUARD_VALUE 10

// Builds the frame, writes it (and its 0xFF padding) to the UART under hci_wr_mutex and,
// with wait_ack 1, waits for the acknowledgement with the same pid and sid, resending after a
// timeout or a rejection (err_status not 0). A null payload or payload_len 0 sends none.
// answer, when not null, receives the whole acknowledgement frame and must hold
// FDO_ACK_BUFFER_SIZE bytes. last is accepted and not used.
_IRQL_requires_max_(PASSIVE_LEVEL) LONG
    xfer_hci_pkt_core(FdoExtension* Context, ULONG wait_ack, UCHAR crc_flag, UCHAR pid, UCHAR sid,
                      const UCHAR* payload, USHORT payload_len, PUCHAR answer, UCHAR last);
// The transmission of a built packet; the caller keeps and frees the packet.
_IRQL_requires_max_(PASSIVE_LEVEL) LONG
    send_hci_tx_internal_core(FdoExtension* Context, hci_tx_packet* packet, ULONG wait_ack,
                              PUCHAR answer, UCHAR last);

// The receive path's frame handler (a pkt_parse_callback_fn; context is the FdoExtension):
// wakes the sender awaiting this acknowledgement, queues the frame for client reads unless
// its pid is HCI_PID_STATUS, and completes the pending command request it answers.
// Always 0.
LONG local_process_pkt(const UCHAR* frame, USHORT len, UCHAR crc_flag, PVOID context);

// Memory write (pid 5): the sid gives the access width. -1 for a null buffer, a length above
// HCI_MEM_WRITE_MAX or no work buffer; else xfer_hci_pkt_core's result.
_IRQL_requires_max_(PASSIVE_LEVEL) LONG
    hci_write_mem_core(FdoExtension* Context, ULONG address, const UCHAR* data, USHORT len,
                       UCHAR last);
// Memory read (pid 4): len bytes into out (when not null). -1 for a length above
// HCI_MEM_READ_MAX, sending nothing; else xfer_hci_pkt_core's result.
_IRQL_requires_max_(PASSIVE_LEVEL) LONG
    hci_read_mem_core(FdoExtension* Context, ULONG address, USHORT len, PUCHAR out, UCHAR last);
// The chip's control byte, or 0 when it cannot be read.
_IRQL_requires_max_(PASSIVE_LEVEL) UCHAR read_chip_ctrl_byte(FdoExtension* Context);
// Writes one byte and reads it back: 0 when it reads back as written, else -1.
_IRQL_requires_max_(PASSIVE_LEVEL) LONG
    hci_write_byte_verify(FdoExtension* Context, ULONG address, UCHAR value);
// Opens the guard register and writes the control byte: 0 or -1.
_IRQL_requires_max_(PASSIVE_LEVEL) LONG set_chip_ctrl_byte(FdoExtension* Context, UCHAR value);
