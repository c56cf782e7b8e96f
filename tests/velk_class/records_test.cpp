// Processes, threads and modules in their new form: adding, the sections at
// close, enumeration by windows from the store and from the file, and the
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
    __velk_samprec_desc_entry d[2];
    memset(d, 0, sizeof(d));
    d[0].entry_size = d[1].entry_size = 72;
    d[0].field_type = ST_GROUP_HEAD;
    d[1].field_type = ST_MODULE_RECORD;
    d[1].field_length = length;
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_DESCRIPTOR));
    ASSERT_EQ(0u, VELK_add_global_section_descriptor(h, VELK_SECTION_MODULE, d, 2));
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_DESCRIPTOR));
}

// Where the legacy sections of the version 5 image lie.
constexpr size_t kPids = 880, kTids = 1024, kModules = 1104;

// A version 5 file with a header ex and only legacy processes (3), threads
// (2) and modules (4).
Image legacy_records_file()
{
    Image f;
    f.put(0, "SampleF ", 8);
    f.put32(8, 27), f.put32(12, 4);
    f.slot(16, 20, 460, 416, 1, 460, KIND_LEGACY_HEADER_EX);
    f.slot(36, 20, 139, kPids, 3, 40, KIND_LEGACY_PID_RECORD);
    f.slot(56, 20, 80, kTids, 2, 40, KIND_LEGACY_TID_RECORD);
    f.slot(76, 20, 302, kModules, 4, 64, KIND_LEGACY_MODULE_RECORD);
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
    f.put(kModules + 256, "/lib/libc.so", 13), f.put(kModules + 269, "lib/x.so", 9);
    f.put(kModules + 278, "C:\\a\\b.dll", 11), f.put(kModules + 289, "extra", 6);
    f.put(kModules + 295, "rel.so", 7);
    f.b.resize(kModules + 302 + 24, 0);
    return f;
}

template <typename T>
T as(const std::vector<unsigned char>& bytes)
{
    T t;
    memcpy(&t, bytes.data(), sizeof(t));
    return t;
}

// The texts behind a path and a name id as "path|name"; id 0 gives "".
std::string texts_of(velk_handle* h, const __string_or_id& path, const __string_or_id& name)
{
    return (path.id ? text_of(h, path.id) : "") + "|" + (name.id ? text_of(h, name.id) : "");
}

