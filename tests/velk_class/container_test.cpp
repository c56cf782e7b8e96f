// A new file's beginning, and the writers of table slots in the three on-disk forms.
#include "test_helpers.h"
#include "velk_class/velk_class.h"

using namespace velk_test;
using Sfs = __VELK_sample_file_section_vk6;
using U = std::vector<unsigned long long>;
using ContainerTest = TempDirTest;

TEST_F(ContainerTest, NewFileClosedAtOnceIsItsBeginningHeaderExAndReport)
{
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(path("new.vk7")).c_str(),
                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    ASSERT_EQ(0u, VELK_close(h));
    const std::vector<unsigned char> f = read_file(path("new.vk7"));
    ASSERT_EQ(3240u, f.size());

    // The 1400-byte beginning: eyecatcher, revision, slot count, the section
    // table with the global table's slot and the header ex's, the global
    // table with the private-use slot, and the code info.
    Image want;
    want.put(0, "Sample7 ", 8);
    want.put32(8, 27);
    want.put32(12, 20);
    want.slot(16, 40, 512, 816, 1, 512, KIND_GLOBAL_OFFSET);
    want.slot(56, 40, 460, 1400, 1, 460, KIND_LEGACY_HEADER_EX);
    want.slot(816, 40, 72, 1328, 1, 72, KIND_PRIVATE_USE);
    want.put32(1328, 3);
    want.put(1336, "VELK code version 3.0", 22);
    want.b.resize(1400);
    EXPECT_EQ(want.b, slice(f, 0, 1400));
    // The header ex's bytes of note, then its marker and padding.
    EXPECT_EQ((U{200, 6, 0x80, 0}), (U{f[1792], f[1793], f[1795], u32_at(f, 1756)}));
    expect_ending(f, 1860, "end legacy HeaderEx");

    // The report: the disclaimer, a row per kind and "========", then its
    // NUL and padding to the file's end.
    expect_ending(
        f, 1904,
        "*** DISCLAIMER: THE FOLLOWING IS USED FOR INTERNAL DEBUGGING PURPOSES ONLY! THIS "
        "INFORMATION MAY DISAPPEAR AT ANY MOMENT WITHOUT PRIOR NOTIFICATION! CUSTOMERS SHOULD NOT "
        "RELY ON THE INFORMATION FOUND IN THIS SECTION! CUSTOMERS SHOULD USE THE DOVREPORT TOOL "
        "OR VELK APIS TO GET THE EQUIVALENT INFORMATION! PLEASE ASK A MEMBER OF THE PIT "
        "(PROFILING INFRASTRUCTURE TEAM) TO PROVIDE DOCUMENTATION REGARDING PROPER USAGE! ***"
        "legacy sample record at 0x0; legacy module record at 0x0; legacy pid record at 0x0 "
        "legacy header at 0x0; legacy tid record at 0x0; legacy rawpid record at 0x0; "
        "legacy rawtid record at 0x0; legacy hardware conf at 0x0; legacy software conf at 0x0; "
        "legacy symbols at 0x0; legacy header ex at 0x578; legacy user def thread name at 0x0; "
        "legacy sample record hdr at 0x0; legacy sample record la at 0x0; "
        "legacy raw modules at 0x0; legacy calibration results at 0x0; "
        "legacy processor info at 0x0; legacy ruma_sysinfo at 0x0; "
        "legacy logically deleted at 0x0; legacy events at 0x0; velk user def global at 0x0; "
        "velk system at 0x0; velk host at 0x0; velk os at 0x0; velk application at 0x0; "
        "velk pid at 0x0; velk tid at 0x0; velk module at 0x0; velk version info at 0x0; "
        "velk code info at 0x530; special global offset at 0x330; "
        "special global descriptor offset at 0x0; special stream offset at 0x0; ========");

    ASSERT_EQ(0u, VELK_open(&h, widen(path("new.vk7")).c_str(), VELK_OPEN_READ));  // header ex
    ASSERT_EQ(0u, VELK_close(h));
    EXPECT_EQ(f, read_file(path("new.vk7")));
}

TEST_F(ContainerTest, SlotWritersPlaceEachFormAndCountTheirSlots)
{
    velk_class s;
    ASSERT_EQ(0u, s.VELK_initialize_me(widen(path("slots.vk7")).c_str(),
                                       VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    velk_section_block* b = s.sections_ptr;
    // Fields wider than the version 5 forms hold.
    Sfs pid = {
        0x1122334455ULL, 0x66778899AAULL, 0x1000000007ULL, 0x12345, KIND_LEGACY_PID_RECORD, 3, 9};
    Sfs host = pid, data = pid;
    host.section_id = KIND_HOST;
    data.section_id = KIND_DATA;
    __VELK_stream_struct stream = {};
    stream.stream_table_offset = 1400;
    stream.next_slot = 3;
    const std::vector<unsigned char> table(320, 0);
    // A stream's table slot at 1400 + 3 * 40 (the new file's tables show the other two).
    EXPECT_EQ((U{0, 0, 0, 4}),
              (U{s.utility_write_legacy_sfs_header(nullptr),
                 s.utility_write_final_file(table.data(), table.size(), VELK_OSI_SEEK_END, 0),
                 s.utility_write_sfs_header(&data, &stream), stream.next_slot}));
    // Version 5: 20 bytes in the section table (16 + 5 * 20), 32 in the others (816 + 5 * 32).
    s.vk_file_version = 5;
    b->legacy_next_slot = 5;
    b->global_next_slot = 5;
    EXPECT_EQ((U{0, 0}), (U{s.utility_write_legacy_sfs_header(&pid),
                            s.utility_write_sfs_header(&host, nullptr)}));
    ASSERT_EQ(0u, s.VELK_closedown());

    // The version 5 section table narrows each field; the others the count, without descriptor id.
    const std::vector<unsigned char> f = read_file(path("slots.vk7"));
    EXPECT_EQ(bytes_of(data), slice(f, 1520, 40));
    EXPECT_EQ(bytes_of(SampleFileSections_s{0x22334455u, 0x778899AAu, 7, 0x2345,
                                            KIND_LEGACY_PID_RECORD, 3}),
              slice(f, 116, 20));
    EXPECT_EQ(bytes_of(__VELK_sample_file_section{0x1122334455ULL, 0x66778899AAULL, 7, 0x12345,
                                                  KIND_HOST, 3}),
              slice(f, 976, 32));
}
