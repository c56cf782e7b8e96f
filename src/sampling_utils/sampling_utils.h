// The support library: logging, status texts, character conversion and
// bounded text. Every function returns a velk status (0 for success) unless
// its comment says otherwise.
#ifndef VELK_SAMPLING_UTILS_H
#define VELK_SAMPLING_UTILS_H

#include <stddef.h>
#include <wchar.h>

// ---------------------------------------------------------------------------
// Logging.
//
// LOGIT_A(mask, format, ...) writes one printf-formatted line when `mask`
// shares a bit with the configured mask. The configuration is read once, at
// the first call in the process, from VELK_LOG_MASK (hex with 0x, or decimal;
// unset, 0 or unparsable: nothing is written) and VELK_LOG_FILE (a path lines
// are appended to; standard error when unset or when it can't be opened).
// Each line is written whole, never cut, with one write() so that lines of
// several processes don't interleave.
//
// Until the configuration is read the active mask is all ones, so the first
// call always reaches logit_write(), which reads it; after that a call whose
// mask is not enabled costs one test.
// ---------------------------------------------------------------------------
extern unsigned int g_logit_active_mask;

void logit_write(unsigned int mask, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

#define LOGIT_A(mask, ...)                                   \
    do {                                                     \
        if ((unsigned int)(mask) & g_logit_active_mask)      \
            logit_write((unsigned int)(mask), __VA_ARGS__);  \
    } while (0)

// A sink receives every enabled line instead of the configured destination.
// `mask` replaces the configured mask while the sink is installed; passing a
// null sink goes back to the environment's configuration.
typedef void (*logit_sink_fn)(unsigned int mask, const char* line, void* context);
void logit_set_sink(logit_sink_fn sink, void* context, unsigned int mask);

// Reads VELK_LOG_MASK and VELK_LOG_FILE again, as at the first call.
void logit_reload_configuration(void);

// ---------------------------------------------------------------------------
// Uniform log forms. Each expands at the failing call's site, so the line
// names the source unit (VELK_SOURCE_PATH, set per source folder by the
// build) and the line number.
// ---------------------------------------------------------------------------
#ifndef VELK_SOURCE_PATH
#define VELK_SOURCE_PATH "src"
#endif

#define VELK_MASK_FAILURE_FORM 0x82000000u
#define VELK_MASK_MEMORY_TRACE 0x12000000u

// "Operation failed with error code " with the status.
#define LOG_FAILED_STATUS(status)                                              \
    LOGIT_A(VELK_MASK_FAILURE_FORM, "%s (%s, %d) value: 0x%x\n",               \
            "Operation failed with error code ", VELK_SOURCE_PATH, __LINE__,   \
            (unsigned int)(status))
// A pointer check failed.
#define LOG_NULL_POINTER()                                                     \
    LOGIT_A(VELK_MASK_FAILURE_FORM, "%s (%s, %d)\n", "Encountered null pointer", \
            VELK_SOURCE_PATH, __LINE__)
// A call that signals failure with -1.
#define LOG_MINUS_ONE()                                                        \
    LOGIT_A(VELK_MASK_FAILURE_FORM, "%s (%s, %d)\n",                           \
            "Operation failed with error code = -1", VELK_SOURCE_PATH, __LINE__)
#define LOG_CALLOC_FAILED(function)                                            \
    LOGIT_A(VELK_MASK_FAILURE_FORM, "%s:%d Calloc failed\n", function, __LINE__)
#define LOG_NULL_POINTER_AT(function)                                          \
    LOGIT_A(VELK_MASK_FAILURE_FORM, "%s:%d Encountered null pointer\n", function, __LINE__)
#define LOG_ERROR_AT(function, value)                                          \
    LOGIT_A(VELK_MASK_FAILURE_FORM, "%s:%d error %d\n", function, __LINE__, (int)(value))
#define LOG_MEMORY_ALLOCATION(function, bytes)                                 \
    LOGIT_A(VELK_MASK_MEMORY_TRACE, "%s:%d Memory allocation: %d bytes\n", function, \
            __LINE__, (int)(bytes))
#define LOG_MEMORY_FREE(function, bytes)                                       \
    LOGIT_A(VELK_MASK_MEMORY_TRACE, "%s:%d Memory free: %d bytes\n", function, __LINE__, \
            (int)(bytes))

// ---------------------------------------------------------------------------
// Status texts. *text gets a static wide text naming the status and saying
// what it means; an unknown number gets a text saying so and the result is
// VELK_E_BAD_ARGUMENT. A null `text` gives VELK_E_BAD_POINTER.
// ---------------------------------------------------------------------------
unsigned int KEMO_get_error_string(unsigned int status, const wchar_t** text);

// ---------------------------------------------------------------------------
// Character conversion between wchar_t (UTF-32) and UTF-8.
//
// Counts include the terminator. In the sized forms *size is the capacity on
// the way in and the needed count on the way out (bytes for UTF-8, wide
// characters for wchar_t); a null target or a capacity below the needed count
// gives VELK_E_BUFFER_TOO_SMALL and writes nothing. Asking with a null target
// and then converting into a buffer of the size that came back round-trips.
// A null source gives VELK_E_NULL_POINTER. Invalid UTF-8 (bad sequences,
// overlong forms, surrogates, values above U+10FFFF) and wide characters
// outside Unicode give VELK_E_BAD_ARGUMENT, as does a text whose count does
// not fit in an unsigned int; *size is then left as it was. On success *size
// holds the count written.
// The _malloced forms allocate the result with malloc; the caller frees it.
// On failure they store a null pointer in *target.
// ---------------------------------------------------------------------------
unsigned int wcs_to_utf8(const wchar_t* source, char* target, unsigned int* size);
unsigned int wcs_to_utf8_malloced(const wchar_t* source, char** target);
unsigned int utf8_to_wcs(const char* source, wchar_t* target, unsigned int* count);
unsigned int utf8_to_wcs_malloced(const char* source, wchar_t** target);

// ---------------------------------------------------------------------------
// Bounded text. `size` is the capacity of `target` in bytes, terminator
// included. The result is always terminated when size > 0. A text that does
// not fit is cut and gives VELK_E_BUFFER_TOO_SMALL; a null target or source,
// or a size of 0, gives VELK_E_NULL_POINTER.
// ---------------------------------------------------------------------------
unsigned int snprintf_safe(char* target, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
unsigned int strcpy_safe(char* target, size_t size, const char* source);
unsigned int strcat_safe(char* target, size_t size, const char* source);
// Appends at most `count` bytes of `source`, which need not be terminated
// within them. Both appending forms give VELK_E_BUFFER_TOO_SMALL without
// writing when `target` holds no terminator within `size`.
// snprintf_safe gives VELK_E_BAD_ARGUMENT (and an empty target) when the
// format can't be expanded.
unsigned int strncat_safe(char* target, size_t size, const char* source, size_t count);

#endif  // VELK_SAMPLING_UTILS_H
