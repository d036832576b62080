// Commands to the chip: one frame written whole under the transmit mutex and, when the
// sender asks for it, acknowledged by the chip with the same pid and sid.
#include "link/device/command.h"
#include "uart/uart.h"

// The helpers below print under the name of the routine they work for.
#define SEND_FN "send_hci_tx_internal_core"

static VOID trace_tx_start(const hci_tx_packet* packet)
{
    // A frame without payload is 8 bytes: the trace shows zeros after its end rather than
    // reading past the buffer.
    UCHAR b[HCI_TX_TRACE_BYTES] = {};
    RtlCopyMemory(b, packet->buffer,
                  packet->buffer_len < sizeof(b) ? packet->buffer_len : sizeof(b));
    MvDbgPrintAs(SEND_FN, DBG_ERROR,
                 " IOCTL_VC_SET_LOG_GPS_SENDCMD!%02x,%02x,%02x,%02x,%02x,%02x,%02x,%02x,%02x,%02x,"
                 "%02x,%02x,%02x,%02x,%02x,%02x",
                 b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12],
                 b[13], b[14], b[15]);
}

// What one attempt ended with.
enum class tx_step { done, resend };

// The acknowledgement is in AckBuffer: accepted ends the command, rejected sends it again.
// The signal stays set after a rejection, so later attempts see this frame again at once
// unless a newer matching one replaces it.
static tx_step take_ack(FdoExtension* Context, PUCHAR answer)
{
    PUCHAR ack = Context->AckBuffer;
    // err_status is read at its fixed place, inside any buffer device set-up allocates.
    NT_ASSERT(Context->AckBufferSize > HCI_ACK_STATUS_OFFSET + 3);
    MvDbgPrintAs(SEND_FN, DBG_OS, "    RECV ACK, pid, sid: [0x%02x, 0x%02x], Len [%u]\n", ack[3],
                 ack[4], Context->AckLength);
    if (Context->AckLength == 0) {
        MvDbgPrintAs(SEND_FN, DBG_OS, "    RECEIVE CUR ACK LEN IS ZERO\n");
    }
    ULONG err_status =
        get_u32_ordered(ack[HCI_ACK_STATUS_OFFSET], ack[HCI_ACK_STATUS_OFFSET + 1],
                        ack[HCI_ACK_STATUS_OFFSET + 2], ack[HCI_ACK_STATUS_OFFSET + 3]);
    if (err_status != 0) {
        MvDbgPrintAs(SEND_FN, DBG_ERROR,
                     "ack len %d, err_status %08x, re-send (pid %02x, sid %02x)",
                     Context->AckLength, err_status, ack[3], ack[4]);
        hci_hex_dump(ack, Context->AckLength);
        return tx_step::resend;
    }
    MvDbgPrintAs(SEND_FN, DBG_ERROR, "    send pkt successfully, err_status [%08x]\n", 0);
    if (answer != NULL) {
        MvDbgPrintAs(SEND_FN, DBG_OS, "    copy, len %d\n", Context->AckLength);
        // answer holds FDO_ACK_BUFFER_SIZE bytes, whatever size AckBuffer was given.
        RtlCopyMemory(answer, ack,
                      Context->AckLength < FDO_ACK_BUFFER_SIZE ? Context->AckLength
                                                               : FDO_ACK_BUFFER_SIZE);
    }
    return tx_step::done;
}

