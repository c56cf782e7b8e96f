// Processes, threads and modules in their legacy form: the records as the
// stores hold them, the sections at close with their text offsets filled in,
// the module flag bytes, the windowed offset pass, and the legacy-bound bit.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

namespace {

const unsigned kRwc = VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE;

// The 40-byte slot of a kind in the section table of a version 7 file.
size_t section_slot(const std::vector<unsigned char>& f, unsigned kind)
{
    for (size_t at = 16; at < 16 + 20 * 40; at += 40)
        if (u32_at(f, at + 28) == kind && u64_at(f, at) != 0)
            return at;
    return std::string::npos;
}


// Checks kind's slot and returns the section's file offset.
size_t expect_section(const std::vector<unsigned char>& f, unsigned kind, uint64_t length,
                      uint64_t entries, uint32_t entry_length)
{
    const size_t slot = section_slot(f, kind);
    EXPECT_NE(std::string::npos, slot) << kind;
    if (slot == std::string::npos)
        return 0;
    EXPECT_EQ(length, u64_at(f, slot)) << kind;
    EXPECT_EQ(entries, u64_at(f, slot + 16)) << kind;
    EXPECT_EQ(entry_length, u32_at(f, slot + 24)) << kind;
    const size_t at = (size_t)u64_at(f, slot + 8);
    EXPECT_LE(at + length, f.size()) << kind;
    return at;
}




struct Proc {
    const wchar_t* path;
    const wchar_t* name;
    uint32_t offset;       // string_offset in the file
    uint16_t length;       // string_length
    uint16_t name_offset;
};

__VELK_pid make_pid(unsigned i, const Proc& p)
{
    __VELK_pid r;
    memset(&r, 0, sizeof(r));
    r.pid_size = 48;
    r.pid_id = 100 + i;
    r.pid_flags = (i & 1) ? 0x1011 : 0x1010;  // only bit 0 is carried
    r.pid_event_when = 0x700000000ull + 1000 + i;
    r.pid_path.text = const_cast<wchar_t*>(p.path);
    r.pid_name.text = const_cast<wchar_t*>(p.name);
    return r;
}

using LegacyRecordsTest = TempDirTest;

}  // namespace

TEST_F(LegacyRecordsTest, ProcessSectionsCarryTheirOffsetsTextsAndMarker)
{
    struct Case {
        const char* what;
        std::vector<Proc> procs;
        std::string texts;
    } cases[] = {
        {"single", {{L"/bin/ls", L"ls", 40, 8, 5}}, std::string("/bin/ls\0", 8)},
        {"10 and 20 bytes",
         {{L"/bin/abcd", L"abcd", 80, 10, 5}, {L"/usr/local/bin/tool", L"tool", 90, 20, 15}},
         std::string("/bin/abcd\0/usr/local/bin/tool\0", 30)},
        // Without both texts there is no text, but the offset still runs;
        // a name that is not the path's tail gives the plain difference.
        {"null texts",
         {{nullptr, nullptr, 160, 0, 0}, {L"/a", nullptr, 160, 0, 0},
          {L"/x/y", L"longername", 160, 5, 0xFFFA}, {nullptr, L"n", 165, 0, 0}},
         std::string("/x/y\0", 5)},
    };
    int n = 0;
    for (const Case& c : cases) {
        const std::string name = path("p" + std::to_string(n++) + ".vk7");
        velk_handle* h = nullptr;
        ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), kRwc)) << c.what;
        velk_class* s = h->file_object;
        ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_PROCESS));
        for (unsigned i = 0; i < c.procs.size(); ++i) {
            __VELK_pid r = make_pid(i, c.procs[i]);
            ASSERT_EQ(0u, VELK_add_process(h, &r)) << c.what << i;
        }
        ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));

        // The stores: records without offsets under the temp prefix, and
        // only the path texts.
        const std::string records_path = s->sections_ptr->legacy_pid_record_store->path;
        EXPECT_EQ(std::string(s->temp_path) + "_legacy_pid_record.tmp", records_path);
        const std::vector<unsigned char> store = read_file(records_path);
        ASSERT_EQ(40 * c.procs.size(), store.size()) << c.what;
        const std::vector<unsigned char> strings =
            read_file(s->sections_ptr->legacy_pr_strings_store->path);
        EXPECT_EQ(c.texts, std::string(strings.begin(), strings.end())) << c.what;

        ASSERT_EQ(0u, VELK_close(h)) << c.what;
        const std::vector<unsigned char> f = read_file(name);
        const size_t records = 40 * c.procs.size();
        const size_t at = expect_section(f, KIND_LEGACY_PID_RECORD, records + c.texts.size(),
                                         c.procs.size(), 40);
        ASSERT_NE(0u, at) << c.what;
        for (size_t i = 0; i < c.procs.size(); ++i) {
            SCOPED_TRACE(std::string(c.what) + " record " + std::to_string(i));
            PidRecord_s want;
            memset(&want, 0, sizeof(want));
            want.record_size = 40, want.record_flags = (uint8_t)(i & 1);
            want.os_id = (uint32_t)(100 + i), want.record_index = (uint32_t)i;
            want.event_delta = (uint32_t)(1000 + i), want.string_length = c.procs[i].length;
            want.name_offset = c.procs[i].name_offset;
            // The store holds no offset, the file the running one.
            EXPECT_EQ(bytes_of(want), slice(store, 40 * i, 40));
            want.string_offset = c.procs[i].offset;
            EXPECT_EQ(bytes_of(want), slice(f, at + 40 * i, 40));
        }
        EXPECT_EQ(c.texts, std::string((const char*)&f[at + records], c.texts.size()));
        expect_ending(f, at + records + c.texts.size(), "end legacy pid strings");
        // Stores and update files are gone; only the sample files are left.
        EXPECT_EQ((size_t)n, list_dir(dir_).size()) << c.what;
        for (const std::string& entry : list_dir(dir_))
            EXPECT_EQ(".vk7", entry.substr(entry.size() - 4)) << c.what;
    }
}