class RecordsTest : public TempDirTest {
protected:
    unsigned open(const std::string& name, unsigned mode)
    {
        return VELK_open(&h, widen(name).c_str(), mode);
    }
    // Writes an image and opens it for reading.
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
        __VELK_module m;
        memset(&m, 0, sizeof(m));
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
    // On the open file: the walk of `kind` from `read_start` is refused as a
    // bad file with a line of `format`, before any callback; then closes.
    void expect_bad_file(int kind, unsigned long long read_start, const std::string& format)
    {
        ASSERT_EQ(0u, VELK_reading_section(h, kSection[kind]));
        LogCapture log(0x80000000u);
        Walk w;
        EXPECT_EQ(VELK_E_BAD_FILE, enumerate(h, kind, &w, read_start));
        EXPECT_TRUE(log.contains_format(format)) << format;
        EXPECT_EQ(0u, w.calls);
        EXPECT_EQ(0u, VELK_done_section(h, kSection[kind]));
        ASSERT_EQ(0u, VELK_close(h));
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
    const char* const adders[3] = {"VELK_add_process", "VELK_add_thread", "VELK_add_module"};
    __VELK_module zero;  // large enough for a record of each kind
    memset(&zero, 0, sizeof(zero));
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
    const wchar_t* const ptexts[4][2] = {{L"/bin/alpha", L"alpha"},
                                         {nullptr, L"orphan"},
                                         {nullptr, nullptr},
                                         {L"/usr/bin/beta", L"beta"}};
    for (unsigned i = 0; i < 4; ++i) {
        __VELK_pid p = {48, 10 + i, i, 7, 1000 + i, 99, i, {w(ptexts[i][0])}, {w(ptexts[i][1])}};
        const unsigned long long strings = s->strings_store->Size();
        ASSERT_EQ(0u, VELK_add_process(h, &p)) << i;
        EXPECT_EQ(i, p.reserved_for_legacy);
        if (ptexts[i][0] == nullptr) {
            EXPECT_EQ(strings, s->strings_store->Size()) << i;
            EXPECT_EQ(ptexts[i][1], p.pid_name.text) << i;
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
    // Modules: each text on its own; pid_index is the library's.
    const wchar_t* const mtexts[3][3] = {{L"/lib/a.so", L"a.so", nullptr},
                                         {nullptr, nullptr, nullptr},
                                         {L"/lib/b.so", L"b.so", L"third"}};
    for (unsigned i = 0; i < 3; ++i) {
        __VELK_module m = {144, 0, 10 + i, VELK_MODULE_HAS_LOAD_COUNT, 3 + i, 0x55, 0, 0, 0,
                           0x1000, 0x400000 + i, kNone, 5, 0, 0, 0,
                           {w(mtexts[i][0])}, {w(mtexts[i][1])}, {w(mtexts[i][2])}, {}};
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

    // The same walks, in this session from the stores and after reopening
    // from the file.
    auto check_walks = [&](const char* when) {
        velk_class* s = h->file_object;
        __VELK_mmap_tracker* maps[3] = {&s->pid_map, &s->tid_map, &s->module_map};
        for (int k = 0; k < 3; ++k) {
            SCOPED_TRACE(std::string(when) + " " + kEnumerator[k]);
            const unsigned n = (unsigned)want[k].size();
            log.clear();
            Walk w;
            EXPECT_EQ(VELK_E_NOT_READING, enumerate(h, k, &w, 0));
            EXPECT_TRUE(log.contains_format(std::string("<velk %u::") + kEnumerator[k] +
                                            ">read_section was not first called!\n"));
            ASSERT_EQ(0u, VELK_reading_section(h, kSection[k]));
            if (k == 0) {
                EXPECT_EQ(VELK_E_BAD_POINTER, VELK_enumerate_processes(h, nullptr, nullptr, 0));
            }
            // 0 stops at once; the window stays, and a start inside it maps
            // nothing. Then a whole walk from 0.
            w.answer = 0;
            ASSERT_EQ(0u, enumerate(h, k, &w, 1));
            const unsigned char* data = maps[k]->m_data;
            const unsigned mmaps = __VELK_mmap_tracker::m_num_mmaps;
            ASSERT_EQ(0u, enumerate(h, k, &w, n - 1));
            EXPECT_EQ(data, maps[k]->m_data);
            EXPECT_EQ(1u, maps[k]->m_first_entry);
            EXPECT_EQ(mmaps, __VELK_mmap_tracker::m_num_mmaps);
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
            // Another answer than 0 and 1 ends the walk and is returned as
            // is; the thread line names processes.
            w.answer = 7;
            EXPECT_EQ(7u, enumerate(h, k, &w, 0));
            EXPECT_EQ(4u, w.calls);
            EXPECT_TRUE(log.contains_format(std::string("<velk %u::") +
                                            kEnumerator[k == 2 ? 2 : 0] +
                                            ">callback returned an error, exiting with value 7\n"));
            ASSERT_EQ(0u, VELK_done_section(h, kSection[k]));
        }
        // Module records walk by the descriptors' size, which is cached.
        EXPECT_EQ(144u, s->module_record_size);
        for (const auto& t : texts) {
            const unsigned long long id = u64_at(want[t.kind][t.index], t.at);
            EXPECT_EQ(t.text ? t.text : "", id ? text_of(h, id) : "") << t.kind << t.index << t.at;
        }
    };
    check_walks("store");
    EXPECT_EQ(0u, s->sections_ptr->sfs_pid.length);  // still in the store
    ASSERT_EQ(0u, VELK_close(h));

    // Kinds 29, 30, 31: descriptor, records as added, marker, padding.
    const std::vector<unsigned char> f = read_file(name);
    const unsigned kinds[3] = {KIND_PID, KIND_TID, KIND_MODULE};
    const char* const markers[3] = {"end new pid section", "end new tid section",
                                    "end new module section"};
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE(markers[k]);
        const Slot slot = global_slot(f, kinds[k]);
        ASSERT_NE(0u, slot.at);
        EXPECT_EQ(want[k].size() * kSize[k], slot.length);
        EXPECT_EQ(want[k].size(), slot.number_entries);
        EXPECT_EQ(kSize[k], slot.entry_length);
        EXPECT_EQ(0u, slot.file_offset % 8);
        for (size_t i = 0; i < want[k].size(); ++i)
            EXPECT_EQ(want[k][i], slice(f, slot.file_offset + i * kSize[k], kSize[k])) << i;
        expect_ending(f, slot.file_offset + slot.length, markers[k]);
    }

    ASSERT_EQ(0u, open(name, VELK_OPEN_READ));
    check_walks("file");
    ASSERT_EQ(0u, VELK_close(h));
}

TEST_F(RecordsTest, ProcessLookupsAndADamagedCount)
{
    // Without a process section.
    ASSERT_EQ(0u, open(path("none.vk7"), kRwc));
    unsigned os_pid = 0;
    LogCapture log(0x80000000u);
    EXPECT_EQ(VELK_E_NO_PID_SECTION, h->file_object->helper_get_os_pid_from_pid_index(0, &os_pid));
    EXPECT_EQ(kNone, os_pid);
    EXPECT_TRUE(log.contains_format(
        "<velk %u::helper_get_os_pid_from_pid_index>pid record section doesn't exist!\n"));
    ASSERT_EQ(0u, VELK_close(h));

    Image f = build("c.vk7", 0, 5);
    ASSERT_EQ(0u, open(path("c.vk7"), VELK_OPEN_READ));
    velk_class* s = h->file_object;
    // One process at a time, into the shared slot; the section is done after.
    const __VELK_pid* one = nullptr;
    ASSERT_EQ(0u, s->utility_get_one_pid(3, &one));
    EXPECT_EQ(&g_pid, one);
    EXPECT_EQ(503u, one->pid_id);
    EXPECT_EQ(3u, one->reserved_for_legacy);
    ASSERT_EQ(0u, s->utility_get_one_pid(1, &one));
    EXPECT_EQ(501u, g_pid.pid_id);
    EXPECT_EQ(VELK_STATE_EXISTS, s->sections_ptr->section_state[VELK_SECTION_PROCESS]);
    ASSERT_EQ(0u, s->helper_get_os_pid_from_pid_index(4, &os_pid));
    EXPECT_EQ(504u, os_pid);
    // A failed lookup returns at once and leaves the section reading.
    EXPECT_EQ(VELK_E_BAD_READ_START, s->helper_get_os_pid_from_pid_index(5, &os_pid));
    EXPECT_EQ(VELK_STATE_READING, s->sections_ptr->section_state[VELK_SECTION_PROCESS]);
    EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));
    ASSERT_EQ(0u, VELK_close(h));

    // A damaged count: more records than the section's bytes hold.
    const Slot slot = global_slot(f.b, KIND_PID);
    ASSERT_EQ(240u, slot.length);
    f.put64(slot.at + 16, 6);
    ASSERT_EQ(0u, open_image(f, "c.vk7"));
    expect_bad_file(0, 5,
                    "<velk %u::helper_map_sfs>6 records of 48 bytes don't fit in a section of "
                    "240 bytes!\n");

    // A section moved off the 8-byte grid would hand out misaligned records.
    f.put64(slot.at + 16, 5);
    f.put64(slot.at + 8, slot.file_offset + 4);
    ASSERT_EQ(0u, open_image(f, "c.vk7"));
    expect_bad_file(0, 0, "<velk %u::helper_map_sfs>records of 48 bytes at offset " +
                              std::to_string(slot.file_offset + 4) + " are not 8-byte aligned!\n");
}

TEST_F(RecordsTest, ModuleRecordSizeComesFromTheDescriptors)
{
    // Without descriptors the entry length is 0, and each walk is refused,
    // the size asked for again each time.
    const Slot slot = global_slot(build("n.vk7", 2, 1).b, KIND_MODULE);
    EXPECT_EQ(144u, slot.length);
    EXPECT_EQ(0u, slot.entry_length);
    ASSERT_EQ(0u, open(path("n.vk7"), VELK_OPEN_READ));
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_MODULE));
    LogCapture log(0x80000000u);
    Walk w;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(VELK_E_NO_DESCRIPTORS, enumerate(h, 2, &w, 0));
        EXPECT_EQ(0u, h->file_object->module_record_size);
    }
    EXPECT_TRUE(log.contains_format("<velk %u::VELK_enumerate_modules>module record size is 0!\n"));
    EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    ASSERT_EQ(0u, VELK_close(h));

    // Descriptors of 200 bytes, and kind 31 emptied so that only the legacy
    // modules are left: a translated record can't be that large.
    Image f = build("big.vk7", 2, 1, 200);
    f.put64(global_slot(f.b, KIND_MODULE).at, 0);
    ASSERT_EQ(0u, open_image(f, "big.vk7"));
    expect_bad_file(2, 0, "<velk %u::helper_get_module_info_from_file>module record size 200 is "
                          "more than the 144 bytes of a translated record!\n");

    // Records of 100 bytes in the file would leave the 8-byte grid.
    build("odd.vk7", 2, 1, 100);
    ASSERT_EQ(0u, open(path("odd.vk7"), VELK_OPEN_READ));
    expect_bad_file(2, 0,
                    "<velk %u::helper_map_sfs>records of 100 bytes at offset %u are not 8-byte "
                    "aligned!\n");
}

