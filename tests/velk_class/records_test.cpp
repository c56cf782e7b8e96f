// Processes, threads and modules in their new form: adding, the sections at
// close, enumeration by windows from the store and from the file, and the
// translation of files that hold only the legacy form.
#include <string.h>

#include <algorithm>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

namespace {

// What the callbacks saw: records cut at `size` bytes, entries per call.
struct Walk {
    unsigned size = 0;
    unsigned answer = 1;
    unsigned calls = 0;
    std::vector<unsigned> entries;
    std::vector<std::vector<unsigned char>> records;
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

// Enumerates kind 0 (processes), 1 (threads) or 2 (modules) from `start`.
unsigned enumerate(velk_handle* h, int kind, Walk* w, unsigned long long start)
{
    VELK_PROCESS_CALLBACK pids = walk_cb<__VELK_pid>;
    VELK_THREAD_CALLBACK tids = walk_cb<__VELK_tid>;
    VELK_MODULE_CALLBACK modules = walk_cb<__VELK_module>;
    w->size = kind == 0 ? 48 : kind == 1 ? 40 : 144;
    return kind == 0   ? VELK_enumerate_processes(h, &pids, w, start)
           : kind == 1 ? VELK_enumerate_threads(h, &tids, w, start)
                       : VELK_enumerate_modules(h, &modules, w, start);
}

const VELK_SECTION_IDENTIFIER kSection[3] = {VELK_SECTION_PROCESS, VELK_SECTION_THREAD,
                                             VELK_SECTION_MODULE};

// The 40-byte global table slot of a kind in a version 7 file, or npos.
size_t global_at(const std::vector<unsigned char>& f, unsigned kind)
{
    for (size_t at = 816; at < 816 + 512; at += 40)
        if (u32_at(f, at + 28) == kind)
            return at;
    return std::string::npos;
}

bool has_line_with(const LogCapture& log, const std::string& part)
{
    return std::any_of(log.lines().begin(), log.lines().end(),
                       [&](const std::string& l) { return l.find(part) != std::string::npos; });
}

// Module descriptors: a group head and one field of 144 bytes.
void add_module_descriptors(velk_handle* h)
{
    __velk_samprec_desc_entry d[2];
    memset(d, 0, sizeof(d));
    d[0].entry_size = d[1].entry_size = 72;
    d[0].field_type = ST_GROUP_HEAD;
    d[1].field_type = ST_MODULE_RECORD;
    d[1].field_length = 144;
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_DESCRIPTOR));
    ASSERT_EQ(0u, VELK_add_global_section_descriptor(h, VELK_SECTION_MODULE, d, 2));
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_DESCRIPTOR));
}

// A file image built byte by byte.
struct Image {
    std::vector<unsigned char> b;
    void put(size_t at, const void* data, size_t n)
    {
        if (b.size() < at + n)
            b.resize(at + n, 0);
        memcpy(&b[at], data, n);
    }
    void put8(size_t at, uint8_t v) { put(at, &v, 1); }
    void put16(size_t at, uint16_t v) { put(at, &v, 2); }
    void put32(size_t at, uint32_t v) { put(at, &v, 4); }
    void put64(size_t at, uint64_t v) { put(at, &v, 8); }
    // A 20-byte entry of the version 5 section table.
    void entry(unsigned n, uint32_t length, uint32_t offset, uint32_t count, uint16_t entry_length,
               uint16_t kind)
    {
        put32(16 + n * 20, length);
        put32(16 + n * 20 + 4, offset);
        put32(16 + n * 20 + 8, count);
        put16(16 + n * 20 + 12, entry_length);
        put16(16 + n * 20 + 14, kind);
    }
};

// Where the legacy sections of the version 5 image lie.
constexpr size_t kPids = 880, kTids = 1024, kModules = 1104;

