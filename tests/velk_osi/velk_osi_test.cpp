// The OS layer against real files, mappings, devices and the environment.
#include "test_helpers.h"

#include <stdlib.h>
#include <string.h>

#include <climits>

using VelkOsi = velk_test::TempDirTest;
using U = std::vector<unsigned long long>;  // a braced list runs left to right
using Bytes = std::vector<unsigned char>;

TEST_F(VelkOsi, FilesMapsTextsEnvironmentAndDelete)
{
    const std::string f = path("f"), data = "abcdefghijklmnopqrstuvwxyz";
    velk_test::write_file(f, Bytes(9, 'o'));
    long long h = VELK_OSI_Open_File(f.c_str(), VELK_OSI_MODE_CREATE | VELK_OSI_MODE_READ);
    unsigned long long n = 0;
    char got[8] = {}, c = '3';
    EXPECT_EQ((U{0, 0, 26}),
              (U{VELK_OSI_Get_File_Size(h),
                 VELK_OSI_Write(h, const_cast<char*>(data.data()), data.size(), &n), n}));
    EXPECT_EQ(velk_test::read_file(f), Bytes(data.begin(), data.end()));
    EXPECT_EQ((std::vector<long long>{10, 12, 23, 0, 3, -1, 0, 0, VELK_E_NULL_POINTER}),
              (std::vector<long long>{
                  VELK_OSI_Set_File_Pointer(h, 10, VELK_OSI_SEEK_BEGIN),
                  VELK_OSI_Set_File_Pointer(h, 2, VELK_OSI_SEEK_CURRENT),
                  VELK_OSI_Set_File_Pointer(h, -3, VELK_OSI_SEEK_END), VELK_OSI_Read(h, got, 8, &n),
                  (long long)n, VELK_OSI_Set_File_Pointer(h, 30, 3), VELK_OSI_Close_Handle(h, 0),
                  (long long)VELK_OSI_Get_File_Size(h), VELK_OSI_Close_Handle(h, 0)}));
    EXPECT_EQ(std::string(got, n), "xyz");
    velk_test::write_file(f, {'x', 'y', 'z'});
    h = VELK_OSI_Open_File(f.c_str(), VELK_OSI_MODE_READ);  // may not write; write-only not read
    EXPECT_EQ((U{194, 0, 'x', 0}), (U{VELK_OSI_Write(h, &c, 1, &n), VELK_OSI_Read(h, got, 1, &n),
                                      (unsigned char)got[0], VELK_OSI_Close_Handle(h, 0)}));
    h = VELK_OSI_Open_File(f.c_str(), VELK_OSI_MODE_WRITE);
    EXPECT_EQ((U{0, 22, 0}), (U{VELK_OSI_Write(h, &c, 1, &n), VELK_OSI_Read(h, got, 1, &n),
                                VELK_OSI_Close_Handle(h, 0)}));
    EXPECT_EQ(velk_test::read_file(f), (Bytes{'3', 'y', 'z'}));
    h = VELK_OSI_Open_File("/dev/full", VELK_OSI_MODE_WRITE);
    EXPECT_EQ((U{VELK_E_DISK_FULL, 0, 0}),
              (U{VELK_OSI_Write(h, got, 4, &(n = 9)), n, VELK_OSI_Close_Handle(h, 0)}));

    const long long page = VELK_OSI_Get_Allocation_Granualarity();
    std::string bytes = std::string(page, 'A') + std::string(page, 'B');
    velk_test::write_file(f, Bytes(bytes.begin(), bytes.end()));
    h = VELK_OSI_Open_File(f.c_str(), VELK_OSI_MODE_READ);
    const long long map = VELK_OSI_Create_File_Map(h, 0);
    char* all = static_cast<char*>(VELK_OSI_Map_File_View(map, 1, 0, 2 * page, 2, nullptr));
    char* second = static_cast<char*>(VELK_OSI_Map_File_View(map, 1, page, page, 2, nullptr));
    ASSERT_TRUE(all != nullptr && second != nullptr);
    EXPECT_EQ(std::string(all, 2 * page) + std::string(second, page), bytes + bytes.substr(page));
    EXPECT_EQ((U{0, VELK_E_NULL_POINTER, 0, 0, 2ULL * page, 0}),
              (U{VELK_OSI_Unmap_File_View(second, page), VELK_OSI_Unmap_File_View(all + 1, page),
                 VELK_OSI_Unmap_File_View(all, 2 * page), VELK_OSI_Close_Handle(map, 1),
                 VELK_OSI_Get_File_Size(h), VELK_OSI_Close_Handle(h, 0)}));

    char text[32] = "#";
    unsigned needed = 0;
    EXPECT_EQ((U{0, 21, VELK_E_BUFFER_TOO_SMALL}),
              (U{VELK_OSI_i64toa(nullptr, 0, 5, &needed), needed,
                 VELK_OSI_i64toa(text, 20, 5, &needed)}));
    EXPECT_STREQ(text, "#");
    EXPECT_EQ(VELK_OSI_i64toa(text, 21, LLONG_MIN, nullptr), 0u);
    EXPECT_STREQ(text, "-9223372036854775808");
    EXPECT_EQ(VELK_E_ENV_NOT_SET, VELK_OSI_Getenv("VELK_OSI_TEST", 16, text));
    setenv("VELK_OSI_TEST", "abcdefgh", 1);
    memset(text, '#', sizeof text);
    EXPECT_EQ(VELK_OSI_Getenv("VELK_OSI_TEST", 4, text), 0u);  // cut, not terminated
    EXPECT_EQ(std::string(text, 6), "abcd##");
    EXPECT_EQ(VELK_OSI_Getenv("VELK_OSI_TEST", 10, text), 0u);
    EXPECT_EQ(std::string(text, 12), std::string("abcdefgh\0\0##", 12));
    unsetenv("VELK_OSI_TEST");
    EXPECT_EQ((U{0, 0}), (U{VELK_OSI_Delete_File(f.c_str()), VELK_OSI_Delete_File(f.c_str())}));
    EXPECT_FALSE(velk_test::file_exists(f));
}
