// Mapped windows over real files, and the process-wide book of them.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

using Tracker = __VELK_mmap_tracker;
using U = std::vector<unsigned long long>;
using TrackerTest = velk_test::TempDirTest;

TEST_F(TrackerTest, WindowsInEntriesAndBytesAndTheirBook)
{
    const unsigned long long page = getpagesize(), size = 3 * page + 13, n = size / 16;
    std::vector<unsigned char> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = (unsigned char)((i * 131u) ^ (i >> 9));
    velk_test::write_file(path("f.bin"), bytes);
    const int h = open(path("f.bin").c_str(), O_RDWR);
    auto counters = [] { return U{Tracker::m_num_mmaps, Tracker::m_num_bytes_mapped}; };
    auto map = [h](Tracker* t, unsigned int data_size, unsigned long long entries,
                   unsigned long long first, unsigned long long offset) {
        t->Set_Data_Size(data_size);
        t->Set_Entries(entries);
        return t->Map_File(h, first, offset);
    };
    auto window = [](const Tracker& t) {  // first, last, entries, bytes, offset, delta
        const unsigned long long at = t.m_current - t.m_data;
        return U{t.m_first_entry, t.m_last_entry, t.m_entries, t.m_bytes, at, t.m_align_delta};
    };
    const U before = counters();
    velk_test::LogCapture log;
    Tracker t{}, b{};
    ASSERT_EQ(0u, map(&t, 16, n, 100, 0));
    EXPECT_EQ((U{100, 100 + n - 1, n, n * 16, 0, 0}), window(t));
    EXPECT_EQ(0, memcmp(bytes.data(), t.m_data, n * 16));
    t.Rebase(103);
    EXPECT_EQ((U{100, 100 + n - 1, n - 3, (n - 3) * 16, 48, 0}), window(t));
    const unsigned long long last = t.m_last_entry;
    for (const U& r : {U{99, 0, 0}, U{100, 0, 1}, U{last - 1, 1, 1}, U{last - 1, 2, 0}})
        EXPECT_EQ(r[2] == 1, t.In_Range(r[0], r[1])) << r[0] << "+" << r[1];
    EXPECT_TRUE(t.End_Of_Map(last + 1) && !t.End_Of_Map(last + 2));

    ASSERT_EQ(0u, map(&b, 0, size - page - 3, page + 3, page + 3));  // bytes, odd offset
    EXPECT_EQ((U{page + 3, size - 1, 0, size - page - 3, 0, 3}), window(b));
    EXPECT_EQ((U{before[0] + 2, before[1] + n * 16 + size - page}), counters());
    EXPECT_EQ(0, memcmp(&bytes[page + 3], b.m_data, size - page - 3));
    b.Rebase(page + 8);
    EXPECT_EQ((U{page + 3, size - 1, 0, size - page - 8, 5, 3}), window(b));
    EXPECT_EQ((U{0, 0, 0}), (U{t.Unmap_File(), b.Unmap_File(), b.Unmap_File()}));
    EXPECT_EQ(before, counters());

    EXPECT_EQ((U{VELK_E_MAP_FAILED, VELK_E_MAP_FAILED}),  // empty, then past the end
              (U{map(&b, 1, 0, 0, 0), map(&b, 1, size - 99, 0, 100)}));
    EXPECT_EQ("<vmt::Map_File>window of " + std::to_string(size - 99) +
                  " bytes at offset 100 runs past the end of the file (" + std::to_string(size) +
                  " bytes)\n",
              log.lines().back());

    ASSERT_EQ(0, ftruncate(h, 0x2000000));  // sparse beyond the pattern, mapped whole
    ASSERT_EQ(0u, map(&t, 1, 0x2000000, 0, 0));
    EXPECT_TRUE(t.m_data[0x2000000 - 1] == 0 && t.End_Of_Map(0x2000000));
    ASSERT_EQ(0u, t.Unmap_File());
    close(h);
}
