// Processes, threads and modules in their new form: adding, the sections at
// close, walks by windows from the store and from the file, and the
// translation of files that hold only the legacy form.
#include <string.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

namespace {

const unsigned kRwc = VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE;
const unsigned kNone = 0xFFFFFFFFu;
// Per kind 0 (processes), 1 (threads) and 2 (modules).
const VELK_SECTION_IDENTIFIER kSection[3] = {VELK_SECTION_PROCESS, VELK_SECTION_THREAD,
                                             VELK_SECTION_MODULE};
const unsigned kSize[3] = {48, 40, 144};
const char* const kEnumerator[3] = {"VELK_enumerate_processes", "VELK_enumerate_threads",
                                    "VELK_enumerate_modules"};
using Rows = std::vector<std::vector<unsigned char>>;
using U = std::vector<unsigned long long>;

// What the callbacks saw: records cut at `size` bytes, entries per call.
struct Walk {
    unsigned size = 0, answer = 1, calls = 0;
    std::vector<unsigned> entries;
    Rows records;
};

template <typename R>
unsigned walk_cb(R* records, unsigned bytes, unsigned entries, void* context)
{
    Walk* w = static_cast<Walk*>(context);
    ++w->calls;
    w->entries.push_back(entries);
    EXPECT_EQ(entries * w->size, bytes);
    const unsigned char* p = reinterpret_cast<const unsigned char*>(records);
    for (unsigned i = 0; i < entries; ++i)
        w->records.emplace_back(p + i * w->size, p + (i + 1) * w->size);
    return w->answer;
}

unsigned enumerate(velk_handle* h, int kind, Walk* w, unsigned long long start)
{
    VELK_PROCESS_CALLBACK pids = walk_cb<__VELK_pid>;
    VELK_THREAD_CALLBACK tids = walk_cb<__VELK_tid>;
    VELK_MODULE_CALLBACK modules = walk_cb<__VELK_module>;
    w->size = kSize[kind];
    return kind == 0   ? VELK_enumerate_processes(h, &pids, w, start)
           : kind == 1 ? VELK_enumerate_threads(h, &tids, w, start)
                       : VELK_enumerate_modules(h, &modules, w, start);
}

unsigned add(velk_handle* h, int kind, void* record)
{
    return kind == 0   ? VELK_add_process(h, static_cast<__VELK_pid*>(record))
           : kind == 1 ? VELK_add_thread(h, static_cast<__VELK_tid*>(record))
                       : VELK_add_module(h, static_cast<__VELK_module*>(record));
}

// Module descriptors: a group head and one field of `length` bytes.
void add_module_descriptors(velk_handle* h, unsigned length = 144)
{
    __velk_samprec_desc_entry d[2] = {{72, 0, ST_GROUP_HEAD, 0, 0, 0, {}, 0, {}, {}},
                                      {72, 0, ST_MODULE_RECORD, 0, length, 0, {}, 0, {}, {}}};
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_DESCRIPTOR));
    ASSERT_EQ(0u, VELK_add_global_section_descriptor(h, VELK_SECTION_MODULE, d, 2));
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_DESCRIPTOR));
}

constexpr size_t kPids = 880, kTids = 1024, kModules = 1104;

// A little-endian field of a hand-built record: offset, width in bytes, value.
struct F {
    F(size_t at, unsigned width, uint64_t value) : at(at), width(width), value(value) {}
    size_t at;
    unsigned width;
    uint64_t value;
};

void put_fields(Image& f, size_t base, std::initializer_list<F> fields)
{
    for (const F& x : fields)
        f.put(base + x.at, &x.value, x.width);
}