TEST_F(LegacyRecordsTest, ModuleFlagBytesEventWordsTextsAndThreadSection)
{
    struct Mod {
        unsigned flags, legacy_flags, segment_type;
        const wchar_t *path, *name, *extra;
        uint8_t seg, b0, b1, b2, b3;
        uint16_t length, name_offset, extra_length;
        uint32_t offset, extra_offset;  // in the file
    } mods[] = {
        {0, 0, 3, L"/lib/a.so", L"a.so", nullptr, 3, 0x08, 0x00, 0, 0, 10, 5, 0, 448, 0},
        {0x1000 | 0x800 | 0x10000, 0, 1, L"/lib/bb.so", L"bb.so", nullptr, 1, 0x2B, 0x00, 0, 0,
         11, 5, 0, 458, 0},
        {0x400 | 0x80 | 0x4000 | 0x8000, 0, 6, L"/c", L"c", nullptr, 6, 0x08, 0x0A, 0, 0, 3, 1,
         0, 469, 0},
        // Bits of the legacy word without a module flag are carried; those
        // with one follow module_flags.
        {0, 0xAABBFFFF, 0, L"/d/e.so", L"e.so", L"extra!", 0, 0xDC, 0xF5, 0xBB, 0xAA, 8, 3, 7,
         472, 480},
        // No texts: a third-text bit of the legacy word is cleared.
        {0x200, 0x0100, 0, nullptr, nullptr, nullptr, 0, 0x08, 0x00, 0x00, 0, 0, 0, 0, 487, 0},
        // A null name is an empty name at the path's end.
        {0, 0, 0, L"/only/path", nullptr, L"x", 0, 0x08, 0x01, 0, 0, 11, 10, 2, 487, 498},
        {0, 0, 0, L"/z", L"z", nullptr, 0, 0x08, 0x00, 0, 0, 3, 1, 0, 500, 0},
    };
    const std::string texts("/lib/a.so\0/lib/bb.so\0/c\0/d/e.so\0extra!\0/only/path\0x\0/z\0", 55);
    const size_t count = sizeof(mods) / sizeof(mods[0]);

    const std::string name = path("m.vk7");
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), kRwc));
    velk_class* s = h->file_object;
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
    for (unsigned i = 0; i < count; ++i) {
        __VELK_module m;
        memset(&m, 0, sizeof(m));
        m.module_size = 144;
        m.pid = 500 + i;
        m.module_flags = mods[i].flags;
        m.sc_load = 0x1111222233334444ull;
        m.module_ref = 0xC0DE0 + i;
        m.segment_type = mods[i].segment_type;
        m.code_segment = 0x12345;
        m.module_length = 0x100000 + i;
        m.module_load_address = 0x7F0000000000ull + i;
        m.sc_unload_32 = 0x9999AAAA;
        m.legacy_flags = mods[i].legacy_flags;
        m.sc_unload = 0x5555666677778888ull;
        m.module_path.text = const_cast<wchar_t*>(mods[i].path);
        m.module_name.text = const_cast<wchar_t*>(mods[i].name);
        m.module_extra.text = const_cast<wchar_t*>(mods[i].extra);
        ASSERT_EQ(0u, VELK_add_module(h, &m)) << i;
    }
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));

    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_THREAD));
    for (unsigned i = 0; i < 2; ++i) {
        __VELK_tid t;
        memset(&t, 0, sizeof(t));
        t.tid_size = 40, t.tid_pid = 77, t.tid_id = 900 + i, t.tid_flags = 0x10 | i;
        t.tid_event_when = 0x500000007ull + i, t.tid_name.text = const_cast<wchar_t*>(L"worker");
        ASSERT_EQ(0u, VELK_add_thread(h, &t));
    }
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_THREAD));

    // The module and thread stores lie beside the sample file.
    velk_section_block* b = s->sections_ptr;
    EXPECT_EQ(name + "_legacy_module_record.tmp", std::string(b->legacy_module_record_store->path));
    EXPECT_EQ(name + "_legacy_module_strings.tmp",
              std::string(b->legacy_module_strings_store->path));
    EXPECT_EQ(name + "_legacy_tid.tmp", std::string(b->legacy_tid_store->path));
    const std::vector<unsigned char> store = read_file(b->legacy_module_record_store->path);
    ASSERT_EQ(64 * count, store.size());
    const std::vector<unsigned char> strings = read_file(b->legacy_module_strings_store->path);
    EXPECT_EQ(texts, std::string(strings.begin(), strings.end()));
    const std::vector<unsigned char> tids = read_file(b->legacy_tid_store->path);

    ASSERT_EQ(0u, VELK_close(h));
    const std::vector<unsigned char> f = read_file(name);
    const size_t at = expect_section(f, KIND_LEGACY_MODULE_RECORD, 64 * count + texts.size(),
                                     count, 64);
    ASSERT_NE(0u, at);
    for (size_t i = 0; i < count; ++i) {
        const Mod& m = mods[i];
        SCOPED_TRACE("module " + std::to_string(i));
        const bool wide = (m.flags & 0x10000) != 0;
        velk_legacy_module_record want;
        memset(&want, 0, sizeof(want));
        want.record_size = 64, want.segment_byte = m.seg, want.code_segment = 0x2345;
        want.extra_length = m.extra_length, want.module_ref = (uint32_t)(0xC0DE0 + i);
        want.flags_word[0] = m.b0, want.flags_word[1] = m.b1;
        want.flags_word[2] = m.b2, want.flags_word[3] = m.b3;
        want.module_length = 0x100000 + i, want.module_load_address = 0x7F0000000000ull + i;
        want.process_word = (uint32_t)(500 + i);
        want.event_low = wide ? 0x77778888u : 0x33334444u;
        want.event_high = wide ? 0x55556666u : 0x9999AAAAu;
        want.string_length = m.length, want.name_offset = m.name_offset;
        want.sc_load_64 = wide ? 0x1111222233334444ull : 0;
        EXPECT_EQ(bytes_of(want), slice(store, 64 * i, 64));
        want.string_offset = m.offset, want.extra_offset = m.extra_offset;
        EXPECT_EQ(bytes_of(want), slice(f, at + 64 * i, 64));
        if (m.path != nullptr) {
            EXPECT_EQ(narrow(m.path), std::string((const char*)&f[at + m.offset]));
        }
        if (m.extra != nullptr) {
            EXPECT_EQ(narrow(m.extra), std::string((const char*)&f[at + m.extra_offset]));
        }
    }
    EXPECT_EQ(texts, std::string((const char*)&f[at + 64 * count], texts.size()));
    expect_ending(f, at + 64 * count + texts.size(), "end legacy module strings");

    // Threads: the records as stored, no text, and the section's own marker.
    const size_t t = expect_section(f, KIND_LEGACY_TID_RECORD, 80, 2, 40);
    ASSERT_NE(0u, t);
    for (unsigned i = 0; i < 2; ++i) {
        velk_legacy_tid_record want;
        memset(&want, 0, sizeof(want));
        want.record_size = 40, want.record_flags = (uint8_t)i, want.os_id = 900 + i;
        want.record_index = i, want.event_delta = 7 + i, want.process_word = 77;
        EXPECT_EQ(bytes_of(want), slice(tids, 40 * i, 40)) << i;
        EXPECT_EQ(bytes_of(want), slice(f, t + 40 * i, 40)) << i;
    }
    expect_ending(f, t + 80, "end legacy tid section");
    EXPECT_EQ(std::vector<std::string>{"m.vk7"}, list_dir(dir_));
}

