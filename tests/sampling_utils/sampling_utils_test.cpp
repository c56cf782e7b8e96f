// The support library: logging, status texts, UTF-8 conversion, bounded text.
#include "sampling_utils.h"
#include "test_helpers.h"

#include <stdlib.h>
#include <string.h>

#include <sstream>

namespace {

class Logging : public velk_test::TempDirTest {};

TEST_F(Logging, EnvironmentAndSinkGetExactLinesUncut)
{
    const std::string file = path("velk.log");
    velk_test::write_file(file, {'o', 'l', 'd', '\n'});
    setenv("VELK_LOG_FILE", file.c_str(), 1);
    const char* const texts[] = {"0x80000000", "0X10001000",  "4096",      "010",
                                 "0",          nullptr,       "junk",      "12ab",
                                 "-1",         "0x100001000", "0x80001000"};
    const unsigned masks[] = {0x80000000u, 0x10001000u, 0x1000u, 10, 0, 0, 0, 0, 0, 0, 0x80001000u};
    for (size_t i = 0; i < 11; ++i) {
        texts[i] != nullptr ? setenv("VELK_LOG_MASK", texts[i], 1) : unsetenv("VELK_LOG_MASK");
        logit_reload_configuration();
        EXPECT_EQ(g_logit_active_mask, masks[i]) << i;
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
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "<velk 7::do_init>failed here\n", e10000 + "\n",
                               "Operation failed with error code  (" VELK_SOURCE_PATH ", " +
                                   std::to_string(line) + ") value: 0x67\n"}));
    EXPECT_EQ(log.masks(), (std::vector<unsigned>{0x80002000u, 0x1000u, VELK_MASK_FAILURE_FORM}));
}

TEST(StatusText, EveryStatusNamedUnknownRefused)
{
    // The fixed numbers of the statuses, each followed by its name below.
    const unsigned codes[] = {0,   22,  24,  25,  26,  27,  29,  34,  36,  39,  44,  63,  72,  73,
                              77,  78,  79,  80,  81,  82,  84,  85,  86,  97,  98,  103, 111, 113,
                              124, 125, 126, 127, 129, 143, 144, 145, 168, 194, 195, ~0u};
    std::istringstream names(
        "VELK_SUCCESS VELK_E_NULL_POINTER VELK_E_BAD_FILE VELK_E_UNKNOWN_SECTION VELK_E_NO_MEMORY "
        "VELK_E_ENV_NOT_SET VELK_E_BUFFER_OVERFLOW VELK_E_MAP_FAILED VELK_E_BAD_POINTER "
        "VELK_E_BAD_READ_START VELK_E_OPEN_FAILED VELK_E_BAD_ARGUMENT VELK_E_ARCH_MISMATCH "
        "VELK_E_UNSUPPORTED VELK_E_SECTION_BUSY VELK_E_SECTION_MISSING VELK_E_BAD_STREAM "
        "VELK_E_STREAM_STATE VELK_E_ALREADY_IN_USE VELK_E_NO_DESCRIPTORS VELK_E_VERSION_MISMATCH "
        "VELK_E_NO_PID_SECTION VELK_E_READ_START_TOO_LARGE VELK_E_BAD_STRING_ID "
        "VELK_E_DESC_SIZE_MISMATCH VELK_E_BUFFER_TOO_SMALL VELK_E_NO_PERMISSION VELK_E_NOT_BOUND "
        "VELK_E_NOT_READING VELK_E_NOT_WRITING VELK_E_SECTION_OPEN VELK_E_STREAM_SECTION_OPEN "
        "VELK_E_STREAM_NOT_BOUND VELK_E_TOO_FEW_CPUIDS VELK_E_UNSUPPORTED_ARCH "
        "VELK_E_NOTHING_TO_WRITE VELK_E_TOO_MANY_EVENTS VELK_E_WRITE_FAILED VELK_E_DISK_FULL -1");
    const wchar_t* text = nullptr;
    std::string name;
    for (unsigned code : codes) {
        ASSERT_TRUE(names >> name);
        ASSERT_EQ(KEMO_get_error_string(code, &text), VELK_SUCCESS) << code;
        EXPECT_EQ(velk_test::narrow(text).substr(0, name.size() + 2), name + ": ");
        EXPECT_GT(wcslen(text), name.size() + 7) << code;
    }
    for (unsigned u : {1u, 23u, 196u})
        EXPECT_EQ(KEMO_get_error_string(u, &text), VELK_E_BAD_ARGUMENT) << u;
    EXPECT_EQ(KEMO_get_error_string(VELK_E_BAD_FILE, nullptr), VELK_E_BAD_POINTER);
}

