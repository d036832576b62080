// Drop-in subset of devguid.h: the device setup classes this driver names.
#pragma once

#include <wdm.h>

DEFINE_GUID(GUID_DEVCLASS_PORTS, 0x4D36E978L, 0xE325, 0x11CE, 0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1,
            0x03, 0x18);
