// Tests of the OS layer against real files, mappings and devices.

#include "velk.h"

#include "sampling_utils.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

class VelkOsiTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* base = getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base ? base : "/tmp") +
                              "/velk_osi_XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        ASSERT_NE(mkdtemp(buffer.data()), nullptr);
        dir_ = buffer.data();
        // Every line the layer logs is caught here; only a failed name copy
        // in Delete_File may log at all.
        logit_set_sink(&VelkOsiTest::Collect, &lines_, 0xFFFFFFFFu);
    }

    void TearDown() override
    {
        logit_set_sink(nullptr, nullptr, 0);
        EXPECT_TRUE(lines_.empty()) << lines_.front();
        std::filesystem::remove_all(dir_);
    }

    static void Collect(unsigned int, const char* line, void* context)
    {
        static_cast<std::vector<std::string>*>(context)->push_back(line);
    }

    std::string Path(const std::string& name) const { return dir_ + "/" + name; }

    static void WriteFile(const std::string& path, const std::string& bytes)
    {
        std::ofstream(path, std::ios::binary) << bytes;
    }

    static std::string ReadFile(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    std::string dir_;
    std::vector<std::string> lines_;
};

TEST_F(VelkOsiTest, OpenModesSelectAccessAndCreateTruncates)
{
    const std::string path = Path("modes");
    unsigned long long count = 99;
    char byte = 0;

    // Create makes the file with 0666 less the umask.
    const mode_t mask = umask(022);
    long long h = VELK_OSI_Open_File(path.c_str(), VELK_OSI_MODE_CREATE);
    umask(mask);
    ASSERT_NE(h, -1);
    struct stat info;
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
    EXPECT_EQ(VELK_OSI_Write(h, const_cast<char*>("abc"), 3, &count), 0u);
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, 0, VELK_OSI_SEEK_BEGIN), 0);
    EXPECT_EQ(VELK_OSI_Read(h, &byte, 1, &count), 0u);
    EXPECT_EQ(byte, 'a');
    EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), 0u);

    // Create wins over the other bits and empties an existing file.
    h = VELK_OSI_Open_File(path.c_str(), VELK_OSI_MODE_CREATE | VELK_OSI_MODE_READ);
    ASSERT_NE(h, -1);
    EXPECT_EQ(VELK_OSI_Get_File_Size(h), 0u);
    EXPECT_EQ(VELK_OSI_Write(h, const_cast<char*>("xyz"), 3, &count), 0u);
    EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), 0u);
    EXPECT_EQ(ReadFile(path), "xyz");

    // Read only, by bit 0 and by no bits at all: a write fails with 194.
    for (unsigned mode : {VELK_OSI_MODE_READ, 0u}) {
        h = VELK_OSI_Open_File(path.c_str(), mode);
        ASSERT_NE(h, -1);
        count = 99;
        EXPECT_EQ(VELK_OSI_Write(h, const_cast<char*>("q"), 1, &count), VELK_E_WRITE_FAILED);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(VELK_OSI_Read(h, &byte, 1, &count), 0u);
        EXPECT_EQ(byte, 'x');
        EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), 0u);
    }

    // Write only: writes land without truncation, reads fail with 22.
    h = VELK_OSI_Open_File(path.c_str(), VELK_OSI_MODE_WRITE);
    ASSERT_NE(h, -1);
    EXPECT_EQ(VELK_OSI_Write(h, const_cast<char*>("X"), 1, &count), 0u);
    count = 99;
    EXPECT_EQ(VELK_OSI_Read(h, &byte, 1, &count), VELK_E_NULL_POINTER);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), 0u);
    EXPECT_EQ(ReadFile(path), "Xyz");

    // Read and write together.
    h = VELK_OSI_Open_File(path.c_str(), VELK_OSI_MODE_READ | VELK_OSI_MODE_WRITE);
    ASSERT_NE(h, -1);
    EXPECT_EQ(VELK_OSI_Read(h, &byte, 1, &count), 0u);
    EXPECT_EQ(byte, 'X');
    EXPECT_EQ(VELK_OSI_Write(h, const_cast<char*>("Y"), 1, &count), 0u);
    EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), 0u);
    EXPECT_EQ(ReadFile(path), "XYz");

    // Without the create bit a missing file isn't made.
    const std::string missing = Path("missing");
    EXPECT_EQ(VELK_OSI_Open_File(missing.c_str(), VELK_OSI_MODE_READ | VELK_OSI_MODE_WRITE), -1);
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(VelkOsiTest, WriteReadSizeAndSeek)
{
    const std::string path = Path("data");
    const long long h = VELK_OSI_Open_File(path.c_str(), VELK_OSI_MODE_CREATE);
    ASSERT_NE(h, -1);
    std::string bytes(5000, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 7 + 1);
    unsigned long long count = 0;
    ASSERT_EQ(VELK_OSI_Write(h, &bytes[0], bytes.size(), &count), 0u);
    EXPECT_EQ(count, bytes.size());
    EXPECT_EQ(ReadFile(path), bytes);
    EXPECT_EQ(VELK_OSI_Get_File_Size(h), 5000u);

    // Origins 1, 2 and 4 are start, current position and end.
    char got[4] = {};
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, 100, VELK_OSI_SEEK_BEGIN), 100);
    EXPECT_EQ(VELK_OSI_Read(h, got, 4, &count), 0u);
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(std::string(got, 4), bytes.substr(100, 4));
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, 10, VELK_OSI_SEEK_CURRENT), 114);
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, -4, VELK_OSI_SEEK_END), 4996);
    EXPECT_EQ(VELK_OSI_Read(h, got, 100, &count), 0u);
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(std::string(got, 4), bytes.substr(4996));
    EXPECT_EQ(VELK_OSI_Read(h, got, 4, &count), 0u);
    EXPECT_EQ(count, 0u);

    // Other origins reach lseek unchanged: 3 is SEEK_DATA here, 0 SEEK_SET.
    const int fd = static_cast<int>(h);
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, 20, 3), lseek(fd, 20, 3));
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, 6000, 3), lseek(fd, 6000, 3));
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, 6000, 3), -1);
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, 30, 0), 30);
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, 0, 77), -1);
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, -1, VELK_OSI_SEEK_BEGIN), -1);

    EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), 0u);
    EXPECT_EQ(VELK_OSI_Get_File_Size(h), 0u);
    EXPECT_EQ(VELK_OSI_Get_File_Size(-1), 0u);
    EXPECT_EQ(VELK_OSI_Set_File_Pointer(h, 0, VELK_OSI_SEEK_BEGIN), -1);
    count = 99;
    EXPECT_EQ(VELK_OSI_Read(h, got, 4, &count), VELK_E_NULL_POINTER);
    EXPECT_EQ(count, 0u);
}