// A version 5 file with a header ex and only legacy processes (3), threads
// (2) and modules (4), at kPids, kTids and kModules.
Image legacy_records_file()
{
    Image f;
    f.put(0, "SampleF ", 8);
    f.put32(8, 27);
    f.put32(12, 4);
    f.slot(16, 20, 460, 416, 1, 460, KIND_LEGACY_HEADER_EX);
    f.slot(36, 20, 139, kPids, 3, 40, KIND_LEGACY_PID_RECORD);
    f.slot(56, 20, 80, kTids, 2, 40, KIND_LEGACY_TID_RECORD);
    f.slot(76, 20, 302, kModules, 4, 64, KIND_LEGACY_MODULE_RECORD);
    f.put32(416, 2);  // version 2.0

    // Processes: a 64-bit time and a path with its name at 9; a 32-bit time
    // that wraps and a name at 0; one without text.
    put_fields(f, kPids,
               {F(0, 2, 40), F(2, 1, 0x09), F(4, 4, 100), F(24, 8, 0x1122334455667788),
                F(32, 4, 120), F(36, 2, 14), F(38, 2, 9)});
    put_fields(f, kPids + 40,
               {F(0, 2, 40), F(4, 4, 200), F(8, 4, 1), F(16, 4, 10), F(20, 4, 30), F(32, 4, 134),
                F(36, 2, 5)});
    put_fields(f, kPids + 80, {F(0, 2, 40), F(4, 4, 300), F(8, 4, 2), F(32, 4, 139)});
    f.put(kPids + 120, "/usr/bin/prog\0init", 19);

    // Threads, without text.
    put_fields(f, kTids,
               {F(0, 2, 40), F(2, 1, 0x01), F(4, 4, 11), F(16, 4, 5), F(20, 4, 2), F(32, 4, 100)});
    put_fields(f, kTids + 40,
               {F(0, 2, 40), F(2, 1, 0x08), F(4, 4, 12), F(24, 8, 77), F(32, 4, 200)});

    // Modules: 64-bit, absolute path, 64-bit counts, every carried flag of
    // bytes 0 and 1;
    put_fields(
        f, kModules,
        {F(0, 2, 64), F(2, 1, 0x03), F(4, 2, 0x33), F(8, 4, 0xABCD), F(12, 1, 0x23), F(13, 1, 0x0A),
         F(14, 1, 0x5A), F(16, 8, 0x100000005), F(24, 8, 0x7F0000001000), F(32, 4, 100),
         F(36, 4, 0x10), F(40, 4, 0x2), F(44, 4, 256), F(48, 2, 13), F(50, 2, 5), F(56, 8, 0x99)});
    // 32-bit, no load count, relative path with a name offset;
    put_fields(f, kModules + 64,
               {F(0, 2, 64), F(2, 1, 0x05), F(12, 1, 0x80), F(13, 1, 0x04),
                F(16, 8, 0xAAAAAAAA00001000), F(24, 8, 0xBBBBBBBB00002000), F(32, 4, 200),
                F(36, 4, 7), F(40, 4, 0xFFFFFFFF), F(44, 4, 269), F(48, 2, 9), F(50, 2, 4)});
    // a drive letter path with a third text;
    put_fields(f, kModules + 128,
               {F(0, 2, 64), F(6, 2, 6), F(13, 1, 0x01), F(32, 4, 300), F(44, 4, 278), F(48, 2, 11),
                F(50, 2, 5), F(52, 4, 289)});
    // a relative path with name offset 0.
    put_fields(f, kModules + 192, {F(0, 2, 64), F(44, 4, 295), F(48, 2, 7)});
    f.put(kModules + 256, "/lib/libc.so\0lib/x.so\0C:\\a\\b.dll\0extra\0rel.so", 46);
    f.b.resize(kModules + 302 + 24, 0);
    return f;
}

// Checks translated records whole. Their path and name ids, at `path_at`
// and 8 bytes on, are checked through their texts ("path|name", id 0 giving
// "") and then zeroed.
void expect_translated(velk_handle* h, Rows got, const Rows& want,
                       const std::vector<std::string>& texts, size_t path_at)
{
    ASSERT_EQ(want.size(), got.size());
    for (size_t i = 0; i < got.size(); ++i) {
        const uint64_t path = u64_at(got[i], path_at), name = u64_at(got[i], path_at + 8);
        EXPECT_EQ(texts[i], (path ? text_of(h, path) : "") + "|" + (name ? text_of(h, name) : ""))
            << i;
        memset(&got[i][path_at], 0, 16);
        EXPECT_EQ(want[i], got[i]) << i;
    }
}

