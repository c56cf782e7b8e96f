// Copies of a complete file, cut short or with a byte changed, read through every reader: no damage
// may crash or read outside a mapping (the sanitizer build watches); every answer is a status.
#include <type_traits>

#include "test_helpers.h"

using namespace velk_test;
using U = std::vector<unsigned long long>;

struct DamageChecker {  // counts failures and non-velk answers; reads every byte handed out
    unsigned unknown = 0, failed = 0;
    unsigned long long sum = 0, records = 0, data_bytes = 0;
    velk_handle* h = nullptr;
    alignas(8) unsigned char scratch[256];  // for answers that are not looked at
    unsigned operator()(unsigned status)
    {
        const wchar_t* text = nullptr;
        failed += status != 0;
        if (status != 0 && KEMO_get_error_string(status, &text) != 0)
            ++unknown;
        return status;
    }
    void touch(const void* p, unsigned long long n)
    {
        for (unsigned long long i = 0; i < n; ++i)
            sum += static_cast<const unsigned char*>(p)[i];
    }
    void text(unsigned long long id)
    {
        __string_or_id s;
        s.id = id;
        unsigned size = 0;
        (*this)(VELK_convert_uniqueid_to_string(h, 0, &s, nullptr, &size));
        std::vector<wchar_t> buffer(size / sizeof(wchar_t) + 1);
        (*this)(VELK_convert_uniqueid_to_string(h, size, &s, buffer.data(), nullptr));
    }
    void texts(const __VELK_pid& r)
    {
        text(r.pid_path.id);
        text(r.pid_name.id);
    }
    void texts(const __VELK_tid& r) { text(r.tid_name.id); }
    void texts(const __VELK_module&) {}
    void texts(const __velk_samprec_desc_entry& e) { text(e.name.id); }
};

template <typename Record>
static unsigned walk(Record* r, unsigned bytes, unsigned entries, void* c)
{
    DamageChecker& k = *static_cast<DamageChecker*>(c);
    k.touch(r, bytes);
    k.records += std::is_same<Record, __velk_samprec_desc_entry>::value ? 0 : entries;
    for (unsigned i = 0; i < entries; ++i)
        k.texts(r[i]);
    return 1;
}

// Sections are all entered first and done last; a refused entry leaves the reads refused too.
static const VELK_STREAM_SECTION_IDENTIFIER kStreamSections[] = {
    VELK_STREAM_SECTION_STREAM_INFO, VELK_STREAM_SECTION_USER_DEFINED,
    VELK_STREAM_SECTION_DATA_DESCRIPTION, VELK_STREAM_SECTION_DATA};
static const VELK_SECTION_IDENTIFIER kSections[] = {VELK_SECTION_CONFIGURATION,
                                                    VELK_SECTION_USER_DEFINED, VELK_SECTION_PROCESS,
                                                    VELK_SECTION_THREAD, VELK_SECTION_MODULE};

