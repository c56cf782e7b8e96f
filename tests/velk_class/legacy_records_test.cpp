// Processes, threads and modules in their legacy form: the sections at close
// with their text offsets, the module flag bytes, the windowed offset pass,
// and the legacy-bound bit.
#include <string.h>

#include <string>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

namespace {

const unsigned kRwc = VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE;
using U = std::vector<unsigned long long>;

// Checks kind's slot in the section table and returns the section's file
// offset.
size_t expect_section(const std::vector<unsigned char>& f, unsigned kind, uint64_t length,
                      uint64_t entries, uint32_t entry_length)
{
    const Slot s = legacy_slot(f, kind);
    EXPECT_NE(0u, s.at) << kind;
    EXPECT_EQ((U{length, entries, entry_length}), (U{s.length, s.number_entries, s.entry_length}));
    EXPECT_LE(s.file_offset + length, f.size()) << kind;
    return (size_t)s.file_offset;
}

// `n` bytes of `f` at `at` as text; up to the first NUL when `n` is 0.
std::string text_at(const std::vector<unsigned char>& f, size_t at, size_t n = 0)
{
    return n ? std::string((const char*)&f[at], n) : std::string((const char*)&f[at]);
}

// Adds process i: only bit 0 of its flags is carried, and only the low half
// of its time.
void add_pid(velk_handle* h, unsigned i, const wchar_t* path, const wchar_t* name)
{
    const uint32_t flags = (i & 1) ? 0x1011u : 0x1010u;
    __VELK_pid r = {48, 100 + i, flags, 0, 0x700000000ull + 1000 + i, 0, 0, {w(path)}, {w(name)}};
    ASSERT_EQ(0u, VELK_add_process(h, &r)) << i;
}

class LegacyRecordsTest : public TempDirTest {
protected:
    unsigned open(const std::string& n, unsigned m) { return VELK_open(&h, widen(n).c_str(), m); }
    velk_handle* h = nullptr;
};

}  // namespace

TEST_F(LegacyRecordsTest, ProcessSectionsCarryTheirOffsetsTextsAndMarker)
{
    // Processes, and where their text lands: string_offset, string_length
    // and name_offset.
    struct Proc {
        const wchar_t *path, *name;
        uint32_t offset;
        uint16_t length, name_offset;
    };
    const struct {
        std::vector<Proc> procs;
        std::string texts;
    } cases[] = {
        {{{L"/bin/ls", L"ls", 40, 8, 5}}, std::string("/bin/ls\0", 8)},
        {{{L"/bin/abcd", L"abcd", 80, 10, 5}, {L"/usr/local/bin/tool", L"tool", 90, 20, 15}},
         std::string("/bin/abcd\0/usr/local/bin/tool\0", 30)},
        // Without both texts there is no text, but the offset still runs;
        // a name that is not the path's tail gives the plain difference.
        {{{nullptr, nullptr, 160, 0, 0},
          {L"/a", nullptr, 160, 0, 0},
          {L"/x/y", L"longername", 160, 5, 0xFFFA},
          {nullptr, L"n", 165, 0, 0}},
         std::string("/x/y\0", 5)},
    };
    std::vector<std::string> files;
    for (const auto& c : cases) {
        files.push_back("p" + std::to_string(files.size()) + ".vk7");
        SCOPED_TRACE(files.back());
        ASSERT_EQ(0u, open(path(files.back()), kRwc));
        ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_PROCESS));
        for (unsigned i = 0; i < c.procs.size(); ++i)
            add_pid(h, i, c.procs[i].path, c.procs[i].name);
        ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));
        // The stores lie under the session's temporary prefix.
        const std::string temp = h->file_object->temp_path;
        for (const char* store : {"_legacy_pid_record.tmp", "_legacy_pr_strings.tmp"})
            EXPECT_TRUE(file_exists(temp + store)) << store;
        ASSERT_EQ(0u, VELK_close(h));

        const std::vector<unsigned char> f = read_file(path(files.back()));
        const size_t n = c.procs.size(), end = 40 * n + c.texts.size();
        const size_t at = expect_section(f, KIND_LEGACY_PID_RECORD, end, n, 40);
        for (unsigned i = 0; i < n; ++i) {
            const Proc& p = c.procs[i];
            const PidRecord_s want = {40, (uint8_t)(i & 1), 0, 100 + i,  i,        0,
                                      0,  1000 + i,         0, p.offset, p.length, p.name_offset};
            EXPECT_EQ(bytes_of(want), slice(f, at + 40 * i, 40)) << i;
        }
        EXPECT_EQ(c.texts, text_at(f, at + 40 * n, c.texts.size()));
        expect_ending(f, at + end, "end legacy pid strings");
        // Stores and update files are gone; only the sample files are left.
        EXPECT_EQ(files, list_dir(dir_));
    }
}

