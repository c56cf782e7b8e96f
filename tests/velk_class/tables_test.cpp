// Reading existing files: hand-built version 5 and 6 files, the chain of
// stream tables, and files damaged in their tables.
#include <string.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

namespace {

const unsigned kRw = VELK_OPEN_READ | VELK_OPEN_WRITE;
using U = std::vector<unsigned long long>;

// A version 5 or 6 file as an older writer left it: header ex (version and
// stream parameters), software configuration (host and OS), 96 bytes of
// legacy samples, a system info head and a sample record header of a 48-byte
// record with a sample part; no global table.
Image legacy_file(unsigned version)
{
    Image f;
    const unsigned form = version == 5 ? 20 : 40;
    f.put(0, version == 5 ? "SampleF " : "Sample6 ", 8);
    f.put32(8, 27);
    f.put32(12, 20);
    const size_t ex = version == 5 ? 416 : 816, sw = ex + 464, data = sw + 480;
    f.slot(16, form, 460, ex, 1, 460, KIND_LEGACY_HEADER_EX);
    f.slot(16 + form, form, 476, sw, 1, 476, KIND_LEGACY_SOFTWARE_CONFIG);
    f.slot(16 + 2 * form, form, 96, data, 2, 48, KIND_LEGACY_SAMPLE_RECORD);
    f.slot(16 + 3 * form, form, 48, data + 96, 1, 48, KIND_LEGACY_RUMA_SYS_INFO);
    f.slot(16 + 6 * form, form, 112, data + 144, 1, 112, KIND_LEGACY_SAMPLE_RECORD_HEADER);
    f.put32(ex, 0x00000002);  // version 2.0
    f.put32(ex + 364, 11);    // stream_param_a
    f.put(sw, "host two", 9);
    f.put(sw + 64, "host one", 9);
    f.put(sw + 128, "Linux", 6);
    f.put32(sw + 256, 3);
    f.put32(sw + 264, 99);
    f.put32(sw + 268, 5);
    f.put(sw + 280, "6.1", 4);
    f.put32(data + 144 + 4, 1);
    f.put32(data + 144 + 28, 48);
    f.put(data + 144 + 111, "", 1);
    return f;
}

using TablesTest = TempDirTest;

}  // namespace

TEST_F(TablesTest, LegacyFilesReadThroughTranslationAndKeepTheirForm)
{
    for (unsigned version : {5u, 6u}) {
        SCOPED_TRACE(version);
        const std::string name = path("legacy" + std::to_string(version));
        const Image image = legacy_file(version);
        write_file(name, image.b);

        // Read-only: one stream made up in memory over the legacy samples,
        // the configuration translated, nothing written.
        velk_handle* h = nullptr;
        ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
        unsigned got = 0, streams = 0;
        EXPECT_EQ((U{0, version, 0, 1, 96}), (U{VELK_get_vk_file_version(h, &got), got,
                                                VELK_get_number_data_streams(h, &streams), streams,
                                                h->file_object->stream_list->data_section.length}));
        __VELK_host host;
        __VELK_os os;
        __VELK_version_info v;
        ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_CONFIGURATION));
        ASSERT_EQ(0u, VELK_get_host(h, sizeof(host), &host, nullptr));
        ASSERT_EQ(0u, VELK_get_os(h, sizeof(os), &os, nullptr));
        EXPECT_EQ("host one|host two|6.1", text_of(h, host.host_text_1.id) + "|" +
                                               text_of(h, host.host_text_2.id) + "|" +
                                               text_of(h, os.os_text_2.id));
        // The file's 99 is not carried as the first OS word.
        EXPECT_EQ((U{3, 0, 5}), (U{os.os_type, os.os_word_1, os.os_word_2}));
        EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_CONFIGURATION));
        ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_VERSION_INFO));
        ASSERT_EQ(0u, VELK_get_version_info(h, sizeof(v), &v, nullptr));
        // The major version is the header ex's first word.
        EXPECT_EQ((U{16, 2}), (U{v.version_size, v.version_major}));
        EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_VERSION_INFO));
        EXPECT_EQ(0u, VELK_close(h));
        EXPECT_EQ(image.b, read_file(name));

        // Read and write: the global table, the private section and stream
        // 0's table are added at once; the file keeps its form.
        ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), kRw));
        const std::vector<unsigned char> grown = read_file(name);
        EXPECT_EQ(image.b.size() + 512 + 72 + (version == 5 ? 256 : 320), grown.size());
        // The global table's entry takes the section table's first free slot.
        const size_t kind_at = version == 5 ? 16 + 4 * 20 + 14 : 16 + 4 * 40 + 28;
        EXPECT_EQ(KIND_GLOBAL_OFFSET, u32_at(grown, kind_at) & (version == 5 ? 0xFFFFu : ~0u));
        // The global table: private section, stream 0's table, and the dead
        // kind 38 entry of the legacy samples. The version translated at the
        // open counts as set, so the close adds it in the file's slot form.
        const size_t slot = version == 5 ? 32 : 40;
        const size_t kind = image.b.size() + (version == 5 ? 24 : 28);
        EXPECT_EQ(
            (U{KIND_PRIVATE_USE, KIND_STREAM_OFFSET, KIND_DATA}),
            (U{u32_at(grown, kind), u32_at(grown, kind + slot), u32_at(grown, kind + 2 * slot)}));
        EXPECT_EQ(0u, VELK_close(h));
        const std::vector<unsigned char> closed = read_file(name);
        EXPECT_EQ(KIND_VERSION_INFO, u32_at(closed, kind + 3 * slot));
        EXPECT_EQ(0, memcmp(closed.data(), version == 5 ? "SampleF " : "Sample6 ", 8));
        // The upgraded file opens again and still shows its one stream.
        ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
        EXPECT_EQ((U{0, 1}), (U{VELK_get_number_data_streams(h, &streams), streams}));
        EXPECT_EQ(0u, VELK_close(h));
    }
}