// A version 5 file with a header ex and only legacy processes (3), threads
// (2) and modules (4).
Image legacy_records_file()
{
    Image f;
    f.put(0, "SampleF ", 8);
    f.put32(8, 27);
    f.put32(12, 4);
    f.entry(0, 460, 416, 1, 460, KIND_LEGACY_HEADER_EX);
    f.entry(1, 139, kPids, 3, 40, KIND_LEGACY_PID_RECORD);
    f.entry(2, 80, kTids, 2, 40, KIND_LEGACY_TID_RECORD);
    f.entry(3, 302, kModules, 4, 64, KIND_LEGACY_MODULE_RECORD);
    f.put32(416, 2);  // version 2.0

    // Processes: a 64-bit time and a path with its name at 9; a 32-bit time
    // that wraps and a name at 0; one without text.
    const size_t p0 = kPids, p1 = kPids + 40, p2 = kPids + 80;
    f.put16(p0, 40), f.put8(p0 + 2, 0x09), f.put32(p0 + 4, 100), f.put32(p0 + 8, 0);
    f.put64(p0 + 24, 0x1122334455667788ull);
    f.put32(p0 + 32, 120), f.put16(p0 + 36, 14), f.put16(p0 + 38, 9);
    f.put16(p1, 40), f.put32(p1 + 4, 200), f.put32(p1 + 8, 1);
    f.put32(p1 + 16, 10), f.put32(p1 + 20, 30);
    f.put32(p1 + 32, 134), f.put16(p1 + 36, 5), f.put16(p1 + 38, 0);
    f.put16(p2, 40), f.put32(p2 + 4, 300), f.put32(p2 + 8, 2), f.put32(p2 + 32, 139);
    f.put(kPids + 120, "/usr/bin/prog", 14);
    f.put(kPids + 134, "init", 5);

    // Threads, without text.
    f.put16(kTids, 40), f.put8(kTids + 2, 0x01), f.put32(kTids + 4, 11);
    f.put32(kTids + 16, 5), f.put32(kTids + 20, 2), f.put32(kTids + 32, 100);
    f.put16(kTids + 40, 40), f.put8(kTids + 42, 0x08), f.put32(kTids + 44, 12);
    f.put64(kTids + 64, 77), f.put32(kTids + 72, 200);

    // Modules.
    const size_t m0 = kModules, m1 = m0 + 64, m2 = m1 + 64, m3 = m2 + 64;
    // 64-bit, absolute path, 64-bit counts, every carried flag of bytes 0 and 1.
    f.put16(m0, 64), f.put8(m0 + 2, 0x03), f.put16(m0 + 4, 0x33), f.put32(m0 + 8, 0xABCD);
    f.put8(m0 + 12, 0x23), f.put8(m0 + 13, 0x0A), f.put8(m0 + 14, 0x5A);
    f.put64(m0 + 16, 0x100000005ull), f.put64(m0 + 24, 0x7F0000001000ull), f.put32(m0 + 32, 100);
    f.put32(m0 + 36, 0x10), f.put32(m0 + 40, 0x2), f.put32(m0 + 44, 256), f.put16(m0 + 48, 13);
    f.put16(m0 + 50, 5), f.put64(m0 + 56, 0x99);
    // 32-bit, no load count, relative path with a name offset: the name is
    // the whole path.
    f.put16(m1, 64), f.put8(m1 + 2, 0x05), f.put8(m1 + 12, 0x80), f.put8(m1 + 13, 0x04);
    f.put64(m1 + 16, 0xAAAAAAAA00001000ull), f.put64(m1 + 24, 0xBBBBBBBB00002000ull);
    f.put32(m1 + 32, 200), f.put32(m1 + 36, 7), f.put32(m1 + 40, 0xFFFFFFFF);
    f.put32(m1 + 44, 269), f.put16(m1 + 48, 9), f.put16(m1 + 50, 4);
    // A drive letter path with a third text: the path is lost.
    f.put16(m2, 64), f.put16(m2 + 6, 6), f.put8(m2 + 13, 0x01), f.put32(m2 + 32, 300);
    f.put32(m2 + 44, 278), f.put16(m2 + 48, 11), f.put16(m2 + 50, 5), f.put32(m2 + 52, 289);
    // A relative path with name offset 0.
    f.put16(m3, 64), f.put32(m3 + 44, 295), f.put16(m3 + 48, 7);
    f.put(kModules + 256, "/lib/libc.so", 13);
    f.put(kModules + 269, "lib/x.so", 9);
    f.put(kModules + 278, "C:\\a\\b.dll", 11);
    f.put(kModules + 289, "extra", 6);
    f.put(kModules + 295, "rel.so", 7);
    f.b.resize(kModules + 302 + 24, 0);
    return f;
}

// The callers' records after their adds, as bytes.
template <typename T>
std::vector<std::vector<unsigned char>> bytes_of(const std::vector<T>& records)
{
    std::vector<std::vector<unsigned char>> v;
    for (const T& r : records)
        v.emplace_back((const unsigned char*)&r, (const unsigned char*)&r + sizeof(r));
    return v;
}

template <typename T>
T as(const std::vector<unsigned char>& bytes)
{
    T t;
    memcpy(&t, bytes.data(), sizeof(t));
    return t;
}

using RecordsTest = TempDirTest;

}  // namespace

