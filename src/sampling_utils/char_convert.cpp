// Conversion between wide text (UTF-32 in a 4-byte wchar_t) and UTF-8.
//
// Every conversion runs in two passes: the first checks the source and
// measures the result, the second writes it. Nothing is written unless the
// whole source is valid and the result fits. Counts include the terminator
// and must fit in an unsigned int; a longer text is refused as an argument.

#include "sampling_utils.h"
#include "velk.h"

#include <limits.h>
#include <stdint.h>
#include <stdlib.h>

static_assert(sizeof(wchar_t) == 4, "wide text is UTF-32");

namespace {

// Bytes of the UTF-8 form of one wide character; 0 for one outside Unicode
// (negative, above U+10FFFF, or a surrogate).
inline size_t utf8_length(wchar_t character) {
    const uint32_t c = (uint32_t)character;
    if (c < 0x80) return 1;
    if (c < 0x800) return 2;
    if (c < 0x10000) return (c >= 0xD800 && c <= 0xDFFF) ? 0 : 3;
    if (c <= 0x10FFFF) return 4;
    return 0;
}

// Measures `source`: the UTF-8 bytes with the terminator. 0 when the text
// holds a character outside Unicode or the count doesn't fit.
size_t measure_wide(const wchar_t* source) {
    size_t bytes = 1;
    for (; *source != 0; ++source) {
        const size_t length = utf8_length(*source);
        if (length == 0) return 0;
        bytes += length;
    }
    return bytes <= UINT_MAX ? bytes : 0;
}

// Writes the UTF-8 form of a source measured valid, terminator included.
void write_utf8(const wchar_t* source, char* target) {
    unsigned char* out = (unsigned char*)target;
    for (; *source != 0; ++source) {
        const uint32_t c = (uint32_t)*source;
        if (c < 0x80) {
            *out++ = (unsigned char)c;
        } else if (c < 0x800) {
            *out++ = (unsigned char)(0xC0 | (c >> 6));
            *out++ = (unsigned char)(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            *out++ = (unsigned char)(0xE0 | (c >> 12));
            *out++ = (unsigned char)(0x80 | ((c >> 6) & 0x3F));
            *out++ = (unsigned char)(0x80 | (c & 0x3F));
        } else {
            *out++ = (unsigned char)(0xF0 | (c >> 18));
            *out++ = (unsigned char)(0x80 | ((c >> 12) & 0x3F));
            *out++ = (unsigned char)(0x80 | ((c >> 6) & 0x3F));
            *out++ = (unsigned char)(0x80 | (c & 0x3F));
        }
    }
    *out = 0;
}

inline bool is_continuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Length of the well-formed UTF-8 sequence at `p`, or 0 when it is not one.
// The second byte's range excludes overlong forms, surrogates and values
// above U+10FFFF. Bytes are looked at in order and the first bad one ends
// the check, so a sequence cut by the terminator is never read past it.
inline size_t utf8_sequence_length(const unsigned char* p) {
    const unsigned char lead = p[0];
    if (lead < 0x80) return 1;
    if (lead < 0xC2) return 0;  // stray continuation, or overlong 2-byte form
    const unsigned char second = p[1];
    if (lead < 0xE0) return is_continuation(second) ? 2 : 0;
    if (lead < 0xF0) {
        const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;   // overlong
        const unsigned char high = lead == 0xED ? 0x9F : 0xBF;  // surrogates
        if (second < low || second > high) return 0;
        return is_continuation(p[2]) ? 3 : 0;
    }
    if (lead < 0xF5) {
        const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;   // overlong
        const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;  // above U+10FFFF
        if (second < low || second > high) return 0;
        if (!is_continuation(p[2])) return 0;
        return is_continuation(p[3]) ? 4 : 0;
    }
    return 0;
}

// Measures `source`: the wide characters with the terminator. 0 when the
// text is not valid UTF-8 or the count doesn't fit.
size_t measure_utf8(const char* source) {
    const unsigned char* p = (const unsigned char*)source;
    size_t count = 1;
    for (;;) {
        // Plain ASCII, the common case, needs no decoding.
        while (*p != 0 && *p < 0x80) {
            ++p;
            ++count;
        }
        if (*p == 0) break;
        const size_t length = utf8_sequence_length(p);
        if (length == 0) return 0;
        p += length;
        ++count;
    }
    return count <= UINT_MAX ? count : 0;
}

// Decodes a source measured valid, terminator included.
void write_wide(const char* source, wchar_t* target) {
    const unsigned char* p = (const unsigned char*)source;
    for (;;) {
        const unsigned char lead = *p;
        uint32_t c;
        if (lead < 0x80) {
            if (lead == 0) break;
            c = lead;
            p += 1;
        } else if (lead < 0xE0) {
            c = ((uint32_t)(lead & 0x1F) << 6) | (p[1] & 0x3F);
            p += 2;
        } else if (lead < 0xF0) {
            c = ((uint32_t)(lead & 0x0F) << 12) | ((uint32_t)(p[1] & 0x3F) << 6) | (p[2] & 0x3F);
            p += 3;
        } else {
            c = ((uint32_t)(lead & 0x07) << 18) | ((uint32_t)(p[1] & 0x3F) << 12) |
                ((uint32_t)(p[2] & 0x3F) << 6) | (p[3] & 0x3F);
            p += 4;
        }
        *target++ = (wchar_t)c;
    }
    *target = 0;
}

}  // namespace

unsigned int wcs_to_utf8(const wchar_t* source, char* target, unsigned int* size) {
    if (source == nullptr) return VELK_E_NULL_POINTER;
    if (size == nullptr) return VELK_E_BAD_POINTER;
    const size_t needed = measure_wide(source);
    if (needed == 0) return VELK_E_BAD_ARGUMENT;
    const bool fits = target != nullptr && *size >= needed;
    *size = (unsigned int)needed;
    if (!fits) return VELK_E_BUFFER_TOO_SMALL;
    write_utf8(source, target);
    return VELK_SUCCESS;
}

unsigned int wcs_to_utf8_malloced(const wchar_t* source, char** target) {
    if (source == nullptr) return VELK_E_NULL_POINTER;
    if (target == nullptr) return VELK_E_BAD_POINTER;
    *target = nullptr;
    const size_t needed = measure_wide(source);
    if (needed == 0) return VELK_E_BAD_ARGUMENT;
    char* result = (char*)malloc(needed);
    if (result == nullptr) return VELK_E_NO_MEMORY;
    write_utf8(source, result);
    *target = result;
    return VELK_SUCCESS;
}

unsigned int utf8_to_wcs(const char* source, wchar_t* target, unsigned int* count) {
    if (source == nullptr) return VELK_E_NULL_POINTER;
    if (count == nullptr) return VELK_E_BAD_POINTER;
    const size_t needed = measure_utf8(source);
    if (needed == 0) return VELK_E_BAD_ARGUMENT;
    const bool fits = target != nullptr && *count >= needed;
    *count = (unsigned int)needed;
    if (!fits) return VELK_E_BUFFER_TOO_SMALL;
    write_wide(source, target);
    return VELK_SUCCESS;
}

unsigned int utf8_to_wcs_malloced(const char* source, wchar_t** target) {
    if (source == nullptr) return VELK_E_NULL_POINTER;
    if (target == nullptr) return VELK_E_BAD_POINTER;
    *target = nullptr;
    const size_t needed = measure_utf8(source);
    if (needed == 0) return VELK_E_BAD_ARGUMENT;
    wchar_t* result = (wchar_t*)malloc(needed * sizeof(wchar_t));
    if (result == nullptr) return VELK_E_NO_MEMORY;
    write_wide(source, result);
    *target = result;
    return VELK_SUCCESS;
}