TEST_F(LegacyRecordsTest, ModuleFlagBytesEventWordsTextsAndThreadSection)
{
    // What is added; the segment byte, flag bytes (as a little-endian word),
    // text lengths and file offsets it gives.
    const struct Mod {
        unsigned flags, legacy_flags, segment_type;
        const wchar_t *path, *name, *extra;
        uint8_t seg;
        uint32_t flag_bytes;
        uint16_t length, name_offset, extra_length;
        uint32_t offset, extra_offset;
    } mods[] = {
        {0, 0, 3, L"/lib/a.so", L"a.so", nullptr, 3, 0x08, 10, 5, 0, 448, 0},
        {0x1000 | 0x800 | 0x10000, 0, 1, L"/lib/bb.so", L"bb.so", nullptr, 1, 0x2B, 11, 5, 0, 458,
         0},
        {0x400 | 0x80 | 0x4000 | 0x8000, 0, 6, L"/c", L"c", nullptr, 6, 0x0A08, 3, 1, 0, 469, 0},
        // Bits of the legacy word without a module flag are carried; those
        // with one follow module_flags.
        {0, 0xAABBFFFF, 0, L"/d/e.so", L"e.so", L"extra!", 0, 0xAABBF5DC, 8, 3, 7, 472, 480},
        // No texts: a third-text bit of the legacy word is cleared.
        {0x200, 0x0100, 0, nullptr, nullptr, nullptr, 0, 0x08, 0, 0, 0, 487, 0},
        // A null name is an empty name at the path's end.
        {0, 0, 0, L"/only/path", nullptr, L"x", 0, 0x0108, 11, 10, 2, 487, 498},
        {0, 0, 0, L"/z", L"z", nullptr, 0, 0x08, 3, 1, 0, 500, 0},
    };
    const std::string texts("/lib/a.so\0/lib/bb.so\0/c\0/d/e.so\0extra!\0/only/path\0x\0/z\0", 55);
    const unsigned count = sizeof(mods) / sizeof(mods[0]);
    const uint64_t load = 0x1111222233334444ull, unload = 0x5555666677778888ull;
    const uint64_t base = 0x7F0000000000ull;

    const std::string name = path("m.vk7");
    ASSERT_EQ(0u, open(name, kRwc));
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
    for (unsigned i = 0; i < count; ++i) {
        const Mod& m = mods[i];
        __VELK_module r = {
            144,     0,      500 + i,      m.flags,     load,         0xC0DE0 + i, m.segment_type,
            0x12345, 0,      0x100000 + i, base + i,    0x9999AAAA,   0,           m.legacy_flags,
            0,       unload, {w(m.path)},  {w(m.name)}, {w(m.extra)}, {}};
        ASSERT_EQ(0u, VELK_add_module(h, &r)) << i;
    }
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_THREAD));
    for (unsigned i = 0; i < 2; ++i) {
        __VELK_tid t = {40, 77, 900 + i, 0x10 | i, 0x500000007ull + i, 0, 0, {w(L"worker")}};
        ASSERT_EQ(0u, VELK_add_thread(h, &t));
    }
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_THREAD));
    // The module and thread stores lie beside the sample file.
    for (const char* store : {"_legacy_module_record", "_legacy_module_strings", "_legacy_tid"})
        EXPECT_TRUE(file_exists(name + store + ".tmp")) << store;
    ASSERT_EQ(0u, VELK_close(h));

    const std::vector<unsigned char> f = read_file(name);
    const size_t at = expect_section(f, KIND_LEGACY_MODULE_RECORD, 64 * count + 55, count, 64);
    for (unsigned i = 0; i < count; ++i) {
        const auto& [flags, legacy_flags, segment_type, module_path, module_name, extra, seg,
                     flag_bytes, length, name_offset, extra_length, offset, extra_offset] = mods[i];
        // 64-bit counts: sc_unload in the event words and sc_load behind;
        // otherwise sc_load and sc_unload_32.
        const bool wide = (flags & 0x10000) != 0;
        const uint32_t low = wide ? 0x77778888u : 0x33334444u;
        const uint32_t high = wide ? 0x55556666u : 0x9999AAAAu;
        const uint64_t load_64 = wide ? load : 0;
        velk_legacy_module_record want = {
            64,     seg,          0,           0x2345,       extra_length, 0xC0DE0 + i,
            {},     0x100000 + i, base + i,    500 + i,      low,          high,
            offset, length,       name_offset, extra_offset, load_64};
        memcpy(want.flags_word, &flag_bytes, 4);
        EXPECT_EQ(bytes_of(want), slice(f, at + 64 * i, 64)) << i;
    }
    EXPECT_EQ(texts, text_at(f, at + 64 * count, 55));
    expect_ending(f, at + 64 * count + 55, "end legacy module strings");

    // Threads: no text, and the section's own marker.
    const size_t t = expect_section(f, KIND_LEGACY_TID_RECORD, 80, 2, 40);
    for (unsigned i = 0; i < 2; ++i) {
        const velk_legacy_tid_record want = {40, (uint8_t)i, 0, 900 + i, i, 0, 0, 7 + i, 0, 77, 0};
        EXPECT_EQ(bytes_of(want), slice(f, t + 40 * i, 40)) << i;
    }
    expect_ending(f, t + 80, "end legacy tid section");
    EXPECT_EQ(std::vector<std::string>{"m.vk7"}, list_dir(dir_));
}

