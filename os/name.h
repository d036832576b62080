// Identifier text of mutex and signal records.
#pragma once

#include "os/os.h"

// Copies the identifier into a zeroed Name field: the text and its terminator, or the first
// 64 bytes of a longer one (then without a terminator). Nothing past the terminator is read.
FORCEINLINE VOID OsCopyName(CHAR (&Name)[OS_NAME_SIZE], PCSTR Identifier)
{
    for (ULONG i = 0; i < OS_NAME_SIZE && Identifier[i] != '\0'; i++) {
        Name[i] = Identifier[i];
    }
}
