// A driver image: the driver's shared object, opened for one device stack and closed at
// unload, so every load starts with fresh globals. Unloading reports every pool block the
// driver left allocated.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <unordered_set>

#include "wdf/driver.h"

namespace mvgps::pnp
{

class DriverImage
{
  public:
    DriverImage(std::string path, std::u16string service,
                std::map<std::u16string, ULONG> parameters);
    ~DriverImage();
    DriverImage(const DriverImage&) = delete;
    DriverImage& operator=(const DriverImage&) = delete;

    // Opens the image and runs its DriverEntry. A failed DriverEntry leaves it unloaded.
    NTSTATUS load();
    // Deletes the framework driver (EvtDriverUnload, then cleanup of everything under it),
    // stops the run if pool is still allocated, and closes the image.
    void unload();
    bool loaded() const { return handle_ != nullptr; }
    wdf::Driver* driver() const;
    const std::string& path() const { return path_; }
    // Whether the process still has the shared object mapped.
    static bool mapped(const std::string& path);

  private:
    void close_image();

    std::string path_;
    _DRIVER_OBJECT system_;
    std::u16string registry_path_;
    void* handle_ = nullptr;
    const void* base_ = nullptr; // where the image is mapped
    std::unordered_set<const void*> pool_at_load_;
};

} // namespace mvgps::pnp