TEST_F(RecordsTest, AddedRecordsEnumerateAlikeFromStoreAndFile)
{
    const std::string name = path("r.vk7");
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    velk_class* s = h->file_object;
    LogCapture log(0x80000000u);
    const char* const names[3] = {"VELK_add_process", "VELK_add_thread", "VELK_add_module"};
    __VELK_pid p0;
    __VELK_tid t0;
    __VELK_module m0;
    memset(&p0, 0, sizeof(p0)), memset(&t0, 0, sizeof(t0)), memset(&m0, 0, sizeof(m0));
    EXPECT_EQ(VELK_E_NOT_WRITING, VELK_add_process(h, &p0));
    EXPECT_EQ(VELK_E_NOT_WRITING, VELK_add_thread(h, &t0));
    EXPECT_EQ(VELK_E_NOT_WRITING, VELK_add_module(h, &m0));
    for (int k = 0; k < 3; ++k) {
        EXPECT_TRUE(log.contains_format(std::string("<velk %u::") + names[k] +
                                        ">this section already exists or write_section was not "
                                        "first called!\n"));
        ASSERT_EQ(0u, VELK_writing_section(h, kSection[k]));
    }
    EXPECT_EQ(VELK_E_NOTHING_TO_WRITE, VELK_add_process(h, nullptr));
    EXPECT_EQ(VELK_E_NOTHING_TO_WRITE, VELK_add_thread(h, nullptr));
    EXPECT_EQ(VELK_E_NOTHING_TO_WRITE, VELK_add_module(h, nullptr));
    for (int k = 0; k < 3; ++k)
        EXPECT_TRUE(log.contains_format(std::string("<velk %u::") + names[k] + ">nothing to write!\n"));

    // Processes: both texts, a name without a path (stored as given, no
    // string added), neither.
    struct { const wchar_t* path; const wchar_t* name; const char* want_path; const char* want_name; } pt[] = {
        {L"/bin/alpha", L"alpha", "/bin/alpha", "alpha"},
        {nullptr, L"orphan", nullptr, nullptr},
        {nullptr, nullptr, nullptr, nullptr},
        {L"/usr/bin/beta", L"beta", "/usr/bin/beta", "beta"},
    };
    std::vector<__VELK_pid> pids;
    for (unsigned i = 0; i < 4; ++i) {
        __VELK_pid p;
        memset(&p, 0, sizeof(p));
        p.pid_size = 48, p.pid_id = 10 + i, p.pid_flags = i, p.osid = 7, p.pid_event_when = 1000 + i;
        p.reserved_for_legacy = 99, p.parent_pid_index = i;
        p.pid_path.text = const_cast<wchar_t*>(pt[i].path);
        p.pid_name.text = const_cast<wchar_t*>(pt[i].name);
        const unsigned long long strings = s->strings_store->Size();
        ASSERT_EQ(0u, VELK_add_process(h, &p)) << i;
        EXPECT_EQ(i, p.reserved_for_legacy);
        if (pt[i].want_path == nullptr) {
            EXPECT_EQ(strings, s->strings_store->Size()) << i;
            EXPECT_EQ(pt[i].name, p.pid_name.text);
        } else {
            EXPECT_EQ(1ull << 63, p.pid_path.id & (1ull << 63));
        }
        pids.push_back(p);
    }
    // Threads: a null name gives id 0.
    const wchar_t* tnames[] = {L"worker", nullptr, L"main"};
    std::vector<__VELK_tid> tids;
    for (unsigned i = 0; i < 3; ++i) {
        __VELK_tid t;
        memset(&t, 0, sizeof(t));
        t.tid_size = 40, t.tid_pid = 10 + i, t.tid_id = 20 + i, t.tid_flags = 1, t.tid_event_when = 5 + i;
        t.tid_name.text = const_cast<wchar_t*>(tnames[i]);
        ASSERT_EQ(0u, VELK_add_thread(h, &t)) << i;
        EXPECT_EQ(i, t.reserved_for_legacy);
        if (tnames[i] == nullptr) {
            EXPECT_EQ(0u, t.tid_name.id);
        }
        tids.push_back(t);
    }
    // Modules: each text on its own; pid_index is the library's.
    const wchar_t* mtexts[3][3] = {{L"/lib/a.so", L"a.so", nullptr},
                                   {nullptr, nullptr, nullptr},
                                   {L"/lib/b.so", L"b.so", L"third"}};
    std::vector<__VELK_module> modules;
    for (unsigned i = 0; i < 3; ++i) {
        __VELK_module m;
        memset(&m, 0, sizeof(m));
        m.module_size = 144, m.pid = 10 + i, m.module_flags = VELK_MODULE_HAS_LOAD_COUNT;
        m.sc_load = 3 + i, m.module_ref = 0x55, m.module_load_address = 0x400000 + i;
        m.module_length = 0x1000, m.pid_index = 5, m.sc_unload_32 = 0xFFFFFFFF;
        m.module_path.text = const_cast<wchar_t*>(mtexts[i][0]);
        m.module_name.text = const_cast<wchar_t*>(mtexts[i][1]);
        m.module_extra.text = const_cast<wchar_t*>(mtexts[i][2]);
        ASSERT_EQ(0u, VELK_add_module(h, &m)) << i;
        EXPECT_EQ(0xFFFFFFFFu, m.pid_index);
        modules.push_back(m);
    }
    for (int k = 0; k < 3; ++k)
        ASSERT_EQ(0u, VELK_done_section(h, kSection[k]));
    add_module_descriptors(h);

    const std::vector<std::vector<unsigned char>> want[3] = {bytes_of(pids), bytes_of(tids),
                                                             bytes_of(modules)};

    // The same walks, in this session from the stores and after reopening
    // from the file; windows left from one walk serve the next.
    auto check_walks = [&](const char* when) {
        for (int k = 0; k < 3; ++k) {
            ASSERT_EQ(0u, VELK_reading_section(h, kSection[k])) << when;
            const unsigned long long n = want[k].size();
            for (unsigned long long start : {0ull, 1ull, n - 1}) {
                Walk w;
                ASSERT_EQ(0u, enumerate(h, k, &w, start)) << when << k << start;
                EXPECT_EQ(1u, w.calls) << when << k << start;
                ASSERT_EQ(n - start, w.records.size()) << when << k << start;
                for (unsigned long long i = start; i < n; ++i)
                    EXPECT_EQ(want[k][i], w.records[i - start]) << when << k << start << i;
            }
            // Past the end, in and out of the window.
            log.clear();
            Walk w;
            EXPECT_EQ(VELK_E_BAD_READ_START, enumerate(h, k, &w, n)) << when << k;
            EXPECT_EQ(VELK_E_BAD_READ_START, enumerate(h, k, &w, 1000)) << when << k;
            EXPECT_TRUE(log.contains_format("<velk %u::helper_map_velk_sfs>invalid read start!\n"));
            EXPECT_EQ(0u, w.calls);
            ASSERT_EQ(0u, VELK_done_section(h, kSection[k])) << when;
        }
        EXPECT_EQ("/bin/alpha", text_of(h, pids[0].pid_path.id)) << when;
        EXPECT_EQ("alpha", text_of(h, pids[0].pid_name.id)) << when;
        EXPECT_EQ("beta", text_of(h, pids[3].pid_name.id)) << when;
        EXPECT_EQ("main", text_of(h, tids[2].tid_name.id)) << when;
        EXPECT_EQ("/lib/b.so", text_of(h, modules[2].module_path.id)) << when;
        EXPECT_EQ("third", text_of(h, modules[2].module_extra.id)) << when;
        EXPECT_EQ(0u, modules[0].module_extra.id) << when;
    };
    check_walks("store");
    EXPECT_EQ(0u, s->sections_ptr->sfs_pid.length);  // still in the store
    ASSERT_EQ(0u, VELK_close(h));

    // Kinds 29, 30, 31: descriptor, records as added, marker, padding.
    const std::vector<unsigned char> f = read_file(name);
    const struct { unsigned kind; unsigned entry_length; const char* marker; } kinds[3] = {
        {KIND_PID, 48, "end new pid section"},
        {KIND_TID, 40, "end new tid section"},
        {KIND_MODULE, 144, "end new module section"}};
    for (int k = 0; k < 3; ++k) {
        const size_t slot = global_at(f, kinds[k].kind);
        ASSERT_NE(std::string::npos, slot) << k;
        const unsigned long long length = u64_at(f, slot), offset = u64_at(f, slot + 8);
        EXPECT_EQ(want[k].size() * want[k][0].size(), length) << k;
        EXPECT_EQ(want[k].size(), u64_at(f, slot + 16)) << k;
        EXPECT_EQ(kinds[k].entry_length, u32_at(f, slot + 24)) << k;
        EXPECT_EQ(0u, offset % 8) << k;
        ASSERT_LE(offset + length + 40, f.size());
        for (size_t i = 0; i < want[k].size(); ++i)
            EXPECT_EQ(0, memcmp(&f[offset + i * want[k][i].size()], want[k][i].data(), want[k][i].size()))
                << k << i;
        const size_t marker = strlen(kinds[k].marker) + 1;
        EXPECT_EQ(0, memcmp(&f[offset + length], kinds[k].marker, marker)) << k;
        const size_t pad = 24 - ((offset + length + marker) & 7);
        EXPECT_EQ(std::vector<unsigned char>(pad, 0),
                  std::vector<unsigned char>(&f[offset + length + marker], &f[offset + length + marker + pad]));
    }

    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
    check_walks("file");
    ASSERT_EQ(0u, VELK_close(h));
}

