// The file's beginning as a new file gets it, and the writers of single table
// slots in the three on-disk descriptor forms.
#include <string.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

using namespace velk_test;

namespace {

void expect_descriptor(const std::vector<unsigned char>& f, size_t at, uint64_t length,
                       uint64_t offset, uint32_t entry_length, uint32_t kind)
{
    EXPECT_EQ(length, u64_at(f, at)) << at;
    EXPECT_EQ(offset, u64_at(f, at + 8)) << at;
    EXPECT_EQ(1u, u64_at(f, at + 16)) << at;
    EXPECT_EQ(entry_length, u32_at(f, at + 24)) << at;
    EXPECT_EQ(kind, u32_at(f, at + 28)) << at;
    EXPECT_EQ(0u, u64_at(f, at + 32)) << at;  // stream number, descriptor id
}

bool all_zero(const std::vector<unsigned char>& f, size_t from, size_t to)
{
    for (size_t i = from; i < to; ++i)
        if (f[i] != 0)
            return false;
    return true;
}

}  // namespace

using ContainerTest = TempDirTest;

TEST_F(ContainerTest, NewFileClosedAtOnceIsItsBeginningHeaderExAndReport)
{
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(path("new.vk7")).c_str(),
                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    ASSERT_EQ(0u, VELK_close(h));
    const std::vector<unsigned char> f = read_file(path("new.vk7"));

    // The 1400-byte beginning.
    EXPECT_EQ(0, memcmp(f.data(), "Sample7 ", 8));
    EXPECT_EQ(27u, u32_at(f, 8));
    EXPECT_EQ(20u, u32_at(f, 12));
    expect_descriptor(f, 16, 512, 816, 512, KIND_GLOBAL_OFFSET);
    expect_descriptor(f, 816, 72, 1328, 72, KIND_PRIVATE_USE);
    EXPECT_TRUE(all_zero(f, 856, 1328));
    EXPECT_EQ(3u, u32_at(f, 1328));
    EXPECT_EQ(0u, u32_at(f, 1332));
    const char text[] = "VELK code version 3.0";
    EXPECT_EQ(0, memcmp(&f[1336], text, sizeof(text)));
    EXPECT_TRUE(all_zero(f, 1336 + sizeof(text), 1400));

    // The header ex in the section table's slot 1, its marker and padding.
    expect_descriptor(f, 56, 460, 1400, 460, KIND_LEGACY_HEADER_EX);
    EXPECT_TRUE(all_zero(f, 96, 816));
    EXPECT_EQ(200, f[1400 + 392]);
    EXPECT_EQ(6, f[1400 + 393]);
    EXPECT_EQ(0x80, f[1400 + 395]);
    EXPECT_EQ(0u, u32_at(f, 1400 + 356));  // no samples
    EXPECT_EQ(0, memcmp(&f[1860], "end legacy HeaderEx", 20));
    EXPECT_TRUE(all_zero(f, 1880, 1904));

    // The report: the disclaimer, a row per kind, "========", its NUL and
    // 17 to 24 zero bytes, ending on a multiple of 8.
    std::string report =
        "*** DISCLAIMER: THE FOLLOWING IS USED FOR INTERNAL DEBUGGING PURPOSES ONLY! THIS "
        "INFORMATION MAY DISAPPEAR AT ANY MOMENT WITHOUT PRIOR NOTIFICATION! CUSTOMERS SHOULD NOT "
        "RELY ON THE INFORMATION FOUND IN THIS SECTION! CUSTOMERS SHOULD USE THE DOVREPORT TOOL "
        "OR VELK APIS TO GET THE EQUIVALENT INFORMATION! PLEASE ASK A MEMBER OF THE PIT "
        "(PROFILING INFRASTRUCTURE TEAM) TO PROVIDE DOCUMENTATION REGARDING PROPER USAGE! ***";
    const char* const rows[] = {"legacy sample record at 0x0; ",
                                "legacy module record at 0x0; ",
                                "legacy pid record at 0x0 ",
                                "legacy header at 0x0; ",
                                "legacy tid record at 0x0; ",
                                "legacy rawpid record at 0x0; ",
                                "legacy rawtid record at 0x0; ",
                                "legacy hardware conf at 0x0; ",
                                "legacy software conf at 0x0; ",
                                "legacy symbols at 0x0; ",
                                "legacy header ex at 0x578; ",
                                "legacy user def thread name at 0x0; ",
                                "legacy sample record hdr at 0x0; ",
                                "legacy sample record la at 0x0; ",
                                "legacy raw modules at 0x0; ",
                                "legacy calibration results at 0x0; ",
                                "legacy processor info at 0x0; ",
                                "legacy ruma_sysinfo at 0x0; ",
                                "legacy logically deleted at 0x0; ",
                                "legacy events at 0x0; ",
                                "velk user def global at 0x0; ",
                                "velk system at 0x0; ",
                                "velk host at 0x0; ",
                                "velk os at 0x0; ",
                                "velk application at 0x0; ",
                                "velk pid at 0x0; ",
                                "velk tid at 0x0; ",
                                "velk module at 0x0; ",
                                "velk version info at 0x0; ",
                                "velk code info at 0x530; ",
                                "special global offset at 0x330; ",
                                "special global descriptor offset at 0x0; ",
                                "special stream offset at 0x0; ",
                                "========"};
    for (const char* row : rows)
        report += row;
    ASSERT_GE(f.size(), 1904 + report.size() + 1 + 17);
    EXPECT_EQ(report, std::string((const char*)&f[1904], report.size()));
    const size_t nul = 1904 + report.size();
    EXPECT_EQ(0u, f.size() % 8);
    EXPECT_GE(f.size() - nul - 1, 17u);
    EXPECT_LE(f.size() - nul - 1, 24u);
    EXPECT_TRUE(all_zero(f, nul, f.size()));

    // It opens again; its version comes from the header ex.
    ASSERT_EQ(0u, VELK_open(&h, widen(path("new.vk7")).c_str(), VELK_OPEN_READ));
    ASSERT_EQ(0u, VELK_close(h));
    EXPECT_EQ(f, read_file(path("new.vk7")));
}