TEST_F(TablesTest, StreamsChainThroughTheirTables)
{
    velk_handle* h = nullptr;
    __VELK_stream_info info;
    memset(&info, 0, sizeof(info));
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
    ASSERT_EQ(0u, VELK_open(&h, widen(path("three")).c_str(), kRw | VELK_OPEN_CREATE));
    write_streams(0, 3);
    std::vector<unsigned long long> tables;
    for (auto* s = h->file_object->stream_list; s; s = s->next)
        tables.push_back(s->stream_table_offset);
    ASSERT_EQ(0u, VELK_close(h));
    const std::vector<unsigned char> f = read_file(path("three"));
    // Global table: private section, then stream 0's table; streams 0 and 1
    // name the next table in their slot 0, stream 2 names none.
    EXPECT_EQ(KIND_STREAM_OFFSET, u32_at(f, 816 + 40 + 28));
    EXPECT_EQ(tables[0], u64_at(f, 816 + 40 + 8));
    EXPECT_EQ(tables[1], u64_at(f, tables[0] + 8));
    EXPECT_EQ(tables[2], u64_at(f, tables[1] + 8));
    EXPECT_EQ(KIND_STREAM_INFO, u32_at(f, tables[2] + 28));  // its own section, slot 0

    // Two streams reopened: stream 1's table holds its stream info and the
    // empty descriptor section each close adds to a stream without
    // descriptors; the third's chain entry takes the next slot, its table
    // the end of the file.
    ASSERT_EQ(0u, VELK_open(&h, widen(path("two")).c_str(), kRw | VELK_OPEN_CREATE));
    write_streams(0, 2);
    ASSERT_EQ(0u, VELK_close(h));
    ASSERT_EQ(0u, VELK_open(&h, widen(path("two")).c_str(), kRw));
    const unsigned long long one_table = h->file_object->stream_list->next->stream_table_offset;
    const size_t end = read_file(path("two")).size();
    EXPECT_EQ(KIND_DATA_DESCRIPTION, u32_at(read_file(path("two")), one_table + 40 + 28));
    write_streams(2, 3);
    ASSERT_EQ(0u, VELK_close(h));
    const std::vector<unsigned char> g = read_file(path("two"));
    EXPECT_EQ(KIND_STREAM_OFFSET, u32_at(g, one_table + 2 * 40 + 28));
    EXPECT_GE(u64_at(g, one_table + 2 * 40 + 8), end);
    ASSERT_EQ(0u, VELK_open(&h, widen(path("two")).c_str(), VELK_OPEN_READ));
    unsigned count = 0;
    EXPECT_EQ(0u, VELK_get_number_data_streams(h, &count));
    EXPECT_EQ(3u, count);
    EXPECT_EQ(0u, VELK_close(h));
}

