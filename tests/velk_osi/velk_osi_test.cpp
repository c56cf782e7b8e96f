// The OS layer against real files, mappings and devices.

#include "test_helpers.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <climits>

namespace {

using VelkOsi = velk_test::TempDirTest;

std::string slurp(const std::string& p)
{
    auto b = velk_test::read_file(p);
    return {b.begin(), b.end()};
}

TEST_F(VelkOsi, OpenModesWriteReadAndSeek)
{
    const std::string f = path("f"), data = "abcdefghijklmnopqrstuvwxyz";
    velk_test::write_file(f, std::vector<unsigned char>(9, 'o'));
    long long h = VELK_OSI_Open_File(f.c_str(), VELK_OSI_MODE_CREATE | VELK_OSI_MODE_READ);
    EXPECT_EQ(VELK_OSI_Get_File_Size(h), 0u);
    unsigned long long n = 0;
    EXPECT_EQ(VELK_OSI_Write(h, const_cast<char*>(data.data()), data.size(), &n), 0u);
    EXPECT_EQ(n, 26u);
    EXPECT_EQ(slurp(f), data);
    char got[8] = {}, c = 0;
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, 10, VELK_OSI_SEEK_BEGIN), 10);
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, 2, VELK_OSI_SEEK_CURRENT), 12);
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, -3, VELK_OSI_SEEK_END), 23);
    EXPECT_EQ(VELK_OSI_Read(h, got, 8, &n), 0u);
    EXPECT_EQ(std::string(got, n), "xyz");
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, 30, 3), -1);
    EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), 0u);
    EXPECT_EQ(VELK_OSI_Get_File_Size(h), 0u);
    EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), VELK_E_NULL_POINTER);
    velk_test::write_file(f, {'x', 'y', 'z'});
    // Per mode: status of writing '0' + mode at the start, then status and byte of one read.
    const struct {
        unsigned mode, write, read;
        char byte;
        const char* after;
    } modes[] = {{VELK_OSI_MODE_READ, 194, 0, 'x', "xyz"},
                 {0, 194, 0, 'x', "xyz"},
                 {VELK_OSI_MODE_WRITE, 0, 22, 0, "2yz"},
                 {VELK_OSI_MODE_READ | VELK_OSI_MODE_WRITE, 0, 0, 'y', "3yz"}};
    for (const auto& m : modes) {
        h = VELK_OSI_Open_File(f.c_str(), m.mode);
        EXPECT_EQ(VELK_OSI_Write(h, &(c = static_cast<char>('0' + m.mode)), 1, &n), m.write)
            << m.mode;
        EXPECT_EQ(VELK_OSI_Read(h, &(c = 0), 1, &(n = 9)), m.read) << m.mode;
        EXPECT_EQ(std::string(1, c) + std::to_string(n),
                  std::string(1, m.byte) + (m.read ? "0" : "1"));
        EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), 0u);
        EXPECT_EQ(slurp(f), m.after);
    }
    h = VELK_OSI_Open_File("/dev/full", VELK_OSI_MODE_WRITE);
    EXPECT_EQ(VELK_OSI_Write(h, got, 4, &(n = 9)), VELK_E_DISK_FULL);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), 0u);
}

TEST_F(VelkOsi, MapViewsAndMapHandles)
{
    const long long page = VELK_OSI_Get_Allocation_Granualarity();
    ASSERT_EQ(page, sysconf(_SC_PAGESIZE));
    std::string bytes = std::string(page, 'A') + std::string(page, 'B');
    velk_test::write_file(path("m"), std::vector<unsigned char>(bytes.begin(), bytes.end()));
    const long long h = VELK_OSI_Open_File(path("m").c_str(), VELK_OSI_MODE_READ);
    const long long map = VELK_OSI_Create_File_Map(h, 0);
    char* all = static_cast<char*>(VELK_OSI_Map_File_View(map, 1, 0, 2 * page, 2, nullptr));
    char* second = static_cast<char*>(VELK_OSI_Map_File_View(map, 1, page, page, 2, nullptr));
    ASSERT_TRUE(all != nullptr && second != nullptr);
    EXPECT_EQ(std::string(all, 2 * page) + std::string(second, page), bytes + bytes.substr(page));
    EXPECT_EQ(VELK_OSI_Unmap_File_View(second, page), 0u);
    EXPECT_EQ(VELK_OSI_Unmap_File_View(all + 1, page), VELK_E_NULL_POINTER);
    EXPECT_EQ(VELK_OSI_Unmap_File_View(all, 2 * page), 0u);
    EXPECT_EQ(VELK_OSI_Map_File_View(-1, 1, 0, page, 2, nullptr), nullptr);
    EXPECT_EQ(VELK_OSI_Close_Handle(map, 1), 0u);
    EXPECT_EQ(VELK_OSI_Get_File_Size(h), 2u * page);
    EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), 0u);
}

TEST_F(VelkOsi, TextEnvironmentAndDelete)
{
    char text[32] = "#";
    for (auto call :
         {+[](char*d, unsigned s, unsigned*n) { return VELK_OSI_i64toa(d, s, 5, n); },
          +[](char*d, unsigned s, unsigned*n) { return VELK_OSI_ui64tow(d, s, 5, n); }}) {
        unsigned needed = 0;
        EXPECT_EQ(call(nullptr, 0, &needed), 0u);
        EXPECT_EQ(needed, 21u);
        EXPECT_EQ(call(nullptr, 21, &needed), VELK_E_BUFFER_TOO_SMALL);
        EXPECT_EQ(call(text, 20, &needed), VELK_E_BUFFER_TOO_SMALL);
        EXPECT_STREQ(text, "#");
        EXPECT_EQ(call(text, 21, nullptr), 0u);
        EXPECT_STREQ(text, "5");
        text[0] = '#', text[1] = '\0';
    }
    EXPECT_EQ(VELK_OSI_i64toa(text, 21, LLONG_MIN, nullptr), 0u);
    EXPECT_STREQ(text, "-9223372036854775808");
    EXPECT_EQ(VELK_OSI_ui64tow(text, 21, ULLONG_MAX, nullptr), 0u);
    EXPECT_STREQ(text, "18446744073709551615");
    EXPECT_EQ(VELK_OSI_Sprintf(text, "%s-%d-%llu", "pid", -3, 42ULL), 9);
    EXPECT_STREQ(text, "pid--3-42");

    EXPECT_EQ(VELK_OSI_Getenv("VELK_OSI_TEST", 16, nullptr), VELK_E_NULL_POINTER);
    EXPECT_EQ(VELK_OSI_Getenv("VELK_OSI_TEST", 16, text), VELK_E_ENV_NOT_SET);
    setenv("VELK_OSI_TEST", "abcdefgh", 1);
    memset(text, '#', sizeof text);
    EXPECT_EQ(VELK_OSI_Getenv("VELK_OSI_TEST", 4, text), 0u);
    EXPECT_EQ(std::string(text, 6), "abcd##");
    EXPECT_EQ(VELK_OSI_Getenv("VELK_OSI_TEST", 10, text), 0u);
    EXPECT_EQ(std::string(text, 12), std::string("abcdefgh\0\0##", 12));
    unsetenv("VELK_OSI_TEST");

    velk_test::write_file(path("doomed"), {'x'});
    EXPECT_EQ(VELK_OSI_Delete_File(path("doomed").c_str()), 0u);
    EXPECT_FALSE(velk_test::file_exists(path("doomed")));
    EXPECT_EQ(VELK_OSI_Delete_File(path("never_there").c_str()), 0u);
}

}  // namespace
