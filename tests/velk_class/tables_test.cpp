// Reading existing files: hand-built version 5 and 6 files, the chain of stream tables, and files
// damaged in their tables.
#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

namespace {

const unsigned kRw = VELK_OPEN_READ | VELK_OPEN_WRITE;
using U = std::vector<unsigned long long>;

// A version 5 or 6 file as an older writer left it: header ex, software configuration (a host
// text), 96 bytes of legacy samples, system info and a sample record header; no global table.
Image legacy_file(unsigned version)
{
    Image f;
    const size_t form = version == 5 ? 20 : 40, ex = 16 + 20 * form, sw = ex + 464, data = sw + 480;
    f.put(0, version == 5 ? "SampleF " : "Sample6 ", 8);
    f.put32(12, 20);
    f.slot(16, form, 460, ex, 1, 460, KIND_LEGACY_HEADER_EX);
    f.slot(16 + form, form, 476, sw, 1, 476, KIND_LEGACY_SOFTWARE_CONFIG);
    f.slot(16 + 2 * form, form, 96, data, 2, 48, KIND_LEGACY_SAMPLE_RECORD);
    f.slot(16 + 3 * form, form, 48, data + 96, 1, 48, KIND_LEGACY_RUMA_SYS_INFO);
    f.slot(16 + 6 * form, form, 112, data + 144, 1, 112, KIND_LEGACY_SAMPLE_RECORD_HEADER);
    f.put(sw + 64, "host one", 9);
    f.put(data + 144 + 111, "", 1);
    return f;
}

class TablesTest : public TempDirTest {
protected:
    unsigned open(std::string n, unsigned m) { return VELK_open(&h, widen(path(n)).c_str(), m); }
    velk_handle* h = nullptr;
};

}  // namespace

TEST_F(TablesTest, LegacyFilesReadThroughTranslationAndKeepTheirForm)
{
    for (unsigned version : {5u, 6u}) {
        SCOPED_TRACE(version);
        const std::string name = "legacy" + std::to_string(version);
        const Image image = legacy_file(version);
        write_file(path(name), image.b);

        // Read-only: one stream over the legacy samples, the host translated, nothing written.
        ASSERT_EQ(0u, open(name, VELK_OPEN_READ));
        unsigned got = 0, streams = 0;
        EXPECT_EQ((U{0, version, 0, 1, 96}), (U{VELK_get_vk_file_version(h, &got), got,
                                                VELK_get_number_data_streams(h, &streams), streams,
                                                h->file_object->stream_list->data_section.length}));
        __VELK_host host;
        ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_CONFIGURATION));
        ASSERT_EQ(0u, VELK_get_host(h, sizeof(host), &host, nullptr));
        EXPECT_EQ("host one", text_of(h, host.host_text_1.id));
        EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_CONFIGURATION));
        EXPECT_EQ(0u, VELK_close(h));
        EXPECT_EQ(image.b, read_file(path(name)));

        // Read and write: global table, private section and stream 0's table added at once, the
        // global table's entry in the section table's first free slot (slot 4).
        ASSERT_EQ(0u, open(name, kRw));
        const std::vector<unsigned char> grown = read_file(path(name));
        const size_t slot = version == 5 ? 32 : 40, at = image.b.size() + (version == 5 ? 24 : 28);
        const size_t kind_at = version == 5 ? 16 + 4 * 20 + 14 : 16 + 4 * 40 + 28;
        EXPECT_EQ((U{image.b.size() + 512 + 72 + 8 * slot, KIND_GLOBAL_OFFSET}),
                  (U{grown.size(), u32_at(grown, kind_at) & (version == 5 ? 0xFFFFu : ~0u)}));
        // The global table: private section, stream 0's table, the dead kind 38 entry of the legacy
        // samples, and at close the version translated at the open, all in the file's slot form.
        EXPECT_EQ((U{KIND_PRIVATE_USE, KIND_STREAM_OFFSET, KIND_DATA}),
                  (U{u32_at(grown, at), u32_at(grown, at + slot), u32_at(grown, at + 2 * slot)}));
        EXPECT_EQ(0u, VELK_close(h));
        const std::vector<unsigned char> closed = read_file(path(name));
        EXPECT_EQ(KIND_VERSION_INFO, u32_at(closed, at + 3 * slot));
        EXPECT_EQ(slice(image.b, 0, 8), slice(closed, 0, 8));
        ASSERT_EQ(0u, open(name, VELK_OPEN_READ));
        EXPECT_EQ((U{0, 1}), (U{VELK_get_number_data_streams(h, &streams), streams}));
        EXPECT_EQ(0u, VELK_close(h));
    }
}