// One write and, with wait_ack, one wait. *result is what the command returns if this
// attempt is its last.
static tx_step tx_attempt(FdoExtension* Context, hci_tx_packet* packet, LONG a, ULONG wait_ack,
                          PUCHAR answer, LONG* result)
{
    if (a > 0) {
        MvDbgPrintAs(SEND_FN, DBG_OS, "time [%d] tx hci cmd, pid 0x%02x sid 0x%02x", a, packet->pid,
                     packet->sid);
    }
    ULONG_PTR written = 0;
    MvDbgPrintAs(SEND_FN, DBG_ERROR, "hci_pkt_length(0x%x)", packet->buffer_len);
    NTSTATUS status =
        FdoWriteToDeviceSyncWithTimeOut(Context->UartIoTarget, Context->UartRequest, 0,
                                        packet->buffer_len, packet->buffer, &written, 1);
    if (!NT_SUCCESS(status)) {
        MvDbgPrintAs(SEND_FN, DBG_ERROR, "%s: write err,  io_ret(%lx)\n", "funcx",
                     (unsigned long)status);
        *result = -1;
        return tx_step::done;
    }
    if (wait_ack == 0) {
        MvDbgPrintAs(SEND_FN, DBG_OS, "asynchronious writing, pid %02x, sid %02x", packet->pid,
                     packet->sid);
        *result = 0;
        return tx_step::done;
    }

    // The ids go first: the receive path that sees the flag raised sees this command's ids.
    WriteUCharRelease(&Context->WaitAckPid, packet->buffer[3]);
    WriteUCharRelease(&Context->WaitAckSid, packet->buffer[4]);
    WriteUCharRelease(&Context->WaitAck_flag, 1);
    MvDbgPrintAs(SEND_FN, DBG_ERROR, "pid is:%02x,sid is:%02x", packet->buffer[3],
                 packet->buffer[4]);
    MvDbgPrintAs(SEND_FN, DBG_OS, "    waiting ack\n");

    OS_STATUS w = OsWaitForSignal(Context->DeviceAssocFinishSignal, HCI_ACK_TIMEOUT_MS);
    MvDbgPrintAs(SEND_FN, DBG_ERROR, "retcode is: %d", w);
    if (w == OS_SUCCESS) {
        *result = 0;
        return take_ack(Context, answer);
    }
    if (w == OS_WAIT_TIMEOUT) {
        MvDbgPrintAs(SEND_FN, DBG_ERROR, "%dst timed out, pid %02x, sid %02x, try again", a,
                     packet->buffer[3], packet->buffer[4]);
        *result = 3;
        return tx_step::resend;
    }
    // The attempt number stands where the pid is named.
    MvDbgPrintAs(SEND_FN, DBG_ERROR, "error happended except for timeout,pid %02x, sid %02x", a,
                 packet->buffer[3]);
    *result = (LONG)w;
    return tx_step::done;
}

_Use_decl_annotations_ LONG send_hci_tx_internal_core(FdoExtension* Context, hci_tx_packet* packet,
                                                      ULONG wait_ack, PUCHAR answer, UCHAR last)
{
    UNREFERENCED_PARAMETER(last);
    MvDbgPrint(DBG_ERROR, "Begin: send_hci_tx_internal_core!");
    trace_tx_start(packet);

    OsAcquireMutex(Context->hci_wr_mutex);
    LONG result = 0;
    for (LONG a = 0; a < HCI_TX_ATTEMPTS; a++) {
        if (tx_attempt(Context, packet, a, wait_ack, answer, &result) == tx_step::done) {
            break;
        }
        OsDelay(HCI_RESEND_DELAY_MS);
    }

    WriteUCharRelease(&Context->WaitAck_flag, 0);
    OsReleaseMutex(Context->hci_wr_mutex);
    MvDbgPrint(DBG_OS, "------ %s: -x retcode %d------\n", "funcx", result);
    MvDbgPrint(DBG_ERROR, "End: send_hci_tx_internal_core!");
    OsClearSignal(Context->DeviceAssocFinishSignal);
    return result;
}

_Use_decl_annotations_ LONG xfer_hci_pkt_core(FdoExtension* Context, ULONG wait_ack, UCHAR crc_flag,
                                              UCHAR pid, UCHAR sid, const UCHAR* payload,
                                              USHORT payload_len, PUCHAR answer, UCHAR last)
{
    MvDbgPrint(DBG_ERROR, "Begin: xfer_hci_pkt_core!");
    if (payload == NULL || payload_len == 0) {
        payload = NULL;
        payload_len = 0;
    }
    hci_tx_packet* packet = create_hci_tx_packet(crc_flag, pid, sid, payload, payload_len);
    if (packet == NULL) {
        return -1;
    }
    LONG result = send_hci_tx_internal_core(Context, packet, wait_ack, answer, last);
    free_hci_tx_packet(packet);
    MvDbgPrint(DBG_ERROR, "End: xfer_hci_pkt_core!");
    MvDbgPrint(DBG_OS, "ret =%d ", result);
    return result;
}
