// Bounded text: formatting, copying and appending that never write past the
// target's capacity and always leave it terminated.

#include "sampling_utils.h"
#include "velk.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace {

// Copies at most `length` bytes of `source` to `target` of capacity `size`
// (> 0) and terminates it. The copy is cut to size - 1 bytes when it does
// not fit.
unsigned int copy_bounded(char* target, size_t size, const char* source, size_t length) {
    unsigned int status = VELK_SUCCESS;
    if (length >= size) {
        length = size - 1;
        status = VELK_E_BUFFER_TOO_SMALL;
    }
    memcpy(target, source, length);
    target[length] = '\0';
    return status;
}

}  // namespace

unsigned int snprintf_safe(char* target, size_t size, const char* format, ...) {
    if (target == nullptr || format == nullptr || size == 0) return VELK_E_NULL_POINTER;
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(target, size, format, arguments);
    va_end(arguments);
    if (length < 0) {  // a conversion that can't be expressed
        target[0] = '\0';
        return VELK_E_BAD_ARGUMENT;
    }
    return (size_t)length < size ? VELK_SUCCESS : VELK_E_BUFFER_TOO_SMALL;
}

unsigned int strcpy_safe(char* target, size_t size, const char* source) {
    if (target == nullptr || source == nullptr || size == 0) return VELK_E_NULL_POINTER;
    // Looking one byte beyond the capacity is enough to know the copy is cut.
    return copy_bounded(target, size, source, strnlen(source, size));
}

unsigned int strcat_safe(char* target, size_t size, const char* source) {
    if (target == nullptr || source == nullptr || size == 0) return VELK_E_NULL_POINTER;
    const char* end = (const char*)memchr(target, '\0', size);
    if (end == nullptr) return VELK_E_BUFFER_TOO_SMALL;  // not a text: leave it alone
    const size_t used = (size_t)(end - target);
    const size_t room = size - used;
    return copy_bounded(target + used, room, source, strnlen(source, room));
}

unsigned int strncat_safe(char* target, size_t size, const char* source, size_t count) {
    if (target == nullptr || source == nullptr || size == 0) return VELK_E_NULL_POINTER;
    const char* end = (const char*)memchr(target, '\0', size);
    if (end == nullptr) return VELK_E_BUFFER_TOO_SMALL;
    const size_t used = (size_t)(end - target);
    const size_t room = size - used;
    // The source need not be terminated within `count` bytes.
    const size_t limit = count < room ? count : room;
    return copy_bounded(target + used, room, source, strnlen(source, limit));
}
