// Conversion between wide text and UTF-8: round trips, the size protocol,
// and refusal of text that is not Unicode.

#include "sampling_utils.h"
#include "velk.h"

#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Characters of every UTF-8 length, with the edges of each range.
const wchar_t kMixed[] = L"a\x7F\x80\xE9\x7FF\x800\x20AC\xD7FF\xE000\xFFFD\xFFFF"
                         L"\x10000\x1F600\x10FFFF z";
const char kMixedUtf8[] =
    "a\x7F\xC2\x80\xC3\xA9\xDF\xBF\xE0\xA0\x80\xE2\x82\xAC\xED\x9F\xBF\xEE\x80\x80"
    "\xEF\xBF\xBD\xEF\xBF\xBF\xF0\x90\x80\x80\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF z";

std::string to_utf8(const wchar_t* text) {
    unsigned int size = 0;
    EXPECT_EQ(wcs_to_utf8(text, nullptr, &size), VELK_E_BUFFER_TOO_SMALL);
    std::vector<char> buffer(size);
    EXPECT_EQ(wcs_to_utf8(text, buffer.data(), &size), VELK_SUCCESS);
    EXPECT_EQ(size, buffer.size());
    return std::string(buffer.data());
}

std::wstring to_wide(const char* text) {
    unsigned int count = 0;
    EXPECT_EQ(utf8_to_wcs(text, nullptr, &count), VELK_E_BUFFER_TOO_SMALL);
    std::vector<wchar_t> buffer(count);
    EXPECT_EQ(utf8_to_wcs(text, buffer.data(), &count), VELK_SUCCESS);
    EXPECT_EQ(count, buffer.size());
    return std::wstring(buffer.data());
}

TEST(CharConvert, RoundTripsEverySequenceLength) {
    EXPECT_EQ(to_utf8(L"plain ascii"), "plain ascii");
    EXPECT_EQ(to_wide("plain ascii"), L"plain ascii");
    EXPECT_EQ(to_utf8(L""), "");
    EXPECT_EQ(to_wide(""), L"");

    EXPECT_EQ(to_utf8(kMixed), kMixedUtf8);
    EXPECT_EQ(to_wide(kMixedUtf8), kMixed);
    EXPECT_EQ(to_wide(to_utf8(kMixed).c_str()), kMixed);

    char* narrow = nullptr;
    ASSERT_EQ(wcs_to_utf8_malloced(kMixed, &narrow), VELK_SUCCESS);
    EXPECT_STREQ(narrow, kMixedUtf8);
    wchar_t* wide = nullptr;
    ASSERT_EQ(utf8_to_wcs_malloced(narrow, &wide), VELK_SUCCESS);
    EXPECT_EQ(std::wstring(wide), kMixed);
    free(narrow);
    free(wide);
}