TEST_F(LegacyRecordsTest, OffsetPassWalksWindowsAndRefusesAnEmptyOne)
{
    const std::string name = path("w.vk7");
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), kRwc));
    velk_class* s = h->file_object;
    velk_section_block* b = s->sections_ptr;
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_PROCESS));
    const Proc procs[3] = {{L"/p/one", L"one", 0, 0, 0}, {L"/p/three", L"three", 0, 0, 0},
                           {L"/p/2", L"2", 0, 0, 0}};
    for (unsigned i = 0; i < 3; ++i) {
        __VELK_pid r = make_pid(i, procs[i]);
        ASSERT_EQ(0u, VELK_add_process(h, &r));
    }
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_PROCESS));
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
    for (unsigned i = 0; i < 2; ++i) {
        __VELK_module m;
        memset(&m, 0, sizeof(m));
        m.module_path.text = const_cast<wchar_t*>(i == 0 ? L"/m/first.so" : L"/m/2.so");
        m.module_name.text = const_cast<wchar_t*>(L"so");
        m.module_extra.text = const_cast<wchar_t*>(i == 0 ? L"third" : nullptr);
        ASSERT_EQ(0u, VELK_add_module(h, &m));
    }
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));

    // The offset helpers refuse an update file they can't create.
    LogCapture log(0xF0000000u);
    long long update = -1;
    unsigned next = 0;
    char bad[] = "/nonexistent-dir/x_leg_pr_updated.tmp";
    EXPECT_EQ(VELK_E_OPEN_FAILED, s->helper_update_pid_string_offsets(nullptr, &update, 0, bad, &next));
    EXPECT_EQ(VELK_E_OPEN_FAILED, s->helper_update_module_string_offsets(nullptr, &update, 0, bad, &next));
    EXPECT_TRUE(log.contains_format("<velk %u::helper_update_pid_string_offsets>VELK_OSI_Open_File failed\n"));
    EXPECT_TRUE(log.contains_format("<velk %u::helper_update_module_string_offsets>VELK_OSI_Open_File failed\n"));
    EXPECT_EQ(-1, update);

    // More than 0x2000000 records make a window of no records, which can't
    // be mapped: nothing reaches the file and no table slot is used.
    const unsigned long long size = VELK_OSI_Get_File_Size(s->file_handle);
    const unsigned slot = b->legacy_next_slot;
    b->sfs_legacy_pid_record.number_entries = 0x2000001;
    b->sfs_legacy_module_record.number_entries = 0x2000001;
    EXPECT_EQ(VELK_E_MAP_FAILED, s->write_to_file_legacy_pid_section());
    EXPECT_EQ(VELK_E_MAP_FAILED, s->write_to_file_legacy_module_section());
    EXPECT_EQ(size, VELK_OSI_Get_File_Size(s->file_handle));
    EXPECT_EQ(slot, b->legacy_next_slot);
    EXPECT_FALSE(file_exists(name + "_leg_pr_updated.tmp"));
    EXPECT_FALSE(file_exists(name + "_leg_mr_updated.tmp"));

    // A count above 0x1000000 makes windows of one record: the pass walks the
    // store record by record, carries the running offset from window to
    // window, and walks no further than the store's records.
    b->sfs_legacy_pid_record.number_entries = 0x1000001;
    b->sfs_legacy_module_record.number_entries = 0x1000001;
    log.clear();
    ASSERT_EQ(0u, VELK_close(h));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::write_to_file_legacy_pid_section>%u records counted, but the store holds only "
        "%u here!\n"));
    const std::vector<unsigned char> f = read_file(name);
    const size_t p = expect_section(f, KIND_LEGACY_PID_RECORD, 120 + 7 + 9 + 5, 0x1000001, 40);
    ASSERT_NE(0u, p);
    EXPECT_EQ(120u, u32_at(f, p + 32));
    EXPECT_EQ(127u, u32_at(f, p + 40 + 32));
    EXPECT_EQ(136u, u32_at(f, p + 80 + 32));
    EXPECT_EQ(std::string("/p/2"), std::string((const char*)&f[p + 136]));
    expect_ending(f, p + 141, "end legacy pid strings");
    const size_t m = expect_section(f, KIND_LEGACY_MODULE_RECORD, 128 + 12 + 6 + 8, 0x1000001, 64);
    ASSERT_NE(0u, m);
    EXPECT_EQ(128u, u32_at(f, m + 44));
    EXPECT_EQ(140u, u32_at(f, m + 52));
    EXPECT_EQ(146u, u32_at(f, m + 64 + 44));
    EXPECT_EQ(std::string("third"), std::string((const char*)&f[m + 140]));
    EXPECT_EQ(std::string("/m/2.so"), std::string((const char*)&f[m + 146]));
    EXPECT_EQ(std::vector<std::string>{"w.vk7"}, list_dir(dir_));
}

