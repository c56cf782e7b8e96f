// Stream information: refusals, gates of the small values, its section on disk, and stream 0's record from a legacy header ex.
#include <string.h>

#include <memory>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

namespace {

using namespace velk_test;
using Words = std::vector<uint64_t>;  // a braced list runs left to right: {call, what it wrote}
const unsigned int kInfo = VELK_STREAM_SECTION_STREAM_INFO;

// The public record's words, its texts aside.
std::string words(const __VELK_stream_info& i) { return std::string((const char*)&i, 32) + std::to_string(i.stream_value); }

class StreamInfoTest : public TempDirTest {
protected:
    void SetUp() override
    {
        TempDirTest::SetUp();
        s_.reset(new velk_class);
        ASSERT_EQ(0u, s_->VELK_initialize_me(widen(path("f.vk7")).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
        ASSERT_EQ(0u, s_->VELK_writing_stream(0));
        node_ = s_->stream_list;
    }
    void TearDown() override
    {
        EXPECT_EQ(0u, s_->VELK_closedown());
        s_.reset();
        TempDirTest::TearDown();
    }
    void to_reading()  // VELK_done_stream refuses a record the test cleared, and still ends writing
    {
        ASSERT_EQ(0u, s_->VELK_done_stream_section(0, kInfo));
        s_->VELK_done_stream(0);
        ASSERT_FALSE(s_->VELK_reading_stream(0) || s_->VELK_reading_stream_section(0, kInfo));
    }
    void set_version(const Words& v)  // file version, major, minor, patch word, revision
    {
        s_->vk_file_version = (unsigned int)v[0];
        s_->sections_ptr->version = {16, (uint16_t)v[1], (uint16_t)v[2], (uint32_t)v[3], (uint32_t)v[4]};
        s_->sections_ptr->version_set = 1;
        s_->sections_ptr->section_state[VELK_SECTION_VERSION_INFO] = VELK_STATE_EXISTS;
    }
    std::wstring text(__string_or_id sid)
    {
        wchar_t buffer[200] = {};
        s_->VELK_convert_uniqueid_to_string(sizeof(buffer), &sid, buffer, nullptr);
        return buffer + std::wstring(L"|");
    }
    bool refused(unsigned int expected, unsigned int status, const std::string& tail)  // the status and its line; %u for any number
    {
        return status == expected && log_.contains_format("<velk " + std::to_string(s_->instance) + "::" + tail);
    }
    std::unique_ptr<velk_class> s_;
    __VELK_stream_struct* node_ = nullptr;
    __VELK_stream_info in_ = {40, 11, 1, 13, 14, 15, 16, 17, {(wchar_t*)L"cmd --x"}, {}, {(wchar_t*)L"comment"}, 0x123456789ULL}, out_{};
    LogCapture log_;
};

TEST_F(StreamInfoTest, RecordAndSmallValuesKeepTheProtocol)
{
    EXPECT_TRUE(refused(145, s_->VELK_set_stream_info(0, nullptr), "VELK_set_stream_info>nothing to write!\n"));
    EXPECT_TRUE(refused(81, s_->VELK_set_stream_info(0, &in_), "VELK_set_stream_info>this stream section already exists or write was not first called!\n"));
    ASSERT_EQ(0u, s_->VELK_writing_stream_section(0, kInfo));
    s_->sections_ptr->sfs_legacy_header_ex.length = 1;  // a file with a header ex keeps its words
    for (const auto& c : {Words{6, 10, 40}, {6, 0, 128}, {5, 17, 40}, {6, 18, 128}, {7, 10, 128}}) {  // the caller's size in the short form only
        set_version({c[0], 2, 0, 8, c[1]});
        ASSERT_EQ(0u, s_->VELK_set_stream_info(0, &in_));
        EXPECT_EQ(c[2], node_->stream_info.info.stream_info_size) << c[0] << "/" << c[1];
    }
    EXPECT_EQ(0u, s_->legacy_header.stream_param_a);
    s_->sections_ptr->sfs_legacy_header_ex.length = 0;
    __VELK_user_info user = {{(wchar_t*)L"user text"}}, got = {};
    ASSERT_FALSE(s_->VELK_set_user_info(0, &user) || s_->VELK_set_stream_info(0, &in_));
    const velk_legacy_header_fields& h = s_->legacy_header;  // stream 0 of a file without a header ex mirrors its words
    EXPECT_EQ((Words{11, 13, 14, 15, 16, 17}), (Words{h.stream_param_a, h.stream_param_b, h.stream_param_c, h.stream_param_d, h.stream_param_e, h.stream_param_f}));
    uint32_t size = 99, lbr = 7;  // a size out and an LBR filter
    EXPECT_TRUE(refused(81, s_->VELK_get_stream_info(0, 64, &out_, nullptr), "VELK_set_stream_info>this stream section does not exist or read was not first called!\n"));
    EXPECT_EQ(VELK_E_ALREADY_IN_USE, s_->VELK_get_lbr_info(0, &lbr));
    to_reading();
    EXPECT_EQ((Words{0, 64}), (Words{s_->VELK_get_stream_info(0, 0, nullptr, &size), size}));
    EXPECT_TRUE(refused(103, s_->VELK_get_stream_info(0, 63, &out_, &size), "VELK_get_stream_info>buffer allocated by caller is not big enough!\n"));
    EXPECT_EQ((Words{0, 0, 64}), (Words{out_.stream_info_size, s_->VELK_get_stream_info(0, 64, &out_, &size), size}));  // no size out
    EXPECT_EQ(words(__VELK_stream_info{64, 11, 1, 13, 14, 15, 16, 17, {}, {}, {}, 0x123456789ULL}), words(out_));
    EXPECT_EQ(L"cmd --x||comment|", text(out_.command_line) + text(out_.cpu) + text(out_.comment));
    EXPECT_EQ((Words{0, 8, 0}), (Words{s_->VELK_get_user_info(0, 0, nullptr, &size), size, s_->VELK_get_user_info(0, 8, &got, &size)}));
    EXPECT_TRUE(refused(103, s_->VELK_get_user_info(0, 7, &got, &size), "VELK_get_user_info>buffer allocated by caller is not big enough!\n"));
    EXPECT_EQ(L"user text|", text(got.user_info));

    // The setters have no state test.
    EXPECT_EQ((Words{0, 0, 0, 0x77}), (Words{s_->VELK_set_lbr_info(0, 0x77), s_->VELK_set_uncore_info(0, 3, 4), s_->VELK_get_lbr_info(0, &lbr), lbr}));
    const struct { unsigned int filter, size; const char* text; } texts[] = {
        {0x105, 100, "CPL_EQ_0 JCC FAR_BRANCH "}, {0x105, 24, "CPL_EQ_0 JCC FAR_BRANCH "}, {0x105, 13, "CPL_EQ_0 JCC "}, {0x105, 12, "CPL_EQ_0 "},
        {0x105, 8, ""}, {0, 100, ""}, {0x1FA, 100, "CPL_NEQ_0 NEAR_REL_CALL NEAR_IND_CALL NEAR_RET NEAR_IND_JMP NEAR_REL_JMP FAR_BRANCH "}};
    for (const auto& c : texts) {
        char buffer[256] = "keep:";
        ASSERT_FALSE(s_->VELK_set_lbr_filter_info(0, c.filter) || s_->VELK_get_lbr_filter_info(0, c.size, buffer));
        EXPECT_EQ(std::string("keep:") + c.text, buffer) << c.size;
    }
    for (const auto& g : {Words{7, 2, 0, 7, 0}, {7, 2, 0, 8, 1}, {7, 2, 1, 0, 1}, {7, 3, 0, 0, 1}, {7, 1, 9, 9, 0}, {7, 2, 0, 0x10007, 0}, {6, 2, 0, 8, 0}}) {
        set_version({g[0], g[1], g[2], g[3], 27});  // and whether the uncore values come back
        unsigned short first = 9, second = 9;
        EXPECT_EQ((g[4] ? Words{0, 3, 4} : Words{0, 9, 9}), (Words{s_->VELK_get_uncore_info(0, &first, &second), first, second})) << g[0] << "/" << g[3];
    }
    set_version({6, 2, 0, 8, 17});  // the short form has none of these values: the caller's variables stay
    lbr = 0x55;
    EXPECT_EQ((Words{0, 0, 0, 0x55}), (Words{s_->VELK_get_user_info(0, 0, nullptr, &size), s_->VELK_get_lbr_info(0, &lbr), size, lbr}));
}

TEST_F(StreamInfoTest, RecordIsWrittenAndReadFromItsSectionOrTheLegacyHeaderEx)
{
    ASSERT_EQ(0u, s_->VELK_writing_stream_section(0, kInfo));
    ASSERT_FALSE(s_->VELK_set_stream_info(0, &in_) || s_->VELK_set_lbr_info(0, 0xABCD) || s_->VELK_set_uncore_info(0, 0x1234, 0x5678));
    const velk_stream_info_record memory = node_->stream_info;
    const size_t at = VELK_OSI_Get_File_Size(s_->file_handle), end = at + 128 + 21, slot = node_->stream_table_offset;
    ASSERT_EQ(0u, s_->write_to_file_velk_stream_info(0));
    std::vector<unsigned char> bytes = read_file(path("f.vk7"));
    EXPECT_EQ((Words{128, at, 1, 128, 40, 0xFFFFFFFF}), (Words{u64_at(bytes, slot), u64_at(bytes, slot + 8), u64_at(bytes, slot + 16),
                                                              u32_at(bytes, slot + 24), u32_at(bytes, slot + 28), u32_at(bytes, slot + 36)}));
    EXPECT_EQ(std::string((const char*)&memory, 128) + std::string("end velk stream info", 21) + std::string(24 - (end & 7), '\0'),
              std::string(bytes.begin() + at, bytes.end()));  // the record, its marker, and padding to a multiple of 8 plus 16
    node_->stream_info_set = 0;  // from here on the record is read from the file, at each call
    memset(&node_->stream_info, 0, sizeof(node_->stream_info));
    to_reading();
    ASSERT_EQ(0u, s_->VELK_get_stream_info(0, 64, &out_, nullptr));
    EXPECT_TRUE(memcmp(&node_->stream_info, &memory, 128) == 0 && node_->stream_info_set == 0);
    for (const auto& w : {Words{1, 10, 64}, {2, 0, 128}, {3, 18, 128}, {4, 17, 64}}) {  // older files: 64 bytes, unless the revision is 0 or 18 and up
        set_version({6, 2, 0, 8, w[1]});
        ASSERT_EQ(0u, s_->write_to_file_velk_stream_info(0));
        EXPECT_EQ(w[2], u64_at(read_file(path("f.vk7")), slot + 40 * w[0])) << w[1];
    }
    // The short form needs the 64 bytes just written only, and keeps the stored size; the long one refuses them.
    EXPECT_EQ((Words{0, 128}), (Words{s_->VELK_get_stream_info(0, 64, &out_, nullptr), out_.stream_info_size}));
    const unsigned int mmaps = __VELK_mmap_tracker::m_num_mmaps;
    set_version({7, 2, 0, 8, 27});
    EXPECT_TRUE(refused(24, s_->VELK_get_stream_info(0, 64, &out_, nullptr), "VELK_get_stream_info>velk_stream_info section of %u bytes is "
                        "shorter than the %u bytes of its record!\n") && mmaps == __VELK_mmap_tracker::m_num_mmaps);
    node_->stream_info_section.length = 0;
    EXPECT_TRUE(refused(78, s_->VELK_get_stream_info(0, 64, &out_, nullptr), "VELK_get_stream_info>velk_stream_info section not found!\n"));

    std::vector<unsigned char> ex(460, 0);  // stream 0 of a legacy file
    for (const auto& w : {Words{364, 0xA1}, {260, 0xB2}, {368, 0xC3}, {372, 0xD4}, {376, 0xE5}, {380, 0xF6}}) ex[w[0]] = (unsigned char)w[1];
    s_->sections_ptr->sfs_legacy_header_ex = {383, VELK_OSI_Get_File_Size(s_->file_handle), 1, 460, 16, 0, -1};
    ASSERT_EQ(0u, s_->utility_write_final_file(ex.data(), ex.size(), VELK_OSI_SEEK_END, 0));
    s_->string_base = VELK_OSI_Get_File_Size(s_->file_handle);  // new strings lie past the header ex, as after a new stream
    EXPECT_TRUE(refused(24, s_->VELK_get_stream_info(0, 64, &out_, nullptr),
                        "VELK_get_stream_info>legacy header ex of %u bytes is too short to hold the stream parameters!\n"));
    s_->sections_ptr->sfs_legacy_header_ex.length = 460;
    const unsigned long long strings = s_->strings_store->Size();
    ASSERT_EQ(0u, s_->VELK_get_stream_info(0, 64, &out_, nullptr));
    EXPECT_EQ(words(__VELK_stream_info{64, 0xA1, 1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6, {}, {}, {}, 0}), words(out_));
    EXPECT_EQ(L"command line unknown|cpu unknown|Stream info for stream 0 derived from legacy sample file header ex|",
              text(out_.command_line) + text(out_.cpu) + text(out_.comment));
    ASSERT_EQ(0u, s_->VELK_get_stream_info(0, 64, &out_, nullptr));  // now from memory: no more texts
    EXPECT_EQ((Words{1, 21 + 12 + 67}), (Words{node_->stream_info_set, s_->strings_store->Size() - strings}));
}

}  // namespace
