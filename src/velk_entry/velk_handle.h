// The record behind an opaque velk_handle.
#ifndef VELK_HANDLE_H
#define VELK_HANDLE_H

#include <stdint.h>

class velk_class;
class bind_class;

enum : uint32_t {
    VELK_HEAD_TAG = 0xDEFDEFDE,
    VELK_TAIL_TAG = 0xFDEFDEFD,
};

// 32 bytes, allocated zeroed. The two tags are live while the handle is
// open; tag_and_platform starts as the bytes "KLEV", and its upper 16 bits
// hold the caller's platform type.
struct velk_handle {
    uint32_t head_tag;
    uint32_t tag_and_platform;
    velk_class* file_object;
    bind_class* bind_object;
    uint32_t tail_tag;
};

static_assert(sizeof(velk_handle) == 32, "the handle record is 32 bytes");
static_assert(offsetof(velk_handle, tag_and_platform) == 4, "tag_and_platform at 4");
static_assert(offsetof(velk_handle, file_object) == 8, "file_object at 8");
static_assert(offsetof(velk_handle, bind_object) == 16, "bind_object at 16");
static_assert(offsetof(velk_handle, tail_tag) == 24, "tail_tag at 24");

#endif  // VELK_HANDLE_H
