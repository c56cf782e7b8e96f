// Data descriptors: stream and global lists added, written at close and read
// back, the group walks and table, the fixed answers of version 5 files, and
// lists made up from the legacy sample record header.
#include <string.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

namespace {

typedef __velk_samprec_desc_entry Desc;

Desc desc(uint16_t type, uint32_t offset, uint32_t length, const wchar_t* name)
{
    Desc d;
    memset(&d, 0xAB, sizeof(d));  // the reserved bytes must not come back
    d.entry_size = 72;
    d.field_offset = offset;
    d.field_type = type;
    d.field_qualifier = 0;
    d.field_length = length;
    d.name.text = const_cast<wchar_t*>(name);
    return d;
}

// What the descriptor call-backs saw, one vector per call.
struct Seen {
    unsigned answer = 1;
    std::vector<std::vector<Desc>> calls;
    std::vector<const Desc*> firsts;
};

unsigned seen_cb(Desc* entries, unsigned bytes, unsigned count, void* user)
{
    Seen* s = static_cast<Seen*>(user);
    EXPECT_EQ(count * 72u, bytes);
    s->calls.emplace_back(entries, entries + count);
    s->firsts.push_back(entries);
    return s->answer;
}
VELK_DESCRIPTOR_CALLBACK g_cb = seen_cb;

std::string text_of(velk_handle* h, __string_or_id id)
{
    unsigned size = 0;
    if (id.id == 0 || VELK_convert_uniqueid_to_string(h, 0, &id, nullptr, &size) != 0)
        return "?";
    std::vector<wchar_t> wide(size / 4 + 1);
    VELK_convert_uniqueid_to_string(h, size, &id, wide.data(), &size);
    std::string narrow;
    for (wchar_t c : std::wstring(wide.data()))
        narrow += (char)c;
    return narrow;
}

bool reserved_zero(const Desc& d)
{
    static const uint8_t zero[32] = {0};
    return memcmp(d.reserved, zero, sizeof(zero)) == 0;
}

// Position of the 40-byte slot of `kind` in a table of `slots` at `at`; 0 if none.
size_t slot_of(const std::vector<unsigned char>& f, size_t at, unsigned slots, unsigned kind)
{
    for (unsigned i = 0; i < slots; ++i)
        if (u32_at(f, at + i * 40 + 28) == kind)
            return at + i * 40;
    return 0;
}

// A version 5 or 6 file: header ex, 96 bytes of legacy samples (kind 1) and,
// unless `header_length` is 0, a sample record header (kind 19) of that
// length with a sample part at 0 and a time stamp of 8 bytes at 32.
std::vector<unsigned char> legacy_file(unsigned version, uint8_t flags, uint32_t record_size,
                                       uint32_t header_length)
{
    std::vector<unsigned char> f(version == 5 ? 416 : 816, 0);
    memcpy(f.data(), version == 5 ? "SampleF \x1b\0\0\0\x14" : "Sample6 \x1b\0\0\0\x14", 13);
    const size_t ex = f.size(), data = ex + 464, header = data + 96;
    auto slot = [&](unsigned n, uint64_t length, uint64_t offset, uint32_t kind) {
        __VELK_sample_file_section_vk6 sfs = {length, offset, 1, (uint32_t)length, kind, 0, 0};
        SampleFileSections_s d;
        velk_class::helper_copy_sfs(&d, &sfs, 1);
        if (version == 5)
            memcpy(&f[16 + n * 20], &d, 20);
        else
            memcpy(&f[16 + n * 40], &sfs, 40);
    };
    slot(0, 460, ex, KIND_LEGACY_HEADER_EX);
    slot(1, 96, data, KIND_LEGACY_SAMPLE_RECORD);
    if (header_length != 0)
        slot(2, header_length, header, KIND_LEGACY_SAMPLE_RECORD_HEADER);
    velk_legacy_samprec_header h;
    memset(&h, 0, sizeof(h));
    h.flags = flags;
    h.timestamp_offset = 32;
    h.record_size = record_size;
    h.timestamp_length = 8;
    f.resize(header);
    f.insert(f.end(), (unsigned char*)&h, (unsigned char*)&h + sizeof(h));
    return f;
}

using DescriptorsTest = TempDirTest;

}  // namespace

