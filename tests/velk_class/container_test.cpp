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

TEST_F(ContainerTest, NewFileClosedAtOnceIsItsBeginningToTheByte)
{
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(path("new.vk7")).c_str(),
                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    ASSERT_EQ(0u, VELK_close(h));

    const std::vector<unsigned char> f = read_file(path("new.vk7"));
    ASSERT_EQ(1400u, f.size());
    EXPECT_EQ(0, memcmp(f.data(), "Sample7 ", 8));
    EXPECT_EQ(27u, u32_at(f, 8));
    EXPECT_EQ(20u, u32_at(f, 12));
    expect_descriptor(f, 16, 512, 816, 512, KIND_GLOBAL_OFFSET);
    EXPECT_TRUE(all_zero(f, 56, 816));
    expect_descriptor(f, 816, 72, 1328, 72, KIND_PRIVATE_USE);
    EXPECT_TRUE(all_zero(f, 856, 1328));
    EXPECT_EQ(3u, u32_at(f, 1328));
    EXPECT_EQ(0u, u32_at(f, 1332));
    const char text[] = "VELK code version 3.0";
    EXPECT_EQ(0, memcmp(&f[1336], text, sizeof(text)));
    EXPECT_TRUE(all_zero(f, 1336 + sizeof(text), 1400));
}

TEST_F(ContainerTest, DescriptorFormsConvertFieldByField)
{
    __VELK_sample_file_section_vk6 sfs = {0x1122334455ULL, 0x66778899AAULL, 0x1000000007ULL,
                                          0x12345, 34, 3, 9};
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
    EXPECT_TRUE(log.contains_format("Operation failed with error code = -1 (src/velk_class, %d)\n"));
    ASSERT_EQ(0u, s.VELK_closedown());

    const std::vector<unsigned char> f = read_file(path("slots.vk7"));
    ASSERT_EQ(1720u, f.size());
    EXPECT_EQ(KIND_LEGACY_PID_RECORD, u32_at(f, 56 + 28));
    EXPECT_EQ(KIND_HOST, u32_at(f, 856 + 28));
    EXPECT_EQ(2000u, u64_at(f, 1520 + 8));
    EXPECT_EQ(KIND_DATA, u32_at(f, 1520 + 28));
    const SampleFileSections_s v5_entry = {100, 2000, 5, 20, KIND_LEGACY_TID_RECORD, 0};
    EXPECT_EQ(0, memcmp(&v5_entry, &f[116], sizeof(v5_entry)));
    const __VELK_sample_file_section v5_slot = {100, 2000, 5, 20, KIND_TID, 0};
    EXPECT_EQ(0, memcmp(&v5_slot, &f[976], sizeof(v5_slot)));
}
