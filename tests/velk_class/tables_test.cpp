// Reading existing files: hand-built version 5 and 6 files, the chain of
// stream tables, and files damaged in their tables.
#include <string.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

namespace {

// A version 5 or 6 file as an older writer left it: header ex (version and
// stream parameters), software configuration (host and OS), 96 bytes of
// legacy samples, a system info head and a sample record header; no global
// table.
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
    f.put32(ex, 0x00000002);  // version 2.0
    f.put32(ex + 364, 11);    // stream_param_a
    f.put(sw, "host two", 9);
    f.put(sw + 64, "host one", 9);
    f.put(sw + 128, "Linux", 6);
    f.put32(sw + 256, 3);
    f.put32(sw + 264, 99);
    f.put32(sw + 268, 5);
    f.put(sw + 280, "6.1", 4);
    // The sample record header: a 48-byte record with a sample part.
    f.slot(16 + 6 * form, form, 112, data + 144, 1, 112, KIND_LEGACY_SAMPLE_RECORD_HEADER);
    f.put32(data + 144 + 4, 1);
    f.put32(data + 144 + 28, 48);
    f.put(data + 144 + 111, "", 1);
    return f;
}

std::string text_of(velk_handle* h, __string_or_id id)
{
    unsigned size = 0;
    if (VELK_convert_uniqueid_to_string(h, 0, &id, nullptr, &size) != 0)
        return "?";
    std::vector<wchar_t> wide(size / 4 + 1);
    if (VELK_convert_uniqueid_to_string(h, size, &id, wide.data(), &size) != 0)
        return "?";
    std::string narrow;
    for (wchar_t c : std::wstring(wide.data()))
        narrow += (char)c;
    return narrow;
}

using TablesTest = TempDirTest;

}  // namespace

TEST_F(TablesTest, LegacyFilesReadThroughTranslationAndKeepTheirForm)
{
    for (unsigned version : {5u, 6u}) {
        const std::string name = path("legacy" + std::to_string(version));
        const Image image = legacy_file(version);
        write_file(name, image.b);

        // Read-only: one stream made up in memory, records translated, nothing written.
        velk_handle* h = nullptr;
        ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ)) << version;
        unsigned value = 0;
        EXPECT_EQ(0u, VELK_get_vk_file_version(h, &value));
        EXPECT_EQ(version, value);
        EXPECT_EQ(0u, VELK_get_number_data_streams(h, &value));
        EXPECT_EQ(1u, value);
        EXPECT_EQ(0u, h->file_object->stream_list->stream_table_offset);
        EXPECT_EQ(96u, h->file_object->stream_list->data_section.length);
        ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_CONFIGURATION));
        __VELK_host host;
        ASSERT_EQ(0u, VELK_get_host(h, sizeof(host), &host, nullptr));
        EXPECT_EQ("host one", text_of(h, host.host_text_1));
        EXPECT_EQ("host two", text_of(h, host.host_text_2));
        __VELK_os os;
        ASSERT_EQ(0u, VELK_get_os(h, sizeof(os), &os, nullptr));
        EXPECT_EQ(3u, os.os_type);
        EXPECT_EQ(0u, os.os_word_1);  // the file's 99 is not carried
        EXPECT_EQ(5u, os.os_word_2);
        EXPECT_EQ("6.1", text_of(h, os.os_text_2));
        EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_CONFIGURATION));
        __VELK_version_info v;
        ASSERT_EQ(0u, VELK_reading_section(h, VELK_SECTION_VERSION_INFO));
        ASSERT_EQ(0u, VELK_get_version_info(h, sizeof(v), &v, nullptr));
        EXPECT_EQ(16u, v.version_size);
        EXPECT_EQ(2u, v.version_major);  // the header ex's first word
        EXPECT_EQ(0u, VELK_done_section(h, VELK_SECTION_VERSION_INFO));
        EXPECT_EQ(0u, VELK_close(h));
        EXPECT_EQ(image.b, read_file(name));

        // Read and write: the global table, the private section and stream
        // 0's table are added at once; the file keeps its form.
        ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE));
        const std::vector<unsigned char> grown = read_file(name);
        const unsigned table = version == 5 ? 256 : 320;
        EXPECT_EQ(image.b.size() + 512 + 72 + table, grown.size());
        // The global table's entry takes the section table's first free slot.
        const size_t kind_at = version == 5 ? 16 + 4 * 20 + 14 : 16 + 4 * 40 + 28;
        EXPECT_EQ(KIND_GLOBAL_OFFSET, u32_at(grown, kind_at) & (version == 5 ? 0xFFFFu : ~0u));
        // The global table: private section, stream 0's table, and the dead
        // kind 38 entry of the legacy samples.
        const size_t global = image.b.size(), slot = version == 5 ? 32 : 40;
        const size_t kind = version == 5 ? 24 : 28;
        EXPECT_EQ(KIND_PRIVATE_USE, u32_at(grown, global + kind));
        EXPECT_EQ(KIND_STREAM_OFFSET, u32_at(grown, global + slot + kind));
        EXPECT_EQ(KIND_DATA, u32_at(grown, global + 2 * slot + kind));
        EXPECT_EQ(0u, VELK_close(h));
        // The version translated at the open counts as set, so the close
        // writes it in the new form, in the file's own slot form.
        const std::vector<unsigned char> closed = read_file(name);
        EXPECT_EQ(KIND_VERSION_INFO, u32_at(closed, global + 3 * slot + kind));
        EXPECT_EQ(0, memcmp(closed.data(), version == 5 ? "SampleF " : "Sample6 ", 8));
        // The upgraded file opens again and still shows its one stream.
        ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
        EXPECT_EQ(0u, VELK_get_number_data_streams(h, &value));
        EXPECT_EQ(1u, value);
        EXPECT_EQ(0u, VELK_close(h));
    }
}