TEST_F(DescriptorsTest, ListsAreAddedWrittenAndReadBackByEntriesGroupsAndTable)
{
    const std::string name = path("d.vk7");
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    velk_class* vc = h->file_object;
    ASSERT_EQ(0u, VELK_writing_stream(h, 0));
    ASSERT_EQ(0u, VELK_writing_stream(h, 1));
    const wchar_t* const group_a = L"group a";
    Desc a[5] = {desc(31, 0, 0, group_a), desc(1, 0, 32, L"sample"), desc(7, 32, 8, L"ts"),
                 desc(31, 0, 0, L"group b"), desc(5, 40, 8, nullptr)};

    // Refusals: the null record first, then the state.
    LogCapture log(0x80000000u);
    const struct { unsigned status, got; const char* line; } refusals[] = {
        {145, VELK_add_data_descriptor_entry(h, 0, nullptr),
         "<velk %u::VELK_add_data_descriptor_entry>nothing to write!\n"},
        {125, VELK_add_data_descriptor_entry(h, 0, &a[0]),
         "<velk %u::VELK_add_data_descriptor_entry>write_section was not first called!\n"},
        {145, VELK_add_stream_section_descriptor(h, VELK_SECTION_MODULE, 0, nullptr, 1),
         "<velk %u::VELK_add_stream_section_descriptor>nothing to write!\n"},
        {125, VELK_add_stream_section_descriptor(h, VELK_SECTION_MODULE, 0, a, 1),
         "<velk %u::VELK_add_stream_section_descriptor>write_section was not first called!\n"},
        {145, VELK_add_global_section_descriptor(h, VELK_SECTION_MODULE, nullptr, 1),
         "<velk %u::VELK_add_global_section_descriptor>nothing to write!\n"},
        {125, VELK_add_global_section_descriptor(h, VELK_SECTION_MODULE, a, 1),
         "<velk %u::VELK_add_global_section_descriptor>write_section was not first called!\n"},
    };
    for (const auto& r : refusals) {
        EXPECT_EQ(r.status, r.got) << r.line;
        EXPECT_TRUE(log.contains_format(r.line)) << r.line;
    }
    EXPECT_EQ(group_a, a[0].name.text);  // refused adds leave the name alone

    // Stream 0 by single adds and by the stream section form, which fills
    // stream 0 whichever stream it names; stream 1 by single adds.
    ASSERT_EQ(0u, VELK_writing_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
    ASSERT_EQ(0u, VELK_writing_stream_section(h, 1, VELK_STREAM_SECTION_DATA_DESCRIPTION));
    ASSERT_EQ(0u, VELK_add_data_descriptor_entry(h, 0, &a[0]));
    ASSERT_EQ(0u, VELK_add_data_descriptor_entry(h, 0, &a[1]));
    EXPECT_EQ(1u, vc->descriptor_entry_flag);
    EXPECT_NE(0u, a[0].name.id >> 63);
    ASSERT_EQ(0u, VELK_add_stream_section_descriptor(h, VELK_SECTION_SYSTEM, 1, &a[2], 1));
    Desc b[2] = {desc(31, 0, 0, L"bind"), desc(0x2002, 0, 4, L"index")};
    ASSERT_EQ(0u, VELK_add_data_descriptor_entry(h, 1, &b[0]));
    ASSERT_EQ(0u, VELK_add_data_descriptor_entry(h, 1, &b[1]));
    ASSERT_EQ(0u, VELK_add_stream_section_descriptor(h, VELK_SECTION_SYSTEM, 0, &a[3], 2));
    EXPECT_EQ(7u, vc->sections_ptr->next_stream_desc_id);
    EXPECT_EQ(5u, velk_desc_list_count(vc->stream_list->desc_list));
    EXPECT_EQ(2u, velk_desc_list_count(vc->stream_list->next->desc_list));

    // Global groups; the version section has no descriptor to keep its id.
    Desc g[6] = {desc(31, 0, 0, L"version"), desc(9, 0, 16, nullptr), desc(31, 0, 0, L"config"),
                 desc(12, 0, 24, L"host"), desc(31, 0, 0, L"threads"), desc(4, 0, 40, nullptr)};
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_DESCRIPTOR));
    ASSERT_EQ(0u, VELK_add_global_section_descriptor(h, VELK_SECTION_VERSION_INFO, &g[0], 2));
    ASSERT_EQ(0u, VELK_add_global_section_descriptor(h, VELK_SECTION_CONFIGURATION, &g[2], 2));
    ASSERT_EQ(0u, VELK_add_global_section_descriptor(h, VELK_SECTION_THREAD, &g[4], 2));
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_DESCRIPTOR));
    EXPECT_EQ(2, vc->sections_ptr->sfs_legacy_software_config.descriptor_id);
    EXPECT_EQ(4, vc->sections_ptr->sfs_legacy_tid_record.descriptor_id);
    __VELK_host host = {24, 0, {(wchar_t*)L"h"}, {nullptr}};  // so that kind 13 is written
    ASSERT_EQ(0u, VELK_writing_section(h, VELK_SECTION_CONFIGURATION));
    ASSERT_EQ(0u, VELK_set_host(h, &host));
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_CONFIGURATION));

    // A group runs from the section's id to the next head; an id of -2
    // leaves the section's descriptor as the adds set it.
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_DESCRIPTOR));
    const struct { VELK_SECTION_IDENTIFIER section; int32_t id; int count; uint32_t second; } globals[] = {
        {VELK_SECTION_THREAD, -2, 2, 4},
        {VELK_SECTION_CONFIGURATION, -2, 2, 12},
        {VELK_SECTION_VERSION_INFO, -2, -1, 0},  // no section descriptor: no id
        {VELK_SECTION_SYSTEM, 99, -1, 0},        // an id past the list is never reached
        {VELK_SECTION_SYSTEM, 1, 1, 0},          // a group at a non-head ends at the next head
    };
    for (const auto& c : globals) {
        if (c.id != -2)
            vc->sections_ptr->sfs_legacy_hardware_config.descriptor_id = c.id;
        Desc* entries = &a[0];
        int count = 5;
        EXPECT_EQ(0u, VELK_get_global_section_descriptor(h, c.section, &entries, &count));
        EXPECT_EQ(c.count, count) << c.section << " " << c.id;
        if (c.count > 1) {
            EXPECT_EQ(31u, entries[0].field_type);
            EXPECT_EQ(c.second, entries[1].field_type);
        } else if (c.count < 0) {
            EXPECT_EQ(&a[0], entries);
        }
    }
    EXPECT_EQ(VELK_E_NOT_READING, VELK_get_global_section_descriptor(h, VELK_SECTION_THREAD, nullptr, nullptr));
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_DESCRIPTOR));

    // A first read builds the flat copy, which the close makes again.
    VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION);
    VELK_done_stream_section(h, 1, VELK_STREAM_SECTION_DATA_DESCRIPTION);
    VELK_done_stream(h, 0);
    VELK_done_stream(h, 1);
    ASSERT_EQ(0u, VELK_reading_stream(h, 0));
    ASSERT_EQ(0u, VELK_reading_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
    Seen early;
    ASSERT_EQ(0u, VELK_enumerate_data_descriptor_entries(h, 0, &g_cb, &early));
    ASSERT_EQ(1u, early.calls.size());
    EXPECT_EQ(5u, early.calls[0].size());
    EXPECT_TRUE(reserved_zero(early.calls[0][0]));
    ASSERT_EQ(0u, VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
    ASSERT_EQ(0u, VELK_done_stream(h, 0));
    ASSERT_EQ(0u, VELK_close(h));

    // On disk: kind 37 in stream 0's table, kind 46 in the global table,
    // flat records with their reserved bytes zero, the markers, and the
    // group id in the legacy software configuration's entry.
    const std::vector<unsigned char> f = read_file(name);
    const size_t table0 = u64_at(f, slot_of(f, 816, 12, KIND_STREAM_OFFSET) + 8);
    const size_t s37 = slot_of(f, table0, 8, KIND_DATA_DESCRIPTION);
    const size_t s46 = slot_of(f, 816, 12, KIND_GLOBAL_DESCRIPTOR);
    const size_t s13 = slot_of(f, 16, 20, KIND_LEGACY_SOFTWARE_CONFIG);
    ASSERT_TRUE(s37 != 0 && s46 != 0 && s13 != 0);
    EXPECT_EQ(360u, u64_at(f, s37));
    EXPECT_EQ(5u, u64_at(f, s37 + 16));
    EXPECT_EQ(72u, u32_at(f, s37 + 24));
    EXPECT_EQ(0u, u32_at(f, s37 + 32));  // stream number
    const size_t d0 = u64_at(f, s37 + 8);
    EXPECT_EQ(72u, u32_at(f, d0));
    EXPECT_EQ(31u, u32_at(f, d0 + 8) & 0xFFFF);
    EXPECT_EQ(a[0].name.id, u64_at(f, d0 + 32));
    for (size_t i = 0; i < 5; ++i)
        for (size_t k = 40; k < 72; ++k)
            ASSERT_EQ(0u, f[d0 + i * 72 + k]) << i << " " << k;
    EXPECT_EQ(0, memcmp(&f[d0 + 360], "end velk metadata", 18));
    EXPECT_EQ(6u * 72, u64_at(f, s46));
    EXPECT_EQ(0, memcmp(&f[u64_at(f, s46 + 8) + 6 * 72], "end velk global descriptor", 27));
    EXPECT_EQ(2u, u32_at(f, s13 + 36));

    // Read back; first the state refusals.
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
    log.clear();
    Seen none;
    VELK_DESCRIPTOR_NODE_S* table = nullptr;
    unsigned nodes = 0;
    Desc* entries = nullptr;
    int count = 0;
    EXPECT_EQ(124u, VELK_enumerate_data_descriptor_entries(h, 0, &g_cb, &none));
    EXPECT_EQ(124u, VELK_enumerate_data_descriptors(h, 0, &g_cb, &none));
    EXPECT_EQ(124u, VELK_get_data_desc_table(h, 0, &table, &nodes));
    EXPECT_EQ(124u, VELK_get_global_section_descriptor(h, VELK_SECTION_THREAD, &entries, &count));
    // The group walk refuses with the whole-list walk's text.
    EXPECT_EQ(4u, log.count_prefix("<velk"));
    EXPECT_FALSE(log.contains_format("<velk %u::VELK_enumerate_data_descriptors>read_section was not first called!\n"));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::VELK_enumerate_data_descriptor_entries>read_section was not first called!\n"));
    EXPECT_TRUE(log.contains_format("<velk %u::helper_get_data_desc_table>read_section was not first called!\n"));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::VELK_get_global_section_descriptor>read_section was not first called!\n"));
    EXPECT_TRUE(none.calls.empty());

    ASSERT_EQ(0u, VELK_reading_stream(h, 0));
    ASSERT_EQ(0u, VELK_reading_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
    Seen all;
    ASSERT_EQ(0u, VELK_enumerate_data_descriptor_entries(h, 0, &g_cb, &all));
    ASSERT_EQ(1u, all.calls.size());
    ASSERT_EQ(5u, all.calls[0].size());
    const char* const names[5] = {"group a", "sample", "ts", "group b", "?"};
    const uint16_t types[5] = {31, 1, 7, 31, 5};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(names[i], text_of(h, all.calls[0][i].name)) << i;
        EXPECT_EQ(types[i], all.calls[0][i].field_type) << i;
        EXPECT_TRUE(reserved_zero(all.calls[0][i])) << i;
    }
    // By groups: the call-back's 1 goes on, 0 stops, anything else fails.
    for (unsigned answer : {1u, 0u, 7u}) {
        Seen groups;
        groups.answer = answer;
        log.clear();
        EXPECT_EQ(answer == 7 ? 7u : 0u, VELK_enumerate_data_descriptors(h, 0, &g_cb, &groups));
        ASSERT_EQ(answer == 1 ? 2u : 1u, groups.calls.size()) << answer;
        EXPECT_EQ(3u, groups.calls[0].size());
        EXPECT_EQ(all.firsts[0], groups.firsts[0]);
        if (answer == 1) {
            EXPECT_EQ(2u, groups.calls[1].size());
            EXPECT_EQ(all.firsts[0] + 3, groups.firsts[1]);
        }
        EXPECT_EQ(answer == 7, log.contains_format("<velk %u::VELK_enumerate_data_descriptors>callback "
                                                   "returned an error, exiting with value %d\n"));
    }
    ASSERT_EQ(0u, VELK_get_data_desc_table(h, 0, &table, &nodes));
    ASSERT_EQ(2u, nodes);
    EXPECT_EQ(3u, table[0].num_entries);
    EXPECT_EQ(40u, table[0].group_length);
    EXPECT_EQ(2u, table[1].num_entries);
    EXPECT_EQ(8u, table[1].group_length);
    EXPECT_EQ(all.firsts[0] + 2, table[0].entries[2]);
    EXPECT_EQ(5u, table[1].entries[1]->field_type);
    for (unsigned i = 0; i < nodes; ++i)
        free(table[i].entries);
    free(table);
    EXPECT_EQ(0u, VELK_get_data_desc_table(h, 0, nullptr, &nodes));  // the result is dropped
    ASSERT_EQ(0u, VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
    ASSERT_EQ(0u, VELK_reading_stream(h, 1));
    ASSERT_EQ(0u, VELK_reading_stream_section(h, 1, VELK_STREAM_SECTION_DATA_DESCRIPTION));
    Seen one;
    one.answer = 9;
    log.clear();
    EXPECT_EQ(9u, VELK_enumerate_data_descriptor_entries(h, 1, &g_cb, &one));
    EXPECT_TRUE(log.contains_format("<velk %u::VELK_enumerate_data_descriptor_entries>callback "
                                    "returned an error, exiting with value %d\n"));
    ASSERT_EQ(1u, one.calls.size());
    ASSERT_EQ(2u, one.calls[0].size());
    EXPECT_EQ("index", text_of(h, one.calls[0][1].name));
    ASSERT_EQ(0u, VELK_done_stream_section(h, 1, VELK_STREAM_SECTION_DATA_DESCRIPTION));
    // The group of a section came back through its legacy table entry.
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_DESCRIPTOR));
    ASSERT_EQ(0u, VELK_get_global_section_descriptor(h, VELK_SECTION_CONFIGURATION, &entries, &count));
    ASSERT_EQ(2, count);
    EXPECT_EQ("config", text_of(h, entries[0].name));
    EXPECT_EQ(24u, entries[1].field_length);
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_DESCRIPTOR));
    ASSERT_EQ(0u, VELK_close(h));

    // Counts that don't fit their sections' lengths are refused.
    for (size_t at : {s37, s46}) {
        std::vector<unsigned char> bad = f;
        bad[at + 16] += 1;
        write_file(path("bad.vk7"), bad);
        ASSERT_EQ(0u, VELK_open(&h, widen(path("bad.vk7")).c_str(), VELK_OPEN_READ));
        ASSERT_EQ(0u, VELK_reading_stream(h, 0));
        ASSERT_EQ(0u, VELK_reading_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
        ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_DESCRIPTOR));
        EXPECT_EQ(at == s37 ? VELK_E_BAD_FILE : 0u, VELK_enumerate_data_descriptor_entries(h, 0, &g_cb, &none));
        EXPECT_EQ(at == s46 ? VELK_E_BAD_FILE : 0u,
                  VELK_get_global_section_descriptor(h, VELK_SECTION_THREAD, &entries, &count));
        ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_DESCRIPTOR));
        ASSERT_EQ(0u, VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
        ASSERT_EQ(0u, VELK_close(h));
    }
}