static DamageChecker read_everything(const std::string& file)
{
    DamageChecker k;
    VELK_PROCESS_CALLBACK pids = walk<__VELK_pid>;
    VELK_THREAD_CALLBACK tids = walk<__VELK_tid>;
    VELK_MODULE_CALLBACK modules = walk<__VELK_module>;
    VELK_DESCRIPTOR_CALLBACK descriptors = walk<__velk_samprec_desc_entry>;
    VELK_DATA_CALLBACK data = [](void* p, unsigned long long n, unsigned, void* c,
                                 unsigned long long*) -> unsigned {
        static_cast<DamageChecker*>(c)->touch(p, n);
        static_cast<DamageChecker*>(c)->data_bytes += n;
        return 1;
    };
    for (unsigned mode : {VELK_OPEN_READ, VELK_OPEN_READ | VELK_OPEN_WRITE}) {
        if (k(VELK_open(&k.h, widen(file).c_str(), mode)) != 0)
            return k;
        velk_handle* h = k.h;
        unsigned bound = 0, streams = 0, size = 0;
        k(VELK_is_legacy_bound(h, &bound));
        for (VELK_SECTION_IDENTIFIER id : kSections)
            k(VELK_reading_section(h, id));
        __VELK_host host;
        if (k(VELK_get_host(h, sizeof(host), &host, nullptr)) == 0)
            k.text(host.host_text_1.id);
        k(VELK_get_os(h, sizeof(k.scratch), (__VELK_os*)k.scratch, nullptr));
        k(VELK_get_application(h, sizeof(k.scratch), (__VELK_application*)k.scratch, nullptr));
        k(VELK_get_user_defined_global(h, sizeof(k.scratch), k.scratch, nullptr));
        VELK_get_module_record_size(h);  // a size, not a status
        k(VELK_enumerate_processes(h, &pids, &k, 0));
        k(VELK_enumerate_threads(h, &tids, &k, 0));
        k(VELK_enumerate_modules(h, &modules, &k, 0));
        for (VELK_SECTION_IDENTIFIER id : kSections)
            k(VELK_done_section(h, id));
        k(VELK_get_number_data_streams(h, &streams));
        for (unsigned n = 0; n < streams && n < 4; ++n) {
            k(VELK_reading_stream(h, n));
            for (VELK_STREAM_SECTION_IDENTIFIER id : kStreamSections)
                k(VELK_reading_stream_section(h, n, id));
            __VELK_stream_info info;
            if (k(VELK_get_stream_info(h, n, sizeof(info), &info, nullptr)) == 0)
                k.text(info.comment.id);
            __VELK_user_info user;
            if (k(VELK_get_user_info(h, n, sizeof(user), &user, nullptr)) == 0)
                k.text(user.user_info.id);
            k(VELK_get_lbr_info(h, n, (VELK_LBR_FILTER*)k.scratch));
            k(VELK_get_lbr_filter_info(h, n, sizeof(k.scratch), (char*)k.scratch));
            k(VELK_get_uncore_info(h, n, (unsigned short*)k.scratch, (unsigned short*)k.scratch));
            k(VELK_get_user_defined_stream(h, n, sizeof(k.scratch), k.scratch, &size));
            k(VELK_enumerate_data_descriptor_entries(h, n, &descriptors, &k));
            k(VELK_enumerate_data_descriptors(h, n, &descriptors, &k));
            VELK_DESCRIPTOR_NODE_S* table = nullptr;
            if (k(VELK_get_data_desc_table(h, n, &table, &size)) == 0 && table != nullptr) {
                for (unsigned g = 0; g < size; ++g)
                    free(table[g].entries);
                free(table);
            }
            k(VELK_get_size_of_each_data_entry(h, n, &size));
            k(VELK_enumerate_data(h, n, &data, &k, 0));
            for (VELK_STREAM_SECTION_IDENTIFIER id : kStreamSections)
                k(VELK_done_stream_section(h, n, id));
            k(VELK_done_stream(h, n));
        }
        if (k(VELK_close(h)) != 0) {  // the handle stays live: abort, then free what it keeps
            k(VELK_abort_cleanup_and_close(h));
            free_kept(h);
        }
    }
    return k;
}

