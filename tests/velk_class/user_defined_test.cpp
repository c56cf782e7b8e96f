// Opaque blocks of the caller's own, for the file and for a stream.
#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

using UserDefinedTest = TempDirTest;
using Words = std::vector<uint64_t>;

TEST_F(UserDefinedTest, BlocksGrowWithEachSetAndReadBackWhole)
{
    const std::string name = path("u.vk7");
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(),
                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    std::vector<unsigned char> block(30), back(30);  // set as 10 bytes, then 20
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = (unsigned char)(i < 10 ? i : 90 + i);
    EXPECT_EQ(VELK_E_NOT_WRITING, VELK_set_user_defined_global(h, 10, &block[0]));
    // Stream 0 with an empty block, and the information a stream needs.
    const VELK_STREAM_SECTION_IDENTIFIER own = VELK_STREAM_SECTION_USER_DEFINED;
    const VELK_STREAM_SECTION_IDENTIFIER about = VELK_STREAM_SECTION_STREAM_INFO;
    __VELK_stream_info info = {64, 0, 1, 0, 0, 0, 0, 0, {nullptr}, {nullptr}, {w(L"u")}, 0};
    ASSERT_FALSE(VELK_writing_section(h, VELK_SECTION_USER_DEFINED) ||
                 VELK_set_user_defined_global(h, 10, &block[0]) ||
                 VELK_set_user_defined_global(h, 20, &block[10]) ||
                 VELK_done_section(h, VELK_SECTION_USER_DEFINED) || VELK_writing_stream(h, 0) ||
                 VELK_writing_stream_section(h, 0, own) ||
                 VELK_set_user_defined_stream(h, 0, 0, &block[0]) ||
                 VELK_done_stream_section(h, 0, own) || VELK_writing_stream_section(h, 0, about) ||
                 VELK_set_stream_info(h, 0, &info) || VELK_done_stream_section(h, 0, about) ||
                 VELK_done_stream(h, 0) || VELK_close(h));

    // Kind 32 in the third global slot; the empty stream block, a kind 39 slot of length 0.
    const std::vector<unsigned char> f = read_file(name);
    const size_t table = global_slot(f, KIND_STREAM_OFFSET).file_offset;
    const Slot g = global_slot(f, KIND_USER_DEFINED_GLOBAL);
    const Slot s = find_slot(f, table, 8, KIND_USER_DEFINED_STREAM, false);
    EXPECT_EQ((Words{816 + 80, 30, 30, table + 40, 0}),
              (Words{g.at, g.length, g.entry_length, s.at, s.length}));
    EXPECT_EQ(block, slice(f, g.file_offset, 30));
    expect_ending(f, g.file_offset + 30, "end user defined global");
    expect_ending(f, s.file_offset, "end user defined stream");

    unsigned size = 0;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_USER_DEFINED));
    EXPECT_EQ((Words{103, 0}), (Words{VELK_get_user_defined_global(h, 29, &back[0], &size),
                                      VELK_get_user_defined_global(h, 30, &back[0], &size)}));
    EXPECT_EQ(block, back);
    // A missing block is "missing" in the global form, "not reading" in the stream form.
    h->file_object->sections_ptr->sfs_user_defined_global.length = 0;
    EXPECT_EQ(VELK_E_SECTION_MISSING, VELK_get_user_defined_global(h, 30, &back[0], &size));
    ASSERT_FALSE(VELK_done_section(h, VELK_SECTION_USER_DEFINED) || VELK_reading_stream(h, 0));
    h->file_object->stream_list->stream_section_state[own] = VELK_STATE_READING;
    EXPECT_EQ(VELK_E_NOT_READING, VELK_get_user_defined_stream(h, 0, 0, nullptr, &size));
    h->file_object->stream_list->stream_section_state[own] = VELK_STATE_EXISTS;
    ASSERT_FALSE(VELK_done_stream(h, 0) || VELK_close(h));
}