TEST_F(RecordsTest, CallbackAnswersWindowsAndLookups)
{
    const std::string name = path("c.vk7");
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    velk_class* s = h->file_object;
    const __VELK_pid* one = nullptr;
    unsigned os_pid = 0;
    // Without a process section.
    LogCapture log(0x80000000u);
    EXPECT_EQ(VELK_E_NO_PID_SECTION, s->helper_get_os_pid_from_pid_index(0, &os_pid));
    EXPECT_EQ(0xFFFFFFFFu, os_pid);
    EXPECT_TRUE(log.contains_format(
        "<velk %u::helper_get_os_pid_from_pid_index>pid record section doesn't exist!\n"));

    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_PROCESS));
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_THREAD));
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
    for (unsigned i = 0; i < 5; ++i) {
        __VELK_pid p;
        __VELK_tid t;
        __VELK_module m;
        memset(&p, 0, sizeof(p)), memset(&t, 0, sizeof(t)), memset(&m, 0, sizeof(m));
        p.pid_size = 48, p.pid_id = 500 + i;
        t.tid_size = 40, t.tid_id = 600 + i;
        m.module_size = 144, m.module_ref = i;
        ASSERT_EQ(0u, VELK_add_process(h, &p));
        ASSERT_EQ(0u, VELK_add_thread(h, &t));
        ASSERT_EQ(0u, VELK_add_module(h, &m));
    }
    for (int k = 0; k < 3; ++k)
        ASSERT_EQ(0u, VELK_done_section(h, kSection[k]));
    add_module_descriptors(h);
    ASSERT_EQ(0u, VELK_close(h));

    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
    s = h->file_object;
    const char* const enumerators[3] = {"VELK_enumerate_processes", "VELK_enumerate_threads",
                                        "VELK_enumerate_modules"};
    __VELK_mmap_tracker* maps[3] = {&s->pid_map, &s->tid_map, &s->module_map};
    for (int k = 0; k < 3; ++k) {
        log.clear();
        Walk w;
        EXPECT_EQ(VELK_E_NOT_READING, enumerate(h, k, &w, 0));
        EXPECT_TRUE(log.contains_format(std::string("<velk %u::") + enumerators[k] +
                                        ">read_section was not first called!\n"));
        ASSERT_EQ(0u, VELK_reading_section(h, kSection[k]));
        if (k == 0) {
            EXPECT_EQ(VELK_E_BAD_POINTER, VELK_enumerate_processes(h, nullptr, nullptr, 0));
        }
        // 0 stops at once; the window stays, and a start inside it maps nothing.
        w.answer = 0;
        ASSERT_EQ(0u, enumerate(h, k, &w, 1));
        EXPECT_EQ(1u, w.calls);
        EXPECT_EQ(4u, w.entries[0]);
        const unsigned char* data = maps[k]->m_data;
        const unsigned mmaps = __VELK_mmap_tracker::m_num_mmaps;
        ASSERT_EQ(0u, enumerate(h, k, &w, 3));
        EXPECT_EQ(2u, w.entries[1]);
        EXPECT_EQ(data, maps[k]->m_data);
        EXPECT_EQ(1u, maps[k]->m_first_entry);
        EXPECT_EQ(mmaps, __VELK_mmap_tracker::m_num_mmaps);
        // The last record alone, then success.
        w.answer = 1;
        ASSERT_EQ(0u, enumerate(h, k, &w, 4));
        EXPECT_EQ(1u, w.entries[2]);
        // A value other than 0 and 1 ends the walk with it; the thread line
        // names processes.
        w.answer = 7;
        EXPECT_EQ(7u, enumerate(h, k, &w, 0));
        EXPECT_EQ(4u, w.calls);
        EXPECT_TRUE(log.contains_format(std::string("<velk %u::") +
                                        (k == 2 ? enumerators[2] : enumerators[0]) +
                                        ">callback returned an error, exiting with value %d\n"));
        EXPECT_TRUE(has_line_with(log, "exiting with value 7\n"));
        if (k != 2) {
            EXPECT_EQ(0u, VELK_done_section(h, kSection[k]));
        }
    }
    // Module records walk by the descriptors' size, and 144 is cached.
    EXPECT_EQ(144u, VELK_get_module_record_size(h));
    EXPECT_EQ(144u, s->module_record_size);
    EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));

    // One process at a time, into the shared slot; the section is done after.
    ASSERT_EQ(0u, s->utility_get_one_pid(3, &one));
    EXPECT_EQ(&g_pid, one);
    EXPECT_EQ(503u, one->pid_id);
    EXPECT_EQ(3u, one->reserved_for_legacy);
    ASSERT_EQ(0u, s->utility_get_one_pid(1, &one));
    EXPECT_EQ(501u, g_pid.pid_id);
    EXPECT_EQ(1u, s->sections_ptr->section_state[VELK_SECTION_PROCESS]);
    ASSERT_EQ(0u, s->helper_get_os_pid_from_pid_index(4, &os_pid));
    EXPECT_EQ(504u, os_pid);
    EXPECT_EQ(VELK_E_BAD_READ_START, s->helper_get_os_pid_from_pid_index(5, &os_pid));
    // A failed lookup returns at once and leaves the section reading.
    EXPECT_EQ(VELK_STATE_READING, s->sections_ptr->section_state[VELK_SECTION_PROCESS]);
    EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));
    ASSERT_EQ(0u, VELK_close(h));

    // A damaged count: more records than the section's bytes hold.
    std::vector<unsigned char> f = read_file(name);
    const size_t slot = global_at(f, KIND_PID);
    ASSERT_NE(std::string::npos, slot);
    ASSERT_EQ(240u, u64_at(f, slot));
    f[slot + 16] = 6;
    write_file(name, f);
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_PROCESS));
    log.clear();
    Walk w;
    EXPECT_EQ(VELK_E_BAD_FILE, enumerate(h, 0, &w, 5));
    EXPECT_TRUE(has_line_with(log, "::helper_map_sfs>6 records of 48 bytes don't fit in a section of 240 bytes!\n"));
    EXPECT_EQ(0u, w.calls);
    EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));
    ASSERT_EQ(0u, VELK_close(h));
}