TEST_F(TablesTest, StreamsChainThroughTheirTables)
{
    __VELK_stream_info info = {};
    info.stream_type = 1;
    auto write_streams = [&](unsigned first, unsigned end) {
        for (unsigned n = first; n < end; ++n) {
            info.comment.text = w(L"stream");
            ASSERT_EQ(0u, VELK_writing_stream(h, n));
            ASSERT_EQ(0u, VELK_writing_stream_section(h, n, VELK_STREAM_SECTION_STREAM_INFO));
            ASSERT_EQ(0u, VELK_set_stream_info(h, n, &info));
            ASSERT_EQ(0u, VELK_done_stream_section(h, n, VELK_STREAM_SECTION_STREAM_INFO));
            ASSERT_EQ(0u, VELK_done_stream(h, n));
        }
    };
    ASSERT_EQ(0u, open("three", kRw | VELK_OPEN_CREATE));
    write_streams(0, 3);
    ASSERT_EQ(0u, VELK_close(h));
    const std::vector<unsigned char> f = read_file(path("three"));
    // Streams 0 and 1 name the next table in their slot 0, stream 2 its own stream info.
    size_t table = 816 + 40;
    for (unsigned kind : {KIND_STREAM_OFFSET, KIND_STREAM_OFFSET, KIND_STREAM_OFFSET}) {
        EXPECT_EQ(kind, u32_at(f, table + 28));
        table = u64_at(f, table + 8);
    }
    EXPECT_EQ(KIND_STREAM_INFO, u32_at(f, table + 28));

    // Reopened: after stream 1's info and empty descriptors, a third's chain entry, table at end.
    ASSERT_EQ(0u, open("two", kRw | VELK_OPEN_CREATE));
    write_streams(0, 2);
    ASSERT_EQ(0u, VELK_close(h));
    ASSERT_EQ(0u, open("two", kRw));
    const unsigned long long one_table = h->file_object->stream_list->next->stream_table_offset;
    const size_t end = read_file(path("two")).size();
    EXPECT_EQ(KIND_DATA_DESCRIPTION, u32_at(read_file(path("two")), one_table + 40 + 28));
    write_streams(2, 3);
    ASSERT_EQ(0u, VELK_close(h));
    const std::vector<unsigned char> g = read_file(path("two"));
    EXPECT_EQ(KIND_STREAM_OFFSET, u32_at(g, one_table + 2 * 40 + 28));
    EXPECT_GE(u64_at(g, one_table + 2 * 40 + 8), end);
    ASSERT_EQ(0u, open("two", VELK_OPEN_READ));
    unsigned count = 0;
    EXPECT_EQ((U{0, 3}), (U{VELK_get_number_data_streams(h, &count), count}));
    EXPECT_EQ(0u, VELK_close(h));
}

