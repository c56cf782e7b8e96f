// Processes, threads and modules in their legacy form: the sections at close with their text
// offsets, the module flag bytes, the windowed offset pass, and the legacy-bound bit.
#include <string.h>

#include <tuple>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

namespace {

const unsigned kRwc = VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE;
using U = std::vector<unsigned long long>;

// Checks kind's slot in the section table and returns the section's file offset.
size_t expect_section(const std::vector<unsigned char>& f, unsigned kind, uint64_t length,
                      uint64_t entries, uint32_t entry_length)
{
    const Slot s = legacy_slot(f, kind);
    EXPECT_EQ((U{length, entries, entry_length}), (U{s.length, s.number_entries, s.entry_length}));
    EXPECT_LE(s.file_offset + length, f.size()) << kind;
    return (size_t)s.file_offset;
}

// `n` bytes of `f` at `at` as text; up to the first NUL when `n` is 0.
std::string text_at(const std::vector<unsigned char>& f, size_t at, size_t n = 0)
{
    return n ? std::string((const char*)&f[at], n) : std::string((const char*)&f[at]);
}

// Adds process i: only bit 0 of its flags is carried, and only the low half of its time.
void add_pid(velk_handle* h, unsigned i, const wchar_t* path, const wchar_t* name)
{
    const uint32_t flags = (i & 1) ? 0x1011u : 0x1010u;
    __VELK_pid r = {48, 100 + i, flags, 0, 0x700000000ull + 1000 + i, 0, 0, {w(path)}, {w(name)}};
    ASSERT_EQ(0u, VELK_add_process(h, &r)) << i;
}

// Modules as added; the segment byte, flag bytes (a little-endian word), text lengths and offsets
// they give. Row 4: legacy bits without a module flag are carried, the others follow the module
// flags; row 5: without texts a third-text bit is cleared; row 6: a null name is the path's end.
const struct Mod {
    unsigned flags, legacy_flags, segment_type;
    const wchar_t *path, *name, *extra;
    uint8_t seg;
    uint32_t flag_bytes;
    uint16_t length, name_offset, extra_length;
    uint32_t offset, extra_offset;
} kMods[] = {
    // clang-format off
    {0,       0,          3, L"/lib/a.so", L"a.so",  nullptr,   3, 0x08,       10, 5, 0, 384, 0},
    {0x11800, 0,          1, L"/l/bb.so",  L"bb.so", nullptr,   1, 0x2B,       9,  3, 0, 394, 0},
    {0xC480,  0,          6, L"/c",        L"c",     nullptr,   6, 0x0A08,     3,  1, 0, 403, 0},
    {0,       0xAABBFFFF, 0, L"/d/e.so",   L"e.so",  L"extra!", 0, 0xAABBF5DC, 8,  3, 7, 406, 414},
    {0x200,   0x0100,     0, nullptr,      nullptr,  nullptr,   0, 0x08,       0,  0, 0, 421, 0},
    {0,       0,          0, L"/o/path",   nullptr,  L"x",      0, 0x0108,     8,  7, 2, 421, 429},
    // clang-format on
};

class LegacyRecordsTest : public TempDirTest {
protected:
    unsigned open(const std::string& n, unsigned m) { return VELK_open(&h, widen(n).c_str(), m); }
    velk_handle* h = nullptr;
};

}  // namespace