TEST_F(RecordsTest, LegacyOnlyFileIsTranslatedOnce)
{
    const Image image = legacy_records_file();
    ASSERT_EQ(0u, open_image(image, "legacy.vk5"));
    velk_class* s = h->file_object;

    // Processes, whole, their ids checked through their texts; in a version
    // 5 file the thread section is read along.
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_PROCESS));
    Walk w;
    ASSERT_EQ(0u, enumerate(h, 0, &w, 0));
    ASSERT_EQ(3u, w.records.size());
    const __VELK_pid pw[3] = {{48, 100, 0x11, 0, 0x1122334455667788ull, 0, 0, {}, {}},
                              {48, 200, 0, 0, 0xFFFFFFECull, 1, 0, {}, {}},
                              {48, 300, 0, 0, 0, 2, 0, {}, {}}};
    const char* const ptexts[3] = {"/usr/bin/prog|prog", "init|init", "|"};
    for (unsigned i = 0; i < 3; ++i) {
        __VELK_pid got = as<__VELK_pid>(w.records[i]);
        EXPECT_EQ(ptexts[i], texts_of(h, got.pid_path, got.pid_name)) << i;
        got.pid_path.id = got.pid_name.id = 0;
        EXPECT_EQ(bytes_of(pw[i]), bytes_of(got)) << i;
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
    EXPECT_EQ(Rows(w.records.begin() + 1, w.records.end()), again.records);
    EXPECT_EQ(store, s->sections_ptr->new_pid_store->handle);
    EXPECT_EQ(strings, s->strings_store->Size());
    EXPECT_EQ(144u, s->sections_ptr->sfs_pid.length);

    // Threads: no text, the process word carried.
    EXPECT_EQ(VELK_STATE_READING, s->sections_ptr->section_state[VELK_SECTION_THREAD]);
    Walk tw;
    ASSERT_EQ(0u, enumerate(h, 1, &tw, 0));
    const __VELK_tid tw_want[2] = {{40, 100, 11, 1, 3, 0, 0, {}},
                                   {40, 200, 12, 0x10, 77, 1, 0, {}}};
    EXPECT_EQ((Rows{bytes_of(tw_want[0]), bytes_of(tw_want[1])}), tw.records);
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));

    // Modules, with the built-in record size of 144: the 64-bit one with
    // every carried flag and 64-bit counts; the 32-bit one with low halves
    // and 32-bit counts. A relative path is its own name; a third text
    // costs the path.
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_MODULE));
    Walk mw;
    ASSERT_EQ(0u, enumerate(h, 2, &mw, 0));
    ASSERT_EQ(4u, mw.records.size());
    const __VELK_module mwant[4] = {
        {144, 0, 100, 0x80 | 0x400 | 0x800 | 0x1000 | 0x8000 | 0x10000, 0x99, 0xABCD, 3, 0x33, 0,
         0x100000005ull, 0x7F0000001000ull, 0, kNone, 0x5A0A23, 0, 0x200000010ull, {}, {}, {}, {}},
        {144, 0, 200, 0x100 | 0x800 | 0x4000, 7, 0, 1, 0, 0, 0x1000, 0x2000, 0xFFFFFFFF, kNone,
         0x0480, 0, 0, {}, {}, {}, {}},
        {144, 0, 300, 0x8000, 0, 0, 0, 0, 0, 0, 0, 0, kNone, 0x100, 0, 0, {}, {}, {}, {}},
        {144, 0, 0, 0x8000, 0, 0, 0, 0, 0, 0, 0, 0, kNone, 0, 0, 0, {}, {}, {}, {}}};
    const char* const mtexts[4] = {"/lib/libc.so|libc.so", "lib/x.so|lib/x.so", "|b.dll",
                                   "rel.so|rel.so"};
    for (int i = 0; i < 4; ++i) {
        __VELK_module got = as<__VELK_module>(mw.records[i]);
        EXPECT_EQ(mtexts[i], texts_of(h, got.module_path, got.module_name)) << i;
        got.module_path.id = got.module_name.id = 0;
        EXPECT_EQ(bytes_of(mwant[i]), bytes_of(got)) << i;
    }
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    ASSERT_EQ(0u, VELK_close(h));
    EXPECT_EQ(image.b, read_file(path("legacy.vk5")));
}