TEST_F(ContainerTest, DescriptorFormsConvertFieldByField)
{
    __VELK_sample_file_section_vk6 sfs = {
        0x1122334455ULL, 0x66778899AAULL, 0x1000000007ULL, 0x12345, 34, 3, 9};
    SampleFileSections_s v5_table;
    velk_class::helper_copy_sfs(&v5_table, &sfs, 1);
    const SampleFileSections_s narrowed = {0x22334455u, 0x778899AAu, 7, 0x2345, 34, 3};
    EXPECT_EQ(0, memcmp(&narrowed, &v5_table, sizeof(narrowed)));
    __VELK_sample_file_section v5_slot;
    velk_class::helper_copy_sfs_velk(&v5_slot, &sfs, 1);
    const __VELK_sample_file_section slot = {0x1122334455ULL, 0x66778899AAULL, 7, 0x12345, 34, 3};
    EXPECT_EQ(0, memcmp(&slot, &v5_slot, sizeof(slot)));

    // Back to the descriptor: no descriptor id. Other directions and null
    // pointers change nothing.
    __VELK_sample_file_section_vk6 back = sfs;
    velk_class::helper_copy_sfs_velk(&v5_slot, &back, 2);
    EXPECT_EQ(7u, back.number_entries);
    EXPECT_EQ(-1, back.descriptor_id);
    velk_class::helper_copy_sfs(&v5_table, &back, 2);
    EXPECT_EQ(0x22334455u, back.length);
    __VELK_sample_file_section_vk6 untouched = sfs;
    velk_class::helper_copy_sfs(&v5_table, &untouched, 3);
    velk_class::helper_copy_sfs_velk(&v5_slot, &untouched, 0);
    velk_class::helper_copy_sfs(nullptr, &untouched, 2);
    EXPECT_EQ(0, memcmp(&untouched, &sfs, sizeof(sfs)));
}

