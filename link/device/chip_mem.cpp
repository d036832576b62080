// Chip memory and registers through the memory write (pid 5) and read (pid 4) commands.
#include "link/device/command.h"

#define HCI_MEM_READ_PAYLOAD 6

// The acknowledgement of the last read; reads run one at a time (chip start-up).
static UCHAR hci_mem_answer[FDO_ACK_BUFFER_SIZE];

// The access width: 1, 2 and 4 bytes have their own sids; other lengths are word transfers
// when address and length are word aligned, else byte transfers.
static UCHAR mem_write_sid(ULONG address, USHORT len)
{
    switch (len) {
    case 1:
        return 1;
    case 2:
        return 2;
    case 4:
        return 3;
    default:
        return (address % 4 == 0 && len % 4 == 0) ? 4 : 0;
    }
}

_Use_decl_annotations_ LONG hci_write_mem_core(FdoExtension* Context, ULONG address,
                                               const UCHAR* data, USHORT len, UCHAR last)
{
    MvDbgPrint(DBG_ERROR, "Begin: hci_write_mem_core!");
    if (data == NULL) {
        MvDbgPrint(DBG_ERROR, "%s: buf is null", "funcx");
        return -1;
    }
    // The address and the data must fit the work buffer.
    if (len > HCI_MEM_WRITE_MAX) {
        return -1;
    }
    PUCHAR work = (PUCHAR)ExAllocatePoolWithTag(NonPagedPoolNx, HCI_MEM_WORK_SIZE, DRIVER_POOL_TAG);
    if (work == NULL) {
        MvDbgPrint(DBG_ERROR, "%s: failed to alloc msg buf", "funcx");
        return -1;
    }
    RtlZeroMemory(work, HCI_MEM_WORK_SIZE);

    put_u32_ordered(address, work);
    RtlCopyMemory(work + 4, data, len);
    LONG r = xfer_hci_pkt_core(Context, 1, 1, HCI_PID_MEM_WRITE, mem_write_sid(address, len), work,
                               (USHORT)(len + 4), NULL, last);
    if (r != 0) {
        MvDbgPrint(DBG_ERROR, "Failed to write mem 0x%08x, len %u", address, len);
    }
    ExFreePoolWithTag(work, ANY_POOL_TAG);
    return r;
}

_Use_decl_annotations_ LONG hci_read_mem_core(FdoExtension* Context, ULONG address, USHORT len,
                                              PUCHAR out, UCHAR last)
{
    if (len > HCI_MEM_READ_MAX) {
        return -1;
    }
    UCHAR payload[HCI_MEM_READ_PAYLOAD];
    put_u32_ordered(address, payload);
    put_u16_ordered(len, payload + 4);
    // An answer shorter than the data asked for leaves zeros, not an earlier read's bytes.
    RtlZeroMemory(hci_mem_answer, sizeof(hci_mem_answer));
    LONG r = xfer_hci_pkt_core(Context, 1, 1, HCI_PID_MEM_READ, 0, payload, sizeof(payload),
                               hci_mem_answer, last);
    if (r != 0) {
        MvDbgPrint(DBG_ERROR, "hci read failed, address 0x%08x, length %d", address, len);
        return r;
    }
    if (out != NULL) {
        RtlCopyMemory(out, hci_mem_answer + HCI_ACK_DATA_OFFSET, len);
    }
    return 0;
}

_Use_decl_annotations_ UCHAR read_chip_ctrl_byte(FdoExtension* Context)
{
    UCHAR value = 0;
    if (hci_read_mem_core(Context, HCI_CHIP_CTRL_BYTE, 1, &value, 1) != 0) {
        return 0;
    }
    return value;
}

_Use_decl_annotations_ LONG hci_write_byte_verify(FdoExtension* Context, ULONG address, UCHAR value)
{
    if (hci_write_mem_core(Context, address, &value, 1, 1) != 0) {
        return -1;
    }
    UCHAR back = 0;
    if (hci_read_mem_core(Context, address, 1, &back, 1) != 0) {
        return -1;
    }
    return back == value ? 0 : -1;
}

_Use_decl_annotations_ LONG set_chip_ctrl_byte(FdoExtension* Context, UCHAR value)
{
    if (hci_write_byte_verify(Context, HCI_CHIP_GUARD_REGISTER, HCI_CHIP_GUARD_VALUE) != 0) {
        return -1;
    }
    (VOID) read_chip_ctrl_byte(Context);
    if (hci_write_mem_core(Context, HCI_CHIP_CTRL_BYTE, &value, 1, 1) != 0) {
        return -1;
    }
    (VOID) read_chip_ctrl_byte(Context);
    return 0;
}
