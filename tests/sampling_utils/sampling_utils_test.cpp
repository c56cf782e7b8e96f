// The support library: logging, status texts, UTF-8 conversion, bounded text.

#include "sampling_utils.h"
#include "test_helpers.h"

#include <stdlib.h>
#include <string.h>

namespace {

class Logging : public velk_test::TempDirTest {};

TEST_F(Logging, EnvironmentAndSinkGetExactLinesUncut) {
    const std::string file = path("velk.log");
    velk_test::write_file(file, {'o', 'l', 'd', '\n'});
    setenv("VELK_LOG_FILE", file.c_str(), 1);
    const struct { const char* text; unsigned mask; } cases[] = {
        {"0x80000000", 0x80000000u}, {"0X10001000", 0x10001000u}, {"4096", 0x1000u},
        {"010", 10u}, {"0", 0u}, {nullptr, 0u}, {"junk", 0u}, {"12ab", 0u}, {"-1", 0u},
        {"0x100001000", 0u}, {"0x80001000", 0x80001000u}};
    for (const auto& c : cases) {
        c.text != nullptr ? setenv("VELK_LOG_MASK", c.text, 1) : unsetenv("VELK_LOG_MASK");
        logit_reload_configuration();
        EXPECT_EQ(g_logit_active_mask, c.mask) << (c.text != nullptr ? c.text : "(unset)");
    }
    const std::string y4095(4095, 'y');
    LOGIT_A(0x80000000u, "%s\n", y4095.c_str());
    {
        velk_test::LogCapture sink(0x10002000u);
        LOGIT_A(0x90002000u, "to sink\n");
    }
    LOGIT_A(0x80000000u, "no newline");
    const std::vector<unsigned char> bytes = velk_test::read_file(file);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "old\n" + y4095 + "\nno newline");
    unsetenv("VELK_LOG_MASK");
    unsetenv("VELK_LOG_FILE");
    logit_reload_configuration();

    velk_test::LogCapture log(0x80001000u);
    const std::string e10000(10000, 'e');
    LOGIT_A(0x80002000u, "<velk %u::do_init>failed %s\n", 7u, "here");
    LOGIT_A(0x10002000u, "dropped\n");
    LOGIT_A(0x00001000u, "%s\n", e10000.c_str());
    const int line = __LINE__ + 1;
    LOG_FAILED_STATUS(VELK_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"<velk 7::do_init>failed here\n", e10000 + "\n",
                            "Operation failed with error code  (" VELK_SOURCE_PATH ", " +
                            std::to_string(line) + ") value: 0x67\n"}));
    EXPECT_EQ(log.masks(), (std::vector<unsigned>{0x80002000u, 0x1000u, VELK_MASK_FAILURE_FORM}));
}

#define S(n) {VELK_##n, L"VELK_" #n}
TEST(StatusText, EveryStatusNamedUnknownRefused) {
    const struct { unsigned status; const wchar_t* name; } statuses[] = {
        S(SUCCESS), S(E_NULL_POINTER), S(E_BAD_FILE), S(E_UNKNOWN_SECTION), S(E_NO_MEMORY), S(E_ENV_NOT_SET),
        S(E_BUFFER_OVERFLOW), S(E_MAP_FAILED), S(E_BAD_POINTER), S(E_BAD_READ_START), S(E_OPEN_FAILED),
        S(E_BAD_ARGUMENT), S(E_ARCH_MISMATCH), S(E_UNSUPPORTED), S(E_SECTION_BUSY), S(E_SECTION_MISSING),
        S(E_BAD_STREAM), S(E_STREAM_STATE), S(E_ALREADY_IN_USE), S(E_NO_DESCRIPTORS), S(E_VERSION_MISMATCH),
        S(E_NO_PID_SECTION), S(E_READ_START_TOO_LARGE), S(E_BAD_STRING_ID), S(E_DESC_SIZE_MISMATCH),
        S(E_BUFFER_TOO_SMALL), S(E_NO_PERMISSION), S(E_NOT_BOUND), S(E_NOT_READING), S(E_NOT_WRITING),
        S(E_SECTION_OPEN), S(E_STREAM_SECTION_OPEN), S(E_STREAM_NOT_BOUND), S(E_TOO_FEW_CPUIDS),
        S(E_UNSUPPORTED_ARCH), S(E_NOTHING_TO_WRITE), S(E_TOO_MANY_EVENTS), S(E_WRITE_FAILED),
        S(E_DISK_FULL), {0xFFFFFFFFu, L"-1"}};
    const wchar_t* text = nullptr;
    for (const auto& s : statuses) {
        ASSERT_EQ(KEMO_get_error_string(s.status, &text), VELK_SUCCESS) << s.status;
        const std::wstring name = std::wstring(s.name) + L": ";
        EXPECT_EQ(std::wstring(text).substr(0, name.size()), name);
        EXPECT_GT(wcslen(text), name.size() + 5) << s.status;
    }
    for (unsigned u : {1u, 23u, 196u}) EXPECT_EQ(KEMO_get_error_string(u, &text), VELK_E_BAD_ARGUMENT) << u;
    EXPECT_EQ(KEMO_get_error_string(VELK_E_BAD_FILE, nullptr), VELK_E_BAD_POINTER);
}

