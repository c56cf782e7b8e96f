// Data descriptors: lists added, written and read back, group walks and table, the fixed answers
// of version 5 files, and lists made up from the legacy sample record header.
#include <string.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

namespace {

typedef __velk_samprec_desc_entry Desc;
using Words = std::vector<uint64_t>;
const VELK_STREAM_SECTION_IDENTIFIER kDescSection = VELK_STREAM_SECTION_DATA_DESCRIPTION;

// A descriptor whose reserved bytes are set: they must not come back.
Desc desc(uint16_t type, uint32_t offset, uint32_t length, const wchar_t* name)
{
    Desc d = {72, offset, type, 0, length, 0, {}, 0, {w(name)}, {}};
    memset(d.reserved, 0xAB, sizeof(d.reserved));
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

void read_desc(velk_handle* h, unsigned stream)
{
    ASSERT_EQ(0u, VELK_reading_stream(h, stream));
    ASSERT_EQ(0u, VELK_reading_stream_section(h, stream, kDescSection));
}

// A version 5 or 6 file: header ex, 96 bytes of legacy samples and, unless `header_length` is 0, a
// sample record header of that length with a sample part at 0 and a time stamp of 8 bytes at 32.
std::vector<unsigned char> legacy_file(unsigned version, uint8_t flags, uint32_t record_size,
                                       uint32_t header_length)
{
    Image f;
    const unsigned form = version == 5 ? 20 : 40;
    const size_t ex = version == 5 ? 416 : 816, data = ex + 464, header = data + 96;
    f.put(0, version == 5 ? "SampleF " : "Sample6 ", 8);
    f.put32(8, 27);
    f.put32(12, 20);
    f.slot(16, form, 460, ex, 1, 460, KIND_LEGACY_HEADER_EX);
    f.slot(16 + form, form, 96, data, 1, 96, KIND_LEGACY_SAMPLE_RECORD);
    if (header_length != 0)
        f.slot(16 + 2 * form, form, header_length, header, 1, header_length,
               KIND_LEGACY_SAMPLE_RECORD_HEADER);
    f.put8(header + 4, flags);  // the sample record header: flags, time stamp, record size
    f.put32(header + 20, 32);
    f.put32(header + 28, record_size);
    f.put32(header + 32, 8);
    f.put32(header + 108, 0);
    return f.b;
}

using DescriptorsTest = TempDirTest;

}  // namespace

TEST_F(DescriptorsTest, ListsAreAddedWrittenAndReadBackByEntriesGroupsAndTable)
{
    const std::string name = path("d.vk7");
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(),
                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    velk_class* vc = h->file_object;
    ASSERT_FALSE(VELK_writing_stream(h, 0) || VELK_writing_stream(h, 1));
    Desc a[5] = {desc(31, 0, 0, L"group a"), desc(1, 0, 32, L"sample"), desc(7, 32, 8, L"ts"),
                 desc(31, 0, 0, L"group b"), desc(5, 40, 8, nullptr)};

    // Refusals: the null record first, then the state; a stream with neither a section nor a list
    // has no descriptors.
    EXPECT_EQ((Words{145, 125, 125, 82}),
              (Words{VELK_add_data_descriptor_entry(h, 0, nullptr),
                     VELK_add_data_descriptor_entry(h, 0, &a[0]),
                     VELK_add_global_section_descriptor(h, VELK_SECTION_MODULE, a, 1),
                     vc->helper_check_if_data_desc_exists(1)}));

    // Stream 0 by single adds and by the stream section form, which fills stream 0 whichever stream
    // it names.
    ASSERT_FALSE(VELK_writing_stream_section(h, 0, kDescSection) ||
                 VELK_writing_stream_section(h, 1, kDescSection) ||
                 VELK_add_data_descriptor_entry(h, 0, &a[0]) ||
                 VELK_add_data_descriptor_entry(h, 0, &a[1]) ||
                 VELK_add_stream_section_descriptor(h, VELK_SECTION_SYSTEM, 1, &a[2], 1) ||
                 VELK_add_stream_section_descriptor(h, VELK_SECTION_SYSTEM, 0, &a[3], 2));

    // Global groups, and a host so that kind 13 is written.
    Desc g[6] = {desc(31, 0, 0, L"version"), desc(9, 0, 16, nullptr),    desc(31, 0, 0, L"config"),
                 desc(12, 0, 24, L"host"),   desc(31, 0, 0, L"threads"), desc(4, 0, 40, nullptr)};
    __VELK_host host = {24, 0, {w(L"h")}, {nullptr}};
    ASSERT_FALSE(VELK_writing_section(h, VELK_SECTION_DESCRIPTOR) ||
                 VELK_add_global_section_descriptor(h, VELK_SECTION_VERSION_INFO, &g[0], 2) ||
                 VELK_add_global_section_descriptor(h, VELK_SECTION_CONFIGURATION, &g[2], 2) ||
                 VELK_add_global_section_descriptor(h, VELK_SECTION_THREAD, &g[4], 2) ||
                 VELK_done_section(h, VELK_SECTION_DESCRIPTOR) ||
                 VELK_writing_section(h, VELK_SECTION_CONFIGURATION) || VELK_set_host(h, &host) ||
                 VELK_done_section(h, VELK_SECTION_CONFIGURATION));

    // A group runs from the section's id to the next head. Rows: section, id (-2: as added), count,
    // the first two types. The version section has no id; an index past the table is never reached.
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_DESCRIPTOR));
    Desc* entries = nullptr;
    int count = 0;
    for (const std::vector<int>& c : {std::vector<int>{VELK_SECTION_THREAD, -2, 2, 31, 4},
                                      {VELK_SECTION_VERSION_INFO, -2, -1, 0, 0},
                                      {VELK_SECTION_SYSTEM, 99, -1, 0, 0},
                                      {VELK_SECTION_SYSTEM, 1, 1, 9, 0}}) {
        if (c[1] != -2)
            vc->sections_ptr->sfs_legacy_hardware_config.descriptor_id = c[1];
        ASSERT_EQ(0u, VELK_get_global_section_descriptor(h, (VELK_SECTION_IDENTIFIER)c[0], &entries,
                                                         &count));
        EXPECT_EQ((std::vector<int>{c[2], c[3], c[4]}),
                  (std::vector<int>{count, count > 0 ? entries[0].field_type : 0,
                                    count > 1 ? entries[1].field_type : 0}))
            << c[0] << " id " << c[1];
    }
    ASSERT_FALSE(VELK_done_section(h, VELK_SECTION_DESCRIPTOR) ||
                 VELK_done_stream_section(h, 0, kDescSection) ||
                 VELK_done_stream_section(h, 1, kDescSection));
    VELK_done_stream(h, 0);
    VELK_done_stream(h, 1);
    ASSERT_EQ(0u, VELK_close(h));

    // On disk: kind 37's length, count, entry size, stream; the first record's size word, type and
    // name; kind 46's length; the group id in kind 13's entry; bytes 40 to 71 zero; the markers.
    const std::vector<unsigned char> f = read_file(name);
    const Slot s37 = stream_slot(f, 0, KIND_DATA_DESCRIPTION);
    const Slot s46 = global_slot(f, KIND_GLOBAL_DESCRIPTOR);
    const Slot s13 = legacy_slot(f, KIND_LEGACY_SOFTWARE_CONFIG);
    ASSERT_TRUE(s37.at != 0 && s46.at != 0 && s13.at != 0);
    const size_t d0 = s37.file_offset;
    EXPECT_EQ((Words{360, 5, 72, 0, 72, 31, a[0].name.id, 6 * 72, 2}),
              (Words{s37.length, s37.number_entries, s37.entry_length, u32_at(f, s37.at + 32),
                     u32_at(f, d0), u32_at(f, d0 + 8) & 0xFFFF, u64_at(f, d0 + 32), s46.length,
                     u32_at(f, s13.at + 36)}));
    for (size_t i = 0; i < 5; ++i)
        EXPECT_EQ(std::vector<unsigned char>(32, 0), slice(f, d0 + i * 72 + 40, 32)) << i;
    expect_ending(f, d0 + 360, "end velk metadata");
    expect_ending(f, s46.file_offset + 6 * 72, "end velk global descriptor");

    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
    Seen idle;
    VELK_DESCRIPTOR_NODE_S* table = nullptr;
    unsigned nodes = 0;

    read_desc(h, 0);
    Seen all;
    ASSERT_EQ(0u, VELK_enumerate_data_descriptor_entries(h, 0, &g_cb, &all));
    ASSERT_EQ(1u, all.calls.size());
    std::string back;
    for (const Desc& d : all.calls[0])
        back += text_of(h, d.name.id) + "/" + std::to_string(d.field_type) + " ";
    EXPECT_EQ("group a/31 sample/1 ts/7 group b/31 ?/5 ", back);
    // By groups: the call-back's 1 goes on, 0 stops, anything else fails.
    for (unsigned answer : {1u, 0u, 7u}) {
        Seen groups;
        groups.answer = answer;
        EXPECT_EQ(answer == 7 ? 7u : 0u, VELK_enumerate_data_descriptors(h, 0, &g_cb, &groups));
        ASSERT_EQ(answer == 1 ? 2u : 1u, groups.calls.size());
        EXPECT_TRUE(groups.calls[0].size() == 3 && groups.firsts[0] == all.firsts[0]);
        EXPECT_TRUE(answer != 1 ||
                    (groups.calls[1].size() == 2 && groups.firsts[1] == all.firsts[0] + 3));
    }
    ASSERT_FALSE(VELK_get_data_desc_table(h, 0, &table, &nodes) || nodes != 2);
    EXPECT_EQ((Words{3, 40, 2, 8, 5}),
              (Words{table[0].num_entries, table[0].group_length, table[1].num_entries,
                     table[1].group_length, table[1].entries[1]->field_type}));
    for (unsigned i = 0; i < nodes; ++i)
        free(table[i].entries);
    free(table);
    ASSERT_EQ(0u, VELK_done_stream_section(h, 0, kDescSection));
    // The group of a section came back through its legacy table entry.
    ASSERT_FALSE(
        VELK_reading_section(h, VELK_SECTION_DESCRIPTOR) ||
        VELK_get_global_section_descriptor(h, VELK_SECTION_CONFIGURATION, &entries, &count) ||
        count != 2);
    EXPECT_EQ("config/24",
              text_of(h, entries[0].name.id) + "/" + std::to_string(entries[1].field_length));
    ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_DESCRIPTOR));
    ASSERT_EQ(0u, VELK_close(h));

    // A count that doesn't fit its section's length is refused, in a stream's list and globally.
    std::vector<unsigned char> bad = f;
    bad[s37.at + 16] += 1;
    bad[s46.at + 16] += 1;
    write_file(path("bad.vk7"), bad);
    ASSERT_EQ(0u, VELK_open(&h, widen(path("bad.vk7")).c_str(), VELK_OPEN_READ));
    read_desc(h, 0);
    ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_DESCRIPTOR));
    EXPECT_EQ(
        (Words{VELK_E_BAD_FILE, VELK_E_BAD_FILE}),
        (Words{VELK_enumerate_data_descriptor_entries(h, 0, &g_cb, &idle),
               VELK_get_global_section_descriptor(h, VELK_SECTION_THREAD, &entries, &count)}));
    ASSERT_FALSE(VELK_done_section(h, VELK_SECTION_DESCRIPTOR) ||
                 VELK_done_stream_section(h, 0, kDescSection) || VELK_close(h));
}