TEST_F(LegacyRecordsTest, OffsetPassWalksWindowsAndRefusesAnEmptyOne)
{
    const std::string name = path("w.vk7");
    ASSERT_EQ(0u, open(name, kRwc));
    velk_class* s = h->file_object;
    velk_section_block* b = s->sections_ptr;
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_PROCESS));
    add_pid(h, 0, L"/p/one", L"one");
    add_pid(h, 1, L"/p/three", L"three");
    add_pid(h, 2, L"/p/2", L"2");
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
    for (const wchar_t* extra : {L"third", (const wchar_t*)nullptr}) {
        const wchar_t* module_path = extra ? L"/m/first.so" : L"/m/2.so";
        __VELK_module m = {
            144,        0,          0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, {w(module_path)},
            {w(L"so")}, {w(extra)}, {}};
        ASSERT_EQ(0u, VELK_add_module(h, &m));
    }
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));

    // The offset helpers refuse an update file they can't create.
    LogCapture log(0xF0000000u);
    long long update = -1;
    unsigned next = 0;
    char bad[] = "/nonexistent-dir/x_leg_pr_updated.tmp";
    EXPECT_EQ(VELK_E_OPEN_FAILED,
              s->helper_update_pid_string_offsets(nullptr, &update, 0, bad, &next));
    EXPECT_EQ(VELK_E_OPEN_FAILED,
              s->helper_update_module_string_offsets(nullptr, &update, 0, bad, &next));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::helper_update_pid_string_offsets>VELK_OSI_Open_File failed\n"));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::helper_update_module_string_offsets>VELK_OSI_Open_File failed\n"));
    EXPECT_EQ(-1, update);

    // More than 0x2000000 records make a window of no records, which can't
    // be mapped: nothing reaches the file and no table slot is used.
    const unsigned long long size = VELK_OSI_Get_File_Size(s->file_handle);
    const unsigned slot = b->legacy_next_slot;
    b->sfs_legacy_pid_record.number_entries = b->sfs_legacy_module_record.number_entries =
        0x2000001;
    EXPECT_EQ(VELK_E_MAP_FAILED, s->write_to_file_legacy_pid_section());
    EXPECT_EQ(VELK_E_MAP_FAILED, s->write_to_file_legacy_module_section());
    EXPECT_EQ(size, VELK_OSI_Get_File_Size(s->file_handle));
    EXPECT_EQ(slot, b->legacy_next_slot);
    EXPECT_FALSE(file_exists(name + "_leg_pr_updated.tmp"));
    EXPECT_FALSE(file_exists(name + "_leg_mr_updated.tmp"));

    // A count above 0x1000000 makes windows of one record: the pass walks the
    // store record by record, carries the running offset from window to
    // window, and walks no further than the store's records.
    b->sfs_legacy_pid_record.number_entries = b->sfs_legacy_module_record.number_entries =
        0x1000001;
    log.clear();
    ASSERT_EQ(0u, VELK_close(h));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::write_to_file_legacy_pid_section>%u records counted, but the "
        "store holds only %u here!\n"));
    const std::vector<unsigned char> f = read_file(name);
    const size_t p = expect_section(f, KIND_LEGACY_PID_RECORD, 120 + 7 + 9 + 5, 0x1000001, 40);
    EXPECT_EQ((U{120, 127, 136}), (U{u32_at(f, p + 32), u32_at(f, p + 72), u32_at(f, p + 112)}));
    EXPECT_EQ("/p/2", text_at(f, p + 136));
    expect_ending(f, p + 141, "end legacy pid strings");
    const size_t m = expect_section(f, KIND_LEGACY_MODULE_RECORD, 128 + 12 + 6 + 8, 0x1000001, 64);
    // The first module's path and third text, the second's path.
    EXPECT_EQ((U{128, 140, 146}), (U{u32_at(f, m + 44), u32_at(f, m + 52), u32_at(f, m + 108)}));
    EXPECT_EQ("/m/first.so|third|/m/2.so",
              text_at(f, m + 128) + "|" + text_at(f, m + 140) + "|" + text_at(f, m + 146));
    EXPECT_EQ(std::vector<std::string>{"w.vk7"}, list_dir(dir_));
}

