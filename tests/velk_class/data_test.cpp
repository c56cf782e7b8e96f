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
const unsigned int kData = VELK_STREAM_SECTION_DATA;
const unsigned int kRW = VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE;

__velk_samprec_desc_entry entry_of(const Desc& d, uint32_t entry_size = 72)
{
    const uint16_t type = (uint16_t)(d.size() > 2 ? d[2] : 0);
    return {entry_size, d[0], type, 0, d[1], 0, {}, 0, {nullptr}, {}};
}

// What the data call-back saw: each window's size in bytes and entries, and its bytes.
struct Call {
    unsigned long long bytes;
    unsigned int entries;
    Bytes data;
};
// The call-back answers `answer` and leaves `hand_back` unconsumed: 0 nothing, 1 the head of a
// 48-byte record cut by the window's end, 2 the whole window.
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
    w->calls.push_back({bytes, entries, Bytes(p, p + bytes)});
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
    // Writes a stream: its descriptors, its data and its stream information. A type of 0 is refused
    // by VELK_done_stream, and the stream is done all the same.
    void write_stream(unsigned int stream, const std::vector<Desc>& descs, const Bytes& data,
                      unsigned int type = 0)
    {
        const unsigned int desc = VELK_STREAM_SECTION_DATA_DESCRIPTION;
        const unsigned int info_id = VELK_STREAM_SECTION_STREAM_INFO;
        __VELK_stream_info info = {64, 0, type, 0, 0, 0, 0, 0, {nullptr}, {nullptr}, {w(L"c")}, 0};
        ASSERT_FALSE(s_->VELK_writing_stream(stream) ||
                     s_->VELK_writing_stream_section(stream, desc));
        for (const Desc& d : descs) {
            __velk_samprec_desc_entry e = entry_of(d);
            ASSERT_EQ(0u, s_->VELK_add_data_descriptor_entry(stream, &e));
        }
        ASSERT_FALSE(s_->VELK_done_stream_section(stream, desc) ||
                     s_->VELK_writing_stream_section(stream, kData));
        ASSERT_TRUE(data.empty() ||
                    s_->VELK_add_data(stream, (unsigned)data.size(), (void*)data.data()) == 0);
        ASSERT_FALSE(s_->VELK_done_stream_section(stream, kData) ||
                     s_->VELK_writing_stream_section(stream, info_id) ||
                     s_->VELK_set_stream_info(stream, &info) ||
                     s_->VELK_done_stream_section(stream, info_id));
        s_->VELK_done_stream(stream);
    }
    // Opens the file for reading stream 0's data.
    void start_reading()
    {
        open(VELK_OPEN_READ);
        ASSERT_FALSE(s_->VELK_reading_stream(0) || s_->VELK_reading_stream_section(0, kData));
    }
    // Reading the stream information gives stream 0 its type, so the walk counts bytes.
    void take_stream_info()
    {
        __VELK_stream_info info = {};
        ASSERT_FALSE(s_->VELK_reading_stream_section(0, VELK_STREAM_SECTION_STREAM_INFO) ||
                     s_->VELK_get_stream_info(0, 64, &info, nullptr));
    }
    unsigned int enumerate(Walk* w, unsigned long long start)
    {
        return s_->VELK_enumerate_data(0, &g_walk, w, start);
    }
    std::string line(const std::string& tail) const
    {
        return "<velk " + std::to_string(s_->instance) + tail;
    }

    std::unique_ptr<velk_class> s_;
};