// Queries the size, is refused one short of it without a write, then converts.
template <typename To, typename From>
std::basic_string<To> convert(unsigned (*f)(const From*, To*, unsigned*), const From* text)
{
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
void refused(unsigned (*f)(const From*, To*, unsigned*), unsigned (*fm)(const From*, To**),
             const From* bad)
{
    To buffer[8] = {To('#')}, *allocated = buffer;
    unsigned size = 8;
    EXPECT_EQ(f(bad, buffer, &size), VELK_E_BAD_ARGUMENT) << bad;
    EXPECT_TRUE(size == 8 && buffer[0] == To('#'));
    EXPECT_EQ(fm(bad, &allocated), VELK_E_BAD_ARGUMENT);
    EXPECT_EQ(allocated, nullptr);
}

TEST(CharConvert, RoundTripsAndRefusals)
{
    const wchar_t wide[] = L"a\x7F\x80\x7FF\x800\x20AC\xD7FF\xE000\xFFFF\x10000\x1F600\x10FFFF z";
    const char utf8[] =
        "a\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xE2\x82\xAC\xED\x9F\xBF\xEE\x80\x80"
        "\xEF\xBF\xBF\xF0\x90\x80\x80\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF z";
    EXPECT_EQ(convert(wcs_to_utf8, wide), utf8);
    EXPECT_EQ(convert(utf8_to_wcs, utf8), wide);
    EXPECT_EQ(convert(wcs_to_utf8, L""), "");
    char* narrow = nullptr;
    wchar_t* widened = nullptr;
    ASSERT_EQ(wcs_to_utf8_malloced(wide, &narrow), VELK_SUCCESS);
    ASSERT_EQ(utf8_to_wcs_malloced(narrow, &widened), VELK_SUCCESS);
    EXPECT_EQ(std::wstring(widened), wide);
    free(narrow);
    free(widened);
    for (const char* text : {"\xC0\xAF", "\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",
                             "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80",
                             "\xFF", "ok\x80", "ab\xC3", "ab\xF0\x9F\x98", "\xE2\x61\xAC"})
        refused(utf8_to_wcs, utf8_to_wcs_malloced, text);
    for (const wchar_t* text : {L"a\xD800", L"\xDFFF", L"\x110000", L"b\xFFFFFFFF"})
        refused(wcs_to_utf8, wcs_to_utf8_malloced, text);
    EXPECT_EQ(utf8_to_wcs_malloced(nullptr, &widened), VELK_E_NULL_POINTER);
    EXPECT_EQ(wcs_to_utf8_malloced(L"a", nullptr), VELK_E_BAD_POINTER);
}

const char kRaw[4] = {'w', 'x', 'y', 'z'};

// Runs one operation on a buffer of '#' that holds `initial` (printf of "%s",
// copy, append, append counted); expects `status` and `result` with the
// buffer's next byte untouched.
void bounded(char op, const char* initial, size_t size, const char* source, size_t count,
             unsigned status, const char* result)
{
    char b[20];
    memset(b, '#', sizeof b);
    memcpy(b, initial, strlen(initial) < size ? strlen(initial) + 1 : size);
    EXPECT_EQ(status, op == 'p'   ? snprintf_safe(b, size, "%s", source)
                      : op == 'c' ? strcpy_safe(b, size, source)
                      : op == 'a' ? strcat_safe(b, size, source)
                                  : strncat_safe(b, size, source, count))
        << op << result;
    EXPECT_EQ(std::string(b, strnlen(b, size)) + b[size], result + std::string("#")) << op;
}

TEST(BoundedText, FitCutTerminated)
{
    bounded('p', "", 4, "abc", 0, 0, "abc");
    bounded('p', "", 4, "abcd", 0, 103, "abc");
    bounded('p', "#", 1, "x", 0, 103, "");
    bounded('c', "", 4, "abc", 0, 0, "abc");
    bounded('c', "", 3, kRaw, 0, 103, "wx");
    bounded('a', "ab", 6, "cde", 0, 0, "abcde");
    bounded('a', "ab", 6, "cdefg", 0, 103, "abcde");
    bounded('a', "abcd", 4, "e", 0, 103, "abcd");
    bounded('n', "ab", 8, kRaw, 4, 0, "abwxyz");
    bounded('n', "ab", 8, "cdefgh", 2, 0, "abcd");
    bounded('n', "ab", 4, "cdef", 3, 103, "abc");
    bounded('n', "ab", 2, "c", 1, 103, "ab");
    char b[8];
    for (unsigned status :
         {snprintf_safe(nullptr, 8, "x"), snprintf_safe(b, 0, "x"), strcpy_safe(nullptr, 8, "x"),
          strcpy_safe(b, 8, nullptr), strcat_safe(b, 0, "x"), strncat_safe(b, 8, nullptr, 1)})
        EXPECT_EQ(status, VELK_E_NULL_POINTER);
}

}  // namespace