TEST_F(RecordsTest, ModulesWithoutDescriptorsHaveNoSize)
{
    const std::string name = path("n.vk7");
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
    __VELK_module m;
    memset(&m, 0, sizeof(m));
    ASSERT_EQ(0u, VELK_add_module(h, &m));
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    ASSERT_EQ(0u, VELK_close(h));
    const std::vector<unsigned char> f = read_file(name);
    const size_t slot = global_at(f, KIND_MODULE);
    ASSERT_NE(std::string::npos, slot);
    EXPECT_EQ(144u, u64_at(f, slot));
    EXPECT_EQ(0u, u32_at(f, slot + 24));  // no descriptors: entry length 0

    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_MODULE));
    LogCapture log(0x80000000u);
    Walk w;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(VELK_E_NO_DESCRIPTORS, enumerate(h, 2, &w, 0));
        EXPECT_EQ(0u, h->file_object->module_record_size);  // tried again each time
    }
    EXPECT_TRUE(log.contains_format("<velk %u::VELK_enumerate_modules>module record size is 0!\n"));
    EXPECT_EQ(0u, w.calls);
    EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    ASSERT_EQ(0u, VELK_close(h));
}

TEST_F(RecordsTest, LegacyOnlyFileIsTranslatedOnce)
{
    const std::string name = path("legacy.vk5");
    const Image image = legacy_records_file();
    write_file(name, image.b);
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
    velk_class* s = h->file_object;

    // Processes; in a version 5 file the thread section is read along.
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_PROCESS));
    Walk w;
    ASSERT_EQ(0u, enumerate(h, 0, &w, 0));
    ASSERT_EQ(3u, w.records.size());
    // Whole records; the ids are checked through their texts.
    const __VELK_pid pw[3] = {{48, 100, 0x11, 0, 0x1122334455667788ull, 0, 0, {}, {}},
                              {48, 200, 0, 0, 0xFFFFFFECull, 1, 0, {}, {}},
                              {48, 300, 0, 0, 0, 2, 0, {}, {}}};
    const char* const ptexts[3][2] = {{"/usr/bin/prog", "prog"}, {"init", "init"}, {"", ""}};
    for (unsigned i = 0; i < 3; ++i) {
        __VELK_pid got = as<__VELK_pid>(w.records[i]);
        EXPECT_EQ(ptexts[i][0], got.pid_path.id ? text_of(h, got.pid_path.id) : "") << i;
        EXPECT_EQ(ptexts[i][1], got.pid_name.id ? text_of(h, got.pid_name.id) : "") << i;
        got.pid_path.id = got.pid_name.id = 0;
        EXPECT_EQ(0, memcmp(&pw[i], &got, sizeof(got))) << i;
    }
    EXPECT_EQ(144u, s->sections_ptr->sfs_pid.length);
    EXPECT_EQ(3u, s->sections_ptr->sfs_pid.number_entries);

    // The second walk maps the store again and translates nothing more.
    const long long store = s->sections_ptr->new_pid_store->handle;
    const unsigned long long strings = s->strings_store->Size();
    ASSERT_NE(-1, store);
    ASSERT_EQ(0u, s->pid_map.Unmap_File());
    Walk again;
    ASSERT_EQ(0u, enumerate(h, 0, &again, 1));
    EXPECT_EQ(std::vector<std::vector<unsigned char>>(w.records.begin() + 1, w.records.end()),
              again.records);
    EXPECT_EQ(store, s->sections_ptr->new_pid_store->handle);
    EXPECT_EQ(strings, s->strings_store->Size());
    EXPECT_EQ(144u, s->sections_ptr->sfs_pid.length);

    // Threads: no text, the process word carried.
    EXPECT_EQ(VELK_STATE_READING, s->sections_ptr->section_state[VELK_SECTION_THREAD]);
    Walk tw;
    ASSERT_EQ(0u, enumerate(h, 1, &tw, 0));
    ASSERT_EQ(2u, tw.records.size());
    const __VELK_tid tw_want[2] = {{40, 100, 11, 1, 3, 0, 0, {}}, {40, 200, 12, 0x10, 77, 1, 0, {}}};
    EXPECT_EQ(bytes_of(std::vector<__VELK_tid>(tw_want, tw_want + 2)), tw.records);
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));

    // Modules, with the built-in record size of 144.
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_MODULE));
    Walk mw;
    ASSERT_EQ(0u, enumerate(h, 2, &mw, 0));
    ASSERT_EQ(4u, mw.records.size());
    __VELK_module mwant[4];
    memset(mwant, 0, sizeof(mwant));
    const uint32_t mpids[4] = {100, 200, 300, 0};
    for (int i = 0; i < 4; ++i) {
        mwant[i].module_size = 144, mwant[i].pid = mpids[i], mwant[i].pid_index = 0xFFFFFFFF;
        mwant[i].module_flags = VELK_MODULE_HAS_LOAD_COUNT;
    }
    // 64-bit with every carried flag and 64-bit counts.
    mwant[0].module_flags = 0x80 | 0x400 | 0x800 | 0x1000 | 0x8000 | 0x10000;
    mwant[0].sc_load = 0x99, mwant[0].sc_unload = 0x200000010ull, mwant[0].module_ref = 0xABCD;
    mwant[0].segment_type = 3, mwant[0].code_segment = 0x33, mwant[0].legacy_flags = 0x5A0A23;
    mwant[0].module_length = 0x100000005ull, mwant[0].module_load_address = 0x7F0000001000ull;
    // 32-bit: low halves only, 32-bit counts.
    mwant[1].module_flags = 0x100 | 0x800 | 0x4000, mwant[1].segment_type = 1;
    mwant[1].legacy_flags = 0x0480, mwant[1].module_length = 0x1000;
    mwant[1].module_load_address = 0x2000, mwant[1].sc_load = 7, mwant[1].sc_unload_32 = 0xFFFFFFFF;
    mwant[2].legacy_flags = 0x100;
    // A relative path is its own name; a third text costs the path.
    const char* const mtexts[4][2] = {
        {"/lib/libc.so", "libc.so"}, {"lib/x.so", "lib/x.so"}, {"", "b.dll"}, {"rel.so", "rel.so"}};
    for (int i = 0; i < 4; ++i) {
        __VELK_module got = as<__VELK_module>(mw.records[i]);
        EXPECT_EQ(mtexts[i][0], got.module_path.id ? text_of(h, got.module_path.id) : "") << i;
        EXPECT_EQ(mtexts[i][1], got.module_name.id ? text_of(h, got.module_name.id) : "") << i;
        got.module_path.id = got.module_name.id = 0;
        EXPECT_EQ(0, memcmp(&mwant[i], &got, sizeof(got))) << i;
    }
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    ASSERT_EQ(0u, VELK_close(h));
    EXPECT_EQ(image.b, read_file(name));
}