TEST_F(DescriptorsTest, LegacySampleHeaderGivesTheListOfStreamZero)
{
    // Generated entries: size word, offset, type, qualifier, length, name.
    const std::string sample = "72/0/1/0/32/LEGACY_SAMPLE_RECORD ", ts = "72/32/7/32/8/TIMESTAMP ";
    const std::string rest = "72/40/23/32/8/LEGACY_UNKNOWN ",
                      rest16 = "72/40/23/0/16/LEGACY_UNKNOWN ";
    // Version, the header's flags, record size and length, the walk's status, the entries.
    const struct Case {
        unsigned version, flags, record_size, header_length, status;
        std::string rows;
    } cases[] = {
        {6, 0x05, 48, 112, 0, sample + ts + rest},  // sample and time stamp
        {5, 0x77, 48, 112, 0, sample + ts + rest},  // version 5, on-disk flags
        {6, 0x01, 56, 112, 0, sample + rest16},     // sample only
        {6, 0x05, 40, 112, 0, sample + ts},
        {6, 0x0A, 40, 112, 0, ""},  // neither bit
        {6, 0x05, 48, 111, VELK_E_BAD_FILE, ""},
        {6, 0x05, 48, 0, VELK_E_MAP_FAILED, ""},  // no header
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.flags) + " " + std::to_string(c.header_length));
        write_file(path("legacy"),
                   legacy_file(c.version, (uint8_t)c.flags, c.record_size, c.header_length));
        velk_handle* h = nullptr;
        ASSERT_EQ(0u, VELK_open(&h, widen(path("legacy")).c_str(), VELK_OPEN_READ));
        read_desc(h, 0);
        Seen seen, groups;
        EXPECT_EQ(c.status, VELK_enumerate_data_descriptor_entries(h, 0, &g_cb, &seen));
        ASSERT_EQ(c.status == 0 ? 1u : 0u, seen.calls.size());
        std::string got;
        for (const Desc& e : c.status == 0 ? seen.calls[0] : std::vector<Desc>()) {
            for (uint32_t v : {e.entry_size, e.field_offset, (uint32_t)e.field_type,
                               (uint32_t)e.field_qualifier, e.field_length})
                got += std::to_string(v) + "/";
            got += text_of(h, e.name.id) + " ";
        }
        EXPECT_EQ(c.rows, got);
        VELK_DESCRIPTOR_NODE_S* table = nullptr;
        unsigned nodes = 0;
        Desc* entries = nullptr;
        int count = 0;
        if (c.version == 5) {
            // Generated lists have no head; in version 5 they are one group.
            ASSERT_FALSE(VELK_enumerate_data_descriptors(h, 0, &g_cb, &groups) ||
                         VELK_get_data_desc_table(h, 0, &table, &nodes) || nodes != 1 ||
                         groups.calls.size() != 1);
            EXPECT_EQ((Words{3, 3, 48}),
                      (Words{groups.calls[0].size(), table[0].num_entries, table[0].group_length}));
            free(table[0].entries);
            free(table);
            // The synthetic descriptor of version 5 module records, in any state; none for others.
            ASSERT_EQ(0u,
                      VELK_get_global_section_descriptor(h, VELK_SECTION_MODULE, &entries, &count));
            EXPECT_EQ((Words{1, 33, 144, 72, 144}),
                      (Words{(uint64_t)count, entries->field_type, entries->field_length,
                             entries->entry_size, VELK_get_module_record_size(h)}));
            EXPECT_EQ(
                (Words{124, (uint64_t)-1}),
                (Words{VELK_get_global_section_descriptor(h, VELK_SECTION_SYSTEM, &entries, &count),
                       (uint64_t)(int64_t)count}));
        } else if (c.rows == sample + ts + rest) {
            // In version 6 both group walks refuse the headless list.
            EXPECT_EQ((Words{VELK_E_BAD_FILE, VELK_E_BAD_FILE, 0}),
                      (Words{VELK_enumerate_data_descriptors(h, 0, &g_cb, &groups),
                             VELK_get_data_desc_table(h, 0, &table, &nodes), groups.calls.size()}));
            // No global descriptor section: the mapping of nothing fails.
            ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_DESCRIPTOR));
            EXPECT_EQ(VELK_E_MAP_FAILED,
                      VELK_get_global_section_descriptor(h, VELK_SECTION_MODULE, &entries, &count));
            EXPECT_EQ(-1, count);
            ASSERT_EQ(0u, VELK_done_section(h, VELK_SECTION_DESCRIPTOR));
        }
        ASSERT_EQ(0u, VELK_done_stream_section(h, 0, kDescSection));
        ASSERT_EQ(0u, VELK_done_stream(h, 0));
        EXPECT_EQ(0u, VELK_close(h));
    }
}