TEST_F(LegacyRecordsTest, ProcessSectionsCarryTheirOffsetsTextsAndMarker)
{
    // Processes, and where their text lands: string_offset, string_length and name_offset.
    using Proc = std::tuple<const wchar_t*, const wchar_t*, uint32_t, uint16_t, uint16_t>;
    const std::pair<std::vector<Proc>, std::string> cases[] = {
        {{{L"/bin/ls", L"ls", 40, 8, 5}}, std::string("/bin/ls\0", 8)},
        {{{L"/bin/abcd", L"abcd", 80, 10, 5}, {L"/usr/local/bin/tool", L"tool", 90, 20, 15}},
         std::string("/bin/abcd\0/usr/local/bin/tool\0", 30)},
    };
    for (const auto& [procs, texts] : cases) {
        const std::string name = path("p" + std::to_string(texts.size()));
        SCOPED_TRACE(name);
        ASSERT_EQ(0u, open(name, kRwc));
        ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_PROCESS));
        for (unsigned i = 0; i < procs.size(); ++i)
            add_pid(h, i, std::get<0>(procs[i]), std::get<1>(procs[i]));
        ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));
        ASSERT_EQ(0u, VELK_close(h));

        const std::vector<unsigned char> f = read_file(name);
        const size_t n = procs.size(), end = 40 * n + texts.size();
        const size_t at = expect_section(f, KIND_LEGACY_PID_RECORD, end, n, 40);
        for (unsigned i = 0; i < n; ++i) {
            const auto& [p_path, p_name, offset, length, name_offset] = procs[i];
            const PidRecord_s want = {40, (uint8_t)(i & 1), 0, 100 + i, i,      0,
                                      0,  1000 + i,         0, offset,  length, name_offset};
            EXPECT_EQ(bytes_of(want), slice(f, at + 40 * i, 40)) << i;
        }
        EXPECT_EQ(texts, text_at(f, at + 40 * n, texts.size()));
        expect_ending(f, at + end, "end legacy pid strings");
    }
}

TEST_F(LegacyRecordsTest, ModuleFlagBytesEventWordsTextsAndThreadSection)
{
    const std::string texts("/lib/a.so\0/l/bb.so\0/c\0/d/e.so\0extra!\0/o/path\0x", 47);
    const unsigned count = 6;
    const uint64_t load = 0x1111222233334444, unload = 0x5555666677778888, base = 0x7F0000000000;
    const std::string name = path("m.vk7");
    ASSERT_EQ(0u, open(name, kRwc));
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
    for (unsigned i = 0; i < count; ++i) {
        const Mod& m = kMods[i];
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
    ASSERT_EQ(0u, VELK_close(h));

    const std::vector<unsigned char> f = read_file(name);
    const size_t at = expect_section(f, KIND_LEGACY_MODULE_RECORD, 64 * count + 47, count, 64);
    for (unsigned i = 0; i < count; ++i) {
        const auto& [flags, legacy_flags, segment_type, module_path, module_name, extra, seg,
                     flag_bytes, length, name_offset, extra_length, offset, extra_offset] =
            kMods[i];
        // 64-bit counts: sc_unload in the event words, sc_load behind; else sc_load, sc_unload_32.
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
    EXPECT_EQ(texts, text_at(f, at + 64 * count, 47));
    expect_ending(f, at + 64 * count + 47, "end legacy module strings");

    // Threads: no text, and the section's own marker.
    const size_t t = expect_section(f, KIND_LEGACY_TID_RECORD, 80, 2, 40);
    for (unsigned i = 0; i < 2; ++i) {
        const velk_legacy_tid_record want = {40, (uint8_t)i, 0, 900 + i, i, 0, 0, 7 + i, 0, 77, 0};
        EXPECT_EQ(bytes_of(want), slice(f, t + 40 * i, 40)) << i;
    }
    expect_ending(f, t + 80, "end legacy tid section");
}

TEST_F(LegacyRecordsTest, OffsetPassCarriesTheOffsetAcrossWindowsOfOneRecord)
{
    const std::string name = path("w.vk7");
    ASSERT_EQ(0u, open(name, kRwc));
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_PROCESS));
    // Without both texts there is no text, but the offset runs on; a name that is not the path's
    // tail gives the plain difference.
    add_pid(h, 0, L"/p/one", L"one");
    add_pid(h, 1, L"/x/y", L"longername");
    add_pid(h, 2, nullptr, L"n");
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

    // A count above 0x1000000 makes windows of one record: the pass carries the running offset from
    // window to window, and walks no further than the store's records.
    velk_section_block* b = h->file_object->sections_ptr;
    b->sfs_legacy_pid_record.number_entries = b->sfs_legacy_module_record.number_entries =
        0x1000001;
    LogCapture log(0xF0000000u);
    ASSERT_EQ(0u, VELK_close(h));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::write_to_file_legacy_pid_section>%u records counted, but the "
        "store holds only %u here!\n"));
    const std::vector<unsigned char> f = read_file(name);
    const size_t p = expect_section(f, KIND_LEGACY_PID_RECORD, 120 + 7 + 5, 0x1000001, 40);
    // Offsets, and length and name offset of the second.
    EXPECT_EQ((U{120, 127, 0xFFFA0005, 132}),
              (U{u32_at(f, p + 32), u32_at(f, p + 72), u32_at(f, p + 76), u32_at(f, p + 112)}));
    EXPECT_EQ("/x/y", text_at(f, p + 127));
    expect_ending(f, p + 132, "end legacy pid strings");
    const size_t m = expect_section(f, KIND_LEGACY_MODULE_RECORD, 128 + 12 + 6 + 8, 0x1000001, 64);
    EXPECT_EQ((U{128, 140, 146}), (U{u32_at(f, m + 44), u32_at(f, m + 52), u32_at(f, m + 108)}));
    EXPECT_EQ("/m/first.so|third|/m/2.so",
              text_at(f, m + 128) + "|" + text_at(f, m + 140) + "|" + text_at(f, m + 146));
    // Stores and update files are gone; only the sample file is left.
    EXPECT_EQ(std::vector<std::string>{"w.vk7"}, list_dir(dir_));
}