// Queries the size, is refused one short of it without a write, then converts.
template <typename To, typename From>
std::basic_string<To> convert(unsigned (*f)(const From*, To*, unsigned*), const From* text) {
    unsigned size = 0;
    EXPECT_EQ(f(text, nullptr, &size), VELK_E_BUFFER_TOO_SMALL);
    std::vector<To> buffer(size + 1, To('#'));
    unsigned short_size = size - 1;
    EXPECT_EQ(f(text, buffer.data(), &short_size), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_TRUE(short_size == size && buffer[0] == To('#'));
    EXPECT_EQ(f(text, buffer.data(), &size), VELK_SUCCESS);
    EXPECT_TRUE(buffer[size - 1] == To(0) && buffer[size] == To('#'));
    return std::basic_string<To>(buffer.data(), size - 1);
}

// A sized and an allocating conversion of invalid text give 63 and write nothing.
template <typename To, typename From>
void refused(unsigned (*f)(const From*, To*, unsigned*), unsigned (*fm)(const From*, To**), const From* bad) {
    To buffer[8] = {To('#')}, *allocated = buffer;
    unsigned size = 8;
    EXPECT_EQ(f(bad, buffer, &size), VELK_E_BAD_ARGUMENT) << bad;
    EXPECT_TRUE(size == 8 && buffer[0] == To('#'));
    EXPECT_EQ(fm(bad, &allocated), VELK_E_BAD_ARGUMENT);
    EXPECT_EQ(allocated, nullptr);
}

TEST(CharConvert, RoundTripsAndRefusals) {
    const wchar_t wide[] = L"a\x7F\x80\x7FF\x800\x20AC\xD7FF\xE000\xFFFF\x10000\x1F600\x10FFFF z";
    const char utf8[] = "a\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xE2\x82\xAC\xED\x9F\xBF\xEE\x80\x80"
                        "\xEF\xBF\xBF\xF0\x90\x80\x80\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF z";
    EXPECT_EQ(convert(wcs_to_utf8, wide), utf8);
    EXPECT_EQ(convert(utf8_to_wcs, utf8), wide);
    EXPECT_EQ(convert(wcs_to_utf8, L""), "");
    char* narrow = nullptr;
    wchar_t* widened = nullptr;
    ASSERT_EQ(wcs_to_utf8_malloced(wide, &narrow), VELK_SUCCESS);
    ASSERT_EQ(utf8_to_wcs_malloced(narrow, &widened), VELK_SUCCESS);
    EXPECT_EQ(std::wstring(widened), wide);
    free(narrow), free(widened);
    for (const char* text : {"\xC0\xAF", "\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80",
                             "\xED\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "ok\x80",
                             "ab\xC3", "ab\xF0\x9F\x98", "\xE2" "a\xAC"})
        refused(utf8_to_wcs, utf8_to_wcs_malloced, text);
    for (const wchar_t* text : {L"a\xD800", L"\xDFFF", L"\x110000", L"b\xFFFFFFFF"})
        refused(wcs_to_utf8, wcs_to_utf8_malloced, text);
    EXPECT_EQ(utf8_to_wcs_malloced(nullptr, &widened), VELK_E_NULL_POINTER);
    EXPECT_EQ(wcs_to_utf8_malloced(L"a", nullptr), VELK_E_BAD_POINTER);
}

const char kRaw[4] = {'w', 'x', 'y', 'z'};

TEST(BoundedText, FitCutTerminated) {
    // Operations: printf of "%s", copy, append, append counted.
    const struct { char op; const char* initial; size_t size; const char* source; size_t count;
                   unsigned status; const char* result; } cases[] = {
        {'p', "", 4, "abc", 0, 0, "abc"}, {'p', "", 4, "abcd", 0, 103, "abc"},
        {'p', "#", 1, "x", 0, 103, ""}, {'c', "", 4, "abc", 0, 0, "abc"},
        {'c', "", 3, kRaw, 0, 103, "wx"}, {'a', "ab", 6, "cde", 0, 0, "abcde"},
        {'a', "ab", 6, "cdefg", 0, 103, "abcde"}, {'a', "abcd", 4, "e", 0, 103, "abcd"},
        {'n', "ab", 8, kRaw, 4, 0, "abwxyz"}, {'n', "ab", 8, "cdefgh", 2, 0, "abcd"},
        {'n', "ab", 4, "cdef", 3, 103, "abc"}, {'n', "ab", 2, "c", 1, 103, "ab"}};
    char b[20];
    for (const auto& c : cases) {
        memset(b, '#', sizeof b);
        memcpy(b, c.initial, strlen(c.initial) < c.size ? strlen(c.initial) + 1 : c.size);
        const unsigned status = c.op == 'p'   ? snprintf_safe(b, c.size, "%s", c.source)
                                : c.op == 'c' ? strcpy_safe(b, c.size, c.source)
                                : c.op == 'a' ? strcat_safe(b, c.size, c.source)
                                              : strncat_safe(b, c.size, c.source, c.count);
        EXPECT_EQ(status, c.status) << c.op << c.result;
        EXPECT_EQ(std::string(b, strnlen(b, c.size)) + b[c.size], c.result + std::string("#")) << c.op;
    }
    for (unsigned status : {snprintf_safe(nullptr, 8, "x"), snprintf_safe(b, 0, "x"),
                            strcpy_safe(nullptr, 8, "x"), strcpy_safe(b, 8, nullptr),
                            strcat_safe(b, 0, "x"), strncat_safe(b, 8, nullptr, 1)})
        EXPECT_EQ(status, VELK_E_NULL_POINTER);
}

}  // namespace
