// Processes, threads and modules in their new form: adding, the sections at close, walks by
// windows from the store and from the file, and the translation of legacy-only files.
#include <string.h>

#include <tuple>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

namespace {

const unsigned kRwc = VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE, kNone = 0xFFFFFFFFu;
// Per kind 0 (processes), 1 (threads) and 2 (modules).
const VELK_SECTION_IDENTIFIER kSection[3] = {VELK_SECTION_PROCESS, VELK_SECTION_THREAD,
                                             VELK_SECTION_MODULE};
const unsigned kSize[3] = {48, 40, 144};
using Rows = std::vector<std::vector<unsigned char>>;
using U = std::vector<unsigned long long>;

// What the callbacks saw: records, entries per call.
struct Walk {
    unsigned answer = 1;
    std::vector<unsigned> entries;
    Rows records;
};

template <typename R>
unsigned walk_cb(R* records, unsigned bytes, unsigned entries, void* context)
{
    Walk* w = static_cast<Walk*>(context);
    w->entries.push_back(entries);
    EXPECT_EQ(entries * sizeof(R), bytes);
    const unsigned char* p = reinterpret_cast<const unsigned char*>(records);
    for (unsigned i = 0; i < entries; ++i)
        w->records.emplace_back(p + i * sizeof(R), p + (i + 1) * sizeof(R));
    return w->answer;
}

unsigned enumerate(velk_handle* h, int kind, Walk* w, unsigned long long start)
{
    VELK_PROCESS_CALLBACK pids = walk_cb<__VELK_pid>;
    VELK_THREAD_CALLBACK tids = walk_cb<__VELK_tid>;
    VELK_MODULE_CALLBACK modules = walk_cb<__VELK_module>;
    return kind == 0   ? VELK_enumerate_processes(h, &pids, w, start)
           : kind == 1 ? VELK_enumerate_threads(h, &tids, w, start)
                       : VELK_enumerate_modules(h, &modules, w, start);
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

// A version 5 file with a header ex and only legacy processes (3), threads (2) and modules (3).
// Bound, it has legacy samples of a header with a sample part, and bit 0 of the header ex's byte
// 392 set: a module's process word is then the index of a process.
Image legacy_records_file(bool bound = false)
{
    // Processes: a 64-bit time and a path with its name at 9; a 32-bit time that wraps and a name
    // at 0; one without text. Threads without text.
    // clang-format off
    const PidRecord_s pids[3] = {{40, 0x09, 0, 100, 0, 0, 0,  0,  0x1122334455667788, 120, 14, 9},
                                 {40, 0,    0, 200, 1, 0, 10, 30, 0,                  134, 5,  0},
                                 {40, 0,    0, 300, 2, 0, 0,  0,  0,                  139, 0,  0}};
    const velk_legacy_tid_record tids[2] = {{40, 1, 0, 11, 0, 0, 5, 2, 0,  100, 0},
                                            {40, 8, 0, 12, 0, 0, 0, 0, 77, 200, 0}};
    // Modules: 64-bit, absolute path, 64-bit counts, every carried flag of bytes 0 and 1; 32-bit,
    // no load count, relative path with a name offset; a drive letter path with a third text.
    const velk_legacy_module_record modules[3] = {
        {64, 3, 0, 0x33, 0, 0xABCD, {0x23, 0x0A, 0x5A, 0}, 0x100000005, 0x7F0000001000,
         1, 0x10, 2, 192, 13, 5, 0, 0x99},
        {64, 5, 0, 0, 0, 0, {0x80, 0x04, 0, 0}, 0xAAAAAAAA00001000, 0xBBBBBBBB00002000,
         0, 7, 0xFFFFFFFF, 205, 9, 4, 0, 0},
        {64, 0, 0, 0, 6, 0, {0, 0x01, 0, 0}, 0, 0, 2, 0, 0, 214, 11, 5, 225, 0}};
    // clang-format on
    Image f;
    f.put(0, "SampleF ", 8);
    f.put32(8, 27);
    f.put32(12, 4);
    f.slot(16, 20, 460, 416, 1, 460, KIND_LEGACY_HEADER_EX);
    f.slot(36, 20, 139, kPids, 3, 40, KIND_LEGACY_PID_RECORD);
    f.slot(56, 20, 80, kTids, 2, 40, KIND_LEGACY_TID_RECORD);
    f.slot(76, 20, 231, kModules, 3, 64, KIND_LEGACY_MODULE_RECORD);
    f.put32(416, 2);  // version 2.0
    f.put(kPids, pids, sizeof(pids));
    f.put(kPids + 120, "/usr/bin/prog\0init", 19);
    f.put(kTids, tids, sizeof(tids));
    f.put(kModules, modules, sizeof(modules));
    f.put(kModules + 192, "/lib/libc.so\0lib/x.so\0C:\\a\\b.dll\0extra", 39);
    f.b.resize(kModules + 231 + 24, 0);
    if (bound) {
        f.put32(12, 6);
        f.slot(96, 20, 64, 1432, 2, 32, KIND_LEGACY_SAMPLE_RECORD);
        f.slot(116, 20, 112, 1496, 1, 112, KIND_LEGACY_SAMPLE_RECORD_HEADER);
        f.put8(416 + 392, 0xC9);
        f.put32(1496, 2);
        f.put8(1496 + 4, 0x01);
        f.put32(1496 + 28, 32);
        f.b.resize(1496 + 112 + 24, 0);
    }
    return f;
}

// Checks translated records whole. Their path and name ids, at `path_at` and 8 bytes on, are
// checked through their texts ("path|name", id 0 giving "") and then zeroed.
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
    // Writes a new file of `n` modules (refs i), with descriptors of `length` bytes unless 0.
    Image build(const std::string& name, unsigned n, unsigned length = 0)
    {
        EXPECT_EQ(0u, open(path(name), kRwc));
        EXPECT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
        __VELK_module m = {};
        m.module_size = 144;
        for (m.module_ref = 0; m.module_ref < n; ++m.module_ref)
            EXPECT_EQ(0u, VELK_add_module(h, &m));
        EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
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
    // The section protocol's refusals, shown on processes.
    LogCapture log(0x80000000u);
    __VELK_pid none = {};
    Walk refused;
    EXPECT_EQ((U{VELK_E_NOT_WRITING, VELK_E_NOT_READING}),
              (U{VELK_add_process(h, &none), enumerate(h, 0, &refused, 0)}));
    for (int k = 0; k < 3; ++k)
        ASSERT_EQ(0u, VELK_writing_section(h, kSection[k]));
    EXPECT_EQ(VELK_E_NOTHING_TO_WRITE, VELK_add_process(h, nullptr));
    for (const char* line : {"VELK_add_process>this section already exists or write_section was "
                             "not first called!\n",
                             "VELK_enumerate_processes>read_section was not first called!\n",
                             "VELK_add_process>nothing to write!\n"})
        EXPECT_TRUE(log.contains_format(std::string("<velk %u::") + line)) << line;
    // Processes: both texts, a name without a path (kept as given), neither. Path and name of each.
    Rows want[3];
    const wchar_t* const ptexts[6] = {L"/bin/a", L"a", nullptr, L"orphan", nullptr, nullptr};
    for (unsigned i = 0; i < 3; ++i) {
        const wchar_t* const* t = ptexts + 2 * i;
        __VELK_pid p = {48, 10 + i, i, 7, 1000 + i, 99, i, {w(t[0])}, {w(t[1])}};
        ASSERT_EQ(0u, VELK_add_process(h, &p)) << i;
        EXPECT_EQ(i, p.reserved_for_legacy);
        EXPECT_TRUE(t[0] ? p.pid_path.id >> 63 == 1 : p.pid_name.text == t[1]) << i;
        want[0].push_back(bytes_of(p));
    }
    // Threads, one without a name; modules without texts and with all three.
    const wchar_t* const tnames[3] = {L"worker", nullptr, L"main"};
    for (unsigned i = 0; i < 3; ++i) {
        __VELK_tid t = {40, 10 + i, 20 + i, 1, 5 + i, 0, 0, {w(tnames[i])}};
        ASSERT_EQ(0u, VELK_add_thread(h, &t)) << i;
        EXPECT_EQ(i, t.reserved_for_legacy);
        want[1].push_back(bytes_of(t));
    }
    const wchar_t* const mtexts[6] = {nullptr, nullptr, nullptr, L"/lib/b.so", L"b.so", L"third"};
    for (unsigned i = 0; i < 2; ++i) {
        const wchar_t* const* t = mtexts + 3 * i;
        __VELK_module m = {144, 0, 10 + i,    0x8000,       3 + i,     0x55, 0,
                           0,   0, 0x1000,    0x400000 + i, kNone,     5,    0,
                           0,   0, {w(t[0])}, {w(t[1])},    {w(t[2])}, {}};
        ASSERT_EQ(0u, VELK_add_module(h, &m)) << i;
        EXPECT_EQ(kNone, m.pid_index);
        want[2].push_back(bytes_of(m));
    }
    for (int k = 0; k < 3; ++k)
        ASSERT_EQ(0u, VELK_done_section(h, kSection[k]));
    add_module_descriptors(h);
    // Text ids in the records as added: kind, record, offset, text (null: id 0).
    const std::tuple<int, unsigned, unsigned, const char*> texts[] = {
        {0, 0, 32, "/bin/a"},    {0, 0, 40, "a"},    {1, 0, 32, "worker"}, {1, 1, 32, nullptr},
        {2, 1, 80, "/lib/b.so"}, {2, 1, 88, "b.so"}, {2, 1, 96, "third"}};

    auto check_walks = [&](const char* when) {
        for (int k = 0; k < 3; ++k) {
            SCOPED_TRACE(std::string(when) + " " + std::to_string(k));
            const unsigned n = (unsigned)want[k].size();
            Walk w;
            ASSERT_EQ(0u, VELK_reading_section(h, kSection[k]));
            // 0 stops at once, from a start inside and from the last record; then a whole walk.
            w.answer = 0;
            ASSERT_EQ(0u, enumerate(h, k, &w, 1));
            ASSERT_EQ(0u, enumerate(h, k, &w, n - 1));
            w.answer = 1;
            ASSERT_EQ(0u, enumerate(h, k, &w, 0));
            EXPECT_EQ((std::vector<unsigned>{n - 1, 1, n}), w.entries);
            Rows seen(want[k].begin() + 1, want[k].end());
            seen.push_back(want[k][n - 1]);
            seen.insert(seen.end(), want[k].begin(), want[k].end());
            EXPECT_EQ(seen, w.records);
            EXPECT_EQ(VELK_E_BAD_READ_START, enumerate(h, k, &w, n));
            w.answer = 7;
            EXPECT_EQ(7u, enumerate(h, k, &w, 0));
            EXPECT_EQ(4u, w.entries.size());
            ASSERT_EQ(0u, VELK_done_section(h, kSection[k]));
        }
        for (const auto& [kind, index, at, text] : texts) {
            const unsigned long long id = u64_at(want[kind][index], at);
            EXPECT_EQ(text ? text : "", id ? text_of(h, id) : "") << kind << index << at;
        }
    };
    check_walks("store");
    ASSERT_EQ(0u, VELK_close(h));

    // Kinds 29, 30, 31: slot, records as added, marker, padding.
    const std::vector<unsigned char> f = read_file(name);
    const unsigned kinds[3] = {KIND_PID, KIND_TID, KIND_MODULE};
    const std::string names[3] = {"pid", "tid", "module"};
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE(names[k]);
        const Slot slot = global_slot(f, kinds[k]);
        const unsigned long long n = want[k].size();
        ASSERT_NE(0u, slot.at);
        EXPECT_EQ((U{n * kSize[k], n, kSize[k], 0}),
                  (U{slot.length, slot.number_entries, slot.entry_length, slot.file_offset % 8}));
        for (size_t i = 0; i < n; ++i)
            EXPECT_EQ(want[k][i], slice(f, slot.file_offset + i * kSize[k], kSize[k])) << i;
        expect_ending(f, slot.file_offset + slot.length, "end new " + names[k] + " section");
    }
    ASSERT_EQ(0u, open(name, VELK_OPEN_READ));
    check_walks("file");
    ASSERT_EQ(0u, VELK_close(h));
}

TEST_F(RecordsTest, DamagedRecordSectionsAreRefused)
{
    // Descriptors of 200 bytes exceed a translated record (kind 31 emptied: legacy modules only).
    const Image mods = build("c.vk7", 5, 144), plain = build("n.vk7", 1);
    Image big = build("big.vk7", 1, 200);
    big.put64(global_slot(big.b, KIND_MODULE).at, 0);
    const Image legacy = legacy_records_file();
    const Slot p = global_slot(mods.b, KIND_MODULE);
    const std::string moved = std::to_string(p.file_offset + 4), map = "helper_map_sfs>";
    const std::string pid = "helper_get_pid_info_from_file>";
    const std::string module = "helper_get_module_info_from_file>";
    // A file, the damage put into it (none when `width` is 0), the kind walked, status and line.
    const std::tuple<const Image*, size_t, size_t, uint64_t, int, unsigned, std::string> cases[] = {
        {&mods, p.at + 16, 8, 6, 2, VELK_E_BAD_FILE,
         map + "6 records of 144 bytes don't fit in a section of 720 bytes!"},
        {&mods, p.at + 8, 8, p.file_offset + 4, 2, VELK_E_BAD_FILE,
         map + "records of 144 bytes at offset " + moved + " are not 8-byte aligned!"},
        {&plain, 0, 0, 0, 2, VELK_E_NO_DESCRIPTORS,
         "VELK_enumerate_modules>module record size is 0!"},
        {&big, 0, 0, 0, 2, VELK_E_BAD_FILE,
         module + "module record size 200 is more than the 144 bytes of a translated record!"},
        {&legacy, kPids + 40 + 32, 4, 135, 0, VELK_E_BAD_FILE,
         pid + "record 1 has a text of 5 bytes at 135, outside its section of 139 bytes!"},
        {&legacy, kPids + 32, 4, 0xFFFFFFF0u, 0, VELK_E_BAD_FILE,
         pid + "record 0 has a text of 14 bytes at 4294967280, outside its section of 139 bytes!"},
        {&legacy, kPids + 38, 2, 15, 0, VELK_E_BAD_FILE,
         pid + "record 0 has a name at 15, past its text of 14 bytes!"},
        {&legacy, 16 + 20 + 8, 4, 4, 0, VELK_E_BAD_FILE,
         pid + "4 legacy records of 40 bytes don't fit in a section of 139 bytes!"},
        {&legacy, kModules + 128 + 52, 4, 228, 2, VELK_E_BAD_FILE,
         module + "record 2 has a text of 6 bytes at 228, outside its section of 231 bytes!"},
    };
    for (const auto& [image, at, width, value, kind, status, line] : cases) {
        SCOPED_TRACE(line);
        Image f = *image;
        f.put(at, &value, width);
        ASSERT_EQ(0u, open_image(f, "damaged"));
        ASSERT_EQ(0u, VELK_reading_section(h, kSection[kind]));
        LogCapture log(0x80000000u);
        // Refused each time before any callback: no store is left behind.
        for (int i = 0; i < 2; ++i) {
            Walk w;
            EXPECT_EQ(status, enumerate(h, kind, &w, 0));
            EXPECT_TRUE(w.entries.empty());
        }
        EXPECT_TRUE(log.contains_format("<velk %u::" + line + "\n"));
        ASSERT_EQ(0u, VELK_done_section(h, kSection[kind]));
        ASSERT_EQ(0u, VELK_close(h));
    }
}

TEST_F(RecordsTest, LegacyOnlyFileIsTranslatedOnce)
{
    // Module process words: the process unbound, the index of one bound.
    const uint32_t words[3] = {1, 0, 2}, os_pids[3] = {200, 100, 300};
    for (const bool bound : {false, true}) {
        SCOPED_TRACE(bound);
        const Image image = legacy_records_file(bound);
        ASSERT_EQ(0u, open_image(image, "legacy.vk5"));
        ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_PROCESS));
        Walk w;
        ASSERT_EQ(0u, enumerate(h, 0, &w, 0));
        const __VELK_pid pw[3] = {{48, 100, 0x11, 0, 0x1122334455667788ull, 0, 0, {}, {}},
                                  {48, 200, 0, 0, 0xFFFFFFECull, 1, 0, {}, {}},
                                  {48, 300, 0, 0, 0, 2, 0, {}, {}}};
        expect_translated(h, w.records, {bytes_of(pw[0]), bytes_of(pw[1]), bytes_of(pw[2])},
                          {"/usr/bin/prog|prog", "init|init", "|"}, 32);