namespace {

// A version 5 file with processes, threads, legacy samples and a sample
// record header, whose header ex says whether it is bound.
void write_v5_file(const std::string& name, unsigned char bound_byte)
{
    std::vector<unsigned char> b(1584 + 112, 0);
    auto put = [&](size_t at, const void* data, size_t n) { memcpy(&b[at], data, n); };
    auto put32 = [&](size_t at, uint32_t v) { put(at, &v, 4); };
    auto slot = [&](unsigned n, uint64_t length, uint64_t offset, uint64_t entries,
                    uint32_t entry_length, uint32_t kind) {
        __VELK_sample_file_section_vk6 sfs = {length, offset, entries, entry_length, kind, 0, 0};
        SampleFileSections_s d;
        velk_class::helper_copy_sfs(&d, &sfs, 1);
        put(16 + n * 20, &d, 20);
    };
    put(0, "SampleF ", 8);
    put32(8, 27);
    put32(12, 20);
    slot(0, 460, 416, 1, 460, KIND_LEGACY_HEADER_EX);
    slot(1, 476, 880, 1, 476, KIND_LEGACY_SOFTWARE_CONFIG);
    slot(2, 96, 1360, 2, 48, KIND_LEGACY_SAMPLE_RECORD);
    slot(3, 48, 1456, 1, 48, KIND_LEGACY_RUMA_SYS_INFO);
    slot(4, 40, 1504, 1, 40, KIND_LEGACY_PID_RECORD);
    slot(5, 40, 1544, 1, 40, KIND_LEGACY_TID_RECORD);
    slot(6, 112, 1584, 1, 112, KIND_LEGACY_SAMPLE_RECORD_HEADER);
    put32(416, 2);         // version 2.0
    put32(416 + 364, 11);  // stream parameter
    b[416 + 392] = bound_byte;
    put(880, "host", 5);
    put(880 + 128, "Linux", 6);
    put32(1584 + 4, 1);    // the sample part comes first
    put32(1584 + 28, 48);  // record size
    put32(1584 + 32, 8);   // time stamp length
    write_file(name, b);
}

// An abort leaves the handle and its session to the caller.
void abort_and_free(velk_handle* h)
{
    EXPECT_EQ(0u, VELK_abort_cleanup_and_close(h));
    delete h->file_object;
    free(h);
}

unsigned add_plain_module(velk_handle* h)
{
    __VELK_module m;
    memset(&m, 0, sizeof(m));
    m.legacy_flags = 0x08;  // the bit that the bound state decides
    m.module_path.text = const_cast<wchar_t*>(L"/lib/m.so");
    m.module_name.text = const_cast<wchar_t*>(L"m.so");
    return VELK_add_module(h, &m);
}

}  // namespace