TEST_F(LegacyRecordsTest, BoundStateDecidesBitThreeAndItsFailureFailsTheAdd)
{
    // A version 5 file with processes, threads, legacy samples and a sample
    // record header whose sample part comes first (records of 48 bytes,
    // time stamps of 8), opened for writing; the header ex's bound byte as
    // given.
    auto open_v5_file = [&](const std::string& name, unsigned char bound_byte) {
        Image f;
        f.put(0, "SampleF ", 8);
        f.put32(8, 27);
        f.put32(12, 20);
        f.slot(16, 20, 460, 416, 1, 460, KIND_LEGACY_HEADER_EX);
        f.slot(56, 20, 96, 1360, 2, 48, KIND_LEGACY_SAMPLE_RECORD);
        f.slot(96, 20, 40, 1504, 1, 40, KIND_LEGACY_PID_RECORD);
        f.slot(116, 20, 40, 1544, 1, 40, KIND_LEGACY_TID_RECORD);
        f.slot(136, 20, 112, 1584, 1, 112, KIND_LEGACY_SAMPLE_RECORD_HEADER);
        f.put32(416, 2);  // version 2.0
        f.put8(416 + 392, bound_byte);
        f.put32(1584 + 4, 1);
        f.put32(1584 + 28, 48);
        f.put32(1584 + 32, 8);
        f.b.resize(1584 + 112, 0);
        write_file(path(name), f.b);
        return open(path(name), VELK_OPEN_READ | VELK_OPEN_WRITE);
    };
    // Adds a module whose legacy word has the bit that the bound state
    // decides; an abort leaves the handle and its session to the caller.
    auto add_module = [&]() {
        __VELK_module m = {
            144,          0,  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x08, 0, 0, {w(L"/lib/m.so")},
            {w(L"m.so")}, {}, {}};
        return VELK_add_module(h, &m);
    };
    // A legacy-bound file: modules added to it have bit 3 of byte 0 clear;
    // the same file not bound has it set.
    for (unsigned char bound_byte : {201, 200}) {
        SCOPED_TRACE((int)bound_byte);
        ASSERT_EQ(0u, open_v5_file("b" + std::to_string(bound_byte) + ".vk5", bound_byte));
        ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
        EXPECT_EQ(0u, add_module());
        const std::vector<unsigned char> store =
            read_file(h->file_object->sections_ptr->legacy_module_record_store->path);
        ASSERT_EQ(64u, store.size());
        EXPECT_EQ(bound_byte == 201 ? 0x00 : 0x08, store[12]);
        EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
        EXPECT_EQ(0u, VELK_abort_cleanup_and_close(h));
        free_kept(h);
    }

    // With stream 0 being written the bound state can't be asked for: the
    // add fails with that status, after the count went up and before any
    // record was stored.
    ASSERT_EQ(0u, open_v5_file("writing.vk5", 201));
    ASSERT_EQ(0u, VELK_writing_stream(h, 0));
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
    EXPECT_EQ(VELK_E_STREAM_STATE, add_module());
    const velk_section_block* b = h->file_object->sections_ptr;
    EXPECT_EQ((U{1, 0, 0}),
              (U{b->sfs_legacy_module_record.number_entries, b->legacy_module_record_store->Size(),
                 b->legacy_module_strings_store->Size()}));
    EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    EXPECT_EQ(0u, VELK_done_stream(h, 0));
    EXPECT_EQ(0u, VELK_abort_cleanup_and_close(h));
    free_kept(h);
}
