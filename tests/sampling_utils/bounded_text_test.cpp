// Bounded text: what fits, what is cut, termination and refused arguments.

#include "sampling_utils.h"
#include "velk.h"

#include <string.h>

#include <gtest/gtest.h>

namespace {

TEST(BoundedText, Snprintf) {
    char buffer[16];
    memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(snprintf_safe(buffer, sizeof buffer, "%s%cvelk_%u", "/tmp", '/', 42u), VELK_SUCCESS);
    EXPECT_STREQ(buffer, "/tmp/velk_42");

    // 15 characters fit exactly; 16 are cut to 15 and terminated.
    EXPECT_EQ(snprintf_safe(buffer, sizeof buffer, "%s", "123456789012345"), VELK_SUCCESS);
    EXPECT_STREQ(buffer, "123456789012345");
    EXPECT_EQ(snprintf_safe(buffer, sizeof buffer, "%s", "1234567890123456"),
              VELK_E_BUFFER_TOO_SMALL);
    EXPECT_STREQ(buffer, "123456789012345");

    char one[1] = {'#'};
    EXPECT_EQ(snprintf_safe(one, 1, "x"), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(one[0], '\0');

    EXPECT_EQ(snprintf_safe(nullptr, 8, "x"), VELK_E_NULL_POINTER);
    EXPECT_EQ(snprintf_safe(buffer, 0, "x"), VELK_E_NULL_POINTER);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
    EXPECT_EQ(snprintf_safe(buffer, sizeof buffer, nullptr), VELK_E_NULL_POINTER);
#pragma GCC diagnostic pop
}

TEST(BoundedText, Copy) {
    char buffer[8];
    memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(strcpy_safe(buffer, sizeof buffer, "1234567"), VELK_SUCCESS);
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_EQ(strcpy_safe(buffer, sizeof buffer, ""), VELK_SUCCESS);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(strcpy_safe(buffer, sizeof buffer, "12345678"), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_STREQ(buffer, "1234567");

    // The source is read no further than the capacity needs.
    const char unterminated[10] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j'};
    EXPECT_EQ(strcpy_safe(buffer, 4, unterminated), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_STREQ(buffer, "abc");

    EXPECT_EQ(strcpy_safe(nullptr, 8, "x"), VELK_E_NULL_POINTER);
    EXPECT_EQ(strcpy_safe(buffer, 8, nullptr), VELK_E_NULL_POINTER);
    EXPECT_EQ(strcpy_safe(buffer, 0, "x"), VELK_E_NULL_POINTER);
}

TEST(BoundedText, Append) {
    char buffer[10] = "abc";
    EXPECT_EQ(strcat_safe(buffer, sizeof buffer, "def"), VELK_SUCCESS);
    EXPECT_STREQ(buffer, "abcdef");
    EXPECT_EQ(strcat_safe(buffer, sizeof buffer, "ghi"), VELK_SUCCESS);
    EXPECT_STREQ(buffer, "abcdefghi");
    EXPECT_EQ(strcat_safe(buffer, sizeof buffer, ""), VELK_SUCCESS);
    EXPECT_EQ(strcat_safe(buffer, sizeof buffer, "j"), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_STREQ(buffer, "abcdefghi");

    char cut[6] = "ab";
    EXPECT_EQ(strcat_safe(cut, sizeof cut, "cdefg"), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_STREQ(cut, "abcde");

    // No terminator within the capacity: the target is left as it is.
    char full[4] = {'w', 'x', 'y', 'z'};
    EXPECT_EQ(strcat_safe(full, sizeof full, "1"), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(memcmp(full, "wxyz", 4), 0);

    EXPECT_EQ(strcat_safe(nullptr, 8, "x"), VELK_E_NULL_POINTER);
    EXPECT_EQ(strcat_safe(buffer, 8, nullptr), VELK_E_NULL_POINTER);
    EXPECT_EQ(strcat_safe(buffer, 0, "x"), VELK_E_NULL_POINTER);
}

TEST(BoundedText, AppendCounted) {
    char buffer[8] = "ab";
    EXPECT_EQ(strncat_safe(buffer, sizeof buffer, "cdefgh", 2), VELK_SUCCESS);
    EXPECT_STREQ(buffer, "abcd");
    EXPECT_EQ(strncat_safe(buffer, sizeof buffer, "ef", 10), VELK_SUCCESS);
    EXPECT_STREQ(buffer, "abcdef");
    EXPECT_EQ(strncat_safe(buffer, sizeof buffer, "xyz", 0), VELK_SUCCESS);
    EXPECT_STREQ(buffer, "abcdef");
    EXPECT_EQ(strncat_safe(buffer, sizeof buffer, "ghij", 3), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_STREQ(buffer, "abcdefg");

    // The counted source need not be terminated.
    char target[8] = "";
    const char unterminated[3] = {'x', 'y', 'z'};
    EXPECT_EQ(strncat_safe(target, sizeof target, unterminated, 3), VELK_SUCCESS);
    EXPECT_STREQ(target, "xyz");

    char full[2] = {'a', 'b'};
    EXPECT_EQ(strncat_safe(full, sizeof full, "c", 1), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(memcmp(full, "ab", 2), 0);

    EXPECT_EQ(strncat_safe(nullptr, 8, "x", 1), VELK_E_NULL_POINTER);
    EXPECT_EQ(strncat_safe(buffer, 8, nullptr, 1), VELK_E_NULL_POINTER);
    EXPECT_EQ(strncat_safe(buffer, 0, "x", 1), VELK_E_NULL_POINTER);
}

}  // namespace
