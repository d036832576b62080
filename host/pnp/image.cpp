#include "pnp/image.h"

#include <dlfcn.h>

#include <cstdio>

#include "kernel/kernel.h"
#include "verifier/verifier.h"
#include "wdf/rules.h"

namespace mvgps::pnp
{
namespace
{

// The driver left pool allocated at unload (the real verifier's subcode for it).
constexpr std::uint64_t kPoolLeakedAtUnload = 0x62;
constexpr NTSTATUS kInvalidImageFormat = static_cast<NTSTATUS>(0xC000007BL);

std::unordered_set<const void*> live_blocks()
{
    std::unordered_set<const void*> out;
    for (const auto& tag : kernel::leak_report().tags) {
        for (const auto& block : tag.blocks) {
            out.insert(block.address);
        }
    }
    return out;
}

} // namespace

DriverImage::DriverImage(std::string path, std::u16string service,
                         std::map<std::u16string, ULONG> parameters)
    : path_(std::move(path)),
      registry_path_(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + service)
{
    system_.service_name = std::move(service);
    system_.parameters = std::move(parameters);
}

DriverImage::~DriverImage()
{
    if (loaded()) {
        unload();
    }
}

bool DriverImage::mapped(const std::string& path)
{
    void* h = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (h) {
        dlclose(h);
    }
    return h != nullptr;
}

wdf::Driver* DriverImage::driver() const
{
    if (!system_.framework_driver) {
        return nullptr;
    }
    return wdf::Objects::get<wdf::Driver>(system_.framework_driver, wdf::Kind::Driver, "driver");
}

NTSTATUS DriverImage::load()
{
    if (loaded()) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    // Local symbols only: nothing else binds to the image, so closing it unloads it.
    handle_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) {
        std::fprintf(stderr, "cannot load driver image %s: %s\n", path_.c_str(), dlerror());
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    auto entry = reinterpret_cast<PDRIVER_INITIALIZE>(dlsym(handle_, "DriverEntry"));
    Dl_info info{};
    if (!entry || dladdr(reinterpret_cast<void*>(entry), &info) == 0) {
        close_image();
        return kInvalidImageFormat;
    }
    base_ = info.dli_fbase;
    pool_at_load_ = live_blocks();
    UNICODE_STRING registry_path;
    registry_path.Buffer = reinterpret_cast<PWCH>(registry_path_.data());
    registry_path.Length = static_cast<USHORT>(registry_path_.size() * sizeof(WCHAR));
    registry_path.MaximumLength = registry_path.Length;
    wdf::note("DriverEntry " + path_);
    NTSTATUS status = wdf::call_driver("DriverEntry", entry, &system_, &registry_path);
    if (!NT_SUCCESS(status)) {
        if (wdf::Driver* d = driver()) {
            d->unload();
        }
        close_image();
    }
    return status;
}

void DriverImage::unload()
{
    if (wdf::Driver* d = driver()) {
        wdf::note("unload " + path_);
        d->unload();
    }
    std::vector<ULONG> tags;
    std::string leaks;
    std::size_t count = 0;
    for (const auto& tag : kernel::leak_report().tags) {
        for (const auto& block : tag.blocks) {
            if (!pool_at_load_.contains(block.address)) {
                char line[128];
                std::snprintf(line, sizeof line, "\n  %s: %zu bytes at %p",
                              kernel::tag_text(tag.tag).c_str(), block.size, block.address);
                leaks += line;
                count++;
            }
        }
    }
    if (count) {
        verifier::bugcheck(verifier::kDriverVerifierViolation,
                           "driver unloaded without freeing " + std::to_string(count) +
                               " pool allocation(s):" + leaks,
                           kPoolLeakedAtUnload, count);
    }
    close_image();
}

void DriverImage::close_image()
{
    if (!handle_) {
        return;
    }
    // On Windows the thread would go on running code that is gone; here the image stays
    // mapped and the run stops.
    auto threads = kernel::threads_running_in(base_);
    if (!threads.empty()) {
        std::string names;
        for (const auto& name : threads) {
            names += (names.empty() ? "" : ", ") + name;
        }
        verifier::bugcheck(verifier::kDriverUnloadedWithPendingOperations,
                           "driver image " + path_ + " unloaded while its system thread(s) " +
                               names + " still run",
                           threads.size());
    }
    dlclose(handle_);
    handle_ = nullptr;
    if (mapped(path_)) {
        verifier::bugcheck(verifier::kDriverVerifierViolation,
                           "driver image " + path_ +
                               " stayed mapped after unload: something pins it, so its "
                               "globals would not start fresh at the next load");
    }
}

} // namespace mvgps::pnp