TEST_F(DataTest, EntrySizeAndAddsKeepTheProtocolAndCopyFilesLaxly)
{
    open(kRW);
    ASSERT_EQ(0u, s_->VELK_writing_stream(0));
    velk_list_head* list = s_->stream_list->desc_list;
    // Rows: the entry size, the number of fields, then each field's offset and length. An entry
    // ends where the field of the highest offset ends, the first of equals. The first three are
    // the example lists.
    LogCapture trace(0x10000000u);
    const Words sizes[] = {
        {12, 3, 0, 8, 8, 4, 4, 4},  {20, 1, 16, 4, 0, 0, 0, 0},  {8, 2, 0, 8, 0, 16, 0, 0},
        {16, 2, 0, 16, 0, 8, 0, 0}, {12, 2, 8, 4, 0, 2, 0, 0},   {8, 2, 0, 0, 0, 8, 0, 0},
        {4, 1, 4, 0, 0, 0, 0, 0},   {48, 2, 40, 8, 0, 40, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0},
    };
    for (const Words& c : sizes) {
        velk_desc_list_clear(list);
        for (size_t i = 2; i < 2 + 2 * c[1]; i += 2) {
            const __velk_samprec_desc_entry e = entry_of({(uint32_t)c[i], (uint32_t)c[i + 1]});
            ASSERT_TRUE(velk_desc_list_append(list, &e));
        }
        unsigned int size = 99;
        EXPECT_EQ((Words{0, c[0]}), (Words{s_->VELK_get_size_of_each_data_entry(0, &size), size}))
            << c[1] << " fields";
        EXPECT_TRUE(trace.contains(line(">data entry size = " + std::to_string(c[0]) + "\n")));
    }
    EXPECT_EQ(0u, s_->VELK_get_size_of_each_data_entry(0, nullptr));  // no place for the answer
    // A size word other than 72 anywhere in the list refuses it.
    const __velk_samprec_desc_entry bad = entry_of({0, 0}, 40);
    ASSERT_TRUE(velk_desc_list_append(list, &bad));
    LogCapture log(0x80000000u);
    EXPECT_EQ(VELK_E_DESC_SIZE_MISMATCH, s_->VELK_get_size_of_each_data_entry(0, nullptr));
    EXPECT_TRUE(log.contains(line(">desc size is 40, expected size 72\n")));
    velk_desc_list_clear(list);

    // The adds: refusals first. Any size goes, descriptors or not; a missing input file changes
    // nothing and answers with the close's failure.
    unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    wchar_t missing[] = L"/nonexistent/dir/x";
    EXPECT_EQ((Words{VELK_E_NOT_WRITING, VELK_E_NOT_WRITING}),
              (Words{s_->VELK_add_data(0, 8, bytes), s_->VELK_add_data_from_file(0, missing)}));
    ASSERT_EQ(0u, s_->VELK_writing_stream_section(0, kData));
    EXPECT_EQ((Words{145, 145, 145, 0, VELK_E_NULL_POINTER}),
              (Words{s_->VELK_add_data(0, 0, bytes), s_->VELK_add_data(0, 8, nullptr),
                     s_->VELK_add_data_from_file(0, nullptr), s_->VELK_add_data(0, 3, bytes),
                     s_->VELK_add_data_from_file(0, missing)}));
    for (const char* tail :
         {"::VELK_add_data>write_section was not first called!\n",
          "::VELK_add_data_from_file>read_section was not first called!\n",
          "::VELK_add_data>nothing to write!\n", "::VELK_add_data_from_file>nothing to write!\n",
          "::VELK_add_data_from_file>VELK_OSI_Open_File failed\n"})
        EXPECT_TRUE(log.contains(line(tail))) << tail;
    Bytes input = entries(1000, 7);
    write_file(path("in.bin"), input);
    std::wstring in = widen(path("in.bin"));
    ASSERT_EQ(0u, s_->VELK_add_data_from_file(0, &in[0]));
    ASSERT_EQ(0u, s_->VELK_add_data(0, 5, bytes + 3));
    input.insert(input.begin(), bytes, bytes + 3);
    input.insert(input.end(), bytes + 3, bytes + 8);
    EXPECT_EQ(input, read_file(s_->stream_list->data_store->path));

    // The data is read from its section in the file, not in the session that adds it. Entries of
    // size 0 can't be counted.
    Walk w;
    const __velk_samprec_desc_entry e = entry_of({0, 8});
    ASSERT_TRUE(velk_desc_list_append(list, &e));
    ASSERT_EQ(0u, s_->VELK_done_stream_section(0, kData));
    s_->VELK_done_stream(0);
    EXPECT_EQ(VELK_E_NOT_READING, enumerate(&w, 0));
    EXPECT_TRUE(log.contains(line("::VELK_enumerate_data>read_section was not first called!\n")));
    ASSERT_FALSE(s_->VELK_reading_stream(0) || s_->VELK_reading_stream_section(0, kData));
    velk_desc_of(list->next)->field_length = 0;
    EXPECT_EQ(VELK_E_NO_DESCRIPTORS, enumerate(&w, 0));
    EXPECT_TRUE(log.contains(line("> no data descriptor info exists!\n")));

    // Data without descriptors fails the close.
    ASSERT_FALSE(s_->VELK_done_stream_section(0, kData) || s_->VELK_writing_stream(1) ||
                 s_->VELK_writing_stream_section(1, kData) || s_->VELK_add_data(1, 8, bytes));
    log.clear();
    EXPECT_EQ(VELK_E_NO_DESCRIPTORS, close());
    EXPECT_TRUE(log.contains_format("<velk %u> no data descriptor info exists!\n"));
}

