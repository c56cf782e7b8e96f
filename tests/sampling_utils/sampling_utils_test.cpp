// The support library: logging, status texts, UTF-8 conversion, bounded text.
#include "sampling_utils.h"
#include "test_helpers.h"

#include <stdlib.h>
#include <string.h>

using Logging = velk_test::TempDirTest;

TEST_F(Logging, EnvironmentAndSinkGetExactLinesUncut)
{
    const std::string file = path("velk.log");
    velk_test::write_file(file, {'o', 'l', 'd', '\n'});
    setenv("VELK_LOG_FILE", file.c_str(), 1);
    const std::pair<const char*, unsigned> masks[] = {
        {"0X10001000", 0x10001000u}, {"010", 10}, {nullptr, 0}, {"12ab", 0}, {"0x100001000", 0},
        {"0x80001000", 0x80001000u}};
    for (const auto& m : masks) {
        m.first != nullptr ? setenv("VELK_LOG_MASK", m.first, 1) : unsetenv("VELK_LOG_MASK");
        logit_reload_configuration();
        EXPECT_EQ(g_logit_active_mask, m.second) << m.second;
    }
    const std::string y4095(4095, 'y');
    LOGIT_A(0x80000000u, "%s\n", y4095.c_str());
    LOGIT_A(0x80000000u, "no newline");
    const std::vector<unsigned char> bytes = velk_test::read_file(file);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "old\n" + y4095 + "\nno newline");
    unsetenv("VELK_LOG_MASK");
    unsetenv("VELK_LOG_FILE");
    logit_reload_configuration();

    velk_test::LogCapture log(0x80001000u);
    const std::string e10000(10000, 'e');
    LOGIT_A(0x80002000u, "<velk %u::do_init>failed %s\n", 7u, "here");
    LOGIT_A(0x00001000u, "%s\n", e10000.c_str());
    const int line = __LINE__ + 1;
    LOG_FAILED_STATUS(VELK_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "<velk 7::do_init>failed here\n", e10000 + "\n",
                               "Operation failed with error code  (" VELK_SOURCE_PATH ", " +
                                   std::to_string(line) + ") value: 0x67\n"}));
    EXPECT_EQ(log.masks(), (std::vector<unsigned>{0x80002000u, 0x1000u, VELK_MASK_FAILURE_FORM}));

    const wchar_t* text = nullptr;  // status texts: VELK_error_string's with the entry functions
    EXPECT_TRUE(KEMO_get_error_string(~0u, &text) == 0 && std::wstring(text, 4) == L"-1: ");
    EXPECT_EQ(KEMO_get_error_string(VELK_E_BAD_FILE, nullptr), VELK_E_BAD_POINTER);
}

// Queries the size, is refused one short of it without a write, then converts.
template <typename To, typename From>
static std::basic_string<To> convert(unsigned (*f)(const From*, To*, unsigned*), const From* text)
{
    unsigned size = 0, short_size = 0;
    EXPECT_EQ(f(text, nullptr, &size), VELK_E_BUFFER_TOO_SMALL);
    std::vector<To> buffer(size + 1, To('#'));
    EXPECT_EQ(f(text, buffer.data(), &(short_size = size - 1)), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_TRUE(short_size == size && buffer[0] == To('#'));
    EXPECT_EQ(f(text, buffer.data(), &size), VELK_SUCCESS);
    EXPECT_TRUE(buffer[size - 1] == To(0) && buffer[size] == To('#'));
    return std::basic_string<To>(buffer.data(), size - 1);
}

// Invalid text gives 63 and writes nothing.
template <typename To, typename From>
static void refused(unsigned (*f)(const From*, To*, unsigned*), const From* bad)
{
    To buffer[8] = {To('#')};
    unsigned size = 8;
    EXPECT_EQ(f(bad, buffer, &size), VELK_E_BAD_ARGUMENT) << bad;
    EXPECT_TRUE(size == 8 && buffer[0] == To('#'));
}

// One of printf "%s", copy, append, counted append on '#'s holding `initial`; '#' stays after.
static void bounded(char op, const char* initial, size_t size, const char* source, size_t count,
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

TEST(Text, ConvertsRoundTripRefusalsAndBoundedCopies)
{
    const wchar_t wide[] = L"a\x7F\x80\x7FF\x800\x20AC\xD7FF\xE000\xFFFF\x10000\x1F600\x10FFFF z";
    const char utf8[] =
        "a\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xE2\x82\xAC\xED\x9F\xBF\xEE\x80\x80"
        "\xEF\xBF\xBF\xF0\x90\x80\x80\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF z";
    EXPECT_EQ(convert(wcs_to_utf8, wide), utf8);
    EXPECT_EQ(convert(utf8_to_wcs, utf8), wide);
    // Overlong, surrogate, past U+10FFFF, no lead byte, cut short, a broken sequence.
    for (const char* text :
         {"\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "ok\x80", "ab\xC3", "\xE2\x61\xAC"})
        refused(utf8_to_wcs, text);
    refused(wcs_to_utf8, L"a\xD800");

    const char raw[4] = {'w', 'x', 'y', 'z'};
    bounded('p', "", 4, "abcd", 0, 103, "abc");
    bounded('c', "", 3, raw, 0, 103, "wx");
    bounded('a', "ab", 6, "cdefg", 0, 103, "abcde");
    bounded('n', "ab", 8, raw, 4, 0, "abwxyz");
    bounded('n', "ab", 4, "cdef", 3, 103, "abc");
    char b[8];
    EXPECT_EQ(VELK_E_NULL_POINTER, strcpy_safe(b, 8, nullptr));
}