TEST_F(RecordsTest, DamagedLegacySectionsAreRefused)
{
    const Image good = legacy_records_file();
    // Each damage, the walk that meets it, and a part of its line.
    struct Case { const char* what; size_t at; unsigned width; uint32_t value; int kind; const char* line; };
    const Case cases[] = {
        {"pid text past the section", kPids + 40 + 32, 4, 137, 0,
         "::helper_get_pid_info_from_file>record 1 has a text of 5 bytes at 137, outside its section of 139 bytes!"},
        {"pid text offset far out", kPids + 32, 4, 0xFFFFFFF0u, 0,
         "::helper_get_pid_info_from_file>record 0 has a text of 14 bytes at 4294967280"},
        {"pid name past its text", kPids + 38, 2, 15, 0,
         "::helper_get_pid_info_from_file>record 0 has a name at 15, past its text of 14 bytes!"},
        {"pid count above the length", 16 + 20 + 8, 4, 4, 0,
         "::helper_get_pid_info_from_file>4 legacy records of 40 bytes don't fit in a section of 139 bytes!"},
        {"tid count above the length", 16 + 40 + 8, 4, 3, 1,
         "::helper_get_tid_info_from_file>3 legacy records of 40 bytes don't fit in a section of 80 bytes!"},
        {"module path past the section", kModules + 48, 2, 60, 2,
         "::helper_get_module_info_from_file>record 0 has a text of 60 bytes at 256, outside its section of 302 bytes!"},
        {"module third text past the section", kModules + 128 + 52, 4, 300, 2,
         "::helper_get_module_info_from_file>record 2 has a text of 6 bytes at 300, outside"},
        {"module name past its text", kModules + 50, 2, 14, 2,
         "::helper_get_module_info_from_file>record 0 has a name at 14, past its text of 13 bytes!"},
    };
    for (const Case& c : cases) {
        Image f = good;
        f.put(c.at, &c.value, c.width);
        const std::string name = path("damaged.vk5");
        write_file(name, f.b);
        velk_handle* h = nullptr;
        ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ)) << c.what;
        ASSERT_EQ(0u, VELK_reading_section(h, kSection[c.kind])) << c.what;
        LogCapture log(0x80000000u);
        // Refused each time: a failed translation leaves no store behind.
        for (int i = 0; i < 2; ++i) {
            Walk w;
            EXPECT_EQ(VELK_E_BAD_FILE, enumerate(h, c.kind, &w, 0)) << c.what;
            EXPECT_EQ(0u, w.calls) << c.what;
        }
        EXPECT_TRUE(has_line_with(log, c.line)) << c.what;
        const velk_section_block* b = h->file_object->sections_ptr;
        const FILE_INFO_NODE* store = c.kind == 0 ? b->new_pid_store : c.kind == 1 ? b->new_tid_store : b->new_module_store;
        EXPECT_EQ(-1, store->handle) << c.what;
        const __VELK_sample_file_section_vk6& sfs = c.kind == 0 ? b->sfs_pid : c.kind == 1 ? b->sfs_tid : b->sfs_module;
        EXPECT_EQ(0u, sfs.length + sfs.number_entries) << c.what;
        ASSERT_EQ(0u, VELK_done_section(h, kSection[c.kind])) << c.what;
        ASSERT_EQ(0u, VELK_close(h)) << c.what;
        unlink(name.c_str());
    }
}