class RecordsTest : public TempDirTest {
protected:
    unsigned open(const std::string& n, unsigned m) { return VELK_open(&h, widen(n).c_str(), m); }
    unsigned open_image(const Image& f, const std::string& name)
    {
        write_file(path(name), f.b);
        return open(path(name), VELK_OPEN_READ);
    }
    // Writes a new file of `n` processes (kind 0, ids 500 + i) or modules
    // (kind 2, refs i), with module descriptors of `length` bytes unless 0.
    Image build(const std::string& name, int kind, unsigned n, unsigned length = 0)
    {
        EXPECT_EQ(0u, open(path(name), kRwc));
        EXPECT_EQ(0u, VELK_writing_section(h, kSection[kind]));
        __VELK_module m = {};
        m.module_size = 144;
        for (unsigned i = 0; i < n; ++i) {
            __VELK_pid p = {48, 500 + i, 0, 0, 0, 0, 0, {}, {}};
            m.module_ref = i;
            if (add(h, kind, kind == 0 ? (void*)&p : (void*)&m) != 0) {
                ADD_FAILURE() << "add " << i;
                break;
            }
        }
        EXPECT_EQ(0u, VELK_done_section(h, kSection[kind]));
        if (length != 0)
            add_module_descriptors(h, length);
        EXPECT_EQ(0u, VELK_close(h));
        return Image{read_file(path(name))};
    }
    velk_handle* h = nullptr;
};

}  // namespace