TEST_F(DescriptorsTest, GroupWalksNeedAHeadAndMissingListsAreNamed)
{
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(path("n.vk7")).c_str(),
                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    velk_class* vc = h->file_object;
    ASSERT_EQ(0u, VELK_writing_stream(h, 0));
    ASSERT_EQ(0u, VELK_writing_stream(h, 1));
    ASSERT_EQ(0u, VELK_writing_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
    Desc d[2] = {desc(5, 0, 4, nullptr), desc(31, 4, 4, nullptr)};
    ASSERT_EQ(0u, VELK_add_data_descriptor_entry(h, 0, &d[0]));
    ASSERT_EQ(0u, VELK_add_data_descriptor_entry(h, 0, &d[1]));
    ASSERT_EQ(0u, VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
    VELK_done_stream(h, 0);
    ASSERT_EQ(0u, VELK_reading_stream(h, 0));
    ASSERT_EQ(0u, VELK_reading_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION));

    // The first entry isn't a head: both group walks refuse, without a line
    // of their own and leaving the table alone; the whole-list walk serves.
    LogCapture log(0xE0000000u);  // all but the trace
    Seen groups, all;
    EXPECT_EQ(VELK_E_BAD_FILE, vc->VELK_enumerate_data_descriptors(0, &g_cb, &groups));
    VELK_DESCRIPTOR_NODE_S* const sentinel = reinterpret_cast<VELK_DESCRIPTOR_NODE_S*>(&groups);
    VELK_DESCRIPTOR_NODE_S* table = sentinel;
    unsigned nodes = 77;
    EXPECT_EQ(VELK_E_BAD_FILE, vc->VELK_get_data_desc_table(0, &table, &nodes));
    EXPECT_EQ(sentinel, table);
    EXPECT_EQ(77u, nodes);
    EXPECT_TRUE(log.lines().empty()) << log.lines()[0];
    EXPECT_TRUE(groups.calls.empty());
    EXPECT_EQ(0u, VELK_enumerate_data_descriptor_entries(h, 0, &g_cb, &all));
    ASSERT_EQ(1u, all.calls.size());
    EXPECT_EQ(2u, all.calls[0].size());

    // Stream 1 has neither a section nor a list.
    EXPECT_EQ(0u, vc->helper_check_if_data_desc_exists(0));
    EXPECT_EQ(VELK_E_NO_DESCRIPTORS, vc->helper_check_if_data_desc_exists(1));
    EXPECT_TRUE(log.contains_format("<velk %u> no data descriptor info exists!\n"));

    // No global descriptor section: the mapping of nothing fails.
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_DESCRIPTOR));
    Desc* entries = nullptr;
    int count = 0;
    EXPECT_EQ(VELK_E_MAP_FAILED, VELK_get_global_section_descriptor(h, VELK_SECTION_MODULE, &entries, &count));
    EXPECT_EQ(-1, count);
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_DESCRIPTOR));

    // The stream form of the getter gives nothing.
    entries = d;
    count = 42;
    EXPECT_EQ(0u, VELK_get_stream_section_descriptor(h, VELK_SECTION_MODULE, 0, &entries, &count));
    EXPECT_EQ(d, entries);
    EXPECT_EQ(42, count);
    ASSERT_EQ(0u, VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
    ASSERT_EQ(0u, VELK_done_stream(h, 0));
    VELK_done_stream(h, 1);
    EXPECT_EQ(0u, VELK_close(h));
}