namespace {

struct ScaleWalk {
    unsigned calls = 0;
    std::vector<unsigned char> seen;
    bool in_order = true;
    unsigned long long next = 0;
};

unsigned scale_cb(__VELK_module* records, unsigned bytes, unsigned entries, void* context)
{
    ScaleWalk* w = static_cast<ScaleWalk*>(context);
    ++w->calls;
    if (bytes != entries * 144u || bytes > 0x2000000u)
        w->in_order = false;
    for (unsigned i = 0; i < entries; ++i) {
        const uint32_t ref = records[i].module_ref;
        if (ref != w->next++ || ref >= w->seen.size())
            w->in_order = false;
        else
            ++w->seen[ref];
    }
    return 1;
}

}  // namespace

TEST_F(RecordsTest, ModuleSectionAboveOneWindowIsWalkedInWindows)
{
    const unsigned n = 233100;  // 33,566,400 bytes: more than one window of 0x2000000
    const std::string name = path("big.vk7");
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
    __VELK_module m;
    memset(&m, 0, sizeof(m));
    m.module_size = 144;
    for (unsigned i = 0; i < n; ++i) {
        m.module_ref = i;
        ASSERT_EQ(0u, VELK_add_module(h, &m)) << i;
    }
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    add_module_descriptors(h);
    ASSERT_EQ(0u, VELK_close(h));

    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_MODULE));
    const unsigned long long per_window = 0x2000000 / 144;
    for (unsigned long long start : {0ull, 1ull, per_window - 1, per_window + 5}) {
        ScaleWalk w;
        w.seen.assign(n, 0);
        w.next = start;
        VELK_MODULE_CALLBACK cb = scale_cb;
        ASSERT_EQ(0u, VELK_enumerate_modules(h, &cb, &w, start)) << start;
        EXPECT_TRUE(w.in_order) << start;
        EXPECT_EQ(n, w.next) << start;
        EXPECT_EQ(n - start > per_window ? 2u : 1u, w.calls) << start;
        EXPECT_EQ(0, std::count(w.seen.begin() + start, w.seen.end(), 0)) << start;
        EXPECT_EQ((long long)start, std::count(w.seen.begin(), w.seen.end(), 0)) << start;
    }
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    ASSERT_EQ(0u, VELK_close(h));
}

