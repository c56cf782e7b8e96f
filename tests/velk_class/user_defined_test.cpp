// Opaque blocks of the caller's own, for the file and for a stream.
#include <string.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

using UserDefinedTest = TempDirTest;

TEST_F(UserDefinedTest, BlocksGrowWithEachSetAndReadBackWhole)
{
    const std::string name = path("u.vk7");
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    unsigned char ten[10], twenty[20], back[30];
    for (int i = 0; i < 10; ++i) ten[i] = (unsigned char)i;
    for (int i = 0; i < 20; ++i) twenty[i] = (unsigned char)(100 + i);
    LogCapture log(0x80000000u);
    EXPECT_EQ(VELK_E_NOT_WRITING, VELK_set_user_defined_global(h, 10, ten));
    EXPECT_TRUE(log.contains_format("<velk %u::VELK_set_user_defined_global>this section already "
                                    "exists or write_section was not first called!\n"));
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_USER_DEFINED));
    EXPECT_EQ(VELK_E_NOTHING_TO_WRITE, VELK_set_user_defined_global(h, 10, nullptr));
    ASSERT_EQ(0u, VELK_set_user_defined_global(h, 10, ten));
    ASSERT_EQ(0u, VELK_set_user_defined_global(h, 20, twenty));
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_USER_DEFINED));
    ASSERT_EQ(0u, VELK_writing_stream(h, 0));
    ASSERT_EQ(0u, VELK_writing_stream_section(h, 0, VELK_STREAM_SECTION_USER_DEFINED));
    ASSERT_EQ(0u, VELK_set_user_defined_stream(h, 0, 0, ten));  // an empty block
    ASSERT_EQ(0u, VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_USER_DEFINED));
    __VELK_stream_info info = {64, 0, 1, 0, 0, 0, 0, 0, {nullptr}, {nullptr}, {(wchar_t*)L"u"}, 0};
    ASSERT_EQ(0u, VELK_writing_stream_section(h, 0, VELK_STREAM_SECTION_STREAM_INFO));
    ASSERT_EQ(0u, VELK_set_stream_info(h, 0, &info));
    ASSERT_EQ(0u, VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_STREAM_INFO));
    ASSERT_EQ(0u, VELK_done_stream(h, 0));
    // While writing, a get reads the store as it stands.
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_USER_DEFINED));
    unsigned size = 0;
    EXPECT_EQ(0u, VELK_get_user_defined_global(h, 0, nullptr, &size));
    EXPECT_EQ(30u, size);
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_USER_DEFINED));
    ASSERT_EQ(0u, VELK_close(h));

    const std::vector<unsigned char> f = read_file(name);
    EXPECT_EQ(KIND_USER_DEFINED_GLOBAL, u32_at(f, 816 + 2 * 40 + 28));
    const unsigned long long global = u64_at(f, 816 + 2 * 40 + 8);
    EXPECT_EQ(30u, u64_at(f, 816 + 2 * 40));
    EXPECT_EQ(30u, u32_at(f, 816 + 2 * 40 + 24));
    EXPECT_EQ(0, memcmp(&f[global], ten, 10));
    EXPECT_EQ(0, memcmp(&f[global + 10], twenty, 20));
    EXPECT_EQ(0, memcmp(&f[global + 30], "end user defined global", 24));
    // The empty stream block: a kind 39 entry of length 0 after the stream
    // information, and its marker.
    const unsigned long long table = u64_at(f, 816 + 40 + 8);
    EXPECT_EQ(KIND_USER_DEFINED_STREAM, u32_at(f, table + 40 + 28));
    EXPECT_EQ(0u, u64_at(f, table + 40));
    EXPECT_EQ(0, memcmp(&f[u64_at(f, table + 40 + 8)], "end user defined stream", 24));

    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_USER_DEFINED));
    EXPECT_EQ(VELK_E_BUFFER_TOO_SMALL, VELK_get_user_defined_global(h, 0, back, &size));
    EXPECT_EQ(VELK_E_BUFFER_TOO_SMALL, VELK_get_user_defined_global(h, 29, back, &size));
    ASSERT_EQ(0u, VELK_get_user_defined_global(h, 30, back, &size));
    EXPECT_EQ(0, memcmp(back, ten, 10));
    EXPECT_EQ(0, memcmp(back + 10, twenty, 20));
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_USER_DEFINED));
    // The empty stream block was written with length 0, so it reads as missing:
    // "not reading" in the stream form.
    ASSERT_EQ(0u, VELK_reading_stream(h, 0));
    h->file_object->stream_list->stream_section_state[VELK_STREAM_SECTION_USER_DEFINED] = 2;
    EXPECT_EQ(VELK_E_NOT_READING, VELK_get_user_defined_stream(h, 0, 0, nullptr, &size));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::VELK_get_user_defined_stream>cannot find user defined stream info!\n"));
    h->file_object->stream_list->stream_section_state[VELK_STREAM_SECTION_USER_DEFINED] = 1;
    ASSERT_EQ(0u, VELK_done_stream(h, 0));
    ASSERT_EQ(0u, VELK_close(h));
}
