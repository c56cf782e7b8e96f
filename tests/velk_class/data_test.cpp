// The data stream: entry sizes from descriptors, adds, the data section and its legacy mirror on
// disk, and enumeration in windows by entries or bytes.
#include <string.h>

#include <memory>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

namespace {

using namespace velk_test;
using Words = std::vector<uint64_t>;
using Bytes = std::vector<unsigned char>;
using Desc = std::vector<uint32_t>;  // field_offset, field_length, field_type
const unsigned int kData = VELK_STREAM_SECTION_DATA, kDesc = VELK_STREAM_SECTION_DATA_DESCRIPTION;
const unsigned int kRW = VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE;

__velk_samprec_desc_entry entry_of(const Desc& d, uint32_t entry_size = 72)
{
    return {entry_size, d[0], (uint16_t)(d.size() > 2 ? d[2] : 0), 0, d[1], 0, {}, 0,
            {nullptr},  {}};
}

// What the data call-back saw, window by window. It answers `answer` and leaves `hand_back`
// unconsumed: 0 nothing, 1 the head of a 48-byte record cut by the window's end, 2 everything.
struct Call {
    unsigned int entries;
    Bytes data;
};
struct Walk {
    unsigned answer = 1;
    int hand_back = 0;
    std::vector<Call> calls;
};
unsigned walk_callback(void* data, unsigned long long bytes, unsigned entries, void* user,
                       unsigned long long* unconsumed)
{
    Walk* w = static_cast<Walk*>(user);
    const unsigned char* p = static_cast<const unsigned char*>(data);
    w->calls.push_back({entries, Bytes(p, p + bytes)});
    if (w->hand_back != 0)
        *unconsumed = w->hand_back == 1 ? bytes % 48 : entries != 0 ? entries : bytes;
    return w->answer;
}
VELK_DATA_CALLBACK g_walk = walk_callback;

// Entries whose bytes say which entry they are: entry i holds i + k at byte k.
Bytes entries(size_t count, size_t size, size_t extra = 0)
{
    Bytes v(count * size + extra);
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = (unsigned char)(i / size + i % size);
    return v;
}

class DataTest : public TempDirTest {
protected:
    void open(unsigned int mode)
    {
        s_.reset(new velk_class);
        ASSERT_EQ(0u, s_->VELK_initialize_me(widen(path("d.vk7")).c_str(), mode));
    }
    unsigned int close()
    {
        const unsigned int status = s_->VELK_closedown();
        s_.reset();
        return status;
    }
    void write_stream(unsigned int stream, const std::vector<Desc>& descs, const Bytes& data)
    {
        const unsigned int info_id = VELK_STREAM_SECTION_STREAM_INFO;
        __VELK_stream_info info = {64, 0, 1, 0, 0, 0, 0, 0, {nullptr}, {nullptr}, {w(L"c")}, 0};
        ASSERT_FALSE(s_->VELK_writing_stream(stream) ||
                     s_->VELK_writing_stream_section(stream, kDesc));
        for (const Desc& d : descs) {
            __velk_samprec_desc_entry e = entry_of(d);
            ASSERT_EQ(0u, s_->VELK_add_data_descriptor_entry(stream, &e));
        }
        ASSERT_FALSE(s_->VELK_done_stream_section(stream, kDesc) ||
                     s_->VELK_writing_stream_section(stream, kData));
        ASSERT_TRUE(data.empty() ||
                    s_->VELK_add_data(stream, (unsigned)data.size(), (void*)data.data()) == 0);
        ASSERT_FALSE(s_->VELK_done_stream_section(stream, kData) ||
                     s_->VELK_writing_stream_section(stream, info_id) ||
                     s_->VELK_set_stream_info(stream, &info) ||
                     s_->VELK_done_stream_section(stream, info_id) || s_->VELK_done_stream(stream));
    }
    void start_reading()
    {
        open(VELK_OPEN_READ);
        ASSERT_FALSE(s_->VELK_reading_stream(0) || s_->VELK_reading_stream_section(0, kData));
    }
    unsigned int enumerate(Walk* w, unsigned long long start)
    {
        return s_->VELK_enumerate_data(0, &g_walk, w, start);
    }
    std::unique_ptr<velk_class> s_;
};

TEST_F(DataTest, EntrySizeAndAddsKeepTheProtocolAndCopyFilesLaxly)
{
    open(kRW);
    ASSERT_EQ(0u, s_->VELK_writing_stream(0));
    velk_list_head* list = s_->stream_list->desc_list;
    // Entry size, number of fields, offsets and lengths: the end of the last field, the first.
    const Words sizes[] = {{12, 3, 0, 8, 8, 4, 4, 4}, {20, 1, 16, 4, 0, 0, 0, 0},
                           {8, 2, 0, 8, 0, 16, 0, 0}, {16, 2, 0, 16, 0, 8, 0, 0},
                           {4, 1, 4, 0, 0, 0, 0, 0},  {0, 0, 0, 0, 0, 0, 0, 0}};
    for (const Words& c : sizes) {
        velk_desc_list_clear(list);
        for (size_t i = 2; i < 2 + 2 * c[1]; i += 2) {
            const __velk_samprec_desc_entry e = entry_of({(uint32_t)c[i], (uint32_t)c[i + 1]});
            ASSERT_TRUE(velk_desc_list_append(list, &e));
        }
        unsigned int size = 99;
        EXPECT_EQ((Words{0, c[0]}), (Words{s_->VELK_get_size_of_each_data_entry(0, &size), size}))
            << c[1] << " fields";
    }
    const __velk_samprec_desc_entry bad = entry_of({0, 0}, 40);  // a size word other than 72
    ASSERT_TRUE(velk_desc_list_append(list, &bad));
    EXPECT_EQ(VELK_E_DESC_SIZE_MISMATCH, s_->VELK_get_size_of_each_data_entry(0, nullptr));
    velk_desc_list_clear(list);

    // Any size goes, descriptors or not; a missing input file answers with the close's failure.
    unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    LogCapture log(0x80000000u);
    ASSERT_EQ(0u, s_->VELK_writing_stream_section(0, kData));
    EXPECT_EQ((Words{145, 0, VELK_E_NULL_POINTER}),
              (Words{s_->VELK_add_data(0, 8, nullptr), s_->VELK_add_data(0, 3, bytes),
                     s_->VELK_add_data_from_file(0, &std::wstring(L"/nonexistent/x")[0])}));
    EXPECT_TRUE(
        log.contains_format("<velk %u::VELK_add_data_from_file>VELK_OSI_Open_File failed\n"));
    Bytes input = entries(1000, 7);
    write_file(path("in.bin"), input);
    ASSERT_EQ(0u, s_->VELK_add_data_from_file(0, &widen(path("in.bin"))[0]));
    input.insert(input.begin(), bytes, bytes + 3);
    EXPECT_EQ(input, read_file(s_->stream_list->data_store->path));
    ASSERT_FALSE(s_->VELK_done_stream_section(0, kData));
    s_->VELK_done_stream(0);
    EXPECT_EQ(VELK_E_NO_DESCRIPTORS, s_->VELK_closedown());  // data without descriptors
    s_->VELK_abort_cleanup_and_close();
}

TEST_F(DataTest, SectionIsEnumeratedByEntriesAndRefusedWhenDamaged)
{
    open(kRW);
    const Bytes data = entries(100, 8, 3);  // a tail of 3 bytes behind 100 entries of 8
    write_stream(0, {{0, 4, 2}, {4, 4, 3}}, data);
    ASSERT_EQ(0u, close());
    const Bytes f = read_file(path("d.vk7"));
    const Slot d = stream_slot(f, 0, KIND_DATA);
    // Without its stream information, the stream counts entries; a walk to the end unmaps.
    start_reading();
    LogCapture log(0x80000000u);
    Walk w;
    ASSERT_EQ(0u, enumerate(&w, 0));
    EXPECT_EQ((Words{1, 800, 100, 0}),
              (Words{w.calls.size(), w.calls[0].data.size(), w.calls[0].entries,
                     __VELK_mmap_tracker::m_num_mmaps}));
    EXPECT_EQ(39u, enumerate(&w, 100));
    EXPECT_TRUE(log.contains_format("<velk %u::helper_map_data>invalid read start!\n"));
    w.answer = 7;
    EXPECT_EQ(7u, enumerate(&w, 80));
    ASSERT_FALSE(s_->VELK_done_stream_section(0, kData) || close());

    // Damaged: length, entries, type, status. Too many entries or bytes are a bad file (24), bytes
    // past the file's end a failed map (34).
    const Words damaged[] = {{803, 101, 0, 24},
                             {803, 0x2000000000000000, 0, 24},
                             {799, 100, 0, 24},
                             {0x10000000000, 100, 1, 34}};
    for (const Words& c : damaged) {
        Bytes bad = f;
        memcpy(&bad[d.at], &c[0], 8);
        memcpy(&bad[d.at + 16], &c[1], 8);
        write_file(path("d.vk7"), bad);
        start_reading();
        s_->stream_list->stream_info.info.stream_type = (unsigned)c[2];
        w = Walk();
        EXPECT_EQ((Words{c[3], 0}), (Words{enumerate(&w, 0), w.calls.size()}))
            << c[0] << "/" << c[1];
        ASSERT_FALSE(s_->VELK_done_stream_section(0, kData) || close());
    }
}

TEST_F(DataTest, SampleRecordStreamIsMirroredIntoTheLegacyTable)
{
    // Rows: the fields (0 sample and time stamp, 1 swapped, 2 sample, 3 time stamp), bytes of
    // data, the header ex's sample count, the flags of kind 19 (0: none), record size.
    const Desc sample = {0, 40, ST_LEGACY_SAMPLE_RECORD}, stamp = {40, 8, ST_TIMESTAMP};
    const std::vector<Desc> fields[4] = {{sample, stamp}, {stamp, sample}, {sample}, {stamp}};
    const Words records[] = {{0, 4800, 100, 0x77, 48}, {0, 4801, 100, 0x77, 48},
                             {1, 480, 10, 0x77, 48},   {2, 480, 12, 0x73, 40},
                             {0, 0, 0, 0x77, 48},      {3, 4800, 0, 0, 48}};
    for (const Words& c : records) {
        open(kRW);
        const Bytes data = entries(c[1] / 48, 48, c[1] % 48);
        write_stream(0, fields[c[0]], data);
        ASSERT_EQ(0u, close());
        const Bytes f = read_file(path("d.vk7"));
        const Slot h = legacy_slot(f, KIND_LEGACY_SAMPLE_RECORD_HEADER);
        const Slot l = legacy_slot(f, KIND_LEGACY_SAMPLE_RECORD);
        const Slot d = stream_slot(f, 0, KIND_DATA);
        EXPECT_EQ(c[2], u32_at(f, legacy_slot(f, KIND_LEGACY_HEADER_EX).file_offset + 356));
        EXPECT_EQ((Words{c[3] != 0, c[3] != 0 && c[1] != 0, c[1] != 0}),
                  (Words{h.at != 0, l.at != 0, d.at != 0}));
        // Kind 38 has the length in the entry size's place; kind 1 lies over its very bytes.
        EXPECT_EQ((Words{c[1], c[1] / c[4], c[1]}),
                  (Words{d.length, d.number_entries, d.entry_length}));
        if (l.at != 0) {
            EXPECT_EQ(data, slice(f, d.file_offset, data.size()));
            expect_ending(f, d.file_offset + c[1], "end data section");
            EXPECT_EQ((Words{c[1], c[2], c[4], d.file_offset, KIND_LEGACY_SAMPLE_RECORD, 0}),
                      (Words{l.length, l.number_entries, l.entry_length, l.file_offset,
                             u32_at(f, l.at + 28), u32_at(f, d.at + 32)}));
        }
        if (h.at != 0) {
            // Kind 19, every byte: count, flags, offsets, record size, stamp length, table slots.
            EXPECT_EQ((Words{112, 1, 112, 0xFFFFFFFF}),
                      (Words{h.length, h.number_entries, h.entry_length, u32_at(f, h.at + 36)}));
            const uint32_t stamp = c[3] & 4 ? 8 : 0;
            const uint32_t record[28] = {(uint32_t)c[2],
                                         (uint32_t)c[3],
                                         0,
                                         0,
                                         0,
                                         stamp * 5,
                                         0,
                                         (uint32_t)c[4],
                                         stamp,
                                         0,
                                         0,
                                         0,
                                         (uint32_t)(h.at - 16) / 40};
            EXPECT_EQ(bytes_of(record), slice(f, h.file_offset, 112));
            expect_ending(f, h.file_offset + 112, "end legacy samprec header");
        }
    }
}

TEST_F(DataTest, LargeSectionsAreWalkedWindowByWindow)
{
    // 700,000 entries of 48 bytes, 33,600,000 bytes: more than one window of 0x2000000.
    Bytes data(700000 * 48);
    for (uint32_t i = 0; i < 700000; ++i)
        memcpy(&data[i * 48], &i, 4);
    open(kRW);
    write_stream(0, {{0, 4, 2}, {40, 8, 7}}, data);
    ASSERT_EQ(0u, close());
    start_reading();
    Walk w;  // by entries: the first window holds 699,050 whole entries
    ASSERT_EQ(0u, enumerate(&w, 0));
    ASSERT_EQ(2u, w.calls.size());
    EXPECT_EQ((Words{699050, 33554400, 950, 45600}),
              (Words{w.calls[0].entries, w.calls[0].data.size(), w.calls[1].entries,
                     w.calls[1].data.size()}));
    EXPECT_TRUE(w.calls[0].data == slice(data, 0, 33554400) &&
                w.calls[1].data == slice(data, 33554400, 45600));
    // Handing back a whole window would never advance: the walk stops.
    LogCapture log(0x80000000u);
    w = Walk();
    w.hand_back = 2;
    EXPECT_EQ((Words{39, 1}), (Words{enumerate(&w, 0), w.calls.size()}));
    EXPECT_TRUE(
        log.contains_format("<velk %u::VELK_enumerate_data>callback left 699050 of the "
                            "window's 699050 units unconsumed, the enumeration would not "
                            "advance!\n"));
    // By bytes, once the stream has its type: the call-back hands back a cut record's head.
    __VELK_stream_info info = {};
    ASSERT_FALSE(s_->VELK_reading_stream_section(0, VELK_STREAM_SECTION_STREAM_INFO) ||
                 s_->VELK_get_stream_info(0, 64, &info, nullptr));
    w = Walk();
    w.hand_back = 1;
    ASSERT_EQ(0u, enumerate(&w, 0));
    ASSERT_EQ(2u, w.calls.size());
    EXPECT_EQ((Words{0x2000000, 0, 45600}),
              (Words{w.calls[0].data.size(), w.calls[0].entries, w.calls[1].data.size()}));
    EXPECT_TRUE(w.calls[0].data == slice(data, 0, 0x2000000) &&
                w.calls[1].data == slice(data, 33554400, 45600));
    ASSERT_FALSE(s_->VELK_done_stream_section(0, kData) || close());
}

}  // namespace
