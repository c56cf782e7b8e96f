// The OS layer against real files, mappings and devices.
#include "test_helpers.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <climits>

namespace {

using VelkOsi = velk_test::TempDirTest;
using U = std::vector<unsigned long long>;  // a braced list runs left to right

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
    unsigned long long n = 0;
    char got[8] = {};
    EXPECT_EQ((U{0, 0, 26}),
              (U{VELK_OSI_Get_File_Size(h),
                 VELK_OSI_Write(h, const_cast<char*>(data.data()), data.size(), &n), n}));
    EXPECT_EQ(slurp(f), data);
    EXPECT_EQ((std::vector<long long>{10, 12, 23, 0, 3, -1, 0, 0, VELK_E_NULL_POINTER}),
              (std::vector<long long>{
                  VELK_OSI_Set_File_Pointer(h, 10, VELK_OSI_SEEK_BEGIN),
                  VELK_OSI_Set_File_Pointer(h, 2, VELK_OSI_SEEK_CURRENT),
                  VELK_OSI_Set_File_Pointer(h, -3, VELK_OSI_SEEK_END), VELK_OSI_Read(h, got, 8, &n),
                  (long long)n, VELK_OSI_Set_File_Pointer(h, 30, 3), VELK_OSI_Close_Handle(h, 0),
                  (long long)VELK_OSI_Get_File_Size(h), VELK_OSI_Close_Handle(h, 0)}));
    EXPECT_EQ(std::string(got, n), "xyz");
    velk_test::write_file(f, {'x', 'y', 'z'});
    // Per mode: the status of writing '0' + mode at the start, the status,
    // byte and count of one read, then the file.
    const unsigned modes[][5] = {{VELK_OSI_MODE_READ, 194, 0, 'x', 1},
                                 {0, 194, 0, 'x', 1},
                                 {VELK_OSI_MODE_WRITE, 0, 22, 0, 0},
                                 {VELK_OSI_MODE_READ | VELK_OSI_MODE_WRITE, 0, 0, 'y', 1}};
    const char* const after[] = {"xyz", "xyz", "2yz", "3yz"};
    for (int i = 0; i < 4; ++i) {
        h = VELK_OSI_Open_File(f.c_str(), modes[i][0]);
        char c = static_cast<char>('0' + modes[i][0]), r = 0;
        EXPECT_EQ((U{modes[i][1], modes[i][2], modes[i][3], modes[i][4], 0}),
                  (U{VELK_OSI_Write(h, &c, 1, &n), VELK_OSI_Read(h, &r, 1, &(n = 9)),
                     (unsigned char)r, n, VELK_OSI_Close_Handle(h, 0)}))
            << i;
        EXPECT_EQ(slurp(f), after[i]);
    }
    h = VELK_OSI_Open_File("/dev/full", VELK_OSI_MODE_WRITE);
    EXPECT_EQ((U{VELK_E_DISK_FULL, 0, 0}),
              (U{VELK_OSI_Write(h, got, 4, &(n = 9)), n, VELK_OSI_Close_Handle(h, 0)}));
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
    EXPECT_EQ(VELK_OSI_Map_File_View(-1, 1, 0, page, 2, nullptr), nullptr);
    EXPECT_EQ((U{0, VELK_E_NULL_POINTER, 0, 0, 2ULL * page, 0}),
              (U{VELK_OSI_Unmap_File_View(second, page), VELK_OSI_Unmap_File_View(all + 1, page),
                 VELK_OSI_Unmap_File_View(all, 2 * page), VELK_OSI_Close_Handle(map, 1),
                 VELK_OSI_Get_File_Size(h), VELK_OSI_Close_Handle(h, 0)}));
}

TEST_F(VelkOsi, TextEnvironmentAndDelete)
{
    char text[32] = "#";
    for (auto call :
         {+[](char*d, unsigned s, unsigned*n) { return VELK_OSI_i64toa(d, s, 5, n); },
          +[](char*d, unsigned s, unsigned*n) { return VELK_OSI_ui64tow(d, s, 5, n); }}) {
        unsigned needed = 0;
        EXPECT_EQ((U{0, 21, VELK_E_BUFFER_TOO_SMALL, VELK_E_BUFFER_TOO_SMALL}),
                  (U{call(nullptr, 0, &needed), needed, call(nullptr, 21, &needed),
                     call(text, 20, &needed)}));
        EXPECT_STREQ(text, "#");
        EXPECT_EQ(call(text, 21, nullptr), 0u);
        EXPECT_STREQ(text, "5");
        strcpy(text, "#");
    }
    EXPECT_EQ(VELK_OSI_i64toa(text, 21, LLONG_MIN, nullptr), 0u);
    EXPECT_STREQ(text, "-9223372036854775808");
    EXPECT_EQ(VELK_OSI_ui64tow(text, 21, ULLONG_MAX, nullptr), 0u);
    EXPECT_STREQ(text, "18446744073709551615");
    EXPECT_EQ(VELK_OSI_Sprintf(text, "%s-%d-%llu", "pid", -3, 42ULL), 9);
    EXPECT_STREQ(text, "pid--3-42");

    EXPECT_EQ((U{VELK_E_NULL_POINTER, VELK_E_ENV_NOT_SET}),
              (U{VELK_OSI_Getenv("VELK_OSI_TEST", 16, nullptr),
                 VELK_OSI_Getenv("VELK_OSI_TEST", 16, text)}));
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