TEST_F(VelkOsiTest, WriteToFullDeviceGivesDiskFull)
{
    const long long h = VELK_OSI_Open_File("/dev/full", VELK_OSI_MODE_WRITE);
    ASSERT_NE(h, -1);
    unsigned long long count = 99;
    EXPECT_EQ(VELK_OSI_Write(h, const_cast<char*>("data"), 4, &count), VELK_E_DISK_FULL);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), 0u);
}

TEST_F(VelkOsiTest, CloseHandleOfMapLeavesFileOpen)
{
    const long long h = VELK_OSI_Open_File(Path("c").c_str(), VELK_OSI_MODE_CREATE);
    ASSERT_NE(h, -1);
    EXPECT_EQ(VELK_OSI_Create_File_Map(h, 0x2), h);
    EXPECT_EQ(VELK_OSI_Close_Handle(h, 1), 0u);
    unsigned long long count = 0;
    EXPECT_EQ(VELK_OSI_Write(h, const_cast<char*>("ok"), 2, &count), 0u);
    EXPECT_EQ(VELK_OSI_Get_File_Size(h), 2u);
    EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), 0u);
    EXPECT_EQ(fcntl(static_cast<int>(h), F_GETFD), -1);
    EXPECT_EQ(VELK_OSI_Close_Handle(h, 0), VELK_E_NULL_POINTER);
    EXPECT_EQ(VELK_OSI_Close_Handle(-1, 0), VELK_E_NULL_POINTER);
    EXPECT_EQ(VELK_OSI_Close_Handle(-1, 1), 0u);
}

