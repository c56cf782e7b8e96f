// Stream information of a session on a new file: the record set and read back,
// its section on disk, stream 0's record made from a legacy header ex, and the
// values behind the public record with their gates.
#include <string.h>

#include <memory>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

namespace {

using velk_test::u32_at;
using velk_test::u64_at;
using Words = std::vector<uint64_t>;  // a braced list runs left to right: {call, what it wrote}

Words words(const __VELK_stream_info& i)
{
    return {i.stream_info_size, i.stream_param_a, i.stream_param_b, i.stream_param_c, i.stream_param_d,
            i.stream_param_e,   i.stream_param_f, i.stream_type,    i.stream_value};
}

class StreamInfoTest : public velk_test::TempDirTest {
protected:
    void SetUp() override
    {
        velk_test::TempDirTest::SetUp();
        s_.reset(new velk_class);
        ASSERT_EQ(0u, s_->VELK_initialize_me(velk_test::widen(path("f.vk7")).c_str(),
                                             VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
        in_.command_line.text = const_cast<wchar_t*>(L"cmd --x");
        in_.comment.text = const_cast<wchar_t*>(L"comment");
    }
    void TearDown() override
    {
        s_->vk_file_version = 7;
        EXPECT_EQ(0u, s_->VELK_closedown());
        s_.reset();
        velk_test::TempDirTest::TearDown();
    }
    void begin(bool section = true)  // stream 0 being written, and its stream info section
    {
        ASSERT_EQ(0u, s_->VELK_writing_stream(0));
        node_ = s_->stream_list;
        ASSERT_EQ(0u, section ? s_->VELK_writing_stream_section(0, VELK_STREAM_SECTION_STREAM_INFO) : 0u);
    }
    void to_reading()  // VELK_done_stream refuses a record the test cleared, and still ends writing
    {
        ASSERT_EQ(0u, s_->VELK_done_stream_section(0, VELK_STREAM_SECTION_STREAM_INFO));
        s_->VELK_done_stream(0);
        ASSERT_EQ(0u, s_->VELK_reading_stream(0));
        ASSERT_EQ(0u, s_->VELK_reading_stream_section(0, VELK_STREAM_SECTION_STREAM_INFO));
    }
    void set_version(unsigned int file, uint16_t major, uint16_t minor, uint32_t patch, uint32_t revision)
    {
        s_->vk_file_version = file;
        s_->sections_ptr->version = {16, major, minor, patch, revision};
        s_->sections_ptr->version_set = 1;
        s_->sections_ptr->section_state[VELK_SECTION_VERSION_INFO] = VELK_STATE_EXISTS;
    }
    std::wstring text(unsigned long long id)
    {
        __string_or_id sid = {};
        sid.id = id;
        std::vector<wchar_t> buffer(200, L'\0');
        s_->VELK_convert_uniqueid_to_string(800, &sid, buffer.data(), nullptr);
        return buffer.data();
    }
    bool refused(unsigned int expected, unsigned int status, const std::string& tail)  // status and its line
    {
        return status == expected && log_.contains("<velk " + std::to_string(s_->instance) + "::" + tail);
    }
    std::unique_ptr<velk_class> s_;
    __VELK_stream_struct* node_ = nullptr;
    __VELK_stream_info in_ = {40, 11, 1, 13, 14, 15, 16, 17, {}, {}, {}, 0x123456789ULL}, out_;
    const Words sample_ = {64, 11, 13, 14, 15, 16, 17, 1, 0x123456789ULL};
    velk_test::LogCapture log_;
};

TEST_F(StreamInfoTest, SetAndGetRoundTripWithTheirRefusals)
{
    EXPECT_TRUE(refused(145, s_->VELK_set_stream_info(0, nullptr), "VELK_set_stream_info>nothing to write!\n"));
    begin(false);
    EXPECT_TRUE(refused(81, s_->VELK_set_stream_info(0, &in_), "VELK_set_stream_info>this stream section "
                                                               "already exists or write was not first called!\n"));
    ASSERT_EQ(0u, s_->VELK_writing_stream_section(0, VELK_STREAM_SECTION_STREAM_INFO));
    // Older files keep the caller's size, unless the revision is 0 or 18 and up.
    for (const auto& c : {Words{6, 10, 40}, {6, 0, 128}, {5, 17, 40}, {6, 18, 128}, {7, 10, 128}}) {
        set_version((unsigned int)c[0], 2, 0, 8, (uint32_t)c[1]);
        ASSERT_EQ(0u, s_->VELK_set_stream_info(0, &in_));
        EXPECT_EQ(c[2], node_->stream_info.info.stream_info_size) << c[0] << "/" << c[1];
    }
    s_->vk_file_version = 7;
    __VELK_user_info user = {}, got = {};
    user.user_info.text = const_cast<wchar_t*>(L"user text");
    ASSERT_EQ(0u, s_->VELK_set_user_info(0, &user));
    ASSERT_EQ(0u, s_->VELK_set_stream_info(0, &in_));
    const velk_legacy_header_fields& h = s_->legacy_header;
    EXPECT_EQ((Words{11, 13, 14, 15, 16, 17}), (Words{h.stream_param_a, h.stream_param_b, h.stream_param_c,
                                                     h.stream_param_d, h.stream_param_e, h.stream_param_f}));
    unsigned int size = 99;
    EXPECT_TRUE(refused(81, s_->VELK_get_stream_info(0, 64, &out_, &size), "VELK_set_stream_info>this stream "
                                                "section does not exist or read was not first called!\n"));
    to_reading();
    EXPECT_EQ((Words{0, 64}), (Words{s_->VELK_get_stream_info(0, 0, nullptr, &size), size}));
    size = 99;
    EXPECT_TRUE(refused(103, s_->VELK_get_stream_info(0, 63, &out_, &size),
                        "VELK_get_stream_info>buffer allocated by caller is not big enough!\n"));
    EXPECT_EQ((Words{0, 99}), (Words{s_->VELK_get_stream_info(0, 64, &out_, &size), size}));
    EXPECT_EQ(sample_, words(out_));
    EXPECT_EQ((std::vector<std::wstring>{L"cmd --x", L"", L"comment"}),
              (std::vector<std::wstring>{text(out_.command_line.id), text(out_.cpu.id), text(out_.comment.id)}));
    EXPECT_EQ((Words{0, 8}), (Words{s_->VELK_get_user_info(0, 0, nullptr, &size), size}));
    EXPECT_TRUE(refused(103, s_->VELK_get_user_info(0, 7, &got, &size),
                        "VELK_get_user_info>buffer allocated by caller is not big enough!\n"));
    ASSERT_EQ(0u, s_->VELK_get_user_info(0, 8, &got, &size));
    EXPECT_EQ(L"user text", text(got.user_info.id));
}

TEST_F(StreamInfoTest, SectionOnDiskIsReadBackAndRefusedWhenShort)
{
    set_version(7, 2, 0, 8, 27);
    begin();
    ASSERT_EQ(0u, s_->VELK_set_stream_info(0, &in_));
    ASSERT_EQ(0u, s_->VELK_set_lbr_info(0, 0xABCD));
    ASSERT_EQ(0u, s_->VELK_set_uncore_info(0, 0x1234, 0x5678));
    const velk_stream_info_record memory = node_->stream_info;
    ASSERT_EQ(0u, s_->write_to_file_hidden_string_section(nullptr));
    const size_t at = VELK_OSI_Get_File_Size(s_->file_handle), end = at + 128 + 21;
    const size_t slot = node_->stream_table_offset;
    ASSERT_EQ(0u, s_->write_to_file_velk_stream_info(0));
    const std::vector<unsigned char> bytes = velk_test::read_file(path("f.vk7"));
    EXPECT_EQ((Words{128, at, 1, 128, 40, 0xFFFFFFFF}),
              (Words{u64_at(bytes, slot), u64_at(bytes, slot + 8), u64_at(bytes, slot + 16),
                     u32_at(bytes, slot + 24), u32_at(bytes, slot + 28), u32_at(bytes, slot + 36)}));
    ASSERT_EQ(end + 24 - (end & 7), bytes.size());
    EXPECT_EQ(0, memcmp(&bytes[at], &memory, 128));
    EXPECT_EQ(std::string("end velk stream info", 21) + std::string(24 - (end & 7), '\0'),
              std::string(bytes.begin() + at + 128, bytes.end()));
    // Older files write the public part only, unless the revision is 0 or 18 and up.
    const unsigned int writes[][2] = {{10, 64}, {0, 128}, {18, 128}, {17, 64}};
    for (unsigned int i = 0; i < 4; ++i) {
        set_version(6, 2, 0, 8, writes[i][0]);
        ASSERT_EQ(0u, s_->write_to_file_velk_stream_info(0));
        EXPECT_EQ(writes[i][1], u64_at(velk_test::read_file(path("f.vk7")), slot + 40 * (i + 1)));
    }
    set_version(7, 2, 0, 8, 27);
    node_->stream_info_section.file_offset = at;
    node_->stream_info_section.length = 128;
    node_->stream_info_set = 0;  // from here on the record is read from the file, at each call
    memset(&node_->stream_info, 0, sizeof(node_->stream_info));
    to_reading();
    ASSERT_EQ(0u, s_->VELK_get_stream_info(0, 64, &out_, nullptr));
    EXPECT_EQ(sample_, words(out_));
    EXPECT_EQ(0, memcmp(&node_->stream_info, &memory, 128));
    VELK_LBR_FILTER lbr = 0;
    unsigned short first = 0, second = 0;
    EXPECT_EQ((Words{0, 0, 0xABCD, 0x1234, 0x5678, 0}),
              (Words{s_->VELK_get_lbr_info(0, &lbr), s_->VELK_get_uncore_info(0, &first, &second), lbr, first,
                     second, node_->stream_info_set}));

    // A section shorter than its record is refused, and its window dropped.
    const unsigned int mmaps = __VELK_mmap_tracker::m_num_mmaps;
    node_->stream_info_section.length = 127;
    EXPECT_EQ(VELK_E_BAD_FILE, s_->VELK_get_stream_info(0, 64, &out_, nullptr));
    EXPECT_TRUE(log_.contains_format("<velk %u::VELK_get_stream_info>velk_stream_info section of %u bytes is "
                                     "shorter than the %u bytes of its record!\n"));
    EXPECT_EQ(mmaps, __VELK_mmap_tracker::m_num_mmaps);
    set_version(6, 2, 0, 8, 10);  // the short form needs 64 bytes only, and keeps the stored size
    EXPECT_EQ((Words{0, 128}), (Words{s_->VELK_get_stream_info(0, 64, &out_, nullptr), out_.stream_info_size}));
    node_->stream_info_section.length = 0;
    EXPECT_TRUE(refused(78, s_->VELK_get_stream_info(0, 64, &out_, nullptr),
                        "VELK_get_stream_info>velk_stream_info section not found!\n"));
}

TEST_F(StreamInfoTest, LegacyHeaderExGivesStreamZeroItsRecord)
{
    std::vector<unsigned char> ex(460, 0);
    for (const auto& w : {Words{364, 0xA1}, {260, 0xB2}, {368, 0xC3}, {372, 0xD4}, {376, 0xE5}, {380, 0xF6}})
        ex[w[0]] = (unsigned char)w[1];
    s_->sections_ptr->sfs_legacy_header_ex = {460, VELK_OSI_Get_File_Size(s_->file_handle), 1, 460, 16, 0, -1};
    ASSERT_EQ(0u, s_->utility_write_final_file(ex.data(), ex.size(), VELK_OSI_SEEK_END, 0));
    begin();
    ASSERT_EQ(0u, s_->VELK_set_stream_info(0, &in_));
    EXPECT_EQ(0u, s_->legacy_header.stream_param_a);  // the file's own header ex stays as it is
    node_->stream_info_set = 0;  // as a stream 0 read from a legacy file
    memset(&node_->stream_info, 0, sizeof(node_->stream_info));
    to_reading();
    s_->sections_ptr->sfs_legacy_header_ex.length = 383;
    EXPECT_EQ(VELK_E_BAD_FILE, s_->VELK_get_stream_info(0, 64, &out_, nullptr));
    EXPECT_TRUE(log_.contains_format("<velk %u::VELK_get_stream_info>legacy header ex of %u bytes is too short "
                                     "to hold the stream parameters!\n"));
    s_->sections_ptr->sfs_legacy_header_ex.length = 460;
    const unsigned long long strings = s_->strings_store->Size();
    ASSERT_EQ(0u, s_->VELK_get_stream_info(0, 64, &out_, nullptr));
    EXPECT_EQ((Words{64, 0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6, 1, 0}), words(out_));
    EXPECT_EQ((std::vector<std::wstring>{L"command line unknown", L"cpu unknown",
                                         L"Stream info for stream 0 derived from legacy sample file header ex"}),
              (std::vector<std::wstring>{text(out_.command_line.id), text(out_.cpu.id), text(out_.comment.id)}));
    ASSERT_EQ(0u, s_->VELK_get_stream_info(0, 64, &out_, nullptr));  // now from memory: no more texts
    EXPECT_EQ((Words{1, 21 + 12 + 67}), (Words{node_->stream_info_set, s_->strings_store->Size() - strings}));
}

TEST_F(StreamInfoTest, SmallValuesFollowTheirGates)
{
    begin();
    ASSERT_EQ(0u, s_->VELK_set_stream_info(0, &in_));
    VELK_LBR_FILTER lbr = 7;
    EXPECT_EQ(VELK_E_ALREADY_IN_USE, s_->VELK_get_lbr_info(0, &lbr));
    to_reading();
    ASSERT_EQ(0u, s_->VELK_set_lbr_info(0, 0x77));  // the setters have no state test
    EXPECT_EQ((Words{0, 0x77}), (Words{s_->VELK_get_lbr_info(0, &lbr), lbr}));
    const struct { unsigned int filter, size; const char* text; } texts[] = {
        {0x105, 100, "CPL_EQ_0 JCC FAR_BRANCH "}, {0x105, 24, "CPL_EQ_0 JCC FAR_BRANCH "},
        {0x105, 13, "CPL_EQ_0 JCC "}, {0x105, 12, "CPL_EQ_0 "}, {0x105, 8, ""}, {0, 100, ""},
        {0x1FA, 100, "CPL_NEQ_0 NEAR_REL_CALL NEAR_IND_CALL NEAR_RET NEAR_IND_JMP NEAR_REL_JMP FAR_BRANCH "}};
    for (const auto& c : texts) {
        char buffer[256] = "keep:";
        ASSERT_EQ(0u, s_->VELK_set_lbr_filter_info(0, c.filter));
        EXPECT_EQ(0u, s_->VELK_get_lbr_filter_info(0, c.size, buffer));
        EXPECT_EQ(std::string("keep:") + c.text, buffer) << c.size;
    }
    ASSERT_EQ(0u, s_->VELK_set_uncore_info(0, 3, 4));
    // file version, major, minor, patch word; whether the values come back
    for (const auto& g : {Words{7, 2, 0, 7, 0}, {7, 2, 0, 8, 1}, {7, 2, 1, 0, 1}, {7, 3, 0, 0, 1},
                          {7, 1, 9, 9, 0}, {7, 2, 0, 0x10007, 0}, {6, 2, 0, 8, 0}}) {
        set_version((unsigned int)g[0], (uint16_t)g[1], (uint16_t)g[2], (uint32_t)g[3], 27);
        unsigned short first = 9, second = 9;
        const unsigned int status = s_->VELK_get_uncore_info(0, &first, &second);
        EXPECT_EQ((g[4] ? Words{0, 3, 4} : Words{0, 9, 9}), (Words{status, first, second})) << g[0] << "/" << g[3];
    }
    // The short form has none of these values: the caller's variables stay.
    set_version(6, 2, 0, 8, 17);
    unsigned int size = 5;
    lbr = 0x55;
    EXPECT_EQ((Words{0, 0, 0, 0x55}),
              (Words{s_->VELK_get_user_info(0, 0, nullptr, &size), s_->VELK_get_lbr_info(0, &lbr), size, lbr}));
}

}  // namespace
