// Damaged files: copies of a complete file, cut short or with one byte
// changed, are opened, read through every reader and closed, then opened for
// writing, read again and closed. No damage may crash the library or
// make it read outside a mapping (the sanitizer build watches), and every
// answer is a status of the library's own.
#include <string.h>

#include "sampling_utils/sampling_utils.h"
#include "test_helpers.h"

using namespace velk_test;

namespace {

// Counts the calls whose answer is not a velk status. Every byte handed out
// is read into `sum`; the counts are of what the callbacks were handed.
struct Checker {
    unsigned unknown = 0;
    unsigned long long sum = 0, records = 0, data_bytes = 0;
    velk_handle* h = nullptr;
    unsigned operator()(unsigned status)
    {
        const wchar_t* text = nullptr;
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
        if ((*this)(VELK_convert_uniqueid_to_string(h, 0, &s, nullptr, &size)) != 0 || size == 0)
            return;
        std::vector<wchar_t> buffer(size / sizeof(wchar_t) + 1);
        (*this)(VELK_convert_uniqueid_to_string(h, size, &s, buffer.data(), nullptr));
    }
    // The texts a record names.
    void texts(const __VELK_pid& r)
    {
        text(r.pid_path.id);
        text(r.pid_name.id);
    }
    void texts(const __VELK_tid& r) { text(r.tid_name.id); }
    void texts(const __VELK_module&) {}
};

template <typename Record>
unsigned walk_records(Record* r, unsigned bytes, unsigned entries, void* c)
{
    Checker& k = *static_cast<Checker*>(c);
    k.touch(r, bytes);
    k.records += entries;
    for (unsigned i = 0; i < entries; ++i)
        k.texts(r[i]);
    return 1;
}

unsigned walk_descriptors(__velk_samprec_desc_entry* e, unsigned, unsigned count, void* c)
{
    Checker& k = *static_cast<Checker*>(c);
    k.touch(e, (unsigned long long)count * sizeof(*e));
    for (unsigned i = 0; i < count; ++i)
        k.text(e[i].name.id);
    return 1;
}

unsigned walk_data(void* data, unsigned long long bytes, unsigned, void* c, unsigned long long*)
{
    static_cast<Checker*>(c)->touch(data, bytes);
    static_cast<Checker*>(c)->data_bytes += bytes;
    return 1;
}

// Runs `read` in a global section (stream ~0u) or a stream's section, if the
// section can be entered.
template <typename Read>
void inside(Checker& k, unsigned stream, unsigned id, Read read)
{
    const auto global = (VELK_SECTION_IDENTIFIER)id;
    const auto local = (VELK_STREAM_SECTION_IDENTIFIER)id;
    if (k(stream == ~0u ? VELK_reading_section(k.h, global)
                        : VELK_reading_stream_section(k.h, stream, local)) != 0)
        return;
    read();
    k(stream == ~0u ? VELK_done_section(k.h, global)
                    : VELK_done_stream_section(k.h, stream, local));
}

void read_stream(Checker& k, velk_handle* h, unsigned n)
{
    if (k(VELK_reading_stream(h, n)) != 0)
        return;
    inside(k, n, VELK_STREAM_SECTION_STREAM_INFO, [&] {
        __VELK_stream_info info;
        if (k(VELK_get_stream_info(h, n, sizeof(info), &info, nullptr)) == 0)
            k.text(info.comment.id);
        __VELK_user_info user;
        if (k(VELK_get_user_info(h, n, sizeof(user), &user, nullptr)) == 0)
            k.text(user.user_info.id);
        VELK_LBR_FILTER lbr;
        k(VELK_get_lbr_info(h, n, &lbr));
        char filter[256];
        k(VELK_get_lbr_filter_info(h, n, sizeof(filter), filter));
        unsigned short first = 0, second = 0;
        k(VELK_get_uncore_info(h, n, &first, &second));
    });
    inside(k, n, VELK_STREAM_SECTION_USER_DEFINED, [&] {
        unsigned size = 0;
        if (k(VELK_get_user_defined_stream(h, n, 0, nullptr, &size)) == 0 && size != 0) {
            std::vector<unsigned char> block(size);
            k(VELK_get_user_defined_stream(h, n, size, block.data(), &size));
        }
    });
    inside(k, n, VELK_STREAM_SECTION_DATA_DESCRIPTION, [&] {
        VELK_DESCRIPTOR_CALLBACK cb = walk_descriptors;
        k(VELK_enumerate_data_descriptor_entries(h, n, &cb, &k));
        k(VELK_enumerate_data_descriptors(h, n, &cb, &k));
        VELK_DESCRIPTOR_NODE_S* table = nullptr;
        unsigned groups = 0;
        if (k(VELK_get_data_desc_table(h, n, &table, &groups)) == 0 && table != nullptr) {
            for (unsigned g = 0; g < groups; ++g)
                free(table[g].entries);
            free(table);
        }
    });
    unsigned size = 0;
    k(VELK_get_size_of_each_data_entry(h, n, &size));
    VELK_DATA_CALLBACK data = walk_data;
    inside(k, n, VELK_STREAM_SECTION_DATA, [&] { k(VELK_enumerate_data(h, n, &data, &k, 0)); });
    k(VELK_done_stream(h, n));
}

// Reads everything a reader can ask for, then opens the file for writing
// and does the same before it closes.
Checker read_everything(const std::string& file)
{
    Checker k;
    VELK_PROCESS_CALLBACK pids = walk_records<__VELK_pid>;
    VELK_THREAD_CALLBACK tids = walk_records<__VELK_tid>;
    VELK_MODULE_CALLBACK modules = walk_records<__VELK_module>;
    for (unsigned mode : {VELK_OPEN_READ, VELK_OPEN_READ | VELK_OPEN_WRITE}) {
        if (k(VELK_open(&k.h, widen(file).c_str(), mode)) != 0)
            return k;
        velk_handle* h = k.h;
        unsigned bound = 0;
        k(VELK_is_legacy_bound(h, &bound));
        inside(k, ~0u, VELK_SECTION_CONFIGURATION, [&] {
            __VELK_host host;
            if (k(VELK_get_host(h, sizeof(host), &host, nullptr)) == 0)
                k.text(host.host_text_1.id);
            __VELK_os os[4];
            k(VELK_get_os(h, sizeof(os), os, nullptr));
            __VELK_application app;
            k(VELK_get_application(h, sizeof(app), &app, nullptr));
        });
        inside(k, ~0u, VELK_SECTION_USER_DEFINED, [&] {
            unsigned char block[64];
            k(VELK_get_user_defined_global(h, sizeof(block), block, nullptr));
        });
        VELK_get_module_record_size(h);  // a size, not a status
        inside(k, ~0u, VELK_SECTION_PROCESS, [&] { k(VELK_enumerate_processes(h, &pids, &k, 0)); });
        inside(k, ~0u, VELK_SECTION_THREAD, [&] { k(VELK_enumerate_threads(h, &tids, &k, 0)); });
        inside(k, ~0u, VELK_SECTION_MODULE, [&] { k(VELK_enumerate_modules(h, &modules, &k, 0)); });
        unsigned streams = 0;
        k(VELK_get_number_data_streams(h, &streams));
        for (unsigned n = 0; n < streams && n < 4; ++n)
            read_stream(k, h, n);
        // A close that fails leaves the handle live: the abort cleans up,
        // and what the handle keeps is then the caller's to free.
        if (k(VELK_close(h)) != 0) {
            k(VELK_abort_cleanup_and_close(h));
            free_kept(h);
        }
    }
    return k;
}

// The tool's demo file, with a second stream counted by entries that carries
// user info, LBR and uncore values and a user-defined block, and a
// user-defined global block.
std::vector<unsigned char> complete_file(const std::string& name)
{
    EXPECT_EQ(0, system((std::string(VELK_TOOL_PATH) + " demo " + name + " >/dev/null").c_str()));
    velk_handle* h = nullptr;
    EXPECT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE));
    unsigned char block[24] = {1, 2, 3};
    __VELK_stream_info info = {0, 0, 2, 0, 0, 0, 0, 0, {}, {}, {w(L"second")}, 0};
    __VELK_user_info user = {{w(L"user text")}};
    __velk_samprec_desc_entry field = {72, 0, ST_TIMESTAMP, 0, 8, 0, {}, 0, {w(L"stamp")}, {}};
    unsigned long long stamps[6] = {1, 2, 3, 4, 5, 6};
    const VELK_LBR_FILTER lbr = 3;
    for (unsigned status : {VELK_writing_section(h, VELK_SECTION_USER_DEFINED),
                            VELK_set_user_defined_global(h, sizeof(block), block),
                            VELK_done_section(h, VELK_SECTION_USER_DEFINED),
                            VELK_writing_stream(h, 1),
                            VELK_writing_stream_section(h, 1, VELK_STREAM_SECTION_STREAM_INFO),
                            VELK_set_stream_info(h, 1, &info),
                            VELK_set_user_info(h, 1, &user),
                            VELK_set_lbr_info(h, 1, lbr),
                            VELK_set_uncore_info(h, 1, 5, 6),
                            VELK_done_stream_section(h, 1, VELK_STREAM_SECTION_STREAM_INFO),
                            VELK_writing_stream_section(h, 1, VELK_STREAM_SECTION_USER_DEFINED),
                            VELK_set_user_defined_stream(h, 1, sizeof(block), block),
                            VELK_done_stream_section(h, 1, VELK_STREAM_SECTION_USER_DEFINED),
                            VELK_writing_stream_section(h, 1, VELK_STREAM_SECTION_DATA_DESCRIPTION),
                            VELK_add_data_descriptor_entry(h, 1, &field),
                            VELK_done_stream_section(h, 1, VELK_STREAM_SECTION_DATA_DESCRIPTION),
                            VELK_writing_stream_section(h, 1, VELK_STREAM_SECTION_DATA),
                            VELK_add_data(h, 1, sizeof(stamps), stamps),
                            VELK_done_stream_section(h, 1, VELK_STREAM_SECTION_DATA),
                            VELK_done_stream(h, 1),
                            VELK_close(h)})
        EXPECT_EQ(0u, status);
    return read_file(name);
}

