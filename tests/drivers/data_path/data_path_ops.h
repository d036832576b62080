// Host side of the data-path test driver: its table of operations, found in the image the
// PnP manager has loaded.
#pragma once

#include <dlfcn.h>

#include "data_path.h"

namespace mvgps::test
{

// The image stays the PnP manager's: a handle of our own would keep it mapped after unload.
inline const DATA_PATH_OPS* find_data_path_ops(const char* image_path)
{
    void* image = dlopen(image_path, RTLD_NOW | RTLD_NOLOAD);
    if (image == nullptr)
        return nullptr;
    auto* entry = reinterpret_cast<DATA_PATH_OPS_FN*>(dlsym(image, "DataPathOps"));
    dlclose(image);
    return entry != nullptr ? entry() : nullptr;
}

} // namespace mvgps::test
