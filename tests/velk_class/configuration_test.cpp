// Host, OS, application and version records: set, get, written at close, read
// back from the new sections and translated from the legacy ones.
#include <string.h>

#include <memory>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

namespace {

using namespace velk_test;
using Bytes = std::vector<unsigned char>;
using Sfs = __VELK_sample_file_section_vk6;
template <typename T> Bytes raw(const T& v, size_t n = sizeof(T)) { return Bytes((const uint8_t*)&v, (const uint8_t*)&v + n); }
void put(Bytes& b, size_t at, const std::string& v) { memcpy(b.data() + at, v.data(), v.size()); }
template <typename T> void put_int(Bytes& b, size_t at, T v) { memcpy(b.data() + at, &v, sizeof(v)); }
wchar_t* w(const wchar_t* text) { return const_cast<wchar_t*>(text); }

class ConfigurationTest : public TempDirTest {
protected:
    void SetUp() override
    {
        TempDirTest::SetUp();
        s_.reset(new velk_class);
        ASSERT_EQ(0u, s_->VELK_initialize_me(widen(path("f.vk7")).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
        b_ = s_->sections_ptr;
        pre_ = "<velk " + std::to_string(s_->instance) + "::";
    }
    void TearDown() override
    {
        EXPECT_EQ(0u, s_->VELK_closedown());
        s_.reset();
        TempDirTest::TearDown();
    }
    bool said(const std::string& tail, unsigned int mask = VELK_MASK_FAILURE) const
    {
        for (size_t i = 0; i < log_.lines().size(); i++)
            if (log_.lines()[i] == pre_ + tail && log_.masks()[i] == mask) return true;
        return false;
    }
    // Two texts behind their ids, each with the two-call form; "#" for a failed call.
    std::wstring texts(unsigned long long first, unsigned long long second)
    {
        std::wstring out;
        for (unsigned long long id : {first, second}) {
            __string_or_id sid{};
            sid.id = id;
            unsigned int n = 0;
            std::vector<wchar_t> buffer(s_->VELK_convert_uniqueid_to_string(0, &sid, nullptr, &n) ? 1 : n / 4 + 1);
            out += n && !s_->VELK_convert_uniqueid_to_string(n, &sid, buffer.data(), &n) ? buffer.data() : L"#";
            out += L"|";
        }
        return out;
    }
    Bytes file() { return read_file(path("f.vk7")); }
    // Appends a section and describes it, as the analysis of a file would.
    void append(Sfs* sfs, const Bytes& data)
    {
        *sfs = Sfs{data.size(), VELK_OSI_Get_File_Size(s_->file_handle), 1, 0, 0, 0, 0};
        ASSERT_EQ(0u, s_->utility_write_final_file(data.data(), data.size(), VELK_OSI_SEEK_END, 0));
    }
    // New strings land past the file's end and resolve from the store, as in a reopened file.
    void as_reopened() { s_->string_base = s_->final_file_size = VELK_OSI_Get_File_Size(s_->file_handle); }
    void reading() { b_->section_state[VELK_SECTION_CONFIGURATION] = b_->section_state[VELK_SECTION_VERSION_INFO] = 2; }
    uint64_t global_entry() { return b_->sfs_global_offset.file_offset + (b_->global_next_slot - 1) * 40; }
    // The file ends with the section: data, marker with its NUL, and padding to a multiple of 8 plus 16;
    // its descriptor is in the table entry at `entry`.
    void expect_section(const Sfs& d, unsigned int kind, uint64_t entries, uint64_t size, Bytes want,
                        const std::string& marker, uint64_t entry, uint64_t before)
    {
        const Bytes f = file();
        want.insert(want.end(), marker.c_str(), marker.c_str() + marker.size() + 1);
        want.resize(want.size() + 24 - ((before + want.size()) & 7), 0);
        EXPECT_EQ((std::vector<uint64_t>{kind, before, entries, size, entries * size}),
                  (std::vector<uint64_t>{d.section_id, d.file_offset, d.number_entries, d.entry_length, d.length}));
        ASSERT_GE(f.size(), before);
        EXPECT_EQ(want, Bytes(f.begin() + before, f.end())) << marker;
        EXPECT_EQ(raw(d), Bytes(f.begin() + entry, f.begin() + entry + sizeof(Sfs))) << marker;
    }
    std::unique_ptr<velk_class> s_;
    velk_section_block* b_ = nullptr;
    std::string pre_;
    LogCapture log_;
    __VELK_host host_{7, 0x80000001u, {w(L"h\u00F6st one")}, {w(L"host two")}}, h_;
    __VELK_os os_[7] = {{40, 3, 11, 12, 13, 14, {w(L"os one")}, {w(L"os two")}}, {40, 4, 21, 22, 23, 24, {nullptr}, {w(L"2nd")}}};
    __VELK_os got_os_[2];
    __VELK_application app_{32, 0, 5, 6, 0x1122334455667788ull, 0x99}, a_;
    __VELK_version_info version_{16, 2, 1, 8, 27}, v_;
    unsigned int n_ = 0;
};

TEST_F(ConfigurationTest, SettersAndGettersKeepTheProtocol)
{
    const std::string wrong_state = ">this section already exists or write_section was not first called!\n";
    const std::string not_reading = ">either this section doesn't exist, it's being written, or read_section was not first called!\n";
    struct { unsigned int got, status; std::string line; } refused[] = {
        {s_->VELK_set_host(nullptr), 145, "VELK_get_host>nothing to write!\n"},
        {s_->VELK_set_host(&host_), 125, "VELK_set_host" + wrong_state},
        {s_->VELK_set_os(1, nullptr), 145, "VELK_set_os>nothing to write!\n"},
        {s_->VELK_set_os(1, os_), 125, "VELK_set_os" + wrong_state},
        {s_->VELK_set_application(&app_), 125, "VELK_set_application" + wrong_state},
        {s_->VELK_set_version_info(nullptr), 145, "VELK_set_version_info>nothing to write!\n"},
        {s_->VELK_set_version_info(&version_), 125, "VELK_set_version_info>this section already exists or write was not first called!\n"},
        {s_->VELK_get_host(0, nullptr, nullptr), 124, "VELK_get_host" + not_reading},
        {s_->VELK_get_os(0, nullptr, nullptr), 124, "VELK_get_os" + not_reading},
        {s_->VELK_get_application(0, nullptr, nullptr), 124, "VELK_get_application" + not_reading},
        {s_->VELK_get_version_info(0, nullptr, nullptr), 124, "VELK_get_version_info>this section does not exist or read was not first called!\n"},
    };
    for (const auto& row : refused)
        EXPECT_TRUE(row.got == row.status && said(row.line)) << row.line;

    ASSERT_EQ(0u, s_->VELK_writing_section(VELK_SECTION_CONFIGURATION) | s_->VELK_writing_section(VELK_SECTION_VERSION_INFO));
    s_->legacy_header.header_word_0 = s_->legacy_header.header_word_2 = 9;  // the version clears both
    EXPECT_EQ(125u, s_->VELK_set_os(7, os_));
    EXPECT_TRUE(said("VELK_set_os>this section cannot store 7 number of os info!\n") && b_->os_set == 0);
    EXPECT_EQ(0u, s_->VELK_set_os(6, os_) | s_->VELK_set_os(2, os_) | s_->VELK_set_host(&host_) |
                      s_->VELK_set_application(&app_) | s_->VELK_set_version_info(&version_));
    EXPECT_TRUE(said("VELK_set_host>entering\n", VELK_MASK_TRACE) && said("VELK_set_host>exiting\n", VELK_MASK_TRACE));
    EXPECT_EQ(std::wstring(L"host two"), host_.host_text_2.text);  // the caller's record keeps its texts
    EXPECT_TRUE(b_->os_count == 2 && s_->legacy_header.header_word_0 == 0 && s_->legacy_header.header_word_2 == 0);
    ASSERT_EQ(0u, s_->VELK_done_section(1) | s_->VELK_done_section(5) | s_->VELK_reading_section(1) | s_->VELK_reading_section(5));

    memset(&h_, 0xAB, sizeof(h_));
    const Bytes untouched = raw(h_);
    EXPECT_EQ((std::vector<unsigned int>{0, 24, 0, 80, 0, 32, 0, 16}),
              (std::vector<unsigned int>{s_->VELK_get_host(0, nullptr, &n_), n_, s_->VELK_get_os(0, nullptr, &n_), n_,
                                         s_->VELK_get_application(0, nullptr, &n_), n_, s_->VELK_get_version_info(0, nullptr, &n_), n_}));
    EXPECT_TRUE(s_->VELK_get_host(23, &h_, &n_) == 103 && raw(h_) == untouched);
    EXPECT_TRUE(said("VELK_get_host>buffer allocated by caller is not big enough!\n"));
    EXPECT_EQ(VELK_E_BAD_POINTER, s_->VELK_get_host(24, nullptr, &n_));
    ASSERT_EQ(0u, s_->VELK_get_host(24, &h_, nullptr) | s_->VELK_get_os(80, got_os_, &n_) |
                      s_->VELK_get_application(32, &a_, &n_) | s_->VELK_get_version_info(16, &v_, &n_));
    EXPECT_TRUE(h_.host_size == 7 && h_.host_flags == 0x80000001u && raw(a_) == raw(app_) && raw(v_) == raw(version_));
    EXPECT_EQ(L"h\u00F6st one|host two|", texts(h_.host_text_1.id, h_.host_text_2.id));
    EXPECT_TRUE(got_os_[1].os_word_4 == 24 && got_os_[1].os_text_1.id == 0 && texts(got_os_[1].os_text_2.id, 0) == L"2nd|#|");
    for (uint32_t size : {8u, 100u}) {  // the size word says how much of the kept record is copied
        memset(&v_, 0xAB, sizeof(v_)), b_->version.version_size = size;
        EXPECT_TRUE(!s_->VELK_get_version_info(16, &v_, &n_) && v_.version_revision == (size == 8 ? 0xABABABABu : 27u));
    }
}

TEST_F(ConfigurationTest, WritersLayOutSectionsThatReadBack)
{
    ASSERT_EQ(0u, s_->VELK_writing_section(1) | s_->VELK_writing_section(5));
    ASSERT_EQ(0u, s_->VELK_set_host(&host_) | s_->VELK_set_os(2, os_) | s_->VELK_set_application(&app_) |
                      s_->VELK_set_version_info(&version_));
    ASSERT_EQ(0u, s_->VELK_done_section(1) | s_->VELK_done_section(5) | s_->write_to_file_hidden_string_section(nullptr));
    const velk_section_block kept = *b_;
    struct { unsigned int (velk_class::*writer)(); Sfs* sfs; unsigned int kind, entries, size; Bytes data; std::string marker; } rows[] = {
        {&velk_class::write_to_file_velk_host, &b_->sfs_host, 26, 1, 24, raw(b_->host), "end velk host"},
        {&velk_class::write_to_file_velk_os, &b_->sfs_os, 27, 2, 40, raw(b_->os, 80), "end velk os"},
        {&velk_class::write_to_file_ruma_sysinfo_and_velk_application, &b_->sfs_application, 28, 1, 32, raw(app_), "end velk application"},
        {&velk_class::write_to_file_velk_version_info, &b_->sfs_version_info, 33, 1, 16, raw(version_), "end velk version info"},
    };
    for (auto& row : rows) {
        const uint64_t before = file().size();
        ASSERT_EQ(0u, ((*s_).*row.writer)()) << row.marker;
        expect_section(*row.sfs, row.kind, row.entries, row.size, row.data, row.marker, global_entry(), before);
    }
    const Sfs os_sfs = b_->sfs_os;
    uint64_t before = file().size();
    ASSERT_EQ(0u, s_->write_to_file_legacy_software_section());
    Bytes sw(476, 0);
    put(sw, 0, "host two"), put(sw, 64, "h\xC3\xB6st one"), put(sw, 128, "os one"), put(sw, 280, "os two");
    put_int(sw, 256, 3), put_int(sw, 264, 11), put_int(sw, 268, 12), put_int(sw, 272, 13), put_int(sw, 276, 3);
    expect_section(b_->sfs_legacy_software_config, 13, 1, 476, sw, "end legacy software config",
                   VELK_SECTION_TABLE_OFFSET + (b_->legacy_next_slot - 1) * 40, before);
    b_->os_count = 0;  // no record: the section claims one, and the marker stands in its place
    before = file().size();
    ASSERT_EQ(0u, s_->write_to_file_velk_os());
    expect_section(b_->sfs_os, 27, 1, 40, Bytes(), "end velk os", global_entry(), before);

    b_->sfs_os = os_sfs;
    b_->host_set = b_->os_set = b_->application_set = b_->version_set = 0;
    reading();
    ASSERT_EQ(0u, s_->VELK_get_host(24, &h_, &n_) | s_->VELK_get_os(80, got_os_, &n_) |
                      s_->VELK_get_application(32, &a_, &n_) | s_->VELK_get_version_info(16, &v_, &n_));
    EXPECT_TRUE(raw(h_) == raw(kept.host) && raw(got_os_) == raw(kept.os, 80) && raw(a_) == raw(app_) && raw(v_) == raw(version_));
    EXPECT_EQ(L"os one|os two|", texts(got_os_[0].os_text_1.id, got_os_[0].os_text_2.id));
    EXPECT_EQ(0u, b_->host_set | b_->os_set | b_->application_set | b_->version_set);  // nothing is kept
    append(&b_->sfs_version_info, raw(__VELK_version_info{17, 2, 1, 8, 27}));
    EXPECT_TRUE(s_->VELK_get_version_info(16, &v_, &n_) == VELK_E_STREAM_STATE && said("VELK_get_version_info>data corrupted!\n"));

    // A text must fit its field of the legacy record with its NUL.
    struct { size_t host, os; unsigned int status; } fit[] = {{63, 127, 0}, {64, 1, 103}, {1, 128, 103}};
    for (const auto& row : fit) {
        b_->section_state[VELK_SECTION_CONFIGURATION] = 3;
        s_->string_base = VELK_OSI_Get_File_Size(s_->file_handle);  // as after a new stream
        std::wstring host_text(row.host, L'h'), os_text(row.os, L'o');
        __VELK_host host{24, 0, {&host_text[0]}, {nullptr}};
        __VELK_os os{40, 0, 0, 0, 0, 0, {nullptr}, {&os_text[0]}};
        ASSERT_EQ(0u, s_->VELK_set_host(&host) | s_->VELK_set_os(1, &os) | s_->write_to_file_hidden_string_section(nullptr));
        s_->final_file_size = 0;  // the lookups take this flush as final
        log_.clear();
        before = file().size();
        EXPECT_EQ(row.status, s_->write_to_file_legacy_software_section()) << row.host;
        const Bytes bytes = file();
        const std::string f(bytes.begin(), bytes.end());
        if (row.status == 0)
            EXPECT_EQ(std::string(63, 'h') + '\0' + std::string(127, 'o') + '\0', f.substr(before + 64, 64) + f.substr(before + 280, 128));
        else
            EXPECT_TRUE(log_.count_prefix("Operation failed with error code ") == 2 &&
                        log_.contains_format("Operation failed with error code  (src/velk_class, %d) value: 0x67\n"));
    }
}

TEST_F(ConfigurationTest, LegacySectionsTranslateOnceIntoTheSession)
{
    Bytes sw(476, 0), ex(460, 0), sys(48, 0);
    put(sw, 0, "two"), put(sw, 64, "one"), put(sw, 128, std::string(128, 'a')), put(sw, 280, "os \xC3\xB6");
    put_int(sw, 256, 5), put_int(sw, 264, 0x1234), put_int(sw, 268, 7), put_int(sw, 272, 9), put_int(ex, 0, 0x00030002);
    put_int(sys, 16, 0x1111222233334444ull), put_int(sys, 24, 0x55ull), put_int(sys, 32, 0x66), put_int(sys, 36, 0x77);
    append(&b_->sfs_legacy_software_config, sw);
    append(&b_->sfs_legacy_header_ex, ex);
    append(&b_->sfs_legacy_ruma_sys_info, sys);
    as_reopened();
    reading();

    EXPECT_TRUE(s_->VELK_get_os(0, nullptr, &n_) == 0 && n_ == 40);
    ASSERT_EQ(0u, s_->VELK_get_os(40, got_os_, &n_));
    const __VELK_os& os = got_os_[0];  // word 1 is not taken from 264
    EXPECT_EQ((std::vector<uint32_t>{40, 5, 0, 7, 9, 0}), (std::vector<uint32_t>{os.os_size, os.os_type, os.os_word_1, os.os_word_2, os.os_word_3, os.os_word_4}));
    EXPECT_EQ(std::wstring(128, L'a') + L"|os \u00F6|", texts(os.os_text_1.id, os.os_text_2.id));
    EXPECT_TRUE(s_->VELK_get_os(0, nullptr, &n_) == 0 && n_ == 0 && b_->os_set == 1 && b_->os_count == 0);
    ASSERT_EQ(0u, s_->VELK_get_host(24, &h_, &n_) | s_->VELK_get_version_info(16, &v_, &n_));
    EXPECT_TRUE(h_.host_size == 24 && h_.host_flags == 0 && b_->host_set == 1 && texts(h_.host_text_1.id, h_.host_text_2.id) == L"one|two|");
    EXPECT_TRUE(v_.version_size == 16 && v_.version_major == 2 && v_.version_minor == 3 && v_.version_revision == 0 && b_->version_set == 1);

    // The version is read only when its section can't be entered, which fails for want of the reading state.
    s_->vk_file_version = 6;
    b_->section_state[VELK_SECTION_VERSION_INFO] = 0;
    EXPECT_EQ(124u, s_->VELK_get_application(32, &a_, &n_));
    EXPECT_TRUE(said("VELK_get_version_info>this section does not exist or read was not first called!\n"));
    b_->section_state[VELK_SECTION_VERSION_INFO] = 1;
    ASSERT_EQ(0u, s_->VELK_get_application(32, &a_, &n_));
    EXPECT_EQ(2u, b_->section_state[VELK_SECTION_VERSION_INFO]);  // entered, and left so
    EXPECT_TRUE(a_.application_size == 32 && a_.application_word_1 == 0x66 && a_.application_word_2 == 0x77 &&
                a_.application_value_1 == 0x1111222233334444ull && a_.application_value_2 == 0x55 && b_->application_set == 1);
    s_->vk_file_version = 7;
}

TEST_F(ConfigurationTest, MissingShortAndDamagedSectionsAreRefused)
{
    reading();
    EXPECT_TRUE(s_->VELK_get_os(0, nullptr, &n_) == 0 && n_ == 40);
    EXPECT_EQ((std::vector<unsigned int>{78, 78, 78, VELK_E_MAP_FAILED}),  // no kind 28 in a current file: an empty window
              (std::vector<unsigned int>{s_->VELK_get_os(40, got_os_, &n_), s_->VELK_get_host(24, &h_, &n_),
                                         s_->VELK_get_version_info(16, &v_, &n_), s_->VELK_get_application(32, &a_, &n_)}));
    s_->vk_file_version = 6;
    EXPECT_EQ(78u, s_->VELK_get_application(32, &a_, &n_));
    s_->vk_file_version = 7;
    for (const char* line : {"VELK_get_os>software configuration section not found!\n", "VELK_get_host>software configuration section not found!\n",
                             "VELK_get_version_info>velk_version_info section not found!\n", "VELK_get_application>ruma system info section not found!\n"})
        EXPECT_TRUE(said(line)) << line;

    append(&b_->sfs_host, Bytes(8, 1));
    append(&b_->sfs_legacy_software_config, Bytes(300, 'x'));  // no NUL, and too short for the OS part
    append(&b_->sfs_os, Bytes(40, 2));
    b_->sfs_os.number_entries = 3;
    append(&b_->sfs_version_info, Bytes(4, 16));
    EXPECT_EQ((std::vector<unsigned int>{24, 24, 24}),
              (std::vector<unsigned int>{s_->VELK_get_host(24, &h_, &n_), s_->VELK_get_os(0, nullptr, &n_), s_->VELK_get_version_info(16, &v_, &n_)}));
    for (const char* name : {"VELK_get_host", "VELK_get_os", "VELK_get_version_info"})
        EXPECT_TRUE(said(name + std::string(">section is shorter than its record!\n"))) << name;
    b_->sfs_os.length = b_->sfs_host.length = 0;
    EXPECT_EQ(24u, s_->VELK_get_os(40, got_os_, &n_));
    as_reopened();
    ASSERT_EQ(0u, s_->VELK_get_host(24, &h_, &n_));  // the 64-byte fields are cut, not overrun
    EXPECT_EQ(std::wstring(64, L'x') + L"|" + std::wstring(64, L'x') + L"|", texts(h_.host_text_1.id, h_.host_text_2.id));
    b_->sfs_version_info = Sfs{16, file().size() - 2, 1, 16, 33, 0, 0};  // runs past the end of the file
    EXPECT_EQ(VELK_E_MAP_FAILED, s_->VELK_get_version_info(16, &v_, &n_));
}

}  // namespace
