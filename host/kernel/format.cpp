// One formatter for every kernel print routine; see format.h for the dialect.
#include "host/kernel/format.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace mvgps::kernel::detail
{
namespace
{

struct Args {
    va_list ap;
};

struct Conversion {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    int width = 0;
    int precision = -1; // none
    int bits = 32;      // integer size
    enum class Width { Native, Narrow, Wide } chars = Width::Native;
    bool wide_modifier = false; // 'w': wide characters, or a UNICODE_STRING with Z
};

template <class Ch>
bool is_digit(Ch c)
{
    return c >= '0' && c <= '9';
}

template <class Ch>
int parse_number(const Ch*& p)
{
    int n = 0;
    while (is_digit(*p)) {
        if (n < 100000) {
            n = n * 10 + (*p - '0');
        }
        ++p;
    }
    return n;
}

template <class Ch>
void pad(BoundedOut<Ch>& out, int count, Ch c)
{
    for (int i = 0; i < count && !out.overflow(); ++i) { // a huge '*' width ends at the bound
        out.put(c);
    }
}

template <class Ch, class Src>
Ch convert(Src c)
{
    if constexpr (sizeof(Ch) == 1 && sizeof(Src) == 2) {
        return c < 0x80 ? static_cast<Ch>(c) : '?'; // no code page in the host: ASCII or '?'
    } else {
        return static_cast<Ch>(static_cast<std::make_unsigned_t<Src>>(c));
    }
}

// A string of `length` units (or up to its terminator when length is negative), cut by the
// precision and padded to the width.
template <class Ch, class Src>
void put_string(BoundedOut<Ch>& out, const Conversion& conv, const Src* s, std::ptrdiff_t length)
{
    static constexpr char kNull[] = "(null)";
    if (s == nullptr) {
        put_string(out, conv, kNull, sizeof kNull - 1);
        return;
    }
    std::size_t limit = conv.precision >= 0 ? static_cast<std::size_t>(conv.precision) : SIZE_MAX;
    std::size_t n = 0;
    if (length >= 0) {
        n = std::min(static_cast<std::size_t>(length), limit);
    } else {
        while (n < limit && s[n] != 0) {
            ++n;
        }
    }
    int fill = conv.width > static_cast<int>(n) ? conv.width - static_cast<int>(n) : 0;
    if (!conv.left) {
        pad(out, fill, Ch(' '));
    }
    for (std::size_t i = 0; i < n; ++i) {
        out.put(convert<Ch>(s[i]));
    }
    if (conv.left) {
        pad(out, fill, Ch(' '));
    }
}

template <class Ch>
void put_integer(BoundedOut<Ch>& out, Conversion conv, Ch conversion, Args& args)
{
    bool is_signed = conversion == 'd' || conversion == 'i';
    std::uint64_t value;
    bool negative = false;
    if (conv.bits == 64) {
        value = va_arg(args.ap, std::uint64_t);
    } else {
        value = va_arg(args.ap, std::uint32_t);
        if (conv.bits == 16) {
            value &= 0xFFFF;
        } else if (conv.bits == 8) {
            value &= 0xFF;
        }
    }
    if (is_signed) {
        int shift = 64 - conv.bits;
        auto v = static_cast<std::int64_t>(value << shift) >> shift; // sign-extend
        negative = v < 0;
        value = negative ? 0 - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
    }
    unsigned base = conversion == 'o' ? 8 : (conversion == 'x' || conversion == 'X') ? 16 : 10;
    const char* digits_of = conversion == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
    char digits[24];
    int n = 0;
    for (std::uint64_t v = value; v != 0; v /= base) {
        digits[n++] = digits_of[v % base];
    }
    int precision = conv.precision >= 0 ? conv.precision : 1;
    int zeros = precision > n ? precision - n : 0;
    if (base == 8 && conv.alternate && zeros == 0 && (n == 0 || digits[n - 1] != '0')) {
        zeros = 1;
    }
    const char* prefix = negative                  ? "-"
                         : conv.plus && is_signed  ? "+"
                         : conv.space && is_signed ? " "
                                                   : "";
    if (base == 16 && conv.alternate && value != 0) {
        prefix = conversion == 'X' ? "0X" : "0x";
    }
    int prefix_length = static_cast<int>(std::strlen(prefix));
    int body = prefix_length + zeros + n;
    int fill = conv.width > body ? conv.width - body : 0;
    if (conv.zero && !conv.left && conv.precision < 0) {
        zeros += fill;
        fill = 0;
    }
    if (!conv.left) {
        pad(out, fill, Ch(' '));
    }
    for (int i = 0; i < prefix_length; ++i) {
        out.put(Ch(prefix[i]));
    }
    pad(out, zeros, Ch('0'));
    while (n > 0) {
        out.put(Ch(digits[--n]));
    }
    if (conv.left) {
        pad(out, fill, Ch(' '));
    }
}

template <class Ch>
bool wide_chars(const Conversion& conv, bool upper)
{
    if (conv.chars != Conversion::Width::Native) {
        return conv.chars == Conversion::Width::Wide;
    }
    // %S and %C take the other width than the routine's own.
    return (sizeof(Ch) == 2) != upper;
}

template <class Ch>
void put_char(BoundedOut<Ch>& out, const Conversion& conv, bool wide, Args& args)
{
    int c = va_arg(args.ap, int);
    if (wide) {
        WCHAR w = static_cast<WCHAR>(c);
        put_string(out, conv, &w, 1);
    } else {
        char n = static_cast<char>(c);
        put_string(out, conv, &n, 1);
    }
}

template <class Ch>
void put_counted(BoundedOut<Ch>& out, const Conversion& conv, Args& args)
{
    if (conv.wide_modifier) {
        auto* s = va_arg(args.ap, const UNICODE_STRING*);
        const WCHAR* buffer = s ? s->Buffer : nullptr;
        put_string(out, conv, buffer, buffer ? s->Length / sizeof(WCHAR) : 0);
    } else {
        auto* s = va_arg(args.ap, const ANSI_STRING*);
        const char* buffer = s ? s->Buffer : nullptr;
        put_string(out, conv, buffer, buffer ? s->Length : 0);
    }
}

// Length modifiers: hh h l ll L I I32 I64 w z j t.
template <class Ch>
void parse_size(const Ch*& p, Conversion& conv)
{
    for (;;) {
        switch (*p) {
        case 'h':
            conv.bits = conv.chars == Conversion::Width::Narrow ? 8 : 16;
            conv.chars = Conversion::Width::Narrow;
            ++p;
            continue;
        case 'l':
            conv.bits = conv.chars == Conversion::Width::Wide ? 64 : 32; // ll is 64, l alone 32
            conv.chars = Conversion::Width::Wide;
            ++p;
            continue;
        case 'w':
            conv.chars = Conversion::Width::Wide;
            conv.wide_modifier = true;
            ++p;
            continue;
        case 'L':
        case 'z':
        case 'j':
        case 't':
            conv.bits = 64;
            ++p;
            continue;
        case 'I':
            if (p[1] == '6' && p[2] == '4') {
                conv.bits = 64;
                p += 3;
            } else if (p[1] == '3' && p[2] == '2') {
                conv.bits = 32;
                p += 3;
            } else {
                conv.bits = 64; // pointer-sized
                ++p;
            }
            continue;
        default:
            return;
        }
    }
}

template <class Ch>
void put_pointer(BoundedOut<Ch>& out, Conversion conv, Args& args)
{
    // The kernel prints pointers as all sixteen hexadecimal digits.
    conv.bits = 64;
    conv.precision = 16;
    conv.alternate = false;
    put_integer(out, conv, Ch('X'), args);
}

// Returns the character after the conversion.
template <class Ch>
const Ch* put_conversion(BoundedOut<Ch>& out, const Ch* start, Args& args)
{
    const Ch* p = start + 1;
    Conversion conv;
    for (;; ++p) {
        if (*p == '-') {
            conv.left = true;
        } else if (*p == '+') {
            conv.plus = true;
        } else if (*p == ' ') {
            conv.space = true;
        } else if (*p == '#') {
            conv.alternate = true;
        } else if (*p == '0') {
            conv.zero = true;
        } else {
            break;
        }
    }
    if (*p == '*') {
        conv.width = va_arg(args.ap, int);
        if (conv.width < 0) {
            conv.left = true;
            conv.width = conv.width == INT_MIN ? 0 : -conv.width;
        }
        ++p;
    } else {
        conv.width = parse_number(p);
    }
    if (*p == '.') {
        ++p;
        if (*p == '*') {
            conv.precision = va_arg(args.ap, int);
            conv.precision = conv.precision < 0 ? -1 : conv.precision;
            ++p;
        } else {
            conv.precision = parse_number(p);
        }
    }
    parse_size(p, conv);
    Ch c = *p;
    switch (c) {
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
        put_integer(out, conv, c, args);
        break;
    case 'c':
    case 'C':
        put_char(out, conv, wide_chars<Ch>(conv, c == 'C'), args);
        break;
    case 's':
    case 'S':
        if (wide_chars<Ch>(conv, c == 'S')) {
            put_string(out, conv, va_arg(args.ap, const WCHAR*), -1);
        } else {
            put_string(out, conv, va_arg(args.ap, const char*), -1);
        }
        break;
    case 'Z':
        put_counted(out, conv, args);
        break;
    case 'p':
        put_pointer(out, conv, args);
        break;
    case '%':
        out.put(c);
        break;
    case 0:
        return p; // a lone '%' at the end prints nothing
    default:
        for (const Ch* q = start; q <= p; ++q) { // unknown: shown as written
            out.put(*q);
        }
        break;
    }
    return p + 1;
}

} // namespace

template <class Ch>
void format(BoundedOut<Ch>& out, const Ch* fmt, va_list args)
{
    Args a;
    va_copy(a.ap, args);
    for (const Ch* p = fmt; *p != 0;) {
        if (*p != '%') {
            out.put(*p++);
        } else {
            p = put_conversion(out, p, a);
        }
    }
    va_end(a.ap);
}

template void format<char>(BoundedOut<char>&, const char*, va_list);
template void format<WCHAR>(BoundedOut<WCHAR>&, const WCHAR*, va_list);

} // namespace mvgps::kernel::detail