// The legacy sections of a file, listed in a section table of 20-byte
// entries where they lie: what a version 5 writer would have left.
std::vector<unsigned char> as_version_5(const std::vector<unsigned char>& file)
{
    Image f{file};
    f.put(0, "SampleF ", 8);
    std::fill(f.b.begin() + 16, f.b.begin() + 416, 0);
    size_t at = 16;
    for (unsigned kind : {16u, 13u, 3u, 7u, 2u, 19u, 1u}) {
        const Slot s = legacy_slot(file, kind);
        EXPECT_NE(0u, s.at) << kind;
        f.slot(at, 20, s.length, s.file_offset, s.number_entries, s.entry_length, kind);
        at += 20;
    }
    return f.b;
}

}  // namespace

using DamagedFilesTest = TempDirTest;

TEST_F(DamagedFilesTest, EveryShorterLengthAndEveryChangedByteIsAnsweredWithAStatus)
{
    const std::vector<unsigned char> v7 = complete_file(path("whole.vk7"));
    ASSERT_GT(v7.size(), 8000u);
    const std::string file = path("damaged.vk7");
    for (const std::vector<unsigned char>& whole : {v7, as_version_5(v7)}) {
        SCOPED_TRACE(std::string(whole.begin(), whole.begin() + 8));
        // Whole, the file gives up its 2 processes, 2 threads and 3 modules,
        // and its samples (the second stream is not in the older form), in
        // each of the two sessions.
        write_file(file, whole);
        const Checker k = read_everything(file);
        EXPECT_EQ(0u, k.unknown);
        EXPECT_EQ(2 * 7u, k.records);
        EXPECT_EQ(2 * (whole == v7 ? 384 + 48 : 384u), k.data_bytes);

        // Strides keep the suite quick. Both are prime to 8, so every
        // position within an 8-byte field is hit; the change of a byte turns
        // over every eight bytes changed, so each change meets every position.
        for (size_t length = 0; length < whole.size(); length += 17) {
            write_file(file, std::vector<unsigned char>(whole.begin(), whole.begin() + length));
            ASSERT_EQ(0u, read_everything(file).unknown) << "cut at " << length;
        }
        // Changes that break different kinds of field: all ones, zero, a
        // flipped low bit, a flipped top bit.
        static const unsigned char kChanges[] = {0xFF, 0x00, 0x01, 0x80};
        for (size_t at = 0, i = 0; at < whole.size(); at += 7, ++i) {
            std::vector<unsigned char> bytes = whole;
            const unsigned char change = kChanges[(i / 8) % 4];
            bytes[at] = change == 0x01 || change == 0x80 ? bytes[at] ^ change : change;
            write_file(file, bytes);
            ASSERT_EQ(0u, read_everything(file).unknown)
                << "byte " << at << " set to " << (int)bytes[at];
        }
    }
}