TEST_F(ContainerTest, SlotWritersPlaceEachFormAndCountTheirSlots)
{
    velk_class s;
    ASSERT_EQ(0u, s.VELK_initialize_me(widen(path("slots.vk7")).c_str(),
                                       VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    EXPECT_EQ(1u, s.sections_ptr->legacy_next_slot);
    EXPECT_EQ(1u, s.sections_ptr->global_next_slot);
    __VELK_sample_file_section_vk6 sfs = {100, 2000, 5, 20, KIND_LEGACY_PID_RECORD, 0, 0};
    EXPECT_EQ(0u, s.utility_write_legacy_sfs_header(nullptr));
    EXPECT_EQ(0u, s.utility_write_legacy_sfs_header(&sfs));  // 16 + 1 * 40
    sfs.section_id = KIND_HOST;
    EXPECT_EQ(0u, s.utility_write_sfs_header(&sfs, nullptr));  // 816 + 1 * 40
    __VELK_stream_struct stream;
    memset(&stream, 0, sizeof(stream));
    stream.stream_table_offset = 1400;
    stream.next_slot = 3;
    const unsigned char table[320] = {0};
    ASSERT_EQ(0u, s.utility_write_final_file(table, sizeof(table), VELK_OSI_SEEK_END, 0));
    sfs.section_id = KIND_DATA;
    EXPECT_EQ(0u, s.utility_write_sfs_header(&sfs, &stream));  // 1400 + 3 * 40
    EXPECT_EQ(4u, stream.next_slot);

    // Version 5: 20 bytes in the section table, 32 in the others.
    s.vk_file_version = 5;
    s.sections_ptr->legacy_next_slot = 5;
    s.sections_ptr->global_next_slot = 5;
    sfs.section_id = KIND_LEGACY_TID_RECORD;
    EXPECT_EQ(0u, s.utility_write_legacy_sfs_header(&sfs));  // 16 + 5 * 20
    sfs.section_id = KIND_TID;
    EXPECT_EQ(0u, s.utility_write_sfs_header(&sfs, nullptr));  // 816 + 5 * 32

    // With no file open the write fails: the section table keeps its
    // counter, the global table's slot is used up all the same. A seek
    // before the file's start fails too, with the -1 form logged.
    const long long fd = s.file_handle;
    s.file_handle = -1;
    EXPECT_EQ(VELK_E_NULL_POINTER, s.utility_write_legacy_sfs_header(&sfs));
    EXPECT_EQ(6u, s.sections_ptr->legacy_next_slot);
    EXPECT_EQ(VELK_E_NULL_POINTER, s.utility_write_sfs_header(&sfs, nullptr));
    EXPECT_EQ(7u, s.sections_ptr->global_next_slot);
    s.file_handle = fd;
    LogCapture log;
    EXPECT_EQ(VELK_E_NULL_POINTER, s.utility_write_final_file("Z", 1, VELK_OSI_SEEK_BEGIN, -5));
    EXPECT_TRUE(
        log.contains_format("Operation failed with error code = -1 (src/velk_class, %d)\n"));
    ASSERT_EQ(0u, s.VELK_closedown());

    const std::vector<unsigned char> f = read_file(path("slots.vk7"));
    ASSERT_GT(f.size(), 1720u);
    EXPECT_EQ(KIND_LEGACY_PID_RECORD, u32_at(f, 56 + 28));
    EXPECT_EQ(KIND_HOST, u32_at(f, 856 + 28));
    EXPECT_EQ(2000u, u64_at(f, 1520 + 8));
    EXPECT_EQ(KIND_DATA, u32_at(f, 1520 + 28));
    const SampleFileSections_s v5_entry = {100, 2000, 5, 20, KIND_LEGACY_TID_RECORD, 0};
    EXPECT_EQ(0, memcmp(&v5_entry, &f[116], sizeof(v5_entry)));
    const __VELK_sample_file_section v5_slot = {100, 2000, 5, 20, KIND_TID, 0};
    EXPECT_EQ(0, memcmp(&v5_slot, &f[976], sizeof(v5_slot)));
}
