// Names in the object namespace and the registry compare without regard to ASCII case, as
// the kernel's object manager and registry compare them: both key their tables on this fold.
#pragma once

#include <string>
#include <string_view>

namespace mvgps::io
{

inline std::u16string fold(std::u16string_view name)
{
    std::u16string out(name);
    for (auto& c : out) {
        if (c >= u'A' && c <= u'Z') {
            c = static_cast<char16_t>(c - u'A' + u'a');
        }
    }
    return out;
}

} // namespace mvgps::io
