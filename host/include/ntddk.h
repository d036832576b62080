// Drop-in subset of the kernel's ntddk.h for the user-mode host.
#pragma once

#include <wdm.h>
