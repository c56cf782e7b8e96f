// The OS layer: every contact of the library with files, mappings, the
// environment and number formatting goes through these VELK_OSI_ functions.
// The layer was cut for more than one operating system, so it keeps a
// file-map object and an allocation granularity of its own; on Linux the map
// handle is the file descriptor itself and the granularity is the page size.
// Handles are file descriptors widened to 64 bits, -1 meaning none.
//
// The functions hold no state and log nothing (apart from a failed name copy
// in VELK_OSI_Delete_File). On a failure the text of errno is read at once
// into a local buffer and dropped: only the return value reaches the caller.

#include "velk.h"

#include "sampling_utils.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#ifndef O_LARGEFILE
#define O_LARGEFILE 0
#endif

namespace {

const size_t kErrorTextSize = 1024;
const size_t kPathSize = 1024;

// Width of the longest 64-bit number in decimal ("-9223372036854775808"),
// with its terminator.
const unsigned kNumberTextSize = 21;

const unsigned kRemoveTries = 10;

// Takes the text of a failure's errno into a local buffer, where it ends.
// Nothing is kept: the layer reports through return values only.
void drop_error_text(int error)
{
    char text[kErrorTextSize];
    strncpy(text, strerror(error), sizeof(text) - 1);
    text[sizeof(text) - 1] = '\0';
    (void)text;
}

// A handle is a file descriptor widened to 64 bits. A value that doesn't fit
// an int can't have come from VELK_OSI_Open_File; it is refused as a bad
// descriptor rather than cut down to some other open descriptor.
bool handle_to_fd(long long handle, int* fd)
{
    if (handle < INT_MIN || handle > INT_MAX) {
        errno = EBADF;
        return false;
    }
    *fd = static_cast<int>(handle);
    return true;
}

int open_flags_for_mode(unsigned mode)
{
    if (mode & VELK_OSI_MODE_CREATE)
        return O_RDWR | O_CREAT | O_TRUNC;
    const bool readable = (mode & VELK_OSI_MODE_READ) != 0;
    const bool writable = (mode & VELK_OSI_MODE_WRITE) != 0;
    if (readable && writable)
        return O_RDWR;
    if (writable)
        return O_WRONLY;
    return O_RDONLY;
}

int protection_for_view(unsigned protection)
{
    if (protection & 0x10u)
        return PROT_READ | PROT_WRITE | PROT_EXEC;
    int prot = PROT_READ;
    if (protection & 0x2u)
        prot |= PROT_WRITE;
    if (protection & 0x4u)
        prot |= PROT_EXEC;
    return prot;
}

int flags_for_view(unsigned flags)
{
    int result = 0;
    if (flags & 0x1u)
        result |= MAP_FIXED;
    if (flags & 0x2u)
        result |= MAP_SHARED;
    if (flags & 0x4u)
        result |= MAP_PRIVATE;
    return result;
}

int whence_for_origin(unsigned origin)
{
    switch (origin) {
    case VELK_OSI_SEEK_BEGIN:
        return SEEK_SET;
    case VELK_OSI_SEEK_CURRENT:
        return SEEK_CUR;
    case VELK_OSI_SEEK_END:
        return SEEK_END;
    default:
        // Any other value goes to lseek as it stands.
        return static_cast<int>(origin);
    }
}

// The size rule shared by the number-to-text functions: a null destination
// with size 0 asks for the size; anything else below the widest number is
// too small, even when the particular number would fit.
bool number_text_size_check(char* destination, unsigned size, unsigned* needed,
                            unsigned* status)
{
    if (destination == nullptr && size == 0) {
        if (needed != nullptr)
            *needed = kNumberTextSize;
        *status = VELK_SUCCESS;
        return false;
    }
    if (destination == nullptr || size < kNumberTextSize) {
        *status = VELK_E_BUFFER_TOO_SMALL;
        return false;
    }
    return true;
}

}  // namespace

long long VELK_OSI_Open_File(const char* path, unsigned mode)
{
    const int fd = open(path, open_flags_for_mode(mode) | O_LARGEFILE, 0666);
    if (fd == -1) {
        drop_error_text(errno);
        return -1;
    }
    return fd;
}

long long VELK_OSI_Create_File_Map(long long handle, unsigned mode)
{
    // A file's mapping needs no object of its own here: the descriptor serves.
    (void)mode;
    return handle;
}

void* VELK_OSI_Map_File_View(long long map, unsigned protection, long long offset,
                             unsigned long long length, unsigned flags, void* address)
{
    int fd;
    if (!handle_to_fd(map, &fd)) {
        drop_error_text(errno);
        return nullptr;
    }
    void* view = mmap(address, length, protection_for_view(protection), flags_for_view(flags),
                      fd, static_cast<off_t>(offset));
    if (view == MAP_FAILED) {
        drop_error_text(errno);
        return nullptr;
    }
    // Callers take a null view as failure, so a view at address 0 can't be
    // handed out.
    if (view == nullptr)
        return nullptr;
    return view;
}