TEST_F(TablesTest, DamagedTablesAreRefused)
{
    for (unsigned version : {5u, 6u, 7u}) {
        // A sound file with a header ex, a global table and one stream table.
        const unsigned entry = version == 5 ? 20 : 40, slot = version == 5 ? 32 : 40;
        const size_t begin = version == 5 ? 416 : 816, global = begin + 464, stream = global + 512;
        const size_t table = version == 5 ? 256 : 320;
        Image good;
        good.put(0, version == 5 ? "SampleF " : version == 6 ? "Sample6 " : "Sample7 ", 8);
        good.put32(8, 27);
        good.put32(12, 20);
        good.slot(16, entry, 460, begin, 1, 460, KIND_LEGACY_HEADER_EX);
        good.slot(16 + entry, entry, 512, global, 1, 512, KIND_GLOBAL_OFFSET);
        good.slot(global, slot, table, stream, 1, table, KIND_STREAM_OFFSET);
        good.put(stream + table - 1, "", 1);
        const uint32_t far = 0x7FFFFFF0u;
        const struct {
            const char* what;
            size_t at;  // where `value` goes; 0: nowhere
            uint32_t value;
            size_t cut;  // 0: keep the whole file
            unsigned status;
        } cases[] = {
            {"sound", 0, 0, 0, 0},
            {"wrong eyecatcher", 6, 0x2020'2038u, 0, VELK_E_BAD_FILE},
            {"section count 21", 12, 21, 0, VELK_E_BAD_FILE},
            {"cut inside the section table", 0, 0, begin - 10, VELK_E_BAD_FILE},
            {"cut inside the global table", 0, 0, global + 100, VELK_E_MAP_FAILED},
            {"header ex past the end", size_t(version == 5 ? 20 : 24), far, 0, VELK_E_MAP_FAILED},
            {"stream table past the end", global + 8, far, 0, VELK_E_MAP_FAILED},
            {"stream table names itself", 0, 0, 0, VELK_E_BAD_FILE},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(std::to_string(version) + ": " + c.what);
            Image bad = good;
            if (c.at != 0)
                bad.put32(c.at, c.value);
            if (std::string(c.what) == "stream table names itself")
                bad.slot(stream, slot, table, stream, 1, table, KIND_STREAM_OFFSET);
            if (c.cut != 0)
                bad.b.resize(c.cut);
            write_file(path("damaged"), bad.b);
            velk_handle* h = nullptr;
            const unsigned status = VELK_open(&h, widen(path("damaged")).c_str(), VELK_OPEN_READ);
            EXPECT_EQ(c.status, status);
            if (status == 0) {
                EXPECT_EQ(0u, VELK_close(h));
            }
        }
    }
}

TEST_F(TablesTest, LegacyBoundAnswersFromRecordsDescriptorsAndHeaderEx)
{
    // The version 5 file above, with a process and a thread section, a
    // sample record header and the bound byte of the header ex as each case
    // wants them. A stream 0 being written can't be read for its descriptors.
    const struct {
        const char* what;
        bool pids, tids, samples, timestamp_only, writing;
        unsigned char bound_byte;
        unsigned header_ex_length, status, bound;
        const char* line;
    } cases[] = {
        {"no processes", false, true, true, false, false, 201, 460, 0, 0,
         "legacy pid record doesn't exist! This implies that the vk5 file is not bound!"},
        {"no threads", true, false, true, false, false, 201, 460, 0, 0,
         "legacy tid record doesn't exist! This implies that the vk5 file is not bound!"},
        {"no stream", true, true, false, false, false, 201, 460, 0, 0,
         "There is no stream 0! This implies that the vk5 file is not bound!"},
        {"time stamps first", true, true, true, true, false, 201, 460, 0, 0,
         "the data in stream 0 is not of type ST_LEGACY_SAMPLE_RECORD! This implies that the vk5 "
         "file is not bound!"},
        {"bound", true, true, true, false, false, 201, 460, 0, 1, "this file is bound"},
        {"not bound", true, true, true, false, false, 200, 460, 0, 0, "this file is not bound"},
        {"header ex too short", true, true, true, false, false, 201, 392, VELK_E_BAD_FILE, 0,
         "header ex is 392 bytes long!"},
        // Logged by the stream's state check, not under this function's name.
        {"stream 0 being written", true, true, true, false, true, 201, 460, VELK_E_STREAM_STATE, 0,
         "stream 0 currently being written!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Image f = legacy_file(5);
        const size_t ex = 416, header = 1504, end = 1616;
        f.put(ex + 392, &c.bound_byte, 1);
        f.slot(16, 20, c.header_ex_length, ex, 1, c.header_ex_length, KIND_LEGACY_HEADER_EX);
        if (!c.samples)
            f.slot(56, 20, 0, 0, 0, 0, 0);
        if (c.pids)
            f.slot(96, 20, 40, end, 1, 40, KIND_LEGACY_PID_RECORD);
        if (c.tids)
            f.slot(116, 20, 40, end + 40, 1, 40, KIND_LEGACY_TID_RECORD);
        f.put32(header + 4, c.timestamp_only ? 4 : 1);  // flags: time stamp or sample part
        f.put32(header + 32, 8);                        // time stamp length
        f.put(end + 79, "", 1);
        write_file(path("bound.vk5"), f.b);

        velk_handle* h = nullptr;
        ASSERT_EQ(
            0u, VELK_open(&h, widen(path("bound.vk5")).c_str(), c.writing ? kRw : VELK_OPEN_READ));
        if (c.writing) {
            ASSERT_EQ(0u, VELK_writing_stream(h, 0));
        }
        LogCapture log(0xF0000000u);
        unsigned bound = 7;
        EXPECT_EQ(c.status, VELK_is_legacy_bound(h, &bound));
        EXPECT_EQ(c.bound, bound);
        const std::string where = c.writing ? ">" : "::VELK_is_legacy_bound>";
        EXPECT_TRUE(log.contains_format("<velk %u" + where + c.line + "\n"));
        if (c.writing) {
            EXPECT_EQ(VELK_E_BAD_POINTER, VELK_is_legacy_bound(h, nullptr));
            EXPECT_EQ(0u, VELK_done_stream(h, 0));
        }
        EXPECT_EQ(0u, VELK_close(h));
    }
}