TEST_F(LegacyRecordsTest, BoundStateDecidesBitThreeAndItsFailureFailsTheAdd)
{
    // A version 5 file with processes, threads, legacy samples and a sample record header with its
    // sample part first: its bound byte, stream 0 being written (the bound state can't be asked
    // for), the add's status, byte 0 of the stored record (bit 3 clear when bound).
    const std::tuple<unsigned char, bool, unsigned, std::vector<unsigned char>> cases[] = {
        {201, false, 0, {0x00}}, {200, false, 0, {0x08}}, {201, true, VELK_E_STREAM_STATE, {}}};
    for (const auto& [bound_byte, writing, status, byte0] : cases) {
        SCOPED_TRACE((int)bound_byte + 1000 * writing);
        Image f;
        f.put(0, "SampleF ", 8);
        f.put32(12, 20);
        f.slot(16, 20, 460, 416, 1, 460, KIND_LEGACY_HEADER_EX);
        f.slot(56, 20, 96, 1360, 2, 48, KIND_LEGACY_SAMPLE_RECORD);
        f.slot(96, 20, 40, 1504, 1, 40, KIND_LEGACY_PID_RECORD);
        f.slot(116, 20, 40, 1544, 1, 40, KIND_LEGACY_TID_RECORD);
        f.slot(136, 20, 112, 1584, 1, 112, KIND_LEGACY_SAMPLE_RECORD_HEADER);
        f.put8(416 + 392, bound_byte);
        f.put32(1584 + 4, 1);
        f.b.resize(1584 + 112, 0);
        write_file(path("b.vk5"), f.b);
        ASSERT_EQ(0u, open(path("b.vk5"), VELK_OPEN_READ | VELK_OPEN_WRITE));
        ASSERT_EQ(0u, writing ? VELK_writing_stream(h, 0) : 0u);
        ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
        __VELK_module r = {144,           0,  0,  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x08, 0, 0,
                           {w(L"/m.so")}, {}, {}, {}};
        EXPECT_EQ(status, VELK_add_module(h, &r));
        const std::string store = h->file_object->sections_ptr->legacy_module_record_store->path;
        EXPECT_EQ(byte0, slice(read_file(store), 12, 1));
        EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
        EXPECT_EQ(0u, writing ? VELK_done_stream(h, 0) : 0u);
        EXPECT_EQ(0u, VELK_abort_cleanup_and_close(h));
        free_kept(h);
    }
}