        // The second walk maps the store again and translates nothing more.
        const unsigned long long strings = h->file_object->strings_store->Size();
        ASSERT_EQ(0u, h->file_object->pid_map.Unmap_File());
        Walk again;
        ASSERT_EQ(0u, enumerate(h, 0, &again, 1));
        EXPECT_EQ(Rows(w.records.begin() + 1, w.records.end()), again.records);
        EXPECT_EQ(strings, h->file_object->strings_store->Size());

        Walk tw;
        ASSERT_EQ(0u, enumerate(h, 1, &tw, 0));
        const __VELK_tid tw_want[2] = {{40, 100, 11, 1, 3, 0, 0, {}},
                                       {40, 200, 12, 0x10, 77, 1, 0, {}}};
        EXPECT_EQ((Rows{bytes_of(tw_want[0]), bytes_of(tw_want[1])}), tw.records);
        ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));

        // Modules: 64-bit counts whole, 32-bit in low halves; a third text costs the path.
        ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_MODULE));
        Walk mw;
        ASSERT_EQ(0u, enumerate(h, 2, &mw, 0));
        const unsigned all = 0x80 | 0x400 | 0x800 | 0x1000 | 0x8000 | 0x10000;
        const unsigned bits = 0x100 | 0x800 | 0x4000;
        __VELK_module mwant[3] = {
            {144, 0, 0,        all, 0x99,        0xABCD, 3,  0x33, 0, 0x100000005, 0x7F0000001000,
             0,   0, 0x5A0A23, 0,   0x200000010, {},     {}, {},   {}},
            {144,    0,          0, bits,   7, 0, 1,  0,  0,  0x1000,
             0x2000, 0xFFFFFFFF, 0, 0x0480, 0, 0, {}, {}, {}, {}},
            {144, 0, 0, 0x8000, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x100, 0, 0, {}, {}, {}, {}}};
        for (int i = 0; i < 3; ++i) {
            mwant[i].pid = bound ? os_pids[i] : words[i];
            mwant[i].pid_index = bound ? words[i] : kNone;
        }
        expect_translated(h, mw.records,
                          {bytes_of(mwant[0]), bytes_of(mwant[1]), bytes_of(mwant[2])},
                          {"/lib/libc.so|libc.so", "lib/x.so|lib/x.so", "|b.dll"}, 80);
        ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
        ASSERT_EQ(0u, VELK_close(h));
        EXPECT_EQ(image.b, read_file(path("legacy.vk5")));
    }
    // Bound, an index past the processes: the lookup's status, no store, processes left reading.
    Image f = legacy_records_file(true);
    f.put32(kModules + 2 * 64 + 32, 3);
    ASSERT_EQ(0u, open_image(f, "bound.vk5"));
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_MODULE));
    Walk none;
    EXPECT_EQ(VELK_E_BAD_READ_START, enumerate(h, 2, &none, 0));
    EXPECT_TRUE(none.entries.empty());
    EXPECT_EQ(-1, h->file_object->sections_ptr->new_module_store->handle);
    EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    ASSERT_EQ(0u, VELK_close(h));
}

TEST_F(RecordsTest, ModuleSectionAboveOneWindowIsWalkedInWindows)
{
    const unsigned n = 233100;  // 33,566,400 bytes: more than one window of 0x2000000
    build("big.vk7", n, 144);
    ASSERT_EQ(0u, open(path("big.vk7"), VELK_OPEN_READ));
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_MODULE));
    // Every record from the start on, once and in order, in windows of at most 0x2000000 bytes.
    const unsigned per_window = 0x2000000 / 144;
    for (unsigned start : {0u, 1u, per_window - 1, per_window + 5}) {
        SCOPED_TRACE(start);
        Walk w;
        ASSERT_EQ(0u, enumerate(h, 2, &w, start));
        EXPECT_EQ(n - start > per_window ? 2u : 1u, w.entries.size());
        EXPECT_LE(w.entries[0], per_window);
        ASSERT_EQ(n - start, w.records.size());
        size_t misplaced = 0;
        for (size_t i = 0; i < w.records.size(); ++i)
            misplaced += u32_at(w.records[i], 24) != start + i;  // module_ref
        EXPECT_EQ(0u, misplaced);
    }
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    ASSERT_EQ(0u, VELK_close(h));
}