TEST_F(VelkOsiTest, MapFileViews)
{
    const long long page = VELK_OSI_Get_Allocation_Granualarity();
    ASSERT_EQ(page, sysconf(_SC_PAGESIZE));
    std::string bytes;
    for (char fill : {'A', 'B', 'C'})
        bytes.append(static_cast<size_t>(page), fill);
    const std::string path = Path("map");
    WriteFile(path, bytes);

    const long long ro = VELK_OSI_Open_File(path.c_str(), VELK_OSI_MODE_READ);
    ASSERT_NE(ro, -1);
    const long long map = VELK_OSI_Create_File_Map(ro, 0);
    ASSERT_EQ(map, ro);

    // Shared read-only view of the whole file, and of its third page.
    char* view = static_cast<char*>(VELK_OSI_Map_File_View(map, 1, 0, bytes.size(), 2, nullptr));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(std::string(view, bytes.size()), bytes);
    char* third = static_cast<char*>(VELK_OSI_Map_File_View(map, 1, 2 * page, page, 2, nullptr));
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(third[0], 'C');
    EXPECT_EQ(third[page - 1], 'C');
    EXPECT_EQ(VELK_OSI_Unmap_File_View(third, page), 0u);

    // Bit 0 maps at the given address.
    void* fixed = VELK_OSI_Map_File_View(map, 1, page, page, 0x1 | 0x2, view);
    ASSERT_EQ(fixed, view);
    EXPECT_EQ(view[0], 'B');
    EXPECT_EQ(view[page], 'B');
    EXPECT_EQ(VELK_OSI_Unmap_File_View(view, bytes.size()), 0u);

    // Failures give null: bad handle, unaligned offset, neither shared nor
    // private, and any protection with write (bit 1, or bit 4) shared on a
    // read-only descriptor.
    EXPECT_EQ(VELK_OSI_Map_File_View(-1, 1, 0, page, 2, nullptr), nullptr);
    EXPECT_EQ(VELK_OSI_Map_File_View(map, 1, 1, page, 2, nullptr), nullptr);
    EXPECT_EQ(VELK_OSI_Map_File_View(map, 1, 0, page, 0, nullptr), nullptr);
    EXPECT_EQ(VELK_OSI_Map_File_View(map, 0x2, 0, page, 2, nullptr), nullptr);
    EXPECT_EQ(VELK_OSI_Map_File_View(map, 0x10, 0, page, 2, nullptr), nullptr);
    EXPECT_EQ(VELK_OSI_Close_Handle(ro, 0), 0u);

    // Write protection, shared: stores reach the file. Private: they don't.
    const long long rw =
        VELK_OSI_Open_File(path.c_str(), VELK_OSI_MODE_READ | VELK_OSI_MODE_WRITE);
    ASSERT_NE(rw, -1);
    char* shared = static_cast<char*>(VELK_OSI_Map_File_View(rw, 0x2, 0, page, 2, nullptr));
    ASSERT_NE(shared, nullptr);
    shared[0] = 'S';
    char* priv = static_cast<char*>(VELK_OSI_Map_File_View(rw, 0x2, page, page, 4, nullptr));
    ASSERT_NE(priv, nullptr);
    priv[0] = 'P';
    EXPECT_EQ(VELK_OSI_Unmap_File_View(shared, page), 0u);
    EXPECT_EQ(VELK_OSI_Unmap_File_View(priv, page), 0u);
    EXPECT_EQ(VELK_OSI_Close_Handle(rw, 0), 0u);
    const std::string after = ReadFile(path);
    EXPECT_EQ(after[0], 'S');
    EXPECT_EQ(after[static_cast<size_t>(page)], 'B');

    // munmap refuses an unaligned address and a zero length.
    void* area = mmap(nullptr, page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(area, MAP_FAILED);
    EXPECT_EQ(VELK_OSI_Unmap_File_View(static_cast<char*>(area) + 1, page), VELK_E_NULL_POINTER);
    EXPECT_EQ(VELK_OSI_Unmap_File_View(area, 0), VELK_E_NULL_POINTER);
    EXPECT_EQ(munmap(area, page), 0);
}

TEST_F(VelkOsiTest, NumbersToText)
{
    // Both forms share the size protocol.
    for (int form = 0; form < 2; ++form) {
        auto call = [form](char* d, unsigned size, unsigned* needed) {
            return form == 0 ? VELK_OSI_i64toa(d, size, 5, needed)
                             : VELK_OSI_ui64tow(d, size, 5, needed);
        };
        unsigned needed = 0;
        EXPECT_EQ(call(nullptr, 0, &needed), 0u);
        EXPECT_EQ(needed, 21u);
        EXPECT_EQ(call(nullptr, 21, &needed), VELK_E_BUFFER_TOO_SMALL);
        char buffer[32];
        memset(buffer, '#', sizeof(buffer));
        EXPECT_EQ(call(buffer, 20, &needed), VELK_E_BUFFER_TOO_SMALL);
        EXPECT_EQ(buffer[0], '#');
        EXPECT_EQ(call(buffer, 21, nullptr), 0u);
        EXPECT_STREQ(buffer, "5");
    }

    char buffer[21];
    EXPECT_EQ(VELK_OSI_i64toa(buffer, sizeof(buffer), LLONG_MIN, nullptr), 0u);
    EXPECT_STREQ(buffer, "-9223372036854775808");
    EXPECT_EQ(VELK_OSI_i64toa(buffer, sizeof(buffer), LLONG_MAX, nullptr), 0u);
    EXPECT_STREQ(buffer, "9223372036854775807");
    EXPECT_EQ(VELK_OSI_ui64tow(buffer, sizeof(buffer), ULLONG_MAX, nullptr), 0u);
    EXPECT_STREQ(buffer, "18446744073709551615");

    char text[64];
    EXPECT_EQ(VELK_OSI_Sprintf(text, "%s-%d-%llu", "pid", -3, 42ULL), 9);
    EXPECT_STREQ(text, "pid--3-42");
}

TEST_F(VelkOsiTest, GetenvCopiesWithStrncpy)
{
    const char* name = "VELK_OSI_TEST_VARIABLE";
    char buffer[16];
    unsetenv(name);
    EXPECT_EQ(VELK_OSI_Getenv(name, sizeof(buffer), nullptr), VELK_E_NULL_POINTER);
    EXPECT_EQ(VELK_OSI_Getenv(name, sizeof(buffer), buffer), VELK_E_ENV_NOT_SET);

    ASSERT_EQ(setenv(name, "abcdefgh", 1), 0);
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(VELK_OSI_Getenv(name, 12, buffer), 0u);
    // The value, then NUL padding up to the length, and nothing beyond.
    EXPECT_EQ(std::string(buffer, 16), std::string("abcdefgh\0\0\0\0####", 16));

    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(VELK_OSI_Getenv(name, 4, buffer), 0u);
    EXPECT_EQ(std::string(buffer, 6), "abcd##");
    unsetenv(name);
}

TEST_F(VelkOsiTest, DeleteFile)
{
    const std::string path = Path("doomed");
    WriteFile(path, "x");
    EXPECT_EQ(VELK_OSI_Delete_File(path.c_str()), 0u);
    EXPECT_FALSE(std::filesystem::exists(path));

    // A path of 1023 characters still fits the name buffer; 1024 don't.
    std::string deep = dir_;
    while (deep.size() + 1 + 200 < 1023) {
        deep += "/" + std::string(200, 'd');
        ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
    }
    const std::string longest = deep + "/" + std::string(1023 - deep.size() - 1, 'f');
    ASSERT_EQ(longest.size(), 1023u);
    WriteFile(longest, "x");
    ASSERT_TRUE(std::filesystem::exists(longest));
    EXPECT_EQ(VELK_OSI_Delete_File(longest.c_str()), 0u);
    EXPECT_FALSE(std::filesystem::exists(longest));

    const std::string too_long = longest + "g";
    WriteFile(too_long, "x");
    ASSERT_TRUE(std::filesystem::exists(too_long));
    EXPECT_EQ(VELK_OSI_Delete_File(too_long.c_str()), VELK_E_BUFFER_TOO_SMALL);
    EXPECT_TRUE(std::filesystem::exists(too_long));
    EXPECT_EQ(VELK_OSI_Delete_File(nullptr), VELK_E_NULL_POINTER);
    ASSERT_EQ(lines_.size(), 2u);
    const std::string form = "Operation failed with error code  (src/velk_osi, ";
    const auto has_form = [&](const std::string& line, const std::string& value) {
        return line.compare(0, form.size(), form) == 0 && line.size() > value.size() &&
               line.compare(line.size() - value.size(), value.size(), value) == 0 &&
               line.find_first_not_of("0123456789", form.size()) ==
                   line.size() - value.size();
    };
    EXPECT_TRUE(has_form(lines_[0], ") value: 0x67\n")) << lines_[0];
    EXPECT_TRUE(has_form(lines_[1], ") value: 0x16\n")) << lines_[1];
    lines_.clear();

    // A file that can't be removed is retried for ten seconds, then given up
    // on with success all the same.
    const std::string missing = Path("never_there");
    EXPECT_EQ(VELK_OSI_Delete_File(missing.c_str()), 0u);
    EXPECT_FALSE(std::filesystem::exists(missing));
}

}  // namespace
