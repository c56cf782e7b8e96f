// The data stream: entry sizes from descriptors, adds, the data section and
// its legacy mirror on disk, and enumeration in windows by entries or bytes.
#include <string.h>

#include <functional>
#include <memory>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

namespace {

using namespace velk_test;
using Words = std::vector<uint64_t>;
using Desc = std::vector<uint32_t>;  // field_offset, field_length, field_type
const unsigned int kData = VELK_STREAM_SECTION_DATA;
const unsigned int kRW = VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE;

__velk_samprec_desc_entry entry_of(const Desc& d, uint32_t entry_size = 72)
{
    __velk_samprec_desc_entry e = {};
    e.entry_size = entry_size, e.field_offset = d[0], e.field_length = d[1];
    e.field_type = (uint16_t)(d.size() > 2 ? d[2] : 0);
    return e;
}

// One call of the data call-back, and a call-back that records and answers
// through a function of the test.
struct Call {
    const unsigned char* data;  // valid inside the call only
    unsigned long long bytes;
    unsigned int entries;
    std::vector<unsigned char> copy;  // the window's bytes, kept for small windows
};
struct Walk {
    std::vector<Call> calls;
    std::function<unsigned(const Call&, unsigned long long*)> answer =
        [](const Call&, unsigned long long*) { return 1u; };
};
unsigned walk_callback(void* data, unsigned long long bytes, unsigned entries, void* user,
                       unsigned long long* unconsumed)
{
    Walk* w = static_cast<Walk*>(user);
    const unsigned char* p = static_cast<const unsigned char*>(data);
    w->calls.push_back({p, bytes, entries,
                        bytes <= 0x100000 ? std::vector<unsigned char>(p, p + bytes)
                                          : std::vector<unsigned char>()});
    return w->answer(w->calls.back(), unconsumed);
}
VELK_DATA_CALLBACK g_walk = walk_callback;
const auto stop = [](const Call&, unsigned long long*) { return 0u; };

class DataTest : public TempDirTest {
protected:
    void TearDown() override
    {
        EXPECT_TRUE(s_ == nullptr || s_->VELK_closedown() == 0);
        s_.reset();
        TempDirTest::TearDown();
    }
    void open(unsigned int mode)
    {
        s_.reset(new velk_class);
        ASSERT_EQ(0u, s_->VELK_initialize_me(widen(path("d.vk7")).c_str(), mode));
    }
    unsigned int close()
    {
        const unsigned int status = s_->VELK_closedown();
        if (status != 0)
            s_->VELK_abort_cleanup_and_close();
        s_.reset();
        return status;
    }
    __VELK_stream_struct* node(unsigned int stream)
    {
        __VELK_stream_struct* n = nullptr;
        s_->utility_point_to_stream_index(stream, &n);
        return n;
    }
    // Writes a stream: its descriptors, its data and its stream information.
    void write_stream(unsigned int stream, const std::vector<Desc>& descs,
                      const std::vector<unsigned char>& data, unsigned int type = 0)
    {
        ASSERT_EQ(0u, s_->VELK_writing_stream(stream));
        ASSERT_EQ(0u,
                  s_->VELK_writing_stream_section(stream, VELK_STREAM_SECTION_DATA_DESCRIPTION));
        for (const Desc& d : descs) {
            __velk_samprec_desc_entry e = entry_of(d);
            ASSERT_EQ(0u, s_->VELK_add_data_descriptor_entry(stream, &e));
        }
        ASSERT_EQ(0u, s_->VELK_done_stream_section(stream, VELK_STREAM_SECTION_DATA_DESCRIPTION));
        ASSERT_EQ(0u, s_->VELK_writing_stream_section(stream, kData));
        for (size_t at = 0; at < data.size(); at += 0x1000000)  // adds of any size
            ASSERT_EQ(0u, s_->VELK_add_data(stream,
                                            (unsigned)std::min<size_t>(0x1000000, data.size() - at),
                                            (void*)&data[at]));
        ASSERT_EQ(0u, s_->VELK_done_stream_section(stream, kData));
        __VELK_stream_info info = {
            64, 0, type, 0, 0, 0, 0, 0, {nullptr}, {nullptr}, {(wchar_t*)L"c"}, 0};
        ASSERT_EQ(0u, s_->VELK_writing_stream_section(stream, VELK_STREAM_SECTION_STREAM_INFO));
        ASSERT_EQ(0u, s_->VELK_set_stream_info(stream, &info));
        ASSERT_EQ(0u, s_->VELK_done_stream_section(stream, VELK_STREAM_SECTION_STREAM_INFO));
        s_->VELK_done_stream(stream);  // type 0 is refused, and the stream is done all the same
    }
    void start_reading(unsigned int stream)
    {
        ASSERT_EQ(0u, s_->VELK_reading_stream(stream));
        ASSERT_EQ(0u, s_->VELK_reading_stream_section(stream, kData));
    }
    void take_stream_info(unsigned int stream)  // gives the stream its type, so the byte count
    {
        __VELK_stream_info info = {};
        ASSERT_TRUE(s_->VELK_reading_stream_section(stream, VELK_STREAM_SECTION_STREAM_INFO) == 0 &&
                    s_->VELK_get_stream_info(stream, 64, &info, nullptr) == 0);
    }
    unsigned int enumerate(unsigned int stream, Walk* w, unsigned long long start)
    {
        return s_->VELK_enumerate_data(stream, &g_walk, w, start);
    }
    std::string line(const std::string& tail) const
    {
        return "<velk " + std::to_string(s_->instance) + tail;
    }