TEST_F(RecordsTest, AddedRecordsEnumerateAlikeFromStoreAndFile)
{
    const std::string name = path("r.vk7");
    ASSERT_EQ(0u, open(name, kRwc));
    velk_class* s = h->file_object;
    LogCapture log(0x80000000u);
    // Asked for a process before there is a process section.
    unsigned os_pid = 0;
    EXPECT_EQ(VELK_E_NO_PID_SECTION, s->helper_get_os_pid_from_pid_index(0, &os_pid));
    EXPECT_EQ(kNone, os_pid);
    EXPECT_TRUE(log.contains_format(
        "<velk %u::helper_get_os_pid_from_pid_index>pid record section doesn't exist!\n"));
    const char* const adders[3] = {"VELK_add_process", "VELK_add_thread", "VELK_add_module"};
    __VELK_module zero = {};  // large enough for a record of each kind
    for (int k = 0; k < 3; ++k) {
        const std::string prefix = std::string("<velk %u::") + adders[k] + ">";
        EXPECT_EQ(VELK_E_NOT_WRITING, add(h, k, &zero)) << k;
        EXPECT_TRUE(log.contains_format(
            prefix + "this section already exists or write_section was not first called!\n"));
        ASSERT_EQ(0u, VELK_writing_section(h, kSection[k]));
        EXPECT_EQ(VELK_E_NOTHING_TO_WRITE, add(h, k, nullptr)) << k;
        EXPECT_TRUE(log.contains_format(prefix + "nothing to write!\n"));
    }

    // Processes: both texts, a name without a path (stored as given, no
    // string added), neither.
    Rows want[3];
    // Path and name of each.
    const wchar_t* const ptexts[8] = {L"/bin/alpha", L"alpha", nullptr,          L"orphan",
                                      nullptr,       nullptr,  L"/usr/bin/beta", L"beta"};
    for (unsigned i = 0; i < 4; ++i) {
        const wchar_t* const* t = ptexts + 2 * i;
        __VELK_pid p = {48, 10 + i, i, 7, 1000 + i, 99, i, {w(t[0])}, {w(t[1])}};
        const unsigned long long strings = s->strings_store->Size();
        ASSERT_EQ(0u, VELK_add_process(h, &p)) << i;
        EXPECT_EQ(i, p.reserved_for_legacy);
        if (t[0] == nullptr) {
            EXPECT_EQ(strings, s->strings_store->Size()) << i;
            EXPECT_EQ(t[1], p.pid_name.text) << i;
        } else {
            EXPECT_EQ(1ull << 63, p.pid_path.id & (1ull << 63)) << i;
        }
        want[0].push_back(bytes_of(p));
    }
    // Threads, one without a name.
    const wchar_t* const tnames[3] = {L"worker", nullptr, L"main"};
    for (unsigned i = 0; i < 3; ++i) {
        __VELK_tid t = {40, 10 + i, 20 + i, 1, 5 + i, 0, 0, {w(tnames[i])}};
        ASSERT_EQ(0u, VELK_add_thread(h, &t)) << i;
        EXPECT_EQ(i, t.reserved_for_legacy);
        want[1].push_back(bytes_of(t));
    }
    // Modules, with path, name and third text each on its own; pid_index
    // is the library's.
    const wchar_t* const mtexts[9] = {L"/lib/a.so", L"a.so",      nullptr, nullptr, nullptr,
                                      nullptr,      L"/lib/b.so", L"b.so", L"third"};
    const unsigned load = VELK_MODULE_HAS_LOAD_COUNT;
    for (unsigned i = 0; i < 3; ++i) {
        const wchar_t* const* t = mtexts + 3 * i;
        __VELK_module m = {144, 0, 10 + i,    load,         3 + i,     0x55, 0,
                           0,   0, 0x1000,    0x400000 + i, kNone,     5,    0,
                           0,   0, {w(t[0])}, {w(t[1])},    {w(t[2])}, {}};
        ASSERT_EQ(0u, VELK_add_module(h, &m)) << i;
        EXPECT_EQ(kNone, m.pid_index);
        want[2].push_back(bytes_of(m));
    }
    for (int k = 0; k < 3; ++k)
        ASSERT_EQ(0u, VELK_done_section(h, kSection[k]));
    add_module_descriptors(h);
    // The text ids in the records as added: kind, record, offset, text
    // (null: id 0).
    const struct {
        int kind;
        unsigned index, at;
        const char* text;
    } texts[] = {{0, 0, 32, "/bin/alpha"}, {0, 0, 40, "alpha"},     {0, 3, 32, "/usr/bin/beta"},
                 {0, 3, 40, "beta"},       {1, 0, 32, "worker"},    {1, 1, 32, nullptr},
                 {1, 2, 32, "main"},       {2, 0, 80, "/lib/a.so"}, {2, 0, 88, "a.so"},
                 {2, 0, 96, nullptr},      {2, 1, 80, nullptr},     {2, 1, 88, nullptr},
                 {2, 1, 96, nullptr},      {2, 2, 80, "/lib/b.so"}, {2, 2, 88, "b.so"},
                 {2, 2, 96, "third"}};

    // The same walks from the stores and, after reopening, from the file.
    auto check_walks = [&](const char* when) {
        velk_class* s = h->file_object;
        __VELK_mmap_tracker* maps[3] = {&s->pid_map, &s->tid_map, &s->module_map};
        for (int k = 0; k < 3; ++k) {
            SCOPED_TRACE(std::string(when) + " " + kEnumerator[k]);
            const std::string prefix = std::string("<velk %u::") + kEnumerator[k] + ">";
            const unsigned n = (unsigned)want[k].size();
            log.clear();
            Walk w;
            EXPECT_EQ(VELK_E_NOT_READING, enumerate(h, k, &w, 0));
            EXPECT_TRUE(log.contains_format(prefix + "read_section was not first called!\n"));
            ASSERT_EQ(0u, VELK_reading_section(h, kSection[k]));
            // 0 stops at once; a start inside the window maps nothing. Then a
            // whole walk.
            w.answer = 0;
            ASSERT_EQ(0u, enumerate(h, k, &w, 1));
            const unsigned char* data = maps[k]->m_data;
            ASSERT_EQ(0u, enumerate(h, k, &w, n - 1));
            EXPECT_EQ(data, maps[k]->m_data);
            EXPECT_EQ(1u, maps[k]->m_first_entry);
            w.answer = 1;
            ASSERT_EQ(0u, enumerate(h, k, &w, 0));
            EXPECT_EQ((std::vector<unsigned>{n - 1, 1, n}), w.entries);
            Rows seen(want[k].begin() + 1, want[k].end());
            seen.push_back(want[k][n - 1]);
            seen.insert(seen.end(), want[k].begin(), want[k].end());
            EXPECT_EQ(seen, w.records);
            // Past the end, in and out of the window.
            log.clear();
            EXPECT_EQ(VELK_E_BAD_READ_START, enumerate(h, k, &w, n));
            EXPECT_EQ(VELK_E_BAD_READ_START, enumerate(h, k, &w, 1000));
            EXPECT_TRUE(log.contains_format("<velk %u::helper_map_velk_sfs>invalid read start!\n"));
            // Another answer ends the walk and is returned; the thread line
            // names processes.
            w.answer = 7;
            EXPECT_EQ(7u, enumerate(h, k, &w, 0));
            EXPECT_EQ(4u, w.calls);
            EXPECT_TRUE(log.contains_format(std::string("<velk %u::") +
                                            kEnumerator[k == 2 ? 2 : 0] +
                                            ">callback returned an error, exiting with value 7\n"));
            ASSERT_EQ(0u, VELK_done_section(h, kSection[k]));
        }
        for (const auto& t : texts) {
            const unsigned long long id = u64_at(want[t.kind][t.index], t.at);
            EXPECT_EQ(t.text ? t.text : "", id ? text_of(h, id) : "") << t.kind << t.index << t.at;
        }
    };
    check_walks("store");
    EXPECT_EQ(0u, s->sections_ptr->sfs_pid.length);  // still in the store
    ASSERT_EQ(0u, VELK_close(h));

    // Kinds 29, 30, 31: slot, records as added, marker, padding.
    const std::vector<unsigned char> f = read_file(name);
    const unsigned kinds[3] = {KIND_PID, KIND_TID, KIND_MODULE};
    const char* const markers[3] = {"end new pid section", "end new tid section",
                                    "end new module section"};
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE(markers[k]);
        const Slot slot = global_slot(f, kinds[k]);
        const unsigned long long n = want[k].size();
        ASSERT_NE(0u, slot.at);
        EXPECT_EQ((U{n * kSize[k], n, kSize[k], 0}),
                  (U{slot.length, slot.number_entries, slot.entry_length, slot.file_offset % 8}));
        for (size_t i = 0; i < n; ++i)
            EXPECT_EQ(want[k][i], slice(f, slot.file_offset + i * kSize[k], kSize[k])) << i;
        expect_ending(f, slot.file_offset + slot.length, markers[k]);
    }

    ASSERT_EQ(0u, open(name, VELK_OPEN_READ));
    check_walks("file");
    // One process at a time, into the shared slot.
    const __VELK_pid* one = nullptr;
    ASSERT_EQ(0u, h->file_object->utility_get_one_pid(3, &one));
    EXPECT_EQ(&g_pid, one);
    EXPECT_EQ(want[0][3], bytes_of(*one));
    ASSERT_EQ(0u, h->file_object->utility_get_one_pid(1, &one));
    EXPECT_EQ(want[0][1], bytes_of(g_pid));
    ASSERT_EQ(0u, VELK_close(h));
}