TEST_F(DataTest, SectionGoesToDiskIsEnumeratedByEntriesOrBytesAndRefusedWhenDamaged)
{
    // Stream 0: a tail of 3 bytes behind 100 entries of 8. Stream 1: fields without length give
    // data, but no entries. Kind 38: length, entries, the length again in the entry size's place,
    // stream number.
    open(kRW);
    const Bytes data = entries(100, 8, 3);
    write_stream(0, {{0, 4, 2}, {4, 4, 3}}, data, 1);
    write_stream(1, {{0, 0, 2}}, Bytes(10, 1));
    ASSERT_EQ(0u, close());
    const Bytes f = read_file(path("d.vk7"));
    const Slot d = stream_slot(f, 0, KIND_DATA);
    const Slot d1 = stream_slot(f, 1, KIND_DATA);
    EXPECT_EQ((Words{803, 100, 803, 0, 10, 0, 10, 1}),
              (Words{d.length, d.number_entries, d.entry_length, u32_at(f, d.at + 32), d1.length,
                     d1.number_entries, d1.entry_length, u32_at(f, d1.at + 32)}));
    EXPECT_EQ(data, slice(f, d.file_offset, data.size()));
    expect_ending(f, d.file_offset + 803, "end data section");

    // Until the stream information is read, the stream counts entries; a walk to the end unmaps, a
    // stop keeps the window, and a start inside it maps nothing. A start of 10 lies before the
    // window: it is mapped anew from there.
    start_reading();
    LogCapture log(0x80000000u);
    Walk w;
    ASSERT_EQ(0u, enumerate(&w, 0));
    EXPECT_EQ((Words{1, 800, 100, 0}), (Words{w.calls.size(), w.calls[0].bytes, w.calls[0].entries,
                                              __VELK_mmap_tracker::m_num_mmaps}));
    EXPECT_EQ(slice(data, 0, 800), w.calls[0].data);
    EXPECT_EQ(39u, enumerate(&w, 100));
    EXPECT_TRUE(log.contains(line("::helper_map_data>invalid read start!\n")));
    w.answer = 0;
    for (unsigned long long start : {50ull, 99ull, 60ull, 10ull}) {
        ASSERT_EQ(0u, enumerate(&w, start));
        EXPECT_EQ(slice(data, 8 * start, 800 - 8 * start), w.calls.back().data);
        EXPECT_EQ((Words{1, 100 - start}),
                  (Words{__VELK_mmap_tracker::m_num_mmaps, w.calls.back().entries}));
    }
    w.answer = 7;
    EXPECT_EQ((Words{7, 1}), (Words{enumerate(&w, 80), __VELK_mmap_tracker::m_num_mmaps}));
    EXPECT_TRUE(log.contains(
        line("::VELK_enumerate_data>callback returned an error, exiting with value 7\n")));

    // With the stream information read, a sample stream counts bytes, tail included, even at a
    // start inside the old window's entry numbers. Type 9 differs in bit 3 only: still bytes.
    take_stream_info();
    w.answer = 0;
    ASSERT_EQ(0u, enumerate(&w, 60));
    EXPECT_EQ((Words{0, 743}), (Words{w.calls.back().entries, w.calls.back().bytes}));
    EXPECT_EQ(slice(data, 60, 743), w.calls.back().data);
    s_->stream_list->stream_info.info.stream_type = 9;
    w = Walk();
    ASSERT_EQ(0u, enumerate(&w, 797));
    EXPECT_EQ((Words{1, 0}), (Words{w.calls.size(), w.calls[0].entries}));
    EXPECT_EQ(slice(data, 797, 6), w.calls[0].data);
    EXPECT_EQ(39u, enumerate(&w, 803));
    ASSERT_FALSE(s_->VELK_done_stream_section(0, kData) || close());

    // Damaged sections, built from the good file's bytes: length, entries, type, status. More
    // entries than the section holds and a count whose bytes overflow are a bad file (24), bytes
    // past the file's end a failed map (34).
    const Words damaged[] = {
        {803, 101, 0, 24}, {803, 0x2000000000000000, 0, 24},
        {799, 100, 0, 24}, {0x10000000000, 100, 1, 34},
        {803, 100, 0, 0},  {803, 100, 1, 0},
    };
    for (const Words& c : damaged) {
        Bytes bad = f;
        memcpy(&bad[d.at], &c[0], 8);
        memcpy(&bad[d.at + 16], &c[1], 8);
        write_file(path("d.vk7"), bad);
        start_reading();
        s_->stream_list->stream_info.info.stream_type = (unsigned)c[2];
        w = Walk();
        EXPECT_EQ((Words{c[3], c[3] == 0}), (Words{enumerate(&w, 0), w.calls.size()}))
            << c[0] << "/" << c[1];
        ASSERT_FALSE(s_->VELK_done_stream_section(0, kData) || close());
    }
}

