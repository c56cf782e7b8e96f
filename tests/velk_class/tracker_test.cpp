// Mapped windows over real files: counting in entries or bytes, odd offsets,
// moving inside a window, the range tests, the process-wide counters, and the
// windows that must be refused.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

namespace {

using velk_test::LogCapture;
using Tracker = __VELK_mmap_tracker;

unsigned char pattern(unsigned long long i) { return (unsigned char)((i * 131u) ^ (i >> 9)); }

bool ends_with(const std::string& s, const std::string& tail)
{
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

class TrackerTest : public velk_test::TempDirTest {
protected:
    void TearDown() override
    {
        if (fd_ != -1)
            close(fd_);
        velk_test::TempDirTest::TearDown();
    }
    // Writes `size` patterned bytes to `name` and keeps the file open.
    long long make_file(const std::string& name, size_t size)
    {
        std::vector<unsigned char> bytes(size);
        for (size_t i = 0; i < size; ++i)
            bytes[i] = pattern(i);
        velk_test::write_file(path(name), bytes);
        fd_ = open(path(name).c_str(), O_RDONLY);
        EXPECT_NE(-1, fd_);
        return fd_;
    }
    static Tracker fresh(unsigned int data_size)
    {
        Tracker t{};
        t.Set_Data_Size(data_size);
        return t;
    }
    int fd_ = -1;
};

TEST_F(TrackerTest, MapsEntriesAndBytesAndMovesInsideTheWindow)
{
    const unsigned long long page = (unsigned long long)getpagesize();
    const unsigned long long size = 3 * page + 13;
    const long long h = make_file("three_pages.bin", size);
    const unsigned int mmaps_before = Tracker::m_num_mmaps;
    const unsigned long long bytes_before = Tracker::m_num_bytes_mapped;

    // Entries of 16 bytes from offset 0, numbered from 100.
    Tracker t = fresh(16);
    const unsigned long long n = size / 16;
    t.Set_Entries(n);
    ASSERT_EQ(0u, t.Map_File(h, 100, 0));
    EXPECT_EQ(0u, t.m_align_delta);
    EXPECT_EQ(h, t.m_map_handle);
    EXPECT_EQ(100u, t.m_first_entry);
    EXPECT_EQ(100 + n - 1, t.m_last_entry);
    EXPECT_EQ(n * 16, t.m_mapped_bytes);
    EXPECT_EQ(mmaps_before + 1, Tracker::m_num_mmaps);
    EXPECT_EQ(bytes_before + n * 16, Tracker::m_num_bytes_mapped);
    for (unsigned long long i = 0; i < n * 16; ++i)
        ASSERT_EQ(pattern(i), t.m_data[i]) << "byte " << i;

    t.Rebase(103);
    EXPECT_EQ(t.m_data + 48, t.m_current);
    EXPECT_EQ(pattern(48), t.m_current[0]);
    EXPECT_EQ(n - 3, t.m_entries);
    EXPECT_EQ((n - 3) * 16, t.m_bytes);
    EXPECT_EQ(100u, t.m_first_entry);  // the window itself stays
    EXPECT_EQ(100 + n - 1, t.m_last_entry);
    t.Rebase(100);  // and can be re-entered at an earlier entry
    EXPECT_EQ(t.m_data, t.m_current);
    EXPECT_EQ(n, t.m_entries);

    const unsigned long long last = t.m_last_entry;
    EXPECT_FALSE(t.In_Range(99, 0));
    EXPECT_TRUE(t.In_Range(100, 0));
    EXPECT_TRUE(t.In_Range(last, 0));
    EXPECT_FALSE(t.In_Range(last + 1, 0));
    EXPECT_TRUE(t.In_Range(last - 1, 1));
    EXPECT_FALSE(t.In_Range(last - 1, 2));
    EXPECT_TRUE(t.End_Of_Map(last + 1));  // the window ends exactly at the last entry
    EXPECT_FALSE(t.End_Of_Map(last + 2));

    t.Set_Bytes_Based();
    ASSERT_EQ(0u, t.Unmap_File());
    EXPECT_EQ(mmaps_before, Tracker::m_num_mmaps);
    EXPECT_EQ(bytes_before, Tracker::m_num_bytes_mapped);
    EXPECT_TRUE(t.m_data == nullptr && t.m_current == nullptr && t.m_view == nullptr);
    EXPECT_EQ(-1, t.m_map_handle);
    EXPECT_EQ(16u, t.m_data_size);  // the one member an unmap keeps
    EXPECT_EQ(0u, t.m_first_entry + t.m_last_entry + t.m_entries + t.m_bytes + t.m_mapped_bytes);
    EXPECT_EQ(0u, t.m_bytes_based);
    EXPECT_FALSE(t.In_Range(0, 0));  // unmapped: nothing is in range
    EXPECT_EQ(0u, t.Unmap_File());  // a second unmap does nothing
    EXPECT_EQ(mmaps_before, Tracker::m_num_mmaps);
    EXPECT_EQ(bytes_before, Tracker::m_num_bytes_mapped);

    // Counting bytes from an odd offset: the view starts on the page below,
    // and the entries are the file positions up to the file's last byte.
    Tracker b = fresh(0);
    const unsigned long long off = page + 3;
    b.Set_Entries(size - off);
    ASSERT_EQ(0u, b.Map_File(h, off, off));
    EXPECT_EQ(3u, b.m_align_delta);
    EXPECT_EQ((unsigned char*)b.m_view + 3, b.m_data);
    EXPECT_EQ(size - 1, b.m_last_entry);
    EXPECT_EQ(size - off, b.m_mapped_bytes);
    EXPECT_EQ(bytes_before + 3 + (size - off), Tracker::m_num_bytes_mapped);
    EXPECT_EQ(pattern(off), b.m_data[0]);
    EXPECT_EQ(pattern(size - 1), b.m_data[size - 1 - off]);
    b.Rebase(off + 5);
    EXPECT_EQ(b.m_data + 5, b.m_current);
    EXPECT_EQ(size - off - 5, b.m_bytes);
    EXPECT_TRUE(b.In_Range(size - 1025, 1024));
    EXPECT_FALSE(b.In_Range(size - 1024, 1024));
    ASSERT_EQ(0u, b.Unmap_File());
    EXPECT_EQ(mmaps_before, Tracker::m_num_mmaps);
    EXPECT_EQ(bytes_before, Tracker::m_num_bytes_mapped);
}

TEST_F(TrackerTest, NonConformingUnlessBothCoverTheSameEntries)
{
    const long long h = make_file("entries.bin", 4096);
    Tracker a = fresh(8), b = fresh(8);
    EXPECT_TRUE(a.Is_Non_Conforming(&b));
    a.Set_Entries(64);
    ASSERT_EQ(0u, a.Map_File(h, 0, 0));
    EXPECT_TRUE(a.Is_Non_Conforming(&b));
    EXPECT_TRUE(b.Is_Non_Conforming(&a));
    b.Set_Entries(64);
    ASSERT_EQ(0u, b.Map_File(h, 0, 512));  // other bytes, same entry numbers
    EXPECT_FALSE(a.Is_Non_Conforming(&b));
    ASSERT_EQ(0u, b.Unmap_File());
    b.Set_Entries(63);
    ASSERT_EQ(0u, b.Map_File(h, 0, 0));
    EXPECT_TRUE(a.Is_Non_Conforming(&b));
    ASSERT_EQ(0u, b.Unmap_File());
    b.Set_Entries(63);
    ASSERT_EQ(0u, b.Map_File(h, 1, 8));  // same last entry, other first
    EXPECT_EQ(a.m_last_entry, b.m_last_entry);
    EXPECT_TRUE(a.Is_Non_Conforming(&b));
    EXPECT_EQ(0u, b.Unmap_File());
    EXPECT_EQ(0u, a.Unmap_File());
}

TEST_F(TrackerTest, RefusesWindowsThatCannotBeMapped)
{
    const long long h = make_file("short.bin", 5000);
    const unsigned int mmaps_before = Tracker::m_num_mmaps;
    const unsigned long long bytes_before = Tracker::m_num_bytes_mapped;
    LogCapture log;
    Tracker t = fresh(1);

    t.Set_Entries(4901);  // one byte past the end
    EXPECT_EQ(VELK_E_MAP_FAILED, t.Map_File(h, 0, 100));
    EXPECT_TRUE(log.contains("<vmt::Map_File>window of 4901 bytes at offset 100 runs past the end "
                             "of the file (5000 bytes)\n"));
    EXPECT_EQ(nullptr, t.m_data);
    EXPECT_EQ(0u, t.Unmap_File());

    t.Set_Entries(4900);  // exactly to the end
    ASSERT_EQ(0u, t.Map_File(h, 0, 100));
    EXPECT_EQ(pattern(4999), t.m_data[4899]);
    ASSERT_EQ(0u, t.Unmap_File());

    t.Set_Entries(1);
    EXPECT_EQ(VELK_E_MAP_FAILED, t.Map_File(h, 0, 5000));
    EXPECT_TRUE(log.contains("<vmt::Map_File>window of 1 bytes at offset 5000 runs past the end "
                             "of the file (5000 bytes)\n"));
    t.Set_Entries(0);
    EXPECT_EQ(VELK_E_MAP_FAILED, t.Map_File(h, 0, 0));
    EXPECT_EQ(nullptr, t.m_data);

    t.Set_Entries(16);
    log.clear();
    EXPECT_EQ(VELK_E_MAP_FAILED, t.Map_File(-1, 0, 0));
    EXPECT_TRUE(log.contains("<vmt::Map_File>VELK_OSI_Create_File_Map failed\n"));
    const int closed = open(path("short.bin").c_str(), O_RDONLY);
    ASSERT_NE(-1, closed);
    close(closed);
    EXPECT_EQ(VELK_E_MAP_FAILED, t.Map_File(closed, 0, 0));
    EXPECT_EQ(nullptr, t.m_data);
    EXPECT_EQ(0u, t.Unmap_File());

    EXPECT_EQ(mmaps_before, Tracker::m_num_mmaps);
    EXPECT_EQ(bytes_before, Tracker::m_num_bytes_mapped);
}

TEST_F(TrackerTest, MapsAWholeWindowOf32MiB)
{
    const unsigned long long kWindow = 0x2000000;
    fd_ = open(path("big.bin").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_NE(-1, fd_);
    ASSERT_EQ(0, ftruncate(fd_, (off_t)kWindow));  // sparse: only the marks take room
    const unsigned char first = 0x5A, last = 0xA5, beyond = 0xC3;
    ASSERT_EQ(1, pwrite(fd_, &first, 1, 0));
    ASSERT_EQ(1, pwrite(fd_, &last, 1, (off_t)kWindow - 1));
    const unsigned long long bytes_before = Tracker::m_num_bytes_mapped;

    Tracker t = fresh(1);
    t.Set_Entries(kWindow);
    ASSERT_EQ(0u, t.Map_File(fd_, 0, 0));
    EXPECT_EQ(kWindow - 1, t.m_last_entry);
    EXPECT_EQ(first, t.m_data[0]);
    EXPECT_EQ(last, t.m_data[kWindow - 1]);
    EXPECT_TRUE(t.End_Of_Map(kWindow));
    EXPECT_EQ(bytes_before + kWindow, Tracker::m_num_bytes_mapped);
    ASSERT_EQ(0u, t.Unmap_File());

    // One byte more: a full window no longer reaches the end, the next one
    // from the following entry does.
    ASSERT_EQ(0, ftruncate(fd_, (off_t)kWindow + 1));
    ASSERT_EQ(1, pwrite(fd_, &beyond, 1, (off_t)kWindow));
    t.Set_Entries(kWindow);
    ASSERT_EQ(0u, t.Map_File(fd_, 0, 0));
    EXPECT_FALSE(t.End_Of_Map(kWindow + 1));
    ASSERT_EQ(0u, t.Unmap_File());
    t.Set_Entries(kWindow);
    ASSERT_EQ(0u, t.Map_File(fd_, 1, 1));
    EXPECT_EQ(1u, t.m_align_delta);
    EXPECT_EQ(last, t.m_data[kWindow - 2]);
    EXPECT_EQ(beyond, t.m_data[kWindow - 1]);
    EXPECT_TRUE(t.End_Of_Map(kWindow + 1));
    EXPECT_EQ(bytes_before + kWindow + 1, Tracker::m_num_bytes_mapped);
    ASSERT_EQ(0u, t.Unmap_File());
    EXPECT_EQ(bytes_before, Tracker::m_num_bytes_mapped);
}

TEST_F(TrackerTest, UnbalancedBookIsReportedWhenTheLastWindowGoes)
{
    const unsigned int saved_mmaps = Tracker::m_num_mmaps;
    const unsigned long long saved_bytes = Tracker::m_num_bytes_mapped;
    LogCapture log;

    // The last mapping goes, yet 4103 bytes are still counted.
    Tracker t{};
    t.m_view = reinterpret_cast<void*>(0x1000);
    Tracker::m_num_mmaps = 1;
    Tracker::m_num_bytes_mapped = 4103;
    const unsigned int status = t.notify_munmap();
    const unsigned int mmaps_after = Tracker::m_num_mmaps;
    const unsigned long long bytes_after = Tracker::m_num_bytes_mapped;
    // Other windows still open, or a balanced book: nothing to report.
    Tracker::m_num_mmaps = 2;
    const unsigned int open_status = t.notify_munmap();
    Tracker::m_num_mmaps = 1;
    Tracker::m_num_bytes_mapped = 0;
    const unsigned int balanced_status = t.notify_munmap();
    Tracker::m_num_mmaps = saved_mmaps;
    Tracker::m_num_bytes_mapped = saved_bytes;

    EXPECT_EQ(VELK_E_MAP_FAILED, status);
    EXPECT_EQ(0u, mmaps_after);
    EXPECT_EQ(4103u, bytes_after);
    EXPECT_EQ(0u, open_status);
    EXPECT_EQ(0u, balanced_status);
    char first_line[80];
    snprintf(first_line, sizeof(first_line), "<utility_notify_munmap>unmapping at 0x%p", t.m_view);
    const std::vector<std::string> expected = {first_line, " length is 0.\n",
                                               "There are currently 4103 bytes mapped",
                                               " and 0 mmaps open.\n"};
    EXPECT_EQ(expected, log.lines());
    for (unsigned int mask : log.masks())
        EXPECT_EQ(0x80001000u, mask);

    // Through Unmap_File: the failure is passed up and the tracker kept.
    const long long h = make_file("book.bin", 100);
    Tracker m = fresh(1);
    m.Set_Entries(100);
    ASSERT_EQ(0u, m.Map_File(h, 0, 0));
    Tracker::m_num_mmaps = 1;
    Tracker::m_num_bytes_mapped = 101;
    log.clear();
    const unsigned int unmap_status = m.Unmap_File();
    Tracker::m_num_mmaps = saved_mmaps;
    Tracker::m_num_bytes_mapped = saved_bytes;
    EXPECT_EQ(VELK_E_MAP_FAILED, unmap_status);
    EXPECT_NE(nullptr, m.m_data);
    EXPECT_EQ(h, m.m_map_handle);
    ASSERT_FALSE(log.lines().empty());
    const std::string& last_line = log.lines().back();
    EXPECT_EQ(0u, last_line.find("Operation failed with error code  (src/velk_class, "));
    EXPECT_TRUE(ends_with(last_line, ") value: 0x22\n")) << last_line;
}

}  // namespace