TEST_F(RecordsTest, DamagedRecordSectionsAreRefused)
{
    // Modules without descriptors have entry length 0; descriptors of 200
    // bytes can't be met by a translated record (kind 31 emptied so that
    // only the legacy modules are left); records of 100 bytes leave the grid.
    const Image pids = build("c.vk7", 0, 5), plain = build("n.vk7", 2, 1);
    EXPECT_EQ((U{144, 0}), (U{global_slot(plain.b, KIND_MODULE).length,
                              global_slot(plain.b, KIND_MODULE).entry_length}));
    Image big = build("big.vk7", 2, 1, 200);
    big.put64(global_slot(big.b, KIND_MODULE).at, 0);
    const Image odd = build("odd.vk7", 2, 1, 100), legacy = legacy_records_file();
    const Slot p = global_slot(pids.b, KIND_PID);
    ASSERT_EQ(240u, p.length);
    const std::string moved = std::to_string(p.file_offset + 4), map = "helper_map_sfs>";
    const std::string pid = "helper_get_pid_info_from_file>";
    const std::string module = "helper_get_module_info_from_file>";
    // A file, the damage put into it (none when `width` is 0), the start of
    // the walk that meets it, and its status and line.
    const struct {
        const Image* image;
        size_t at, width;
        uint64_t value, start;
        int kind;
        unsigned status;
        std::string line;
    } cases[] = {
        {&pids, p.at + 16, 8, 6, 5, 0, VELK_E_BAD_FILE,
         map + "6 records of 48 bytes don't fit in a section of 240 bytes!"},
        {&pids, p.at + 8, 8, p.file_offset + 4, 0, 0, VELK_E_BAD_FILE,
         map + "records of 48 bytes at offset " + moved + " are not 8-byte aligned!"},
        {&plain, 0, 0, 0, 0, 2, VELK_E_NO_DESCRIPTORS,
         "VELK_enumerate_modules>module record size is 0!"},
        {&big, 0, 0, 0, 0, 2, VELK_E_BAD_FILE,
         module + "module record size 200 is more than the 144 bytes of a translated record!"},
        {&odd, 0, 0, 0, 0, 2, VELK_E_BAD_FILE,
         map + "records of 100 bytes at offset %u are not 8-byte aligned!"},
        {&legacy, kPids + 40 + 32, 4, 135, 0, 0, VELK_E_BAD_FILE,
         pid + "record 1 has a text of 5 bytes at 135, outside its section of 139 bytes!"},
        {&legacy, kPids + 32, 4, 0xFFFFFFF0u, 0, 0, VELK_E_BAD_FILE,
         pid + "record 0 has a text of 14 bytes at 4294967280, outside its section of 139 bytes!"},
        {&legacy, kPids + 38, 2, 15, 0, 0, VELK_E_BAD_FILE,
         pid + "record 0 has a name at 15, past its text of 14 bytes!"},
        {&legacy, 16 + 20 + 8, 4, 4, 0, 0, VELK_E_BAD_FILE,
         pid + "4 legacy records of 40 bytes don't fit in a section of 139 bytes!"},
        {&legacy, 16 + 40 + 8, 4, 3, 0, 1, VELK_E_BAD_FILE,
         "helper_get_tid_info_from_file>3 legacy records of 40 bytes don't fit in a section of 80 "
         "bytes!"},
        {&legacy, kModules + 48, 2, 60, 0, 2, VELK_E_BAD_FILE,
         module + "record 0 has a text of 60 bytes at 256, outside its section of 302 bytes!"},
        {&legacy, kModules + 128 + 52, 4, 300, 0, 2, VELK_E_BAD_FILE,
         module + "record 2 has a text of 6 bytes at 300, outside its section of 302 bytes!"},
        {&legacy, kModules + 50, 2, 14, 0, 2, VELK_E_BAD_FILE,
         module + "record 0 has a name at 14, past its text of 13 bytes!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        Image f = *c.image;
        f.put(c.at, &c.value, c.width);
        ASSERT_EQ(0u, open_image(f, "damaged"));
        ASSERT_EQ(0u, VELK_reading_section(h, kSection[c.kind]));
        LogCapture log(0x80000000u);
        // Refused each time before any callback: no store is left behind.
        for (int i = 0; i < 2; ++i) {
            Walk w;
            EXPECT_EQ(c.status, enumerate(h, c.kind, &w, c.start));
            EXPECT_EQ(0u, w.calls);
        }
        EXPECT_TRUE(log.contains_format("<velk %u::" + c.line + "\n"));
        ASSERT_EQ(0u, VELK_done_section(h, kSection[c.kind]));
        ASSERT_EQ(0u, VELK_close(h));
    }
}

TEST_F(RecordsTest, LegacyOnlyFileIsTranslatedOnce)
{
    const Image image = legacy_records_file();
    ASSERT_EQ(0u, open_image(image, "legacy.vk5"));
    velk_class* s = h->file_object;
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_PROCESS));
    Walk w;
    ASSERT_EQ(0u, enumerate(h, 0, &w, 0));
    const __VELK_pid pw[3] = {{48, 100, 0x11, 0, 0x1122334455667788ull, 0, 0, {}, {}},
                              {48, 200, 0, 0, 0xFFFFFFECull, 1, 0, {}, {}},
                              {48, 300, 0, 0, 0, 2, 0, {}, {}}};
    expect_translated(h, w.records, {bytes_of(pw[0]), bytes_of(pw[1]), bytes_of(pw[2])},
                      {"/usr/bin/prog|prog", "init|init", "|"}, 32);
    EXPECT_EQ(VELK_E_BAD_POINTER, VELK_enumerate_processes(h, nullptr, nullptr, 0));

    // The second walk maps the store again and translates nothing more.
    const long long store = s->sections_ptr->new_pid_store->handle;
    const unsigned long long strings = s->strings_store->Size();
    ASSERT_NE(-1, store);
    ASSERT_EQ(0u, s->pid_map.Unmap_File());
    Walk again;
    ASSERT_EQ(0u, enumerate(h, 0, &again, 1));
    EXPECT_EQ(Rows(w.records.begin() + 1, w.records.end()), again.records);
    EXPECT_EQ(store, s->sections_ptr->new_pid_store->handle);
    EXPECT_EQ(strings, s->strings_store->Size());

    // Threads, read along: no text, the process word carried.
    Walk tw;
    ASSERT_EQ(0u, enumerate(h, 1, &tw, 0));
    const __VELK_tid tw_want[2] = {{40, 100, 11, 1, 3, 0, 0, {}},
                                   {40, 200, 12, 0x10, 77, 1, 0, {}}};
    EXPECT_EQ((Rows{bytes_of(tw_want[0]), bytes_of(tw_want[1])}), tw.records);
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));

    // Modules of the built-in 144 bytes: 64-bit counts whole, 32-bit ones
    // in low halves; a relative path is its own name, a third text costs
    // the path.
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_MODULE));
    Walk mw;
    ASSERT_EQ(0u, enumerate(h, 2, &mw, 0));
    const unsigned all = 0x80 | 0x400 | 0x800 | 0x1000 | 0x8000 | 0x10000;
    const unsigned bits = 0x100 | 0x800 | 0x4000;
    const __VELK_module mwant[4] = {
        {144, 0,     100,      all, 0x99,        0xABCD, 3,  0x33, 0, 0x100000005, 0x7F0000001000,
         0,   kNone, 0x5A0A23, 0,   0x200000010, {},     {}, {},   {}},
        {144,    0,          200,   bits,   7, 0, 1,  0,  0,  0x1000,
         0x2000, 0xFFFFFFFF, kNone, 0x0480, 0, 0, {}, {}, {}, {}},
        {144, 0, 300, 0x8000, 0, 0, 0, 0, 0, 0, 0, 0, kNone, 0x100, 0, 0, {}, {}, {}, {}},
        {144, 0, 0, 0x8000, 0, 0, 0, 0, 0, 0, 0, 0, kNone, 0, 0, 0, {}, {}, {}, {}}};
    expect_translated(
        h, mw.records,
        {bytes_of(mwant[0]), bytes_of(mwant[1]), bytes_of(mwant[2]), bytes_of(mwant[3])},
        {"/lib/libc.so|libc.so", "lib/x.so|lib/x.so", "|b.dll", "rel.so|rel.so"}, 80);
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    ASSERT_EQ(0u, VELK_close(h));
    EXPECT_EQ(image.b, read_file(path("legacy.vk5")));
}