TEST_F(TablesTest, StreamsChainThroughTheirTables)
{
    velk_handle* h = nullptr;
    __VELK_stream_info info;
    memset(&info, 0, sizeof(info));
    info.stream_type = 1;
    auto write_stream = [&](unsigned n) {
        info.comment.text = (wchar_t*)L"stream";
        ASSERT_EQ(0u, VELK_writing_stream(h, n));
        ASSERT_EQ(0u, VELK_writing_stream_section(h, n, VELK_STREAM_SECTION_STREAM_INFO));
        ASSERT_EQ(0u, VELK_set_stream_info(h, n, &info));
        ASSERT_EQ(0u, VELK_done_stream_section(h, n, VELK_STREAM_SECTION_STREAM_INFO));
        ASSERT_EQ(0u, VELK_done_stream(h, n));
    };
    const unsigned rwc = VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE;
    ASSERT_EQ(0u, VELK_open(&h, widen(path("three")).c_str(), rwc));
    for (unsigned n = 0; n < 3; ++n)
        write_stream(n);
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

    // Two streams reopened: the third's chain entry takes stream 1's first
    // free slot, its table the end of the file.
    ASSERT_EQ(0u, VELK_open(&h, widen(path("two")).c_str(), rwc));
    write_stream(0);
    write_stream(1);
    ASSERT_EQ(0u, VELK_close(h));
    ASSERT_EQ(0u, VELK_open(&h, widen(path("two")).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE));
    // A stream without descriptors gets an empty descriptor section at each
    // close: stream 1's table holds its stream info and that one.
    __VELK_stream_struct* one = h->file_object->stream_list->next;
    EXPECT_EQ(2u, one->next_slot);
    const unsigned long long one_table = one->stream_table_offset;
    EXPECT_EQ(KIND_DATA_DESCRIPTION, u32_at(read_file(path("two")), one_table + 40 + 28));
    const size_t end = read_file(path("two")).size();
    write_stream(2);
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
        struct Case {
            const char* what;
            size_t at;        // where `value` goes; 0: nowhere
            uint32_t value;
            size_t cut;       // 0: keep the whole file
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
        for (const Case& c : cases) {
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
            EXPECT_EQ(c.status, status) << version << ": " << c.what;
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
    // wants them.
    struct Case {
        const char* what;
        bool pids, tids, samples, timestamp_only;
        unsigned char bound_byte;
        unsigned header_ex_length;
        unsigned status, bound;
        const char* line;
    } cases[] = {
        {"no processes", false, true, true, false, 201, 460, 0, 0,
         "legacy pid record doesn't exist! This implies that the vk5 file is not bound!"},
        {"no threads", true, false, true, false, 201, 460, 0, 0,
         "legacy tid record doesn't exist! This implies that the vk5 file is not bound!"},
        {"no stream", true, true, false, false, 201, 460, 0, 0,
         "There is no stream 0! This implies that the vk5 file is not bound!"},
        {"time stamps first", true, true, true, true, 201, 460, 0, 0,
         "the data in stream 0 is not of type ST_LEGACY_SAMPLE_RECORD! This implies that the vk5 "
         "file is not bound!"},
        {"bound", true, true, true, false, 201, 460, 0, 1, "this file is bound"},
        {"not bound", true, true, true, false, 200, 460, 0, 0, "this file is not bound"},
        {"header ex too short", true, true, true, false, 201, 392, VELK_E_BAD_FILE, 0,
         "header ex is 392 bytes long!"},
    };
    for (const Case& c : cases) {
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
        ASSERT_EQ(0u, VELK_open(&h, widen(path("bound.vk5")).c_str(), VELK_OPEN_READ)) << c.what;
        LogCapture log(0xF0000000u);
        unsigned bound = 7;
        EXPECT_EQ(c.status, VELK_is_legacy_bound(h, &bound)) << c.what;
        EXPECT_EQ(c.bound, bound) << c.what;
        EXPECT_TRUE(
            log.contains_format("<velk %u::VELK_is_legacy_bound>" + std::string(c.line) + "\n"))
            << c.what;
        EXPECT_EQ(0u, VELK_close(h));
    }

    // A stream 0 being written can't be read for its descriptors, and is
    // left in state 1 by the failed attempt's caller.
    Image f = legacy_file(5);
    f.slot(96, 20, 40, 1616, 1, 40, KIND_LEGACY_PID_RECORD);
    f.slot(116, 20, 40, 1656, 1, 40, KIND_LEGACY_TID_RECORD);
    f.put(1695, "", 1);
    write_file(path("writing.vk5"), f.b);
    velk_handle* h = nullptr;
    ASSERT_EQ(0u,
              VELK_open(&h, widen(path("writing.vk5")).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE));
    ASSERT_EQ(0u, VELK_writing_stream(h, 0));
    unsigned bound = 7;
    EXPECT_EQ(VELK_E_STREAM_STATE, VELK_is_legacy_bound(h, &bound));
    EXPECT_EQ(0u, bound);
    EXPECT_EQ(VELK_E_BAD_POINTER, VELK_is_legacy_bound(h, nullptr));
    EXPECT_EQ(0u, VELK_done_stream(h, 0));
    EXPECT_EQ(0u, VELK_close(h));
}
