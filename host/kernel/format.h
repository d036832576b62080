// The kernel's printf, shared by DbgPrint and the bounded string routines: the C formats
// plus %I64/%I32/%I sizes, %ws/%S/%wc/%C for the other character width, %wZ for a
// UNICODE_STRING and %Z for an ANSI_STRING. A long is 32 bits, as on the real target.
#pragma once

#include <wdm.h>

#include <cstdarg>
#include <cstddef>

namespace mvgps::kernel::detail
{

// Output into a caller's buffer that keeps the first `capacity` characters and remembers
// whether more were offered. It never writes a terminator: callers decide where it goes.
template <class Ch>
class BoundedOut
{
  public:
    BoundedOut(Ch* dest, std::size_t capacity) : dest_(dest), capacity_(capacity) {}
    void put(Ch c)
    {
        if (length_ < capacity_) {
            dest_[length_++] = c;
        } else {
            overflow_ = true;
        }
    }
    std::size_t length() const { return length_; }
    bool overflow() const { return overflow_; }

  private:
    Ch* dest_;
    std::size_t capacity_;
    std::size_t length_ = 0;
    bool overflow_ = false;
};

// Ch is char (DbgPrint and the A routines) or WCHAR (the W routines, where %s is wide).
template <class Ch>
void format(BoundedOut<Ch>& out, const Ch* fmt, va_list args);

extern template void format<char>(BoundedOut<char>&, const char*, va_list);
extern template void format<WCHAR>(BoundedOut<WCHAR>&, const WCHAR*, va_list);

} // namespace mvgps::kernel::detail