TEST_F(TablesTest, DamagedTablesAreRefused)
{
    for (unsigned version : {5u, 6u, 7u}) {
        // A sound file with a header ex, a global table and one stream table.
        const unsigned entry = version == 5 ? 20 : 40, slot = entry == 20 ? 32 : 40,
                       table = 8 * slot;
        const size_t begin = version == 5 ? 416 : 816, global = begin + 464, stream = global + 512;
        Image good;
        good.put(0, version == 5 ? "SampleF " : version == 6 ? "Sample6 " : "Sample7 ", 8);
        good.put32(12, 20);
        good.slot(16, entry, 460, begin, 1, 460, KIND_LEGACY_HEADER_EX);
        good.slot(16 + entry, entry, 512, global, 1, 512, KIND_GLOBAL_OFFSET);
        good.slot(global, slot, table, stream, 1, table, KIND_STREAM_OFFSET);
        good.put(stream + table - 1, "", 1);
        // What, where `value` goes (0: nowhere), the size cut to (0: whole), the status.
        const std::tuple<std::string, size_t, uint32_t, size_t, unsigned> cases[] = {
            {"sound", 0, 0, 0, 0},
            {"wrong eyecatcher", 6, 0x2020'2038u, 0, VELK_E_BAD_FILE},
            {"section count 21", 12, 21, 0, VELK_E_BAD_FILE},
            {"cut inside the section table", 0, 0, begin - 10, VELK_E_BAD_FILE},
            {"cut inside the global table", 0, 0, global + 100, VELK_E_MAP_FAILED},
            {"header ex off end", size_t(version == 5 ? 20 : 24), 0x7FFFFFF0, 0, VELK_E_MAP_FAILED},
            {"stream table off end", global + 8, 0x7FFFFFF0, 0, VELK_E_MAP_FAILED},
            {"stream table names itself", global + 8, (uint32_t)global, 0, VELK_E_BAD_FILE},
        };
        for (const auto& [what, at, value, cut, status] : cases) {
            SCOPED_TRACE(std::to_string(version) + ": " + what);
            Image bad = good;
            bad.put(at, &value, at != 0 ? 4 : 0);
            bad.b.resize(cut != 0 ? cut : bad.b.size());
            write_file(path("damaged"), bad.b);
            EXPECT_EQ(status, open("damaged", VELK_OPEN_READ));
            EXPECT_EQ(0u, status == 0 ? VELK_close(h) : 0u);
        }
    }
}

TEST_F(TablesTest, LegacyBoundAnswersFromRecordsDescriptorsAndHeaderEx)
{
    // The version 5 file above, bound, with processes and threads; what each case changes.
    enum { kNoPids = 1, kNoTids = 2, kNoSamples = 4, kStamps = 8, kUnbound = 16, kShortEx = 32 };
    const unsigned kWriting = 64;
    const std::string fn = "::VELK_is_legacy_bound>";
    const std::string tail = " This implies that the vk5 file is not bound!";
    const std::tuple<unsigned, unsigned, unsigned, std::string> cases[] = {
        {kNoPids, 0, 0, fn + "legacy pid record doesn't exist!" + tail},
        {kNoTids, 0, 0, fn + "legacy tid record doesn't exist!" + tail},
        {kNoSamples, 0, 0, fn + "There is no stream 0!" + tail},
        {kStamps, 0, 0, fn + "the data in stream 0 is not of type ST_LEGACY_SAMPLE_RECORD!" + tail},
        {0, 0, 1, fn + "this file is bound"},
        {kUnbound, 0, 0, fn + "this file is not bound"},
        {kShortEx, VELK_E_BAD_FILE, 0, fn + "header ex is 392 bytes long!"},
        {kWriting, VELK_E_STREAM_STATE, 0, ">stream 0 currently being written!"},
    };
    for (const auto& [what, status, bound, line] : cases) {
        SCOPED_TRACE(line);
        Image f = legacy_file(5);
        f.put8(416 + 392, what & kUnbound ? 200 : 201);
        f.put32(16, what & kShortEx ? 392 : 460);  // the header ex's length
        f.slot(56, 20, 96, 1360, 2, 48, what & kNoSamples ? 0u : +KIND_LEGACY_SAMPLE_RECORD);
        f.slot(96, 20, what & kNoPids ? 0 : 40, 1616, 1, 40, KIND_LEGACY_PID_RECORD);
        f.slot(116, 20, what & kNoTids ? 0 : 40, 1656, 1, 40, KIND_LEGACY_TID_RECORD);
        f.put32(1504 + 4, what & kStamps ? 4 : 1);  // flags: time stamp or sample part
        f.b.resize(1696);
        write_file(path("bound.vk5"), f.b);

        ASSERT_EQ(0u, open("bound.vk5", what & kWriting ? kRw : VELK_OPEN_READ));
        ASSERT_EQ(0u, what & kWriting ? VELK_writing_stream(h, 0) : 0u);
        LogCapture log(0xF0000000u);
        unsigned got = 7;
        EXPECT_EQ((U{status, bound}), (U{VELK_is_legacy_bound(h, &got), got}));
        EXPECT_TRUE(log.contains_format("<velk %u" + line + "\n"));
        EXPECT_EQ(0u, what & kWriting ? VELK_done_stream(h, 0) : 0u);
        EXPECT_EQ(0u, VELK_close(h));
    }
}
