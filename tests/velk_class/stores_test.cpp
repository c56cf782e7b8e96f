// Temporary stores, section padding and file copy.
#include <fcntl.h>
#include <unistd.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

namespace {

using namespace velk_test;
using Bytes = std::vector<unsigned char>;
using Names = std::vector<std::string>;
class StoreTest : public TempDirTest {};

TEST_F(StoreTest, OpensOnceAndDeletesAtClose)
{
    const std::string prefix = path("v");
    FILE_INFO_NODE data0("data.tmp"), data1("data.tmp"), strings("strings.tmp");
    ASSERT_EQ(0u, data0.Open_Temp_File(prefix.c_str(), 0));
    ASSERT_EQ(0u, data0.Open_Temp_File(path("other").c_str(), 5));  // open already: no new file
    ASSERT_EQ(0u, data1.Open_Temp_File(prefix.c_str(), 1));
    ASSERT_EQ(0u, strings.Open_Temp_File(prefix.c_str(), -1));
    EXPECT_EQ((Names{"v_data.tmp0", "v_data.tmp1", "v_strings.tmp"}), list_dir(dir_));
    for (FILE_INFO_NODE* store : {&data0, &data1, &strings})
        EXPECT_TRUE(store->Close_Temp_File() == 0 && store->handle == -1);
    EXPECT_EQ(Names{}, list_dir(dir_));
    write_file(prefix + "_strings.tmp", {1, 2, 3});
    ASSERT_EQ(0u, strings.Open_Temp_File(prefix.c_str(), -1));
    EXPECT_TRUE(strings.Size() == 0 && strings.Close_Temp_File() == 0);
    EXPECT_TRUE(data0.Open_Temp_File(path("none/v").c_str(), 3) == 0 && data0.handle == -1);
}

TEST_F(StoreTest, PaddingLeavesSeventeenToTwentyFourZeros)
{
    velk_class s;
    for (int i = 0; i < 16; ++i) {  // 2 bytes ahead end the marker on a multiple of 8
        const std::string text = i < 8 ? std::string("end x", 6) : std::string();
        write_file(path("pad"), Bytes(i % 8, 'x'));
        const int fd = open(path("pad").c_str(), O_RDWR);
        ASSERT_EQ(0u, s.utility_add_string_padding(fd, i < 8 ? text.c_str() : nullptr));
        close(fd);
        Bytes expected(i % 8, 'x');
        expected.insert(expected.end(), text.begin(), text.end());
        expected.resize(expected.size() + 17 + (8 - (expected.size() + 17) % 8) % 8, 0);
        EXPECT_EQ(expected, read_file(path("pad"))) << i;
    }
}

TEST_F(StoreTest, AppendsFileBToFileAAcrossThePiece)
{
    const off_t kPiece = 0x2000000, size_b = kPiece + 4099;
    Bytes expected(5, 'a');
    write_file(path("a"), expected);
    const int a = open(path("a").c_str(), O_RDWR);
    const int b = open(path("b").c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_EQ(0, ftruncate(b, size_b));
    expected.resize(5 + size_b, 0);
    for (const off_t mark : {(off_t)0, kPiece - 1, kPiece, size_b - 1}) {
        expected[5 + mark] = (unsigned char)(mark % 251 + 1);
        ASSERT_EQ(1, pwrite(b, &expected[5 + mark], 1, mark));
    }
    lseek(b, 5, SEEK_SET);  // b is copied from its beginning all the same
    velk_class s;
    LogCapture log;
    EXPECT_EQ(0u, s.utility_append_file_b_to_file_a(b, a));
    ASSERT_EQ(0, ftruncate(b, 0));
    EXPECT_EQ(0u, s.utility_append_file_b_to_file_a(b, a));
    EXPECT_EQ(0xFFFFFFFFu, s.utility_append_file_b_to_file_a(-1, a));
    EXPECT_TRUE(log.contains_format("utility_append_file_b_to_file_a:%d error -1\n"));
    close(a);
    close(b);
    EXPECT_TRUE(expected == read_file(path("a")));
}

}  // namespace
