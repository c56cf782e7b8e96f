// The logger behind LOGIT_A: a filter mask and one destination, read from the
// environment at the first call, or a sink installed by a test.

#include "sampling_utils.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <mutex>

// All ones until the configuration has been read, so that the first LOGIT_A
// reaches logit_write(). From then on: the sink's mask while a sink is
// installed, otherwise the mask of VELK_LOG_MASK.
unsigned int g_logit_active_mask = 0xFFFFFFFFu;

namespace {

constexpr int kStandardError = 2;

// The configuration read from the environment.
unsigned int s_environment_mask = 0;
int s_descriptor = kStandardError;  // where lines go without a sink

logit_sink_fn s_sink = nullptr;
void* s_sink_context = nullptr;
unsigned int s_sink_mask = 0;

std::once_flag s_first_configuration;

// Parses VELK_LOG_MASK: "0x"/"0X" and hex digits, or decimal digits, with
// optional surrounding blanks. Anything else, or a value beyond 32 bits,
// counts as no mask at all.
unsigned int parse_mask(const char* text) {
    if (text == nullptr) return 0;
    while (*text == ' ' || *text == '\t') ++text;
    int base = 10;
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text += 2;
    }
    // strtoul would take a sign or a second prefix; allow digits only.
    const bool digit_first = base == 16 ? isxdigit((unsigned char)text[0]) != 0
                                        : (text[0] >= '0' && text[0] <= '9');
    if (!digit_first) return 0;
    errno = 0;
    char* end = nullptr;
    const unsigned long value = strtoul(text, &end, base);
    if (errno != 0 || value > 0xFFFFFFFFul) return 0;
    while (*end == ' ' || *end == '\t' || *end == '\n') ++end;
    if (*end != '\0') return 0;
    return (unsigned int)value;
}

void publish_active_mask() {
    g_logit_active_mask = s_sink != nullptr ? s_sink_mask : s_environment_mask;
}

// Reads VELK_LOG_MASK and VELK_LOG_FILE. The results are built in locals and
// stored at the end, so a reader never sees a half-made configuration. The
// file is opened only when some line can be written.
void read_environment() {
    const unsigned int mask = parse_mask(getenv("VELK_LOG_MASK"));
    int descriptor = kStandardError;
    if (mask != 0) {
        const char* path = getenv("VELK_LOG_FILE");
        if (path != nullptr && path[0] != '\0') {
            const int opened = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
            if (opened >= 0) descriptor = opened;
        }
    }
    const int previous = s_descriptor;
    s_descriptor = descriptor;
    s_environment_mask = mask;
    if (previous != kStandardError && previous != descriptor) close(previous);
    publish_active_mask();
}

void ensure_configured() { std::call_once(s_first_configuration, read_environment); }

// One write() for the whole line; repeated only when interrupted or cut
// short, which regular files and pipes below PIPE_BUF don't do.
void write_line(int descriptor, const char* line, size_t length) {
    while (length > 0) {
        const ssize_t written = write(descriptor, line, length);
        if (written < 0) {
            if (errno == EINTR) continue;
            return;  // a logger has nowhere to report its own failure
        }
        line += written;
        length -= (size_t)written;
    }
}

void deliver(unsigned int mask, const char* line, size_t length) {
    const logit_sink_fn sink = s_sink;
    if (sink != nullptr) {
        sink(mask, line, s_sink_context);
    } else {
        write_line(s_descriptor, line, length);
    }
}

}  // namespace

void logit_write(unsigned int mask, const char* format, ...) {
    ensure_configured();
    if ((mask & g_logit_active_mask) == 0 || format == nullptr) return;

    char local[4096];
    va_list arguments;
    va_start(arguments, format);
    va_list second_pass;
    va_copy(second_pass, arguments);
    const int length = vsnprintf(local, sizeof local, format, arguments);
    va_end(arguments);

    if (length < 0) {
        va_end(second_pass);
        return;
    }
    if ((size_t)length < sizeof local) {
        va_end(second_pass);
        deliver(mask, local, (size_t)length);
        return;
    }
    // Too long for the stack: format again into a block of the exact size,
    // so the line is never cut. Without memory, the cut line is all there is.
    char* heap = (char*)malloc((size_t)length + 1);
    if (heap == nullptr) {
        va_end(second_pass);
        deliver(mask, local, sizeof local - 1);
        return;
    }
    vsnprintf(heap, (size_t)length + 1, format, second_pass);
    va_end(second_pass);
    deliver(mask, heap, (size_t)length);
    free(heap);
}

void logit_set_sink(logit_sink_fn sink, void* context, unsigned int mask) {
    ensure_configured();
    s_sink = sink;
    s_sink_context = sink != nullptr ? context : nullptr;
    s_sink_mask = sink != nullptr ? mask : 0;
    if (sink == nullptr) {
        read_environment();
    } else {
        publish_active_mask();
    }
}

void logit_reload_configuration(void) {
    ensure_configured();
    read_environment();
}