unsigned VELK_OSI_Unmap_File_View(void* address, unsigned long long length)
{
    if (munmap(address, length) != 0) {
        drop_error_text(errno);
        return VELK_E_NULL_POINTER;
    }
    return VELK_SUCCESS;
}

unsigned VELK_OSI_Close_Handle(long long handle, unsigned is_map)
{
    // A map handle is the file's own descriptor; it closes with the file.
    if (is_map != 0)
        return VELK_SUCCESS;
    int fd;
    if (!handle_to_fd(handle, &fd) || close(fd) != 0) {
        drop_error_text(errno);
        return VELK_E_NULL_POINTER;
    }
    return VELK_SUCCESS;
}

long long VELK_OSI_Get_Allocation_Granualarity(void)
{
    return getpagesize();
}

unsigned long long VELK_OSI_Get_File_Size(long long handle)
{
    int fd;
    struct stat info;
    if (!handle_to_fd(handle, &fd) || fstat(fd, &info) != 0) {
        drop_error_text(errno);
        return 0;
    }
    return static_cast<unsigned long long>(info.st_size);
}

long long VELK_OSI_Set_File_Pointer(long long handle, long long offset, unsigned origin)
{
    int fd;
    if (!handle_to_fd(handle, &fd)) {
        drop_error_text(errno);
        return -1;
    }
    const off_t position = lseek(fd, static_cast<off_t>(offset), whence_for_origin(origin));
    if (position == static_cast<off_t>(-1)) {
        drop_error_text(errno);
        return -1;
    }
    return position;
}

unsigned VELK_OSI_Write(long long handle, void* buffer, unsigned long long length,
                        unsigned long long* written)
{
    // One write and no loop: a short write is reported by its count alone.
    int fd;
    const ssize_t count = handle_to_fd(handle, &fd) ? write(fd, buffer, length) : -1;
    if (count == -1) {
        const int error = errno;
        drop_error_text(error);
        if (written != nullptr)
            *written = 0;
        return error == ENOSPC ? VELK_E_DISK_FULL : VELK_E_WRITE_FAILED;
    }
    if (written != nullptr)
        *written = static_cast<unsigned long long>(count) & 0xFFFFFFFFull;
    return VELK_SUCCESS;
}

unsigned VELK_OSI_Read(long long handle, void* buffer, unsigned long long length,
                       unsigned long long* read_count)
{
    // One read; callers compare the count with what they asked for.
    int fd;
    const ssize_t count = handle_to_fd(handle, &fd) ? read(fd, buffer, length) : -1;
    if (count == -1) {
        drop_error_text(errno);
        if (read_count != nullptr)
            *read_count = 0;
        return VELK_E_NULL_POINTER;
    }
    if (read_count != nullptr)
        *read_count = static_cast<unsigned long long>(count);
    return VELK_SUCCESS;
}

unsigned VELK_OSI_Delete_File(const char* path)
{
    char name[kPathSize];
    const unsigned status = strcpy_safe(name, sizeof(name), path);
    if (status != VELK_SUCCESS) {
        LOG_FAILED_STATUS(status);
        return status;
    }
    // A file may be held open elsewhere for a moment, so removal is tried
    // again after a pause. A file that won't go is left behind without
    // complaint: a stale store is emptied when it is next opened.
    for (unsigned attempt = 0; attempt < kRemoveTries; ++attempt) {
        if (remove(name) == 0)
            break;
        drop_error_text(errno);
        sleep(1);
    }
    return VELK_SUCCESS;
}

unsigned VELK_OSI_Getenv(const char* name, unsigned length, char* destination)
{
    if (destination == nullptr)
        return VELK_E_NULL_POINTER;
    const char* value = name != nullptr ? getenv(name) : nullptr;
    if (value == nullptr)
        return VELK_E_ENV_NOT_SET;
    // strncpy on purpose: a value of `length` bytes or more stays unterminated.
    strncpy(destination, value, length);
    return VELK_SUCCESS;
}

int VELK_OSI_Sprintf(char* destination, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int count = vsprintf(destination, format, arguments);
    va_end(arguments);
    return count;
}

unsigned VELK_OSI_i64toa(char* destination, unsigned size, long long value, unsigned* needed)
{
    unsigned status;
    if (!number_text_size_check(destination, size, needed, &status))
        return status;
    snprintf(destination, size, "%lld", value);
    return VELK_SUCCESS;
}

unsigned VELK_OSI_ui64tow(char* destination, unsigned size, unsigned long long value,
                          unsigned* needed)
{
    // Narrow text, whatever the name says.
    unsigned status;
    if (!number_text_size_check(destination, size, needed, &status))
        return status;
    snprintf(destination, size, "%llu", value);
    return VELK_SUCCESS;
}