    std::unique_ptr<velk_class> s_;
};

// Entries whose bytes say which entry they are: entry i holds i + k at byte k.
std::vector<unsigned char> entries(size_t count, size_t size, size_t extra = 0)
{
    std::vector<unsigned char> v(count * size + extra);
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = (unsigned char)(i / size + i % size);
    return v;
}

TEST_F(DataTest, EntrySizeAndAddsKeepTheProtocolAndCopyFilesLaxly)
{
    open(kRW);
    ASSERT_EQ(0u, s_->VELK_writing_stream(0));
    velk_list_head* list = node(0)->desc_list;
    // The first three are the example lists: entries of 12, 20 and 8 bytes.
    const struct { std::vector<Desc> descs; unsigned int size; } cases[] = {
        {{{0, 8}, {8, 4}, {4, 4}}, 12},
        {{{16, 4}}, 20},
        {{{0, 8}, {0, 16}}, 8},
        {{{0, 16}, {0, 8}}, 16},
        {{{8, 4}, {0, 2}}, 12},
        {{{0, 0}, {0, 8}}, 8},
        {{{4, 0}}, 4},
        {{{40, 8}, {0, 40}}, 48},
        {{}, 0},
    };
    LogCapture trace(0x10000000u);
    for (const auto& c : cases) {
        velk_desc_list_clear(list);
        for (const Desc& d : c.descs) {
            const __velk_samprec_desc_entry e = entry_of(d);
            ASSERT_TRUE(velk_desc_list_append(list, &e));
        }
        unsigned int size = 99;
        EXPECT_EQ((Words{0, c.size}), (Words{s_->VELK_get_size_of_each_data_entry(0, &size), size}))
            << c.descs.size() << " fields";
        EXPECT_TRUE(trace.contains(line(">data entry size = " + std::to_string(c.size) + "\n")));
    }
    EXPECT_EQ(0u, s_->VELK_get_size_of_each_data_entry(0, nullptr));  // no place for the answer
    // A size word other than 72 anywhere in the list refuses it.
    const __velk_samprec_desc_entry bad = entry_of({0, 0}, 40);
    ASSERT_TRUE(velk_desc_list_append(list, &bad));
    LogCapture log(0x80000000u);
    EXPECT_EQ(VELK_E_DESC_SIZE_MISMATCH, s_->VELK_get_size_of_each_data_entry(0, nullptr));
    EXPECT_TRUE(log.contains(line(">desc size is 40, expected size 72\n")));
    velk_desc_list_clear(list);

    // The adds: refusals first.
    unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    wchar_t missing[] = L"/nonexistent/dir/x";
    EXPECT_EQ(VELK_E_NOT_WRITING, s_->VELK_add_data(0, 8, bytes));
    EXPECT_TRUE(log.contains(line("::VELK_add_data>write_section was not first called!\n")));
    EXPECT_EQ(VELK_E_NOT_WRITING, s_->VELK_add_data_from_file(0, missing));
    EXPECT_TRUE(
        log.contains(line("::VELK_add_data_from_file>read_section was not first called!\n")));
    ASSERT_EQ(0u, s_->VELK_writing_stream_section(0, kData));
    EXPECT_EQ((Words{145, 145, 145}),
              (Words{s_->VELK_add_data(0, 0, bytes), s_->VELK_add_data(0, 8, nullptr),
                     s_->VELK_add_data_from_file(0, nullptr)}));
    EXPECT_TRUE(log.contains(line("::VELK_add_data>nothing to write!\n")) &&
                log.contains(line("::VELK_add_data_from_file>nothing to write!\n")));
    EXPECT_EQ(-1, node(0)->data_store->handle);  // nothing opened the store yet

    // Any size goes, descriptors or not; a missing input file changes nothing and answers with the
    // close's failure.
    ASSERT_EQ(0u, s_->VELK_add_data(0, 3, bytes));
    EXPECT_EQ(VELK_E_NULL_POINTER, s_->VELK_add_data_from_file(0, missing));
    EXPECT_TRUE(log.contains(line("::VELK_add_data_from_file>VELK_OSI_Open_File failed\n")));
    std::vector<unsigned char> input = entries(1000, 7);
    write_file(path("in.bin"), input);
    std::wstring in = widen(path("in.bin"));
    ASSERT_EQ(0u, s_->VELK_add_data_from_file(0, &in[0]));
    ASSERT_EQ(0u, s_->VELK_add_data(0, 5, bytes + 3));
    std::vector<unsigned char> expected(bytes, bytes + 3);
    expected.insert(expected.end(), input.begin(), input.end());
    expected.insert(expected.end(), bytes + 3, bytes + 8);
    EXPECT_EQ(expected, read_file(node(0)->data_store->path));
    EXPECT_EQ(0u, __VELK_mmap_tracker::m_num_mmaps);

    // Added data is not readable in its own session: the section is still empty.
    Walk w;
    const __velk_samprec_desc_entry e = entry_of({0, 8});
    ASSERT_TRUE(velk_desc_list_append(node(0)->desc_list, &e));
    ASSERT_EQ(0u, s_->VELK_done_stream_section(0, kData));
    s_->VELK_done_stream(0);
    EXPECT_EQ(VELK_E_NOT_READING, enumerate(0, &w, 0));
    EXPECT_TRUE(log.contains(line("::VELK_enumerate_data>read_section was not first called!\n")));
    start_reading(0);
    for (unsigned int type : {0u, 1u, 9u}) {
        node(0)->stream_info.info.stream_type = type;
        log.clear();
        EXPECT_EQ((Words{39, 0}), (Words{enumerate(0, &w, 0), w.calls.size()})) << type;
        EXPECT_TRUE(log.contains(line("::helper_map_data>invalid read start!\n")));
    }
    node(0)->stream_info.info.stream_type = 0;  // entries of size 0 can't be counted
    velk_desc_of(node(0)->desc_list->next)->field_length = 0;
    EXPECT_EQ(VELK_E_NO_DESCRIPTORS, enumerate(0, &w, 0));
    EXPECT_TRUE(log.contains(line("> no data descriptor info exists!\n")));
    velk_desc_of(node(0)->desc_list->next)->field_length = 8;
    node(0)->desc_dirty = 1;
    ASSERT_EQ(0u, s_->VELK_done_stream_section(0, kData));
    ASSERT_EQ(0u, close());
    const Slot d = stream_slot(read_file(path("d.vk7")), 0, KIND_DATA);
    EXPECT_EQ((Words{expected.size(), expected.size() / 8}), (Words{d.length, d.number_entries}));
}

TEST_F(DataTest, SectionGoesToDiskIsEnumeratedByEntriesOrBytesAndRefusedWhenDamaged)
{
    open(kRW);
    const std::vector<unsigned char> data =
        entries(100, 8, 3);  // a tail of 3 bytes behind 100 entries of 8
    write_stream(0, {{0, 4, 2}, {4, 4, 3}}, data, 1);
    write_stream(1, {{0, 0, 2}},
                 std::vector<unsigned char>(10, 1));  // fields without length: data, but no entries
    ASSERT_EQ(0u, close());
    std::vector<unsigned char> f = read_file(path("d.vk7"));
    const Slot d = stream_slot(f, 0, KIND_DATA), d1 = stream_slot(f, 1, KIND_DATA);
    // length, entries, the length again in the entry size's place, stream number
    EXPECT_EQ((Words{803, 100, 803, 0, 10, 0, 10, 1}),
              (Words{d.length, d.number_entries, d.entry_length, u32_at(f, d.at + 32), d1.length,
                     d1.number_entries, d1.entry_length, u32_at(f, d1.at + 32)}));
    EXPECT_EQ(data, slice(f, d.file_offset, data.size()));
    expect_ending(f, d.file_offset + 803, "end data section");

    open(VELK_OPEN_READ);
    start_reading(0);
    LogCapture log(0x80000000u);
    Walk w;  // until the stream information is read, the stream counts entries
    ASSERT_EQ(0u, enumerate(0, &w, 0));
    ASSERT_EQ(1u, w.calls.size());
    EXPECT_EQ((Words{800, 100}), (Words{w.calls[0].bytes, w.calls[0].entries}));
    EXPECT_EQ(slice(data, 0, 800), w.calls[0].copy);
    EXPECT_EQ(0u, __VELK_mmap_tracker::m_num_mmaps);  // a walk to the end unmaps
    w.calls.clear();
    EXPECT_EQ(39u, enumerate(0, &w, 100));
    EXPECT_TRUE(log.contains(line("::helper_map_data>invalid read start!\n")) && w.calls.empty());
    ASSERT_EQ(0u, enumerate(0, &w, 99));
    ASSERT_EQ(1u, w.calls.size());
    EXPECT_EQ((Words{8, 1, 99}), (Words{w.calls[0].bytes, w.calls[0].entries, w.calls[0].copy[0]}));

    // A stop keeps the window; a start inside it maps nothing, also below the last start.
    w = Walk{{}, stop};
    ASSERT_EQ(0u, enumerate(0, &w, 50));
    const unsigned int mmaps = __VELK_mmap_tracker::m_num_mmaps;
    EXPECT_EQ(1u, mmaps);
    for (unsigned long long start :
         {99ull, 60ull, 50ull, 10ull}) {  // 10 lies before the window: mapped anew from there
        ASSERT_EQ(0u, enumerate(0, &w, start));
        EXPECT_EQ(
            (Words{mmaps, start < 50 ? start : 50, 99, 100 - start, 8 * (100 - start), start}),
            (Words{__VELK_mmap_tracker::m_num_mmaps, node(0)->data_map.m_first_entry,
                   node(0)->data_map.m_last_entry, w.calls.back().entries, w.calls.back().bytes,
                   w.calls.back().copy[0]}));
    }
    w.answer = [](const Call&, unsigned long long*) { return 7u; };
    EXPECT_EQ(7u, enumerate(0, &w, 80));
    EXPECT_TRUE(log.contains(
        line("::VELK_enumerate_data>callback returned an error, exiting with value 7\n")));
    EXPECT_EQ(mmaps, __VELK_mmap_tracker::m_num_mmaps);

    // With the stream information read, a sample stream counts bytes, tail included; the window in
    // entries is dropped.
    take_stream_info(0);
    w = Walk{{}, stop};
    ASSERT_EQ(0u, enumerate(0, &w, 60));  // inside the old window's entry numbers, but counted anew
    EXPECT_EQ((Words{743, 0, data[60], 60, 802}),
              (Words{w.calls[0].bytes, w.calls[0].entries, w.calls[0].copy[0],
                     node(0)->data_map.m_first_entry, node(0)->data_map.m_last_entry}));
    node(0)->stream_info.info.stream_type =
        9;  // differs from a sample stream in bit 3 only: still bytes
    w = Walk();
    ASSERT_EQ(0u, enumerate(0, &w, 797));
    ASSERT_EQ(1u, w.calls.size());
    EXPECT_EQ((Words{6, 0}), (Words{w.calls[0].bytes, w.calls[0].entries}));
    EXPECT_EQ(slice(data, 797, 6), w.calls[0].copy);
    EXPECT_EQ(39u, enumerate(0, &w, 803));
    ASSERT_EQ(0u, s_->VELK_done_stream_section(0, kData));
    ASSERT_EQ(0u, close());

    // Damaged sections, built from the good file's bytes, are refused.
    const struct { uint64_t length, number_entries; unsigned int type, status; } damaged[] = {
        {803, 101, 0, VELK_E_BAD_FILE},              // more entries than the section holds
        {803, 1ull << 61, 0, VELK_E_BAD_FILE},       // a count whose bytes overflow
        {799, 100, 0, VELK_E_BAD_FILE},
        {1ull << 40, 100, 1, VELK_E_MAP_FAILED},     // bytes past the file's end
        {803, 100, 0, 0}, {803, 100, 1, 0},
    };
    for (const auto& c : damaged) {
        std::vector<unsigned char> bad = f;
        memcpy(&bad[d.at], &c.length, 8);
        memcpy(&bad[d.at + 16], &c.number_entries, 8);
        write_file(path("d.vk7"), bad);
        open(VELK_OPEN_READ);
        start_reading(0);
        node(0)->stream_info.info.stream_type = c.type;
        w = Walk();
        EXPECT_EQ((Words{c.status, c.status == 0}), (Words{enumerate(0, &w, 0), w.calls.size()}))
            << c.length << "/" << c.number_entries;
        ASSERT_EQ(0u, s_->VELK_done_stream_section(0, kData));
        ASSERT_EQ(0u, close());
    }
}

TEST_F(DataTest, DataWithoutDescriptorsFailsTheClose)
{
    open(kRW);
    ASSERT_EQ(0u, s_->VELK_writing_stream(0));
    ASSERT_EQ(0u, s_->VELK_writing_stream(1));
    ASSERT_EQ(0u, s_->VELK_writing_stream_section(1, kData));
    unsigned char bytes[16] = {};
    ASSERT_EQ(0u, s_->VELK_add_data(1, 16, bytes));
    LogCapture log(0x80000000u);
    EXPECT_EQ(VELK_E_NO_DESCRIPTORS, close());
    EXPECT_TRUE(log.contains_format("<velk %u> no data descriptor info exists!\n"));
}

TEST_F(DataTest, SampleRecordStreamIsMirroredIntoTheLegacyTable)
{
    const Desc sample = {0, 40, ST_LEGACY_SAMPLE_RECORD}, stamp = {40, 8, ST_TIMESTAMP};
    const struct {
        std::vector<Desc> descs;
        size_t bytes;
        bool header, data;
        uint32_t count;
        uint8_t flags;
        uint32_t size;
    } cases[] = {
        {{sample, stamp}, 4800, true, true, 100, 0x77, 48},  // 100 entries of 48 bytes, field types
                                                             // 1 and 7
        {{sample, stamp}, 4801, true, true, 100, 0x77, 48},
        {{stamp, sample}, 480, true, true, 10, 0x77, 48},
        {{sample}, 480, true, true, 12, 0x73, 40},
        {{sample, stamp}, 0, true, false, 0, 0x77, 48},
        {{stamp}, 4800, false, true, 0, 0, 48},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.bytes) + " bytes, " + std::to_string(c.descs.size()) +
                     " fields, first type " + std::to_string(c.descs[0][2]));
        open(kRW);
        const std::vector<unsigned char> data = entries(c.bytes / 48, 48, c.bytes % 48);
        write_stream(0, c.descs, data, 1);
        ASSERT_EQ(0u, close());
        const std::vector<unsigned char> f = read_file(path("d.vk7"));
        const Slot h = legacy_slot(f, KIND_LEGACY_SAMPLE_RECORD_HEADER),
                   l = legacy_slot(f, KIND_LEGACY_SAMPLE_RECORD), d = stream_slot(f, 0, KIND_DATA);
        EXPECT_EQ(c.count, u32_at(f, legacy_slot(f, KIND_LEGACY_HEADER_EX).file_offset + 356));
        EXPECT_EQ((Words{c.header, c.header && c.data, c.data}),
                  (Words{h.at != 0, l.at != 0, d.at != 0}));
        if (c.data) {
            EXPECT_EQ((Words{c.bytes, c.bytes / c.size, c.bytes}),
                      (Words{d.length, d.number_entries, d.entry_length}));
            EXPECT_EQ(data, slice(f, d.file_offset, data.size()));
        }
        if (l.at != 0) {  // kind 1 lies over the very bytes of the data section
            EXPECT_EQ((Words{c.bytes, c.count, c.size, d.file_offset, KIND_LEGACY_SAMPLE_RECORD}),
                      (Words{l.length, l.number_entries, l.entry_length, l.file_offset,
                             u32_at(f, l.at + 28)}));
        }
        if (h.at != 0) {  // kind 19, every byte of it
            EXPECT_EQ((Words{112, 1, 112, 0xFFFFFFFF}),
                      (Words{h.length, h.number_entries, h.entry_length, u32_at(f, h.at + 36)}));
            std::vector<unsigned char> record(112, 0);
            const uint32_t fields[] = {c.count,
                                       c.flags,
                                       0,
                                       0,
                                       0,
                                       c.flags & 4 ? 40u : 0u,
                                       0,
                                       c.size,
                                       c.flags & 4 ? 8u : 0u,
                                       0,
                                       0,
                                       0,
                                       (uint32_t)(h.at - 16) / 40};
            for (size_t i = 0; i < sizeof(fields) / sizeof(fields[0]);
                 ++i)  // count, flags, sample offset, time stamp offset,
                memcpy(&record[4 * i], &fields[i],
                       4);  // record size, time stamp length, table slots
            EXPECT_EQ(record, slice(f, h.file_offset, 112));
            expect_ending(f, h.file_offset + 112, "end legacy samprec header");
        }
    }
}