TEST_F(LegacyRecordsTest, BoundStateDecidesBitThreeAndItsFailureFailsTheAdd)
{
    // A legacy-bound file: modules added to it have bit 3 of byte 0 clear;
    // the same file not bound has it set.
    for (unsigned char bound_byte : {201, 200}) {
        const std::string name = path("b" + std::to_string(bound_byte) + ".vk5");
        write_v5_file(name, bound_byte);
        velk_handle* h = nullptr;
        ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE));
        ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
        EXPECT_EQ(0u, add_plain_module(h)) << (int)bound_byte;
        const std::vector<unsigned char> store =
            read_file(h->file_object->sections_ptr->legacy_module_record_store->path);
        EXPECT_EQ(64u, store.size());
        if (store.size() == 64) {
            EXPECT_EQ(bound_byte == 201 ? 0x00 : 0x08, store[12]) << (int)bound_byte;
        }
        EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
        abort_and_free(h);
    }

    // With stream 0 being written the bound state can't be asked for: the
    // add fails with that status, after the count went up and before any
    // record was stored.
    const std::string name = path("writing.vk5");
    write_v5_file(name, 201);
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE));
    ASSERT_EQ(0u, VELK_writing_stream(h, 0));
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_MODULE));
    EXPECT_EQ(VELK_E_STREAM_STATE, add_plain_module(h));
    velk_section_block* b = h->file_object->sections_ptr;
    EXPECT_EQ(1u, b->sfs_legacy_module_record.number_entries);
    EXPECT_EQ(0u, b->legacy_module_record_store->Size());
    EXPECT_EQ(0u, b->legacy_module_strings_store->Size());
    EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_MODULE));
    EXPECT_EQ(0u, VELK_done_stream(h, 0));
    abort_and_free(h);
}