TEST(CharConvert, CountsIncludeTheTerminatorAndFitExactly) {
    // "aé€😀": 1 + 2 + 3 + 4 bytes, 4 characters.
    const wchar_t wide[] = L"a\xE9\x20AC\x1F600";
    const char utf8[] = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";

    unsigned int size = 1000;
    EXPECT_EQ(wcs_to_utf8(wide, nullptr, &size), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 11u);

    char bytes[16];
    memset(bytes, '#', sizeof bytes);
    size = 10;
    EXPECT_EQ(wcs_to_utf8(wide, bytes, &size), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 11u);
    EXPECT_EQ(bytes[0], '#');
    EXPECT_EQ(bytes[10], '#');
    size = 11;
    EXPECT_EQ(wcs_to_utf8(wide, bytes, &size), VELK_SUCCESS);
    EXPECT_EQ(size, 11u);
    EXPECT_EQ(memcmp(bytes, utf8, 11), 0);
    EXPECT_EQ(bytes[11], '#');

    unsigned int count = 1000;
    EXPECT_EQ(utf8_to_wcs(utf8, nullptr, &count), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 5u);

    wchar_t chars[8];
    for (wchar_t& c : chars) c = L'#';
    count = 4;
    EXPECT_EQ(utf8_to_wcs(utf8, chars, &count), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(chars[0], L'#');
    EXPECT_EQ(chars[3], L'#');
    count = 5;
    EXPECT_EQ(utf8_to_wcs(utf8, chars, &count), VELK_SUCCESS);
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(wmemcmp(chars, wide, 5), 0);
    EXPECT_EQ(chars[5], L'#');

    // The empty text needs its terminator only.
    count = 0;
    EXPECT_EQ(utf8_to_wcs("", chars, &count), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 1u);
    size = 1;
    EXPECT_EQ(wcs_to_utf8(L"", bytes, &size), VELK_SUCCESS);
    EXPECT_EQ(bytes[0], '\0');
}

TEST(CharConvert, InvalidUtf8IsRefusedWithoutWriting) {
    const char* const invalid[] = {
        "\xC0\xAF",              // overlong '/'
        "\xC1\xBF",              // overlong 2-byte
        "\xE0\x80\xAF",          // overlong 3-byte
        "\xE0\x9F\xBF",          // overlong 3-byte, just below U+0800
        "\xF0\x80\x80\xAF",      // overlong 4-byte
        "\xF0\x8F\xBF\xBF",      // overlong 4-byte, just below U+10000
        "\xED\xA0\x80",          // U+D800
        "\xED\xBF\xBF",          // U+DFFF
        "\xF4\x90\x80\x80",      // U+110000
        "\xF5\x80\x80\x80",      // lead byte beyond Unicode
        "\xFF",                  // never a UTF-8 byte
        "ok\x80",                // stray continuation
        "\xBF" "abc",            // stray continuation first
        "ab\xC3",                // cut at the end
        "ab\xE2\x82",            // cut at the end
        "ab\xF0\x9F\x98",        // cut at the end
        "\xE2" "a\xAC",          // interrupted sequence
        "\xC3\xA9\xC3",          // valid, then cut
    };
    for (const char* text : invalid) {
        wchar_t chars[8];
        for (wchar_t& c : chars) c = L'#';
        unsigned int count = 8;
        EXPECT_EQ(utf8_to_wcs(text, chars, &count), VELK_E_BAD_ARGUMENT) << text;
        EXPECT_EQ(count, 8u);
        EXPECT_EQ(chars[0], L'#');
        count = 0;
        EXPECT_EQ(utf8_to_wcs(text, nullptr, &count), VELK_E_BAD_ARGUMENT);
        wchar_t* wide = reinterpret_cast<wchar_t*>(&count);
        EXPECT_EQ(utf8_to_wcs_malloced(text, &wide), VELK_E_BAD_ARGUMENT);
        EXPECT_EQ(wide, nullptr);
    }

    // A sequence cut by the terminator: nothing beyond it is read (the
    // copy below is exactly as long as the text, so a read past it would
    // be caught by the address checker).
    const char cut[] = {'x', '\xF0', '\x9F', '\0'};
    std::vector<char> exact(cut, cut + sizeof cut);
    unsigned int count = 0;
    EXPECT_EQ(utf8_to_wcs(exact.data(), nullptr, &count), VELK_E_BAD_ARGUMENT);
}

TEST(CharConvert, WideCharactersOutsideUnicodeAreRefused) {
    const wchar_t invalid[][3] = {
        {L'a', (wchar_t)0xD800, 0}, {L'a', (wchar_t)0xDFFF, 0}, {(wchar_t)0x110000, 0, 0},
        {(wchar_t)0x7FFFFFFF, 0, 0}, {(wchar_t)-1, 0, 0},      {L'b', (wchar_t)-0x41, 0},
    };
    for (const auto& text : invalid) {
        char bytes[16];
        memset(bytes, '#', sizeof bytes);
        unsigned int size = sizeof bytes;
        EXPECT_EQ(wcs_to_utf8(text, bytes, &size), VELK_E_BAD_ARGUMENT);
        EXPECT_EQ(size, sizeof bytes);
        EXPECT_EQ(bytes[0], '#');
        char* narrow = bytes;
        EXPECT_EQ(wcs_to_utf8_malloced(text, &narrow), VELK_E_BAD_ARGUMENT);
        EXPECT_EQ(narrow, nullptr);
    }
}

TEST(CharConvert, NullArguments) {
    unsigned int size = 4;
    char bytes[4];
    wchar_t chars[4];
    char* narrow = nullptr;
    wchar_t* wide = nullptr;
    EXPECT_EQ(wcs_to_utf8(nullptr, bytes, &size), VELK_E_NULL_POINTER);
    EXPECT_EQ(wcs_to_utf8(L"a", bytes, nullptr), VELK_E_BAD_POINTER);
    EXPECT_EQ(wcs_to_utf8_malloced(nullptr, &narrow), VELK_E_NULL_POINTER);
    EXPECT_EQ(wcs_to_utf8_malloced(L"a", nullptr), VELK_E_BAD_POINTER);
    EXPECT_EQ(utf8_to_wcs(nullptr, chars, &size), VELK_E_NULL_POINTER);
    EXPECT_EQ(utf8_to_wcs("a", chars, nullptr), VELK_E_BAD_POINTER);
    EXPECT_EQ(utf8_to_wcs_malloced(nullptr, &wide), VELK_E_NULL_POINTER);
    EXPECT_EQ(utf8_to_wcs_malloced("a", nullptr), VELK_E_BAD_POINTER);
    EXPECT_EQ(size, 4u);
}

}  // namespace
