// The file-wide records (host, OS, application, version) and the stream information: refusals, the
// sections written, legacy sections translated, damage refused.
#include <memory>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

namespace {

using namespace velk_test;
using Bytes = std::vector<unsigned char>;
using Sfs = __VELK_sample_file_section_vk6;
using Words = std::vector<uint64_t>;  // a braced list runs left to right: {call, what it wrote}
const unsigned int kInfo = VELK_STREAM_SECTION_STREAM_INFO;

class ConfigurationTest : public TempDirTest {
protected:
    void SetUp() override
    {
        TempDirTest::SetUp();
        s_.reset(new velk_class);
        b_ = s_->sections_ptr;
        ASSERT_EQ(0u, s_->VELK_initialize_me(widen(path("f.vk7")).c_str(),
                                             VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    }
    void TearDown() override
    {
        EXPECT_EQ(0u, s_->VELK_closedown());
        s_.reset();
        TempDirTest::TearDown();
    }
    std::wstring text(__string_or_id sid)  // "#" for an id that does not resolve
    {
        wchar_t b[200] = {};
        const bool ok = s_->VELK_convert_uniqueid_to_string(sizeof(b), &sid, b, nullptr) == 0;
        return ok ? b + std::wstring(L"|") : L"#|";
    }
    // A section described as the analysis of a file would.
    void append(Sfs* sfs, const Bytes& data, uint64_t entries = 1)
    {
        *sfs = Sfs{data.size(), VELK_OSI_Get_File_Size(s_->file_handle), entries, 0, 0, 0, 0};
        ASSERT_EQ(0u, s_->utility_write_final_file(data.data(), data.size(), VELK_OSI_SEEK_END, 0));
    }
    // The record, its marker, NUL and padding to 8 plus 16; its descriptor: kind, entries, length.
    void expect_written(unsigned int (velk_class::*write)(), Words sfs, Bytes want,
                        const std::string& marker, bool legacy = false)
    {
        const uint64_t before = VELK_OSI_Get_File_Size(s_->file_handle);
        ASSERT_EQ(0u, ((*s_).*write)()) << marker;
        const Bytes f = read_file(path("f.vk7"));
        const uint64_t entry =
            legacy ? VELK_SECTION_TABLE_OFFSET + (b_->legacy_next_slot - 1) * 40
                   : b_->sfs_global_offset.file_offset + (b_->global_next_slot - 1) * 40;
        want.insert(want.end(), marker.c_str(), marker.c_str() + marker.size() + 1);
        want.resize(want.size() + 24 - ((before + want.size()) & 7), 0);
        const Sfs d = {sfs[1] * sfs[2], before, sfs[1], (uint32_t)sfs[2], (uint32_t)sfs[0], 0, 0};
        EXPECT_EQ(want, slice(f, before, f.size() - before)) << marker;
        EXPECT_EQ(bytes_of(d), slice(f, entry, sizeof(Sfs))) << marker;
    }
    // File version, then the version record's major, minor, patch word and revision.
    void set_version(const Words& v)
    {
        s_->vk_file_version = (unsigned int)v[0];
        b_->version = {16, (uint16_t)v[1], (uint16_t)v[2], (uint32_t)v[3], (uint32_t)v[4]};
        b_->version_set = 1;
        b_->section_state[VELK_SECTION_VERSION_INFO] = VELK_STATE_EXISTS;
    }
    void to_reading()
    {
        ASSERT_EQ(0u, s_->VELK_done_stream_section(0, kInfo));
        s_->VELK_done_stream(0);  // refuses a record the test cleared, and still ends writing
        ASSERT_FALSE(s_->VELK_reading_stream(0) || s_->VELK_reading_stream_section(0, kInfo));
    }
    std::unique_ptr<velk_class> s_;
    velk_section_block* b_ = nullptr;
    __VELK_stream_struct* node_ = nullptr;
    LogCapture log_;
    __VELK_host h_ = {};
    __VELK_os got_os_[1];
    __VELK_application a_;
    __VELK_version_info v_;
    unsigned int n_ = 0;
    __VELK_stream_info in_ = {
        40, 11, 1, 13, 14, 15, 16, 17, {w(L"cmd --x")}, {}, {w(L"comment")}, 0x123456789ULL};
    __VELK_stream_info out_ = {};
};

TEST_F(ConfigurationTest, WritingSessionKeepsTheProtocolAndLaysOutTheSections)
{
    // Texts that just fit the legacy record (63 and 127 bytes of UTF-8); OS record 2's are too
    // long.
    std::wstring long_host = L"h\u00F6" + std::wstring(60, L'h'), long_os(127, L'o');
    std::wstring too_long[2] = {long_os + L'o', long_host + L'h'};
    __VELK_host host = {7, 0x80000001u, {&long_host[0]}, {w(L"host two")}};
    __VELK_os os[7] = {{40, 3, 11, 12, 13, 14, {&long_os[0]}, {w(L"os two")}},
                       {40, 4, 21, 22, 23, 24, {nullptr}, {w(L"2nd")}},
                       {40, 5, 0, 0, 0, 0, {&too_long[0][0]}, {&too_long[1][0]}}};
    __VELK_application app = {32, 0, 5, 6, 0x1122334455667788ull, 0x99};
    __VELK_version_info version = {16, 2, 1, 8, 27};
    EXPECT_EQ((Words{145, 125, 124}),  // null records first, then the state
              (Words{s_->VELK_set_host(nullptr), s_->VELK_set_version_info(&version),
                     s_->VELK_get_version_info(0, nullptr, nullptr)}));
    // The host setter's refusal names the getter.
    EXPECT_TRUE(log_.contains_format("<velk %u::VELK_get_host>nothing to write!\n"));
    ASSERT_FALSE(s_->VELK_writing_section(VELK_SECTION_CONFIGURATION) ||
                 s_->VELK_writing_section(VELK_SECTION_VERSION_INFO));
    EXPECT_EQ(125u, s_->VELK_set_os(7, os));
    ASSERT_FALSE(s_->VELK_set_os(6, os) || s_->VELK_set_os(3, os) || s_->VELK_set_host(&host) ||
                 s_->VELK_set_application(&app) || s_->VELK_set_version_info(&version) ||
                 s_->VELK_done_section(1) || s_->VELK_done_section(5) ||
                 s_->write_to_file_hidden_string_section(nullptr));

    expect_written(&velk_class::write_to_file_velk_host, {26, 1, 24}, bytes_of(b_->host),
                   "end velk host");
    expect_written(&velk_class::write_to_file_velk_os, {27, 3, 40}, slice(bytes_of(b_->os), 0, 120),
                   "end velk os");
    expect_written(&velk_class::write_to_file_ruma_sysinfo_and_velk_application, {28, 1, 32},
                   bytes_of(app), "end velk application");
    expect_written(&velk_class::write_to_file_velk_version_info, {33, 1, 16}, bytes_of(version),
                   "end velk version info");
    // The legacy software configuration: host texts 2, 1, OS text 1, OS words, OS text 2.
    Image sw;
    sw.put(0, "host two", 8);
    sw.put(64, ("h\xC3\xB6" + std::string(60, 'h')).c_str(), 63);
    sw.put(128, std::string(127, 'o').c_str(), 127);
    for (const Words& p : {Words{256, 3}, {264, 11}, {268, 12}, {272, 13}, {276, 3}})
        sw.put32(p[0], (uint32_t)p[1]);
    sw.put(280, "os two", 6);
    sw.b.resize(476);
    expect_written(&velk_class::write_to_file_legacy_software_section, {13, 1, 476}, sw.b,
                   "end legacy software config", true);
    // Without records the section claims one, and the marker stands in its place.
    b_->os_count = 0;
    expect_written(&velk_class::write_to_file_velk_os, {27, 1, 40}, Bytes(), "end velk os");
    // A text one byte too long for its field: the OS field's 128 bytes, then the host field's 64.
    log_.clear();
    b_->os[0].os_text_1 = b_->os[2].os_text_1;
    const unsigned int os_status = s_->write_to_file_legacy_software_section();
    b_->os[0].os_text_1 = b_->os[0].os_text_2;
    b_->host.host_text_1 = b_->os[2].os_text_2;
    EXPECT_EQ((Words{103, 103, 4}),
              (Words{os_status, s_->write_to_file_legacy_software_section(),
                     log_.count_prefix("Operation failed with error code  (")}));
}

TEST_F(ConfigurationTest, SectionsOnFileAreTranslatedOrRefused)
{
    // New strings resolve from the store.
    s_->string_base = VELK_OSI_Get_File_Size(s_->file_handle);
    s_->final_file_size = s_->string_base;
    b_->section_state[VELK_SECTION_CONFIGURATION] = VELK_STATE_READING;
    b_->section_state[VELK_SECTION_VERSION_INFO] = VELK_STATE_READING;
    EXPECT_EQ((Words{78, 78, 78}),
              (Words{s_->VELK_get_os(40, got_os_, &n_), s_->VELK_get_host(24, &h_, &n_),
                     s_->VELK_get_version_info(16, &v_, &n_)}));
    s_->vk_file_version = 6;
    EXPECT_EQ(78u, s_->VELK_get_application(32, &a_, &n_));

    // Legacy sections; the OS text of 128 bytes has no NUL; the header ex gives major and minor.
    Image sw;
    sw.put(0, "two", 3);
    sw.put(64, "one", 3);
    sw.put(128, std::string(128, 'a').c_str(), 128);
    for (const Words& p : {Words{256, 5}, {264, 0x1234}, {268, 7}, {272, 9}})
        sw.put32(p[0], (uint32_t)p[1]);
    sw.put(280, "os \xC3\xB6", 5);
    sw.b.resize(476);
    const uint32_t ex[115] = {0x00030002};
    const uint64_t sys[6] = {0, 0, 0x1111222233334444ull, 0x55, 0x7700000066ull};
    append(&b_->sfs_legacy_software_config, sw.b);
    append(&b_->sfs_legacy_header_ex, bytes_of(ex));
    append(&b_->sfs_legacy_ruma_sys_info, bytes_of(sys));
    EXPECT_EQ((Words{0, 40, 0}),
              (Words{s_->VELK_get_os(0, nullptr, &n_), n_, s_->VELK_get_os(40, got_os_, &n_)}));
    EXPECT_EQ(slice(bytes_of(__VELK_os{40, 5, 0, 7, 9, 0, {}, {}}), 0, 24),
              slice(bytes_of(got_os_[0]), 0, 24));
    EXPECT_EQ(std::wstring(128, L'a') + L"|os \u00F6|",
              text(got_os_[0].os_text_1) + text(got_os_[0].os_text_2));
    ASSERT_FALSE(s_->VELK_get_host(24, &h_, &n_) || s_->VELK_get_version_info(16, &v_, &n_));
    EXPECT_TRUE(bytes_of(v_) == bytes_of(__VELK_version_info{16, 2, 3, 0, 0}) &&
                h_.host_size == 24 && h_.host_flags == 0);
    EXPECT_EQ(L"one|two|", text(h_.host_text_1) + text(h_.host_text_2));
    b_->section_state[VELK_SECTION_VERSION_INFO] = VELK_STATE_EXISTS;  // as by a version test
    ASSERT_EQ(0u, s_->VELK_get_application(32, &a_, &n_));
    EXPECT_EQ(bytes_of(__VELK_application{32, 0, 0x66, 0x77, 0x1111222233334444ull, 0x55}),
              bytes_of(a_));

    // Damaged new-form sections; then, back to the legacy record, the 64-byte host fields are cut.
    b_->host_set = 0;
    b_->os_set = 0;
    b_->version_set = 0;
    append(&b_->sfs_version_info, bytes_of(__VELK_version_info{17, 2, 1, 8, 27}));
    EXPECT_EQ(80u, s_->VELK_get_version_info(16, &v_, &n_));
    append(&b_->sfs_host, Bytes(8, 1));
    append(&b_->sfs_legacy_software_config, Bytes(300, 'x'));  // no NUL, too short for the OS
    append(&b_->sfs_os, Bytes(40, 2), 3);
    append(&b_->sfs_version_info, Bytes(4, 16));
    EXPECT_EQ((Words{24, 24, 24}),
              (Words{s_->VELK_get_host(24, &h_, &n_), s_->VELK_get_os(0, nullptr, &n_),
                     s_->VELK_get_version_info(16, &v_, &n_)}));
    b_->sfs_os.length = 0;
    b_->sfs_host.length = 0;
    EXPECT_EQ((Words{24, 0}),
              (Words{s_->VELK_get_os(40, got_os_, &n_), s_->VELK_get_host(24, &h_, &n_)}));
    EXPECT_EQ(std::wstring(64, L'x') + L"|" + std::wstring(64, L'x') + L"|",
              text(h_.host_text_1) + text(h_.host_text_2));
}

TEST_F(ConfigurationTest, StreamInfoKeepsTheProtocolAndIsReadFromItsSectionOrTheLegacyHeaderEx)
{
    ASSERT_EQ(0u, s_->VELK_writing_stream(0));
    node_ = s_->stream_list;
    EXPECT_EQ(81u, s_->VELK_set_stream_info(0, &in_));
    ASSERT_EQ(0u, s_->VELK_writing_stream_section(0, kInfo));
    // The short form keeps the caller's size; stream 0 mirrors its words into the legacy header.
    b_->sfs_legacy_header_ex.length = 1;
    for (const Words& c : {Words{6, 10, 40}, {6, 0, 128}, {6, 18, 128}, {7, 10, 128}}) {
        set_version({c[0], 2, 0, 8, c[1]});
        ASSERT_EQ(0u, s_->VELK_set_stream_info(0, &in_));
        EXPECT_EQ(c[2], node_->stream_info.info.stream_info_size) << c[0] << "/" << c[1];
    }
    const uint32_t* mirror = &s_->legacy_header.stream_param_a;
    EXPECT_EQ(0u, mirror[0]);
    b_->sfs_legacy_header_ex.length = 0;
    __VELK_user_info user = {{w(L"user text")}};
    __VELK_user_info got = {};
    uint32_t lbr = 7;
    ASSERT_FALSE(s_->VELK_set_user_info(0, &user) || s_->VELK_set_stream_info(0, &in_) ||
                 s_->VELK_set_lbr_info(0, 0x77) || s_->VELK_set_uncore_info(0, 3, 4) ||
                 s_->VELK_set_lbr_filter_info(0, 0x105));
    EXPECT_EQ((std::vector<uint32_t>{11, 13, 14, 15, 16, 17}),
              std::vector<uint32_t>(mirror, mirror + 6));
    EXPECT_EQ(VELK_E_ALREADY_IN_USE, s_->VELK_get_lbr_info(0, &lbr));
    // The getters' refusal names the setter.
    EXPECT_TRUE(
        log_.contains_format("<velk %u::VELK_set_stream_info>this stream section does not "
                             "exist or read was not first called!\n"));
    const velk_stream_info_record memory = node_->stream_info;
    const size_t at = VELK_OSI_Get_File_Size(s_->file_handle);
    const size_t slot = node_->stream_table_offset;
    ASSERT_EQ(0u, s_->write_to_file_velk_stream_info(0));
    // The slot, then the record, its marker, and padding to a multiple of 8 plus 16.
    const Bytes f = read_file(path("f.vk7"));
    const Slot s = find_slot(f, slot, 1, KIND_STREAM_INFO);
    EXPECT_EQ((Words{slot, 128, at, 1, 128, 0xFFFFFFFF, at + 128 + 21 + 24 - ((at + 149) & 7)}),
              (Words{s.at, s.length, s.file_offset, s.number_entries, s.entry_length,
                     u32_at(f, slot + 36), f.size()}));
    EXPECT_EQ(bytes_of(memory), slice(f, at, 128));
    expect_ending(f, at + 128, "end velk stream info");
    node_->stream_info_set = 0;  // from here on the record is read from the file
    to_reading();
    // Filter names are appended as they fit; uncore values come in version 7 files from 2.0.8 on.
    char filter[64] = "keep:";
    unsigned short v[2] = {9, 9};
    EXPECT_EQ(
        (Words{103, 103, 0, 0, 0x77, 0, 0, 3, 4}),
        (Words{s_->VELK_get_stream_info(0, 63, &out_, &n_), s_->VELK_get_user_info(0, 7, &got, &n_),
               s_->VELK_get_user_info(0, 8, &got, &n_), s_->VELK_get_lbr_info(0, &lbr), lbr,
               s_->VELK_get_lbr_filter_info(0, 13, filter),
               s_->VELK_get_uncore_info(0, &v[0], &v[1]), v[0], v[1]}));
    EXPECT_EQ("keep:CPL_EQ_0 JCC ", std::string(filter));
    set_version({7, 2, 0, 7, 27});
    v[0] = 9;
    EXPECT_EQ((Words{0, 9}), (Words{s_->VELK_get_uncore_info(0, &v[0], &v[1]), v[0]}));
    set_version({6, 2, 0, 8, 10});  // an older file takes 64 bytes
    ASSERT_EQ(0u, s_->write_to_file_velk_stream_info(0));
    EXPECT_EQ(64u, u64_at(read_file(path("f.vk7")), slot + 40));
    // The short form needs the 64 bytes just written only; the long one refuses them, and unmaps.
    EXPECT_EQ((Words{0, 128}),
              (Words{s_->VELK_get_stream_info(0, 64, &out_, nullptr), out_.stream_info_size}));
    const unsigned int mmaps = __VELK_mmap_tracker::m_num_mmaps;
    set_version({7, 2, 0, 8, 27});
    EXPECT_EQ(24u, s_->VELK_get_stream_info(0, 64, &out_, nullptr));
    EXPECT_TRUE(log_.contains_format(
        "<velk %u::VELK_get_stream_info>velk_stream_info section of %u bytes is shorter than the "
        "%u bytes of its record!\n"));
    EXPECT_EQ(mmaps, __VELK_mmap_tracker::m_num_mmaps);
    node_->stream_info_section.length = 0;
    EXPECT_EQ(78u, s_->VELK_get_stream_info(0, 64, &out_, nullptr));

    // Stream 0 of a legacy file; new strings lie past the header ex, as after a new stream.
    uint32_t ex[115] = {};
    for (const Words& p :
         {Words{364, 0xA1}, {260, 0xB2}, {368, 0xC3}, {372, 0xD4}, {376, 0xE5}, {380, 0xF6}})
        ex[p[0] / 4] = (uint32_t)p[1];
    append(&b_->sfs_legacy_header_ex, bytes_of(ex));
    b_->sfs_legacy_header_ex.length = 383;
    s_->string_base = VELK_OSI_Get_File_Size(s_->file_handle);
    EXPECT_EQ(24u, s_->VELK_get_stream_info(0, 64, &out_, nullptr));
    b_->sfs_legacy_header_ex.length = 460;
    ASSERT_EQ(0u, s_->VELK_get_stream_info(0, 64, &out_, nullptr));
    EXPECT_EQ((std::vector<uint32_t>{64, 0xA1, 1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6}),
              std::vector<uint32_t>(&out_.stream_info_size, &out_.stream_info_size + 8));
}

}  // namespace
