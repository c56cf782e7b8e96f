// Texts of the velk statuses: the status's name and what it means.

#include "sampling_utils.h"
#include "velk.h"

namespace {

struct StatusText {
    unsigned int status;
    const wchar_t* text;
};

// One number may stand for several situations; the text names the usual ones
// and the log line of the failing call tells them apart.
const StatusText kStatusTexts[] = {
    {VELK_SUCCESS, L"VELK_SUCCESS: the operation succeeded"},
    {VELK_E_NULL_POINTER,
     L"VELK_E_NULL_POINTER: a null pointer or unmapped area was met, a file is not open, "
     L"or a seek, read, close or unmap failed"},
    {VELK_E_BAD_FILE, L"VELK_E_BAD_FILE: not a sample file, or required sections are missing"},
    {VELK_E_UNKNOWN_SECTION, L"VELK_E_UNKNOWN_SECTION: the section identifier is out of range"},
    {VELK_E_NO_MEMORY, L"VELK_E_NO_MEMORY: memory could not be allocated"},
    {VELK_E_ENV_NOT_SET, L"VELK_E_ENV_NOT_SET: the environment variable is not set"},
    {VELK_E_BUFFER_OVERFLOW, L"VELK_E_BUFFER_OVERFLOW: a record runs past the end of its buffer"},
    {VELK_E_MAP_FAILED, L"VELK_E_MAP_FAILED: a file could not be mapped into memory"},
    {VELK_E_BAD_POINTER, L"VELK_E_BAD_POINTER: the caller passed a null pointer"},
    {VELK_E_BAD_READ_START, L"VELK_E_BAD_READ_START: the read start is at or past the end of the section"},
    {VELK_E_OPEN_FAILED, L"VELK_E_OPEN_FAILED: a file could not be opened"},
    {VELK_E_BAD_ARGUMENT, L"VELK_E_BAD_ARGUMENT: a handle or argument is not valid"},
    {VELK_E_ARCH_MISMATCH, L"VELK_E_ARCH_MISMATCH: the event detail does not fit the architecture"},
    {VELK_E_UNSUPPORTED, L"VELK_E_UNSUPPORTED: the architecture, CPU type or operation is not supported"},
    {VELK_E_SECTION_BUSY, L"VELK_E_SECTION_BUSY: the section is being written, in use or already present"},
    {VELK_E_SECTION_MISSING, L"VELK_E_SECTION_MISSING: the section does not exist"},
    {VELK_E_BAD_STREAM, L"VELK_E_BAD_STREAM: the stream or stream section does not exist"},
    {VELK_E_STREAM_STATE, L"VELK_E_STREAM_STATE: the stream is in the wrong state, or its data is corrupted"},
    {VELK_E_ALREADY_IN_USE, L"VELK_E_ALREADY_IN_USE: the stream section is already in use"},
    {VELK_E_NO_DESCRIPTORS, L"VELK_E_NO_DESCRIPTORS: no data descriptors exist"},
    {VELK_E_VERSION_MISMATCH, L"VELK_E_VERSION_MISMATCH: the record or file version does not fit"},
    {VELK_E_NO_PID_SECTION, L"VELK_E_NO_PID_SECTION: the process record section does not exist"},
    {VELK_E_READ_START_TOO_LARGE, L"VELK_E_READ_START_TOO_LARGE: the read start is too large"},
    {VELK_E_BAD_STRING_ID, L"VELK_E_BAD_STRING_ID: the string id cannot be resolved"},
    {VELK_E_DESC_SIZE_MISMATCH, L"VELK_E_DESC_SIZE_MISMATCH: the data descriptor has an unexpected size"},
    {VELK_E_BUFFER_TOO_SMALL, L"VELK_E_BUFFER_TOO_SMALL: the buffer given by the caller is not big enough"},
    {VELK_E_NO_PERMISSION, L"VELK_E_NO_PERMISSION: the session may not read or may not write the file"},
    {VELK_E_NOT_BOUND, L"VELK_E_NOT_BOUND: the file is not bound"},
    {VELK_E_NOT_READING, L"VELK_E_NOT_READING: the section was not opened for reading"},
    {VELK_E_NOT_WRITING, L"VELK_E_NOT_WRITING: the section was not opened for writing, or already exists"},
    {VELK_E_SECTION_OPEN, L"VELK_E_SECTION_OPEN: a global section was left open at close"},
    {VELK_E_STREAM_SECTION_OPEN, L"VELK_E_STREAM_SECTION_OPEN: a stream section was left open at close"},
    {VELK_E_STREAM_NOT_BOUND, L"VELK_E_STREAM_NOT_BOUND: the data stream is not bound"},
    {VELK_E_TOO_FEW_CPUIDS, L"VELK_E_TOO_FEW_CPUIDS: the system record holds too few cpuid results"},
    {VELK_E_UNSUPPORTED_ARCH, L"VELK_E_UNSUPPORTED_ARCH: the architecture type is not supported"},
    {VELK_E_NOTHING_TO_WRITE, L"VELK_E_NOTHING_TO_WRITE: there is no record to write"},
    {VELK_E_TOO_MANY_EVENTS, L"VELK_E_TOO_MANY_EVENTS: the maximum number of events is reached"},
    {VELK_E_WRITE_FAILED, L"VELK_E_WRITE_FAILED: a write to a file failed"},
    {VELK_E_DISK_FULL, L"VELK_E_DISK_FULL: a write failed because the disk is full"},
    {0xFFFFFFFFu, L"-1: a temporary store could not be appended to the sample file"},
};

const wchar_t kUnknownStatus[] = L"unknown status: the number is not a velk status";

}  // namespace

unsigned int KEMO_get_error_string(unsigned int status, const wchar_t** text) {
    if (text == nullptr) return VELK_E_BAD_POINTER;
    for (const StatusText& entry : kStatusTexts) {
        if (entry.status == status) {
            *text = entry.text;
            return VELK_SUCCESS;
        }
    }
    *text = kUnknownStatus;
    return VELK_E_BAD_ARGUMENT;
}