TEST_F(DataTest, SampleRecordStreamIsMirroredIntoTheLegacyTable)
{
    // Rows: the fields (0 sample and time stamp, 1 the other way round, 2 sample, 3 time stamp),
    // bytes of data, the header ex's sample count, the flags of kind 19 (0: no kind 19) and the
    // size of a record. The first: 100 entries of 48 bytes, field types 1 and 7.
    const Desc sample = {0, 40, ST_LEGACY_SAMPLE_RECORD}, stamp = {40, 8, ST_TIMESTAMP};
    const std::vector<Desc> fields[4] = {{sample, stamp}, {stamp, sample}, {sample}, {stamp}};
    const Words records[] = {
        {0, 4800, 100, 0x77, 48}, {0, 4801, 100, 0x77, 48}, {1, 480, 10, 0x77, 48},
        {2, 480, 12, 0x73, 40},   {0, 0, 0, 0x77, 48},      {3, 4800, 0, 0, 48},
    };
    for (const Words& c : records) {
        SCOPED_TRACE(std::to_string(c[0]) + " with " + std::to_string(c[1]) + " bytes");
        open(kRW);
        const Bytes data = entries(c[1] / 48, 48, c[1] % 48);
        write_stream(0, fields[c[0]], data, 1);
        ASSERT_EQ(0u, close());
        const Bytes f = read_file(path("d.vk7"));
        const Slot h = legacy_slot(f, KIND_LEGACY_SAMPLE_RECORD_HEADER);
        const Slot l = legacy_slot(f, KIND_LEGACY_SAMPLE_RECORD);
        const Slot d = stream_slot(f, 0, KIND_DATA);
        EXPECT_EQ(c[2], u32_at(f, legacy_slot(f, KIND_LEGACY_HEADER_EX).file_offset + 356));
        EXPECT_EQ((Words{c[3] != 0, c[3] != 0 && c[1] != 0, c[1] != 0}),
                  (Words{h.at != 0, l.at != 0, d.at != 0}));
        if (c[1] != 0) {
            EXPECT_EQ((Words{c[1], c[1] / c[4], c[1]}),
                      (Words{d.length, d.number_entries, d.entry_length}));
            EXPECT_EQ(data, slice(f, d.file_offset, data.size()));
        }
        if (l.at != 0) {  // kind 1 lies over the very bytes of the data section
            EXPECT_EQ((Words{c[1], c[2], c[4], d.file_offset, KIND_LEGACY_SAMPLE_RECORD}),
                      (Words{l.length, l.number_entries, l.entry_length, l.file_offset,
                             u32_at(f, l.at + 28)}));
        }
        if (h.at != 0) {
            // Kind 19, every byte of it: count, flags, sample offset, time stamp offset, record
            // size, time stamp length, table slots.
            EXPECT_EQ((Words{112, 1, 112, 0xFFFFFFFF}),
                      (Words{h.length, h.number_entries, h.entry_length, u32_at(f, h.at + 36)}));
            const uint32_t stamp_at = c[3] & 4 ? 40 : 0;
            const uint32_t stamp_length = c[3] & 4 ? 8 : 0;
            const uint32_t slots = (uint32_t)(h.at - 16) / 40;
            const uint32_t record[28] = {(uint32_t)c[2], (uint32_t)c[3], 0, 0, 0, stamp_at, 0,
                                         (uint32_t)c[4], stamp_length,   0, 0, 0, slots};
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
    write_stream(0, {{0, 4, 2}, {40, 8, 7}}, data, 1);
    ASSERT_EQ(0u, close());
    start_reading();

    // By entries: the first window holds 699,050 whole entries.
    Walk w;
    ASSERT_EQ(0u, enumerate(&w, 0));
    ASSERT_EQ(2u, w.calls.size());
    EXPECT_EQ((Words{699050, 33554400, 950, 45600}),
              (Words{w.calls[0].entries, w.calls[0].bytes, w.calls[1].entries, w.calls[1].bytes}));
    EXPECT_TRUE(w.calls[0].data == slice(data, 0, 33554400) &&
                w.calls[1].data == slice(data, 33554400, 45600));

    // By bytes: a window cuts a record, the call-back hands its head back, and the next window
    // starts on it, at 33,554,400.
    take_stream_info();
    w = Walk();
    w.hand_back = 1;
    ASSERT_EQ(0u, enumerate(&w, 0));
    ASSERT_EQ(2u, w.calls.size());
    EXPECT_EQ((Words{0x2000000, 0, 45600}),
              (Words{w.calls[0].bytes, w.calls[0].entries, w.calls[1].bytes}));
    EXPECT_TRUE(w.calls[0].data == slice(data, 0, 0x2000000) &&
                w.calls[1].data == slice(data, 33554400, 45600));

    // Handing back a whole window would never advance: the walk stops.
    LogCapture log(0x80000000u);
    for (unsigned int type : {1u, 0u}) {
        s_->stream_list->stream_info.info.stream_type = type;
        w = Walk();
        w.hand_back = 2;
        EXPECT_EQ((Words{39, 1}), (Words{enumerate(&w, 0), w.calls.size()})) << type;
        EXPECT_TRUE(log.contains(
            line(type == 1 ? "::VELK_enumerate_data>callback left 33554432 of the window's "
                             "33554432 units unconsumed, the enumeration would not advance!\n"
                           : "::VELK_enumerate_data>callback left 699050 of the window's 699050 "
                             "units unconsumed, the enumeration would not advance!\n")));
    }
    ASSERT_FALSE(s_->VELK_done_stream_section(0, kData) || close());
}

}  // namespace
