// Carry-over buffer operations shared by the receive scan and the reassembly of split frames.
#pragma once

#include "link/codec/hci.h"

// Appends count bytes when they fit the capacity; otherwise keeps nothing and returns FALSE.
BOOLEAN circ_append(hci_circ* circ, const UCHAR* data, ULONG count);
