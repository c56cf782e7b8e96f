// Temporary stores, section padding, a refused copy (large copies: the data tests).
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
    FILE_INFO_NODE data("data.tmp"), strings("strings.tmp");
    ASSERT_EQ(0u, data.Open_Temp_File(prefix.c_str(), 0));
    ASSERT_EQ(0u, data.Open_Temp_File(path("other").c_str(), 5));  // open already: no new file
    ASSERT_EQ(0u, strings.Open_Temp_File(prefix.c_str(), -1));
    EXPECT_EQ((Names{"v_data.tmp0", "v_strings.tmp"}), list_dir(dir_));
    for (FILE_INFO_NODE* store : {&data, &strings})
        EXPECT_TRUE(store->Close_Temp_File() == 0 && store->handle == -1);
    EXPECT_EQ(Names{}, list_dir(dir_));
    write_file(prefix + "_strings.tmp", {1, 2, 3});
    ASSERT_EQ(0u, strings.Open_Temp_File(prefix.c_str(), -1));
    EXPECT_TRUE(strings.Size() == 0 && strings.Close_Temp_File() == 0);
    EXPECT_TRUE(data.Open_Temp_File(path("none/v").c_str(), 3) == 0 && data.handle == -1);
}

TEST_F(StoreTest, PaddingLeavesSeventeenToTwentyFourZerosAndACopyNeedsHandles)
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
    LogCapture log;
    EXPECT_EQ(0xFFFFFFFFu, s.utility_append_file_b_to_file_a(-1, -1));
    EXPECT_TRUE(log.contains_format("utility_append_file_b_to_file_a:%d error -1\n"));
}

}  // namespace
