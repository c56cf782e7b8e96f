// Host, OS, application and version records: refusals, sections written, legacy sections translated, damage refused.
#include <string.h>

#include <memory>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

namespace {

using namespace velk_test;
using Bytes = std::vector<unsigned char>;
using Sfs = __VELK_sample_file_section_vk6;
using U = std::vector<uint64_t>;  // a braced list runs left to right: {call, what it wrote}
struct Refusal { unsigned int got, status; std::string line; };
template <typename T> Bytes raw(const T& v, size_t n = sizeof(T)) { return Bytes((const uint8_t*)&v, (const uint8_t*)&v + n); }
void put(Bytes& b, size_t at, const std::string& v) { memcpy(b.data() + at, v.data(), v.size()); }
void put_words(Bytes& b, const std::vector<U>& at_value_size) { for (const U& p : at_value_size) memcpy(b.data() + p[0], &p[1], p[2]); }

class ConfigurationTest : public TempDirTest {
protected:
    void SetUp() override
    {
        TempDirTest::SetUp();
        s_.reset(new velk_class);
        b_ = s_->sections_ptr;
        ASSERT_EQ(0u, s_->VELK_initialize_me(widen(path("f.vk7")).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    }
    void TearDown() override
    {
        EXPECT_EQ(0u, s_->VELK_closedown());
        s_.reset();
        TempDirTest::TearDown();
    }
    void expect_refused(const std::vector<Refusal>& rows) const
    {
        for (const Refusal& row : rows)
            EXPECT_TRUE(row.got == row.status && log_.contains("<velk " + std::to_string(s_->instance) + "::" + row.line)) << row.got << row.line;
    }
    std::wstring text(__string_or_id sid)  // "#" for an id that does not resolve
    {
        wchar_t buffer[200] = {};
        return (s_->VELK_convert_uniqueid_to_string(sizeof(buffer), &sid, buffer, nullptr) ? std::wstring(L"#") : buffer) + L"|";
    }
    void append(Sfs* sfs, const Bytes& data, uint64_t entries = 1)  // a section described as the analysis of a file would
    {
        *sfs = Sfs{data.size(), VELK_OSI_Get_File_Size(s_->file_handle), entries, 0, 0, 0, 0};
        ASSERT_EQ(0u, s_->utility_write_final_file(data.data(), data.size(), VELK_OSI_SEEK_END, 0));
    }
    // The writer appends data, marker with its NUL and padding to a multiple of 8 plus 16, and its descriptor to its table.
    void expect_written(unsigned int (velk_class::*write)(), const Sfs* d, U sfs, Bytes want, const std::string& marker, bool legacy = false)
    {
        const uint64_t before = VELK_OSI_Get_File_Size(s_->file_handle);
        ASSERT_EQ(0u, ((*s_).*write)()) << marker;
        const Bytes f = read_file(path("f.vk7"));
        const uint64_t entry = legacy ? VELK_SECTION_TABLE_OFFSET + (b_->legacy_next_slot - 1) * 40
                                      : b_->sfs_global_offset.file_offset + (b_->global_next_slot - 1) * 40;
        want.insert(want.end(), marker.c_str(), marker.c_str() + marker.size() + 1);
        want.resize(want.size() + 24 - ((before + want.size()) & 7), 0);
        EXPECT_EQ((U{sfs[0], before, sfs[1], sfs[2], sfs[1] * sfs[2]}), (U{d->section_id, d->file_offset, d->number_entries, d->entry_length, d->length}));
        EXPECT_EQ(want, Bytes(f.begin() + before, f.end())) << marker;
        EXPECT_EQ(raw(*d), Bytes(f.begin() + entry, f.begin() + entry + sizeof(Sfs))) << marker;
    }
    std::unique_ptr<velk_class> s_;
    velk_section_block* b_ = nullptr;
    LogCapture log_;
    // Host and OS record 0 have texts that just fit the legacy record (63 and 127 bytes of UTF-8), OS record 2 one byte too long.
    std::wstring long_host_ = L"h\u00F6" + std::wstring(60, L'h'), long_os_ = std::wstring(127, L'o'), too_long_[2] = {long_os_ + L'o', long_host_ + L'h'};
    __VELK_host host_{7, 0x80000001u, {&long_host_[0]}, {(wchar_t*)L"host two"}}, h_{};
    __VELK_os os_[7] = {{40, 3, 11, 12, 13, 14, {&long_os_[0]}, {(wchar_t*)L"os two"}}, {40, 4, 21, 22, 23, 24, {nullptr}, {(wchar_t*)L"2nd"}},
                        {40, 5, 0, 0, 0, 0, {&too_long_[0][0]}, {&too_long_[1][0]}}}, got_os_[1];
    __VELK_application app_{32, 0, 5, 6, 0x1122334455667788ull, 0x99}, a_;
    __VELK_version_info version_{16, 2, 1, 8, 27}, v_;
    unsigned int n_ = 0;
};

TEST_F(ConfigurationTest, WritingSessionKeepsTheProtocolAndLaysOutTheSections)
{
    const std::string none = ">nothing to write!\n", busy = ">this section already exists or write_section was not first called!\n",
                      idle = ">either this section doesn't exist, it's being written, or read_section was not first called!\n";
    expect_refused({{s_->VELK_set_host(nullptr), 145, "VELK_get_host" + none}, {s_->VELK_set_host(&host_), 125, "VELK_set_host" + busy},
                    {s_->VELK_set_os(1, nullptr), 145, "VELK_set_os" + none}, {s_->VELK_set_os(1, os_), 125, "VELK_set_os" + busy},
                    {s_->VELK_set_application(&app_), 125, "VELK_set_application" + busy}, {s_->VELK_set_version_info(nullptr), 145, "VELK_set_version_info" + none},
                    {s_->VELK_set_version_info(&version_), 125, "VELK_set_version_info>this section already exists or write was not first called!\n"},
                    {s_->VELK_get_host(0, nullptr, nullptr), 124, "VELK_get_host" + idle}, {s_->VELK_get_os(0, nullptr, nullptr), 124, "VELK_get_os" + idle},
                    {s_->VELK_get_application(0, nullptr, nullptr), 124, "VELK_get_application" + idle},
                    {s_->VELK_get_version_info(0, nullptr, nullptr), 124, "VELK_get_version_info>this section does not exist or read was not first called!\n"}});
    ASSERT_FALSE(s_->VELK_writing_section(VELK_SECTION_CONFIGURATION) || s_->VELK_writing_section(VELK_SECTION_VERSION_INFO));
    s_->legacy_header.header_word_0 = s_->legacy_header.header_word_2 = 9;  // the version clears both
    expect_refused({{s_->VELK_set_os(7, os_), 125, "VELK_set_os>this section cannot store 7 number of os info!\n"}});
    EXPECT_EQ((U{0, 3, 0, 0}), (U{s_->VELK_set_os(6, os_) || s_->VELK_set_os(3, os_) || s_->VELK_set_host(&host_) || s_->VELK_set_application(&app_) ||
                                      s_->VELK_set_version_info(&version_), b_->os_count, s_->legacy_header.header_word_0, s_->legacy_header.header_word_2}));
    ASSERT_FALSE(s_->VELK_done_section(1) || s_->VELK_done_section(5) || s_->VELK_reading_section(1) || s_->VELK_reading_section(5));
    EXPECT_EQ((U{0, 24, 0, 120, 0, 32, 0, 16}), (U{s_->VELK_get_host(0, nullptr, &n_), n_, s_->VELK_get_os(0, nullptr, &n_), n_,
                                                  s_->VELK_get_application(0, nullptr, &n_), n_, s_->VELK_get_version_info(0, nullptr, &n_), n_}));
    expect_refused({{s_->VELK_get_host(23, &h_, &n_), 103, "VELK_get_host>buffer allocated by caller is not big enough!\n"}});
    EXPECT_TRUE(raw(h_) == Bytes(24, 0) && host_.host_text_2.text == std::wstring(L"host two"));  // the caller's texts stay as well
    ASSERT_FALSE(s_->VELK_get_host(24, &h_, nullptr) || s_->VELK_get_application(32, &a_, &n_) || s_->VELK_get_version_info(16, &v_, &n_));
    EXPECT_TRUE(h_.host_size == 7 && h_.host_flags == 0x80000001u && raw(a_) == raw(app_) && raw(v_) == raw(version_) && b_->os[1].os_text_1.id == 0);

    ASSERT_EQ(0u, s_->write_to_file_hidden_string_section(nullptr));
    expect_written(&velk_class::write_to_file_velk_host, &b_->sfs_host, {26, 1, 24}, raw(b_->host), "end velk host");
    expect_written(&velk_class::write_to_file_velk_os, &b_->sfs_os, {27, 3, 40}, raw(b_->os, 120), "end velk os");
    expect_written(&velk_class::write_to_file_ruma_sysinfo_and_velk_application, &b_->sfs_application, {28, 1, 32}, raw(app_), "end velk application");
    expect_written(&velk_class::write_to_file_velk_version_info, &b_->sfs_version_info, {33, 1, 16}, raw(version_), "end velk version info");
    Bytes sw(476, 0);
    put(sw, 0, "host two"), put(sw, 64, "h\xC3\xB6" + std::string(60, 'h')), put(sw, 128, std::string(127, 'o')), put(sw, 280, "os two");
    put_words(sw, {{256, 3, 4}, {264, 11, 4}, {268, 12, 4}, {272, 13, 4}, {276, 3, 4}});
    expect_written(&velk_class::write_to_file_legacy_software_section, &b_->sfs_legacy_software_config, {13, 1, 476}, sw, "end legacy software config", true);
    b_->os_count = 0;  // the section claims one record, and the marker stands in its place
    expect_written(&velk_class::write_to_file_velk_os, &b_->sfs_os, {27, 1, 40}, Bytes(), "end velk os");

    log_.clear();
    b_->os[0].os_text_1 = b_->os[2].os_text_1;  // 128 bytes for the OS field, then 64 for the host field
    const unsigned int os_status = s_->write_to_file_legacy_software_section();
    b_->os[0].os_text_1 = b_->os[0].os_text_2;
    b_->host.host_text_1 = b_->os[2].os_text_2;
    EXPECT_EQ((U{103, 103, 4}), (U{os_status, s_->write_to_file_legacy_software_section(), log_.count_prefix("Operation failed with error code  (")}));
}

TEST_F(ConfigurationTest, SectionsOnFileAreTranslatedOrRefused)
{
    s_->string_base = s_->final_file_size = VELK_OSI_Get_File_Size(s_->file_handle);  // new strings resolve from the store
    b_->section_state[VELK_SECTION_CONFIGURATION] = b_->section_state[VELK_SECTION_VERSION_INFO] = 2;
    const std::string missing = ">software configuration section not found!\n", shorter = ">section is shorter than its record!\n";
    expect_refused({{s_->VELK_get_os(40, got_os_, &n_), 78, "VELK_get_os" + missing}, {s_->VELK_get_host(24, &h_, &n_), 78, "VELK_get_host" + missing},
                    {s_->VELK_get_version_info(16, &v_, &n_), 78, "VELK_get_version_info>velk_version_info section not found!\n"}});
    s_->vk_file_version = 6;
    expect_refused({{s_->VELK_get_application(32, &a_, &n_), 78, "VELK_get_application>ruma system info section not found!\n"}});

    Bytes sw(476, 0), ex(460, 0), sys(48, 0);
    put(sw, 0, "two"), put(sw, 64, "one"), put(sw, 128, std::string(128, 'a')), put(sw, 280, "os \xC3\xB6");
    put_words(sw, {{256, 5, 4}, {264, 0x1234, 4}, {268, 7, 4}, {272, 9, 4}}), put_words(ex, {{0, 0x00030002, 4}});
    put_words(sys, {{16, 0x1111222233334444ull, 8}, {24, 0x55, 8}, {32, 0x66, 4}, {36, 0x77, 4}});
    for (const auto& section : {std::make_pair(&b_->sfs_legacy_software_config, sw), {&b_->sfs_legacy_header_ex, ex}, {&b_->sfs_legacy_ruma_sys_info, sys}})
        append(section.first, section.second);
    EXPECT_EQ((U{0, 40, 0}), (U{s_->VELK_get_os(0, nullptr, &n_), n_, s_->VELK_get_os(40, got_os_, &n_)}));
    EXPECT_EQ(raw(__VELK_os{40, 5, 0, 7, 9, 0, {}, {}}, 24), raw(got_os_[0], 24));  // word 1 is not taken from 264
    EXPECT_EQ(std::wstring(128, L'a') + L"|os \u00F6|", text(got_os_[0].os_text_1) + text(got_os_[0].os_text_2));
    EXPECT_EQ((U{0, 0, 1, 0}), (U{s_->VELK_get_os(0, nullptr, &n_), n_, b_->os_set, b_->os_count}));
    ASSERT_FALSE(s_->VELK_get_host(24, &h_, &n_) || s_->VELK_get_version_info(16, &v_, &n_));
    EXPECT_TRUE(raw(v_) == raw(__VELK_version_info{16, 2, 3, 0, 0}) && h_.host_size == 24 && h_.host_flags == 0 && b_->host_set && b_->version_set);
    EXPECT_EQ(L"one|two|", text(h_.host_text_1) + text(h_.host_text_2));
    b_->section_state[VELK_SECTION_VERSION_INFO] = 1;  // entered by the test of version, and left in use
    ASSERT_EQ(0u, s_->VELK_get_application(32, &a_, &n_));
    EXPECT_TRUE(raw(a_) == raw(__VELK_application{32, 0, 0x66, 0x77, 0x1111222233334444ull, 0x55}) && b_->section_state[VELK_SECTION_VERSION_INFO] == 2);

    b_->host_set = b_->os_set = b_->version_set = 0;
    append(&b_->sfs_version_info, raw(__VELK_version_info{17, 2, 1, 8, 27}));
    expect_refused({{s_->VELK_get_version_info(16, &v_, &n_), 80, "VELK_get_version_info>data corrupted!\n"}});
    append(&b_->sfs_host, Bytes(8, 1));
    append(&b_->sfs_legacy_software_config, Bytes(300, 'x'));  // no NUL, and too short for the OS part
    append(&b_->sfs_os, Bytes(40, 2), 3);
    append(&b_->sfs_version_info, Bytes(4, 16));
    expect_refused({{s_->VELK_get_host(24, &h_, &n_), 24, "VELK_get_host" + shorter}, {s_->VELK_get_os(0, nullptr, &n_), 24, "VELK_get_os" + shorter},
                    {s_->VELK_get_version_info(16, &v_, &n_), 24, "VELK_get_version_info" + shorter}});
    b_->sfs_os.length = b_->sfs_host.length = 0;
    EXPECT_EQ((U{24, 0}), (U{s_->VELK_get_os(40, got_os_, &n_), s_->VELK_get_host(24, &h_, &n_)}));  // the 64-byte fields are cut, not overrun
    EXPECT_EQ(std::wstring(64, L'x') + L"|" + std::wstring(64, L'x') + L"|", text(h_.host_text_1) + text(h_.host_text_2));
}

}  // namespace