TEST_F(DataTest, LargeSectionsAreWalkedWindowByWindow)
{
    const size_t count = 700000, size = 48;  // 33,600,000 bytes: more than one window of 0x2000000
    std::vector<unsigned char> data(count * size);
    for (size_t i = 0; i < count; ++i)
        memcpy(&data[i * size], &i, 4);
    open(kRW);
    write_stream(0, {{0, 4, 2}, {40, 8, 7}}, data, 1);
    data.clear();
    ASSERT_EQ(0u, close());
    open(VELK_OPEN_READ);
    start_reading(0);

    // Each window's whole entries are read; the walk must see every entry once, in order.
    uint32_t next = 0;
    bool in_order = true;
    auto read_entries = [&](const unsigned char* p, unsigned long long bytes) {
        for (unsigned long long at = 0; at + 48 <= bytes; at += 48, ++next)
            in_order = in_order && memcmp(p + at, &next, 4) == 0;
    };

    // By entries: the first window holds 699,050 whole entries.
    Walk w;
    w.answer = [&](const Call& c, unsigned long long*) {
        read_entries(c.data, 48ull * c.entries);
        return 1u;
    };
    ASSERT_EQ(0u, enumerate(0, &w, 0));
    ASSERT_EQ(2u, w.calls.size());
    EXPECT_EQ((Words{699050, 33554400, 950, 45600}),
              (Words{w.calls[0].entries, w.calls[0].bytes, w.calls[1].entries, w.calls[1].bytes}));
    EXPECT_TRUE(in_order && next == count);

    // By bytes: a window cuts a record, the call-back hands its head back, and the next window
    // starts on it.
    take_stream_info(0);
    w = Walk();
    next = 0;
    w.answer = [&](const Call& c, unsigned long long* unconsumed) {
        read_entries(c.data, c.bytes);
        *unconsumed = c.bytes % 48;
        return 1u;
    };
    ASSERT_EQ(0u, enumerate(0, &w, 0));
    ASSERT_EQ(2u, w.calls.size());
    EXPECT_EQ((Words{0x2000000, 0, 33600000 - 33554400}),
              (Words{w.calls[0].bytes, w.calls[0].entries,
                     w.calls[1].bytes}));  // the second starts at 33,554,400
    EXPECT_TRUE(in_order && next == count);

    // Handing back a whole window would never advance: the walk stops.
    LogCapture log(0x80000000u);
    for (unsigned int type : {1u, 0u}) {
        node(0)->stream_info.info.stream_type = type;
        w = Walk();
        w.answer = [](const Call& c, unsigned long long* unconsumed) {
            *unconsumed = c.entries ? c.entries : c.bytes;
            return 1u;
        };
        log.clear();
        EXPECT_EQ((Words{39, 1}), (Words{enumerate(0, &w, 0), w.calls.size()})) << type;
        EXPECT_TRUE(log.contains(
            line(type == 1 ? "::VELK_enumerate_data>callback left 33554432 of the window's "
                             "33554432 units unconsumed, the enumeration would not advance!\n"
                           : "::VELK_enumerate_data>callback left 699050 of the window's 699050 "
                             "units unconsumed, the enumeration would not advance!\n")));
    }
    ASSERT_EQ(0u, s_->VELK_done_stream_section(0, kData));
    ASSERT_EQ(0u, close());
}

}  // namespace