TEST_F(RecordsTest, ModuleSectionAboveOneWindowIsWalkedInWindows)
{
    const unsigned n = 233100;  // 33,566,400 bytes: more than one window of 0x2000000
    build("big.vk7", 2, n, 144);
    ASSERT_EQ(0u, open(path("big.vk7"), VELK_OPEN_READ));
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_MODULE));
    // Every record from the start on, once and in order, in windows of at
    // most 0x2000000 bytes.
    const unsigned per_window = 0x2000000 / 144;
    for (unsigned start : {0u, 1u, per_window - 1, per_window + 5}) {
        SCOPED_TRACE(start);
        Walk w;
        ASSERT_EQ(0u, enumerate(h, 2, &w, start));
        EXPECT_EQ(n - start > per_window ? 2u : 1u, w.calls);
        for (unsigned entries : w.entries)
            EXPECT_LE(entries, per_window);
        ASSERT_EQ(n - start, w.records.size());
        size_t misplaced = 0;
        for (size_t i = 0; i < w.records.size(); ++i)
            misplaced += u32_at(w.records[i], 24) != start + i;  // module_ref
        EXPECT_EQ(0u, misplaced);
    }
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    ASSERT_EQ(0u, VELK_close(h));
}

TEST_F(RecordsTest, LegacyBoundModulesTakeTheirProcessFromTheIndex)
{
    // The version 5 file above, bound: legacy samples of a header with a
    // sample part, and bit 0 of the header ex's byte 392 set. A module's
    // process word is then the index of a process.
    Image f = legacy_records_file();
    f.put32(12, 6);
    f.slot(96, 20, 64, 1432, 2, 32, KIND_LEGACY_SAMPLE_RECORD);
    f.slot(116, 20, 112, 1496, 1, 112, KIND_LEGACY_SAMPLE_RECORD_HEADER);
    f.put8(416 + 392, 0xC9);
    put_fields(f, 1496, {F(0, 4, 2), F(4, 1, 0x01), F(28, 4, 32)});
    f.b.resize(1496 + 112 + 24, 0);
    const uint32_t words[4] = {1, 0, 2, 1}, os_pids[4] = {200, 100, 300, 200};
    for (int i = 0; i < 4; ++i)
        f.put32(kModules + i * 64 + 32, words[i]);
    for (const uint32_t last : {1u, 3u}) {
        SCOPED_TRACE(last);
        f.put32(kModules + 3 * 64 + 32, last);
        ASSERT_EQ(0u, open_image(f, "bound.vk5"));
        const velk_section_block* b = h->file_object->sections_ptr;
        unsigned bound = 0;
        ASSERT_EQ(0u, VELK_is_legacy_bound(h, &bound));
        ASSERT_EQ(1u, bound);
        ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_MODULE));
        Walk w;
        if (last == 1) {
            ASSERT_EQ(0u, enumerate(h, 2, &w, 0));
            ASSERT_EQ(4u, w.records.size());
            // pid_index, pid and osid of each.
            for (int i = 0; i < 4; ++i) {
                const std::vector<unsigned char>& m = w.records[i];
                EXPECT_EQ((U{words[i], os_pids[i], 0}),
                          (U{u32_at(m, 60), u32_at(m, 8), u32_at(m, 4)}))
                    << i;
            }
            EXPECT_EQ(VELK_STATE_EXISTS, b->section_state[VELK_SECTION_PROCESS]);
        } else {
            // An index past the processes ends the translation with the
            // lookup's status and no store; processes stay reading.
            EXPECT_EQ(VELK_E_BAD_READ_START, enumerate(h, 2, &w, 0));
            EXPECT_EQ(0u, w.calls);
            EXPECT_EQ(-1, b->new_module_store->handle);
            EXPECT_EQ(VELK_STATE_READING, b->section_state[VELK_SECTION_PROCESS]);
            EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));
        }
        ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
        ASSERT_EQ(0u, VELK_close(h));
    }
}