TEST_F(RecordsTest, LegacyBoundModulesTakeTheirProcessFromTheIndex)
{
    // The version 5 file above, bound by an older bind: legacy samples with
    // a header that has a sample part, and bit 0 of byte 392 of the header
    // ex set. The module's process word is then an index of a process.
    Image f = legacy_records_file();
    f.put32(12, 6);
    f.entry(4, 64, 1432, 2, 32, KIND_LEGACY_SAMPLE_RECORD);
    f.entry(5, 112, 1496, 1, 112, KIND_LEGACY_SAMPLE_RECORD_HEADER);
    f.put8(416 + 392, 0xC9);
    f.put32(1496, 2), f.put8(1496 + 4, 0x01), f.put32(1496 + 28, 32);
    f.b.resize(1496 + 112 + 24, 0);
    const uint32_t words[4] = {1, 0, 2, 1};
    for (int i = 0; i < 4; ++i)
        f.put32(kModules + i * 64 + 32, words[i]);
    for (const uint32_t last : {1u, 3u}) {
        f.put32(kModules + 3 * 64 + 32, last);
        const std::string name = path("bound.vk5");
        write_file(name, f.b);
        velk_handle* h = nullptr;
        ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
        velk_class* s = h->file_object;
        unsigned bound = 0;
        ASSERT_EQ(0u, VELK_is_legacy_bound(h, &bound));
        ASSERT_EQ(1u, bound);
        ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_MODULE));
        LogCapture log(0x80000000u);
        Walk w;
        if (last == 1) {
            ASSERT_EQ(0u, enumerate(h, 2, &w, 0));
            ASSERT_EQ(4u, w.records.size());
            const uint32_t os_pids[4] = {200, 100, 300, 200};
            for (int i = 0; i < 4; ++i) {
                const __VELK_module m = as<__VELK_module>(w.records[i]);
                EXPECT_EQ(words[i], m.pid_index) << i;
                EXPECT_EQ(os_pids[i], m.pid) << i;
                EXPECT_EQ(0u, m.osid) << i;
            }
            EXPECT_EQ(VELK_STATE_EXISTS, s->sections_ptr->section_state[VELK_SECTION_PROCESS]);
        } else {
            // An index past the process table ends the translation with the
            // lookup's status; the process section stays reading.
            EXPECT_EQ(VELK_E_BAD_READ_START, enumerate(h, 2, &w, 0));
            EXPECT_EQ(0u, w.calls);
            EXPECT_TRUE(log.contains_format("<velk %u::helper_map_velk_sfs>invalid read start!\n"));
            EXPECT_EQ(-1, s->sections_ptr->new_module_store->handle);
            EXPECT_EQ(VELK_STATE_READING, s->sections_ptr->section_state[VELK_SECTION_PROCESS]);
            EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));
        }
        ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
        ASSERT_EQ(0u, VELK_close(h));
        unlink(name.c_str());
    }
}