TEST_F(RecordsTest, DamagedLegacySectionsAreRefused)
{
    // Each damage, the walk that meets it, and its line.
    const struct {
        size_t at;
        unsigned width;
        uint32_t value;
        int kind;
        const char* line;
    } cases[] = {
        {kPids + 40 + 32, 4, 135, 0,
         "pid_info_from_file>record 1 has a text of 5 bytes at 135, outside its section of 139 "
         "bytes!"},
        {kPids + 32, 4, 0xFFFFFFF0u, 0,
         "pid_info_from_file>record 0 has a text of 14 bytes at 4294967280, outside its section of "
         "139 bytes!"},
        {kPids + 38, 2, 15, 0,
         "pid_info_from_file>record 0 has a name at 15, past its text of 14 bytes!"},
        {16 + 20 + 8, 4, 4, 0,
         "pid_info_from_file>4 legacy records of 40 bytes don't fit in a section of 139 bytes!"},
        {16 + 40 + 8, 4, 3, 1,
         "tid_info_from_file>3 legacy records of 40 bytes don't fit in a section of 80 bytes!"},
        {kModules + 48, 2, 60, 2,
         "module_info_from_file>record 0 has a text of 60 bytes at 256, outside its section of 302 "
         "bytes!"},
        {kModules + 128 + 52, 4, 300, 2,
         "module_info_from_file>record 2 has a text of 6 bytes at 300, outside its section of 302 "
         "bytes!"},
        {kModules + 50, 2, 14, 2,
         "module_info_from_file>record 0 has a name at 14, past its text of 13 bytes!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        Image f = legacy_records_file();
        f.put(c.at, &c.value, c.width);
        ASSERT_EQ(0u, open_image(f, "damaged.vk5"));
        ASSERT_EQ(0u, VELK_reading_section(h, kSection[c.kind]));
        LogCapture log(0x80000000u);
        // Refused each time: a failed translation leaves no store behind.
        for (int i = 0; i < 2; ++i) {
            Walk w;
            EXPECT_EQ(VELK_E_BAD_FILE, enumerate(h, c.kind, &w, 0));
            EXPECT_EQ(0u, w.calls);
        }
        EXPECT_TRUE(log.contains_format(std::string("<velk %u::helper_get_") + c.line + "\n"));
        const velk_section_block* b = h->file_object->sections_ptr;
        const FILE_INFO_NODE* stores[3] = {b->new_pid_store, b->new_tid_store, b->new_module_store};
        const __VELK_sample_file_section_vk6* sfs[3] = {&b->sfs_pid, &b->sfs_tid, &b->sfs_module};
        EXPECT_EQ(-1, stores[c.kind]->handle);
        EXPECT_EQ(0u, sfs[c.kind]->length + sfs[c.kind]->number_entries);
        ASSERT_EQ(0u, VELK_done_section(h, kSection[c.kind]));
        ASSERT_EQ(0u, VELK_close(h));
    }
}

TEST_F(RecordsTest, ModuleSectionAboveOneWindowIsWalkedInWindows)
{
    const unsigned n = 233100;  // 33,566,400 bytes: more than one window of 0x2000000
    build("big.vk7", 2, n, 144);
    ASSERT_EQ(0u, open(path("big.vk7"), VELK_OPEN_READ));
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_MODULE));
    const unsigned per_window = 0x2000000 / 144;
    for (unsigned start : {0u, 1u, per_window - 1, per_window + 5}) {
        // Every record from the start on, once and in order, in windows of
        // at most 0x2000000 bytes.
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
    // The version 5 file above, bound by an older bind: legacy samples with
    // a header that has a sample part, and bit 0 of byte 392 of the header
    // ex set. The module's process word is then an index of a process.
    Image f = legacy_records_file();
    f.put32(12, 6);
    f.slot(96, 20, 64, 1432, 2, 32, KIND_LEGACY_SAMPLE_RECORD);
    f.slot(116, 20, 112, 1496, 1, 112, KIND_LEGACY_SAMPLE_RECORD_HEADER);
    f.put8(416 + 392, 0xC9);
    f.put32(1496, 2), f.put8(1496 + 4, 0x01), f.put32(1496 + 28, 32);
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
        LogCapture log(0x80000000u);
        Walk w;
        if (last == 1) {
            ASSERT_EQ(0u, enumerate(h, 2, &w, 0));
            ASSERT_EQ(4u, w.records.size());
            for (int i = 0; i < 4; ++i) {
                const __VELK_module m = as<__VELK_module>(w.records[i]);
                EXPECT_EQ(words[i], m.pid_index) << i;
                EXPECT_EQ(os_pids[i], m.pid) << i;
                EXPECT_EQ(0u, m.osid) << i;
            }
            EXPECT_EQ(VELK_STATE_EXISTS, b->section_state[VELK_SECTION_PROCESS]);
        } else {
            // An index past the process table ends the translation with the
            // lookup's status; the process section stays reading.
            EXPECT_EQ(VELK_E_BAD_READ_START, enumerate(h, 2, &w, 0));
            EXPECT_EQ(0u, w.calls);
            EXPECT_TRUE(log.contains_format("<velk %u::helper_map_velk_sfs>invalid read start!\n"));
            EXPECT_EQ(-1, b->new_module_store->handle);
            EXPECT_EQ(VELK_STATE_READING, b->section_state[VELK_SECTION_PROCESS]);
            EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));
        }
        ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
        ASSERT_EQ(0u, VELK_close(h));
    }
}