// The demo file, a global user block and a stream 1 with user info, LBR, uncore and a user block.
static std::vector<unsigned char> complete_file(const std::string& name)
{
    EXPECT_EQ(0, system((std::string(VELK_TOOL_PATH) + " demo " + name + " >/dev/null").c_str()));
    DamageChecker k;
    EXPECT_EQ(0u, VELK_open(&k.h, widen(name).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE));
    unsigned char block[24] = {1, 2, 3};
    __VELK_stream_info info = {0, 0, 2, 0, 0, 0, 0, 0, {}, {}, {w(L"second")}, 0};
    __VELK_user_info user = {{w(L"user text")}};
    __velk_samprec_desc_entry field = {72, 0, ST_TIMESTAMP, 0, 8, 0, {}, 0, {w(L"stamp")}, {}};
    unsigned long long stamps[6] = {1, 2, 3, 4, 5, 6};
    k(VELK_writing_section(k.h, VELK_SECTION_USER_DEFINED));
    k(VELK_set_user_defined_global(k.h, sizeof(block), block));
    k(VELK_done_section(k.h, VELK_SECTION_USER_DEFINED));
    k(VELK_writing_stream(k.h, 1));
    for (VELK_STREAM_SECTION_IDENTIFIER id : kStreamSections)
        k(VELK_writing_stream_section(k.h, 1, id));
    k(VELK_set_stream_info(k.h, 1, &info));
    k(VELK_set_user_info(k.h, 1, &user));
    k(VELK_set_lbr_info(k.h, 1, 3));
    k(VELK_set_uncore_info(k.h, 1, 5, 6));
    k(VELK_set_user_defined_stream(k.h, 1, sizeof(block), block));
    k(VELK_add_data_descriptor_entry(k.h, 1, &field));
    k(VELK_add_data(k.h, 1, sizeof(stamps), stamps));
    for (VELK_STREAM_SECTION_IDENTIFIER id : kStreamSections)
        k(VELK_done_stream_section(k.h, 1, id));
    k(VELK_done_stream(k.h, 1));
    k(VELK_close(k.h));
    EXPECT_EQ(0u, k.failed);
    return read_file(name);
}

// The legacy sections where they lie, in a version 5 section table of 20-byte entries.
static std::vector<unsigned char> as_version_5(const std::vector<unsigned char>& file)
{
    Image f{file};
    f.put(0, "SampleF ", 8);
    std::fill(f.b.begin() + 16, f.b.begin() + 416, 0);
    const unsigned kinds[] = {16, 13, 3, 7, 2, 19, 1};
    for (size_t i = 0; i < 7; ++i) {
        const Slot s = legacy_slot(file, kinds[i]);
        EXPECT_NE(0u, s.at) << kinds[i];
        f.slot(16 + 20 * i, 20, s.length, s.file_offset, s.number_entries, s.entry_length,
               kinds[i]);
    }
    return f.b;
}

using DamagedFilesTest = TempDirTest;

TEST_F(DamagedFilesTest, EveryShorterLengthAndEveryChangedByteIsAnsweredWithAStatus)
{
    const std::vector<unsigned char> v7 = complete_file(path("whole.vk7"));
    const std::string file = path("damaged.vk7");
    for (const std::vector<unsigned char>& whole : {v7, as_version_5(v7)}) {
        // Whole, in each of two sessions: 2 processes, 2 threads, 3 modules and the samples
        // (with stream 1's in version 7).
        write_file(file, whole);
        const DamageChecker k = read_everything(file);
        EXPECT_EQ((U{0, 2 * 7, 2 * (whole == v7 ? 384 + 48 : 384u)}),
                  (U{k.unknown, k.records, k.data_bytes}));
        // Strides prime to 8 hit every position of a field; each of 4 changes takes 8 in turn.
        for (size_t length = 0; length < whole.size(); length += 17) {
            write_file(file, std::vector<unsigned char>(whole.begin(), whole.begin() + length));
            ASSERT_EQ(0u, read_everything(file).unknown) << "cut at " << length;
        }
        for (size_t at = 0, i = 0; at < whole.size(); at += 7, ++i) {
            std::vector<unsigned char> bytes = whole;
            const unsigned change = i / 8 % 4;  // all ones, zero, low bit flipped, top bit flipped
            bytes[at] = change == 0 ? 0xFF : change == 1 ? 0 : bytes[at] ^ (change == 2 ? 1 : 0x80);
            write_file(file, bytes);
            ASSERT_EQ(0u, read_everything(file).unknown) << "byte " << at << " " << (int)bytes[at];
        }
    }
}