TEST_F(DescriptorsTest, LegacySampleHeaderGivesTheListOfStreamZero)
{
    struct Row { uint32_t offset; uint16_t type, qualifier; uint32_t length; const char* name; };
    const Row sample = {0, 1, 0, 32, "LEGACY_SAMPLE_RECORD"}, ts = {32, 7, 32, 8, "TIMESTAMP"};
    const struct Case {
        const char* what;
        unsigned version;
        uint8_t flags;
        uint32_t record_size, header_length;
        unsigned status;
        std::vector<Row> rows;
    } cases[] = {
        {"sample and time stamp", 6, 0x05, 48, 112, 0, {sample, ts, {40, 23, 32, 8, "LEGACY_UNKNOWN"}}},
        {"version 5, on-disk flags", 5, 0x77, 48, 112, 0, {sample, ts, {40, 23, 32, 8, "LEGACY_UNKNOWN"}}},
        {"sample only", 6, 0x01, 56, 112, 0, {sample, {40, 23, 0, 16, "LEGACY_UNKNOWN"}}},
        {"record of 40", 6, 0x05, 40, 112, 0, {sample, ts}},
        {"neither bit", 6, 0x0A, 40, 112, 0, {}},
        {"header too short", 6, 0x05, 48, 111, VELK_E_BAD_FILE, {}},
        {"no header", 6, 0x05, 48, 0, VELK_E_MAP_FAILED, {}},
    };
    for (const Case& c : cases) {
        write_file(path("legacy"), legacy_file(c.version, c.flags, c.record_size, c.header_length));
        velk_handle* h = nullptr;
        ASSERT_EQ(0u, VELK_open(&h, widen(path("legacy")).c_str(), VELK_OPEN_READ)) << c.what;
        velk_class* vc = h->file_object;
        LogCapture log;
        EXPECT_EQ(0u, vc->helper_check_if_data_desc_exists(0)) << c.what;
        EXPECT_TRUE(log.contains_format("<velk %u> need to generate the data descriptors from legacy!\n"));
        ASSERT_EQ(0u, VELK_reading_stream(h, 0));
        ASSERT_EQ(0u, VELK_reading_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
        Seen seen, groups;
        EXPECT_EQ(c.status, VELK_enumerate_data_descriptor_entries(h, 0, &g_cb, &seen)) << c.what;
        ASSERT_EQ(c.status == 0 ? 1u : 0u, seen.calls.size());
        if (c.status == 0) {
            ASSERT_EQ(c.rows.size(), seen.calls[0].size()) << c.what;
            EXPECT_EQ(1u, vc->stream_list->desc_dirty);
        }
        for (size_t i = 0; i < c.rows.size(); ++i) {
            const Desc& e = seen.calls[0][i];
            const Row& r = c.rows[i];
            EXPECT_EQ(72u, e.entry_size);
            EXPECT_EQ(r.offset, e.field_offset) << c.what << i;
            EXPECT_EQ(r.type, e.field_type) << c.what << i;
            EXPECT_EQ(r.qualifier, e.field_qualifier) << c.what << i;
            EXPECT_EQ(r.length, e.field_length) << c.what << i;
            EXPECT_EQ(r.name, text_of(h, e.name)) << c.what << i;
        }
        // Generated lists have no head: one group in version 5, refused in 6.
        VELK_DESCRIPTOR_NODE_S* table = nullptr;
        unsigned nodes = 0;
        if (c.version == 5) {
            EXPECT_EQ(0u, VELK_enumerate_data_descriptors(h, 0, &g_cb, &groups));
            ASSERT_EQ(1u, groups.calls.size());
            EXPECT_EQ(3u, groups.calls[0].size());
            ASSERT_EQ(0u, VELK_get_data_desc_table(h, 0, &table, &nodes));
            ASSERT_EQ(1u, nodes);
            EXPECT_EQ(3u, table[0].num_entries);
            EXPECT_EQ(48u, table[0].group_length);
            free(table[0].entries);
            free(table);
        } else if (c.rows.size() == 3) {
            EXPECT_EQ(VELK_E_BAD_FILE, VELK_enumerate_data_descriptors(h, 0, &g_cb, &groups));
            EXPECT_EQ(VELK_E_BAD_FILE, VELK_get_data_desc_table(h, 0, &table, &nodes));
            EXPECT_TRUE(groups.calls.empty());
        }
        ASSERT_EQ(0u, VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
        ASSERT_EQ(0u, VELK_done_stream(h, 0));

        if (c.version == 5) {
            // Fixed answers for the records of version 5, in any state.
            const struct { VELK_SECTION_IDENTIFIER section; uint16_t type; uint32_t length; } fixed[] = {
                {VELK_SECTION_MODULE, 33, 144}, {VELK_SECTION_PROCESS, 3, 48}, {VELK_SECTION_THREAD, 4, 40}};
            for (const auto& b : fixed) {
                Desc* entries = nullptr;
                int count = 0;
                ASSERT_EQ(0u, VELK_get_global_section_descriptor(h, b.section, &entries, &count));
                ASSERT_EQ(1, count);
                EXPECT_EQ(b.type, entries->field_type);
                EXPECT_EQ(b.length, entries->field_length);
                EXPECT_EQ(72u, entries->entry_size);
                EXPECT_EQ(std::wstring(b.type == 33 ? L"ModuleRecord" : L"PidRecord"), entries->name.text);
            }
            Desc* entries = nullptr;
            int count = 0;
            log.clear();
            EXPECT_EQ(124u, VELK_get_global_section_descriptor(h, VELK_SECTION_SYSTEM, &entries, &count));
            EXPECT_TRUE(log.contains_format("<velk %u::helper_get_section_descriptor_id>unknown section type\n"));
            EXPECT_EQ(-1, count);
            EXPECT_EQ(144u, VELK_get_module_record_size(h));
        }
        EXPECT_EQ(0u, VELK_close(h)) << c.what;
    }
}
