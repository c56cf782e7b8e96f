// The file's beginning, as a new file gets it, and the writers of single
// table slots in each of the three on-disk descriptor forms.
#include <string.h>
#include <unistd.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

using namespace velk_test;

namespace {

class ContainerTest : public TempDirTest {
protected:
    // Opens a new file in a session of its own; the caller closes it.
    void open_new(velk_class* s, const std::string& name)
    {
        ASSERT_EQ(0u, s->VELK_initialize_me(widen(path(name)).c_str(),
                                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    }
};

void expect_descriptor(const std::vector<unsigned char>& f, size_t at, uint64_t length,
                       uint64_t offset, uint64_t entries, uint32_t entry_length, uint32_t kind)
{
    EXPECT_EQ(length, u64_at(f, at)) << "length at " << at;
    EXPECT_EQ(offset, u64_at(f, at + 8)) << "file_offset at " << at;
    EXPECT_EQ(entries, u64_at(f, at + 16)) << "number_entries at " << at;
    EXPECT_EQ(entry_length, u32_at(f, at + 24)) << "entry_length at " << at;
    EXPECT_EQ(kind, u32_at(f, at + 28)) << "section_id at " << at;
    EXPECT_EQ(0u, u32_at(f, at + 32)) << "stream_number at " << at;
    EXPECT_EQ(0u, u32_at(f, at + 36)) << "descriptor_id at " << at;
}

bool all_zero(const std::vector<unsigned char>& f, size_t from, size_t to)
{
    for (size_t i = from; i < to; ++i)
        if (f[i] != 0)
            return false;
    return true;
}

}  // namespace

TEST_F(ContainerTest, NewFileClosedAtOnceIsItsBeginningToTheByte)
{
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(path("new.vk7")).c_str(),
                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    ASSERT_EQ(0u, VELK_close(h));

    const std::vector<unsigned char> f = read_file(path("new.vk7"));
    ASSERT_EQ(1400u, f.size());

    // Beginning: eyecatcher, format revision, section count.
    EXPECT_EQ(0, memcmp(f.data(), "Sample7 ", 8));
    EXPECT_EQ(27u, u32_at(f, 8));
    EXPECT_EQ(20u, u32_at(f, 12));
    // Section table: slot 0 names the global table, the other 19 are empty.
    expect_descriptor(f, 16, 512, 816, 1, 512, KIND_GLOBAL_OFFSET);
    EXPECT_TRUE(all_zero(f, 56, 816));
    // Global table: slot 0 names the private use section, the rest is empty.
    expect_descriptor(f, 816, 72, 1328, 1, 72, KIND_PRIVATE_USE);
    EXPECT_TRUE(all_zero(f, 856, 1328));
    // Private use section: code version 3.0 and its text, zero-filled.
    EXPECT_EQ(3u, u32_at(f, 1328));
    EXPECT_EQ(0u, u32_at(f, 1332));
    const char* text = "VELK code version 3.0";
    EXPECT_EQ(0, memcmp(&f[1336], text, strlen(text) + 1));
    EXPECT_TRUE(all_zero(f, 1336 + strlen(text), 1400));
}

TEST_F(ContainerTest, NewFileSessionKeepsItsCountersAndDescriptors)
{
    velk_class s;
    open_new(&s, "counters.vk7");
    EXPECT_EQ(7u, s.vk_file_version);
    EXPECT_EQ(1u, s.created_file);
    EXPECT_EQ(1u, s.sections_ptr->legacy_next_slot);
    EXPECT_EQ(1u, s.sections_ptr->global_next_slot);
    EXPECT_EQ(816u, s.sections_ptr->sfs_global_offset.file_offset);
    EXPECT_EQ(1328u, s.sections_ptr->sfs_private_use.file_offset);
    EXPECT_EQ(1400u, s.string_base);
    EXPECT_EQ(0u, s.VELK_closedown());
}

TEST_F(ContainerTest, DescriptorFormsConvertFieldByFieldAndTruncate)
{
    __VELK_sample_file_section_vk6 sfs = {0x1122334455ULL, 0x66778899AAULL, 0x1000000007ULL,
                                          0x12345, 34, 3, 9};
    SampleFileSections_s legacy;
    memset(&legacy, 0xEE, sizeof(legacy));
    velk_class::helper_copy_sfs(&legacy, &sfs, 1);
    EXPECT_EQ(0x22334455u, legacy.length);
    EXPECT_EQ(0x778899AAu, legacy.file_offset);
    EXPECT_EQ(7u, legacy.number_entries);
    EXPECT_EQ(0x2345u, legacy.entry_length);
    EXPECT_EQ(34u, legacy.section_id);
    EXPECT_EQ(3u, legacy.stream_number);

    __VELK_sample_file_section_vk6 back;
    memset(&back, 0, sizeof(back));
    velk_class::helper_copy_sfs(&legacy, &back, 2);
    EXPECT_EQ(0x22334455u, back.length);
    EXPECT_EQ(-1, back.descriptor_id);

    __VELK_sample_file_section v5;
    velk_class::helper_copy_sfs_velk(&v5, &sfs, 1);
    EXPECT_EQ(0x1122334455ULL, v5.length);
    EXPECT_EQ(0x66778899AAULL, v5.file_offset);
    EXPECT_EQ(7u, v5.number_entries);
    EXPECT_EQ(0x12345u, v5.entry_length);
    memset(&back, 0, sizeof(back));
    velk_class::helper_copy_sfs_velk(&v5, &back, 2);
    EXPECT_EQ(0x66778899AAULL, back.file_offset);
    EXPECT_EQ(-1, back.descriptor_id);

    // Any other direction, and null pointers, change nothing.
    __VELK_sample_file_section_vk6 untouched = sfs;
    velk_class::helper_copy_sfs(&legacy, &untouched, 3);
    velk_class::helper_copy_sfs_velk(&v5, &untouched, 0);
    velk_class::helper_copy_sfs(nullptr, &untouched, 2);
    velk_class::helper_copy_sfs_velk(&v5, nullptr, 2);
    EXPECT_EQ(0, memcmp(&untouched, &sfs, sizeof(sfs)));
}

TEST_F(ContainerTest, SlotWritersPlaceEachFormAndCountTheirSlots)
{
    velk_class s;
    open_new(&s, "slots.vk7");
    __VELK_sample_file_section_vk6 sfs = {100, 2000, 5, 20, KIND_LEGACY_PID_RECORD, 0, 0};

    // Version 7: 40 bytes at 16 + slot * 40 in the section table.
    EXPECT_EQ(0u, s.utility_write_legacy_sfs_header(nullptr));
    EXPECT_EQ(0u, s.utility_write_legacy_sfs_header(&sfs));
    EXPECT_EQ(2u, s.sections_ptr->legacy_next_slot);
    // The global table: 40 bytes at its offset + slot * 40.
    sfs.section_id = KIND_HOST;
    EXPECT_EQ(0u, s.utility_write_sfs_header(&sfs, nullptr));
    EXPECT_EQ(2u, s.sections_ptr->global_next_slot);
    // A stream's table: at its table offset + its slot * 40.
    __VELK_stream_struct stream;
    memset(&stream, 0, sizeof(stream));
    stream.stream_table_offset = 1400;
    stream.next_slot = 3;
    unsigned char table[320] = {0};
    ASSERT_EQ(0u, s.utility_write_final_file(table, sizeof(table), VELK_OSI_SEEK_END, 0));
    sfs.section_id = KIND_DATA;
    EXPECT_EQ(0u, s.utility_write_sfs_header(&sfs, &stream));
    EXPECT_EQ(4u, stream.next_slot);

    // Version 5 forms: 20 bytes in the section table, 32 in the others, at
    // slots past the ones used above.
    s.vk_file_version = 5;
    s.sections_ptr->legacy_next_slot = 5;
    s.sections_ptr->global_next_slot = 5;
    sfs.section_id = KIND_LEGACY_TID_RECORD;
    EXPECT_EQ(0u, s.utility_write_legacy_sfs_header(&sfs));  // at 16 + 5 * 20
    sfs.section_id = KIND_TID;
    EXPECT_EQ(0u, s.utility_write_sfs_header(&sfs, nullptr));  // at 816 + 5 * 32
    s.vk_file_version = 7;

    // With no file open a write fails with 22: the section table's counter
    // stays, the global table's slot is used up all the same.
    const long long fd = s.file_handle;
    s.file_handle = -1;
    EXPECT_EQ(VELK_E_NULL_POINTER, s.utility_write_legacy_sfs_header(&sfs));
    EXPECT_EQ(6u, s.sections_ptr->legacy_next_slot);
    EXPECT_EQ(VELK_E_NULL_POINTER, s.utility_write_sfs_header(&sfs, nullptr));
    EXPECT_EQ(7u, s.sections_ptr->global_next_slot);
    s.file_handle = fd;
    ASSERT_EQ(0u, s.VELK_closedown());

    const std::vector<unsigned char> f = read_file(path("slots.vk7"));
    ASSERT_EQ(1720u, f.size());
    EXPECT_EQ(100u, u64_at(f, 16 + 40));
    EXPECT_EQ(KIND_LEGACY_PID_RECORD, u32_at(f, 16 + 40 + 28));
    EXPECT_EQ(KIND_HOST, u32_at(f, 816 + 40 + 28));
    EXPECT_EQ(2000u, u64_at(f, 1400 + 3 * 40 + 8));
    EXPECT_EQ(KIND_DATA, u32_at(f, 1400 + 3 * 40 + 28));
    // The 20-byte entry: length, offset, entries, 16-bit entry length and kind.
    EXPECT_EQ(100u, u32_at(f, 16 + 5 * 20));
    EXPECT_EQ(2000u, u32_at(f, 16 + 5 * 20 + 4));
    EXPECT_EQ(5u, u32_at(f, 16 + 5 * 20 + 8));
    EXPECT_EQ(20u | (KIND_LEGACY_TID_RECORD << 16), u32_at(f, 16 + 5 * 20 + 12));
    EXPECT_EQ(0u, u32_at(f, 16 + 5 * 20 + 16));
    // The 32-byte slot: 64-bit length and offset, 32-bit entries, entry
    // length, kind, stream.
    EXPECT_EQ(100u, u64_at(f, 816 + 5 * 32));
    EXPECT_EQ(2000u, u64_at(f, 816 + 5 * 32 + 8));
    EXPECT_EQ(5u, u32_at(f, 816 + 5 * 32 + 16));
    EXPECT_EQ(20u, u32_at(f, 816 + 5 * 32 + 20));
    EXPECT_EQ(KIND_TID, u32_at(f, 816 + 5 * 32 + 24));
}

TEST_F(ContainerTest, FinalFileWriterSeeksFromStartOrEnd)
{
    velk_class s;
    open_new(&s, "seek.vk7");
    const char tail[] = "tail";
    EXPECT_EQ(0u, s.utility_write_final_file(tail, 4, VELK_OSI_SEEK_END, 0));
    EXPECT_EQ(0u, s.utility_write_final_file("XY", 2, VELK_OSI_SEEK_BEGIN, 1400 + 1));
    // A seek before the start of the file fails: 22, with the -1 form logged.
    LogCapture log;
    EXPECT_EQ(VELK_E_NULL_POINTER, s.utility_write_final_file("Z", 1, VELK_OSI_SEEK_BEGIN, -5));
    EXPECT_EQ(1u, log.count_prefix("Operation failed with error code = -1 (src/velk_class, "));
    ASSERT_EQ(0u, s.VELK_closedown());
    const std::vector<unsigned char> f = read_file(path("seek.vk7"));
    ASSERT_EQ(1404u, f.size());
    EXPECT_EQ(0, memcmp(&f[1400], "tXYl", 4));
}
