// Temporary stores on real files: their names, opening once, appending,
// deletion at close; the ending of a section; the copy of a store to the end
// of another file, across the 32 MiB copy piece; and the removal of all
// stores when a session ends.
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

namespace {

using velk_test::file_exists;
using velk_test::list_dir;
using velk_test::LogCapture;
using velk_test::read_file;
using velk_test::widen;
using velk_test::write_file;
using Bytes = std::vector<unsigned char>;

Bytes bytes_of(const char* text, size_t size) { return Bytes(text, text + size); }

bool ends_with(const std::string& s, const std::string& tail)
{
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

class StoreTest : public velk_test::TempDirTest {};

TEST_F(StoreTest, OpensOnceUnderPrefixNameAndIndex)
{
    const std::string prefix = path("velk_7");
    FILE_INFO_NODE data0("data.tmp"), data1("data.tmp"), strings("strings.tmp");
    EXPECT_EQ(-1, data0.handle);
    EXPECT_EQ(0u, data0.Size());
    ASSERT_EQ(0u, data0.Open_Temp_File(prefix.c_str(), 0));
    ASSERT_NE(-1, data0.handle);
    EXPECT_STREQ((prefix + "_data.tmp0").c_str(), data0.path);
    const long long first = data0.handle;
    ASSERT_EQ(0u, data0.Open_Temp_File(path("other").c_str(), 5));  // already open
    EXPECT_EQ(first, data0.handle);
    EXPECT_STREQ((prefix + "_data.tmp0").c_str(), data0.path);
    ASSERT_EQ(0u, data1.Open_Temp_File(prefix.c_str(), 1));
    ASSERT_EQ(0u, strings.Open_Temp_File(prefix.c_str(), -1));
    EXPECT_EQ((std::vector<std::string>{"velk_7_data.tmp0", "velk_7_data.tmp1",
                                        "velk_7_strings.tmp"}),
              list_dir(dir_));

    // A stale file of the same name is emptied.
    write_file(prefix + "_new_pid.tmp", {1, 2, 3});
    FILE_INFO_NODE pid("new_pid.tmp");
    ASSERT_EQ(0u, pid.Open_Temp_File(prefix.c_str(), -1));
    EXPECT_EQ(0u, pid.Size());
    EXPECT_TRUE(read_file(prefix + "_new_pid.tmp").empty());

    for (FILE_INFO_NODE* store : {&data0, &data1, &strings, &pid})
        EXPECT_EQ(0u, store->Close_Temp_File());
    EXPECT_TRUE(list_dir(dir_).empty());
}

TEST_F(StoreTest, FailedOpensLeaveTheStoreClosed)
{
    LogCapture log;
    FILE_INFO_NODE store("data.tmp");
    const std::string missing = path("no_such_dir") + "/velk_1";
    EXPECT_EQ(0u, store.Open_Temp_File(missing.c_str(), 3));
    EXPECT_EQ(-1, store.handle);
    EXPECT_STREQ((missing + "_data.tmp3").c_str(), store.path);
    EXPECT_EQ(0u, store.Size());
    EXPECT_EQ(0u, store.Close_Temp_File());

    // The path holds 1099 characters and its terminator; one more is refused
    // with the status of the bounded copy.
    const std::string dir = path("no_such_dir") + "/";
    const std::string longest = dir + std::string(1099 - 10 - dir.size(), 'p');
    EXPECT_EQ(0u, store.Open_Temp_File(longest.c_str(), 7));
    EXPECT_EQ(1099u, strlen(store.path));
    EXPECT_EQ(-1, store.handle);
    log.clear();
    EXPECT_EQ(VELK_E_BUFFER_TOO_SMALL, store.Open_Temp_File((longest + "p").c_str(), 7));
    EXPECT_EQ(-1, store.handle);
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ(0u, log.lines()[0].find("Operation failed with error code  (src/velk_class, "));
    EXPECT_TRUE(ends_with(log.lines()[0], ") value: 0x67\n"));
}

TEST_F(StoreTest, AppendsAtTheEndAndCloseDeletes)
{
    LogCapture log;
    FILE_INFO_NODE store("usr_defined_global.tmp");
    const std::string file = path("velk_2_usr_defined_global.tmp");
    EXPECT_EQ(VELK_E_NULL_POINTER, store.Append_To_File("x", 1, 4, 0));  // closed: no seek
    EXPECT_EQ(1u, log.count_prefix("Operation failed with error code = -1 (src/velk_class, "));

    ASSERT_EQ(0u, store.Open_Temp_File(path("velk_2").c_str(), -1));
    ASSERT_EQ(0u, store.Append_To_File("abc", 3, 4, 0));
    ASSERT_EQ(0u, store.Append_To_File("de\0f", 4, 4, 0));
    ASSERT_EQ(0u, store.Append_To_File("Z", 1, 1, 0));  // the origin is always the end
    EXPECT_EQ(8u, store.Size());
    EXPECT_EQ(bytes_of("abcde\0fZ", 8), read_file(file));

    EXPECT_EQ(0u, store.Close_Temp_File());
    EXPECT_EQ(-1, store.handle);
    EXPECT_FALSE(file_exists(file));
    EXPECT_EQ(0u, store.Size());
    EXPECT_EQ(0u, store.Close_Temp_File());
    ASSERT_EQ(0u, store.Open_Temp_File(path("velk_2").c_str(), -1));
    EXPECT_EQ(0u, store.Size());  // reopened empty
    ASSERT_EQ(0u, store.Append_To_File("q", 1, 4, 0));
    EXPECT_EQ(bytes_of("q", 1), read_file(file));
    EXPECT_EQ(0u, store.Close_Temp_File());
}

TEST_F(StoreTest, PaddingEndsEverySectionOnAMultipleOfEight)
{
    velk_class s;  // the padding works on any handle; no sample file needed
    for (unsigned int lead = 0; lead < 8; ++lead) {
        const std::string file = path("pad" + std::to_string(lead));
        write_file(file, Bytes(lead, 'x'));
        const int fd = open(file.c_str(), O_RDWR);  // positioned at 0, not at the end
        ASSERT_NE(-1, fd);
        ASSERT_EQ(0u, s.utility_add_string_padding(fd, "end x"));
        close(fd);
        // lead 2 puts the marker's end on a multiple of 8: 24 zeros, not 0.
        const size_t after_marker = lead + 6;
        const size_t pad = 24 - (after_marker & 7);
        Bytes expected(lead, 'x');
        const Bytes marker = bytes_of("end x", 6);
        expected.insert(expected.end(), marker.begin(), marker.end());
        expected.insert(expected.end(), pad, 0);
        EXPECT_EQ(expected, read_file(file)) << "lead " << lead;
        EXPECT_EQ(0u, expected.size() % 8);
    }

    // Without a text only the zeros are written.
    for (unsigned int lead : {5u, 16u}) {
        const std::string file = path("zeros" + std::to_string(lead));
        write_file(file, Bytes(lead, 'y'));
        const int fd = open(file.c_str(), O_RDWR);
        ASSERT_EQ(0u, s.utility_add_string_padding(fd, nullptr));
        close(fd);
        Bytes expected(lead, 'y');
        expected.insert(expected.end(), 24 - (lead & 7), 0);
        EXPECT_EQ(expected, read_file(file));
    }

    // A handle that can't be written gives the write's status.
    const int read_only = open(path("zeros5").c_str(), O_RDONLY);
    EXPECT_EQ(VELK_E_WRITE_FAILED, s.utility_add_string_padding(read_only, nullptr));
    EXPECT_EQ(VELK_E_WRITE_FAILED, s.utility_add_string_padding(read_only, "end x"));
    close(read_only);

    // A bad handle: the marker's seek fails with 22; the padding's own seek
    // failure is logged but reports success.
    LogCapture log;
    EXPECT_EQ(VELK_E_NULL_POINTER, s.utility_add_string_padding(-1, "end x"));
    EXPECT_EQ(0u, s.utility_add_string_padding(-1, nullptr));
    EXPECT_EQ(2u, log.count_prefix("Operation failed with error code = -1 (src/velk_class, "));
}

TEST_F(StoreTest, AppendsFileBToFileA)
{
    velk_class s;
    write_file(path("a"), bytes_of("AB", 2));
    write_file(path("b"), bytes_of("hello\0world", 11));
    write_file(path("empty"), {});
    const int a = open(path("a").c_str(), O_RDWR);
    const int b = open(path("b").c_str(), O_RDWR);
    const int e = open(path("empty").c_str(), O_RDWR);
    ASSERT_TRUE(a != -1 && b != -1 && e != -1);
    lseek(b, 5, SEEK_SET);  // copied from b's beginning whatever its position
    EXPECT_EQ(0u, s.utility_append_file_b_to_file_a(b, a));
    EXPECT_EQ(bytes_of("ABhello\0world", 13), read_file(path("a")));
    EXPECT_EQ(bytes_of("hello\0world", 11), read_file(path("b")));
    EXPECT_EQ(11, lseek(b, 0, SEEK_CUR));  // b is left at its end

    EXPECT_EQ(0u, s.utility_append_file_b_to_file_a(e, a));
    EXPECT_EQ(13u, read_file(path("a")).size());

    LogCapture log;
    EXPECT_EQ(0xFFFFFFFFu, s.utility_append_file_b_to_file_a(-1, a));
    EXPECT_EQ(0xFFFFFFFFu, s.utility_append_file_b_to_file_a(b, -1));
    EXPECT_EQ(13u, read_file(path("a")).size());
    EXPECT_EQ(2, std::count_if(log.lines().begin(), log.lines().end(), [](const std::string& l) {
                  return l.find("utility_append_file_b_to_file_a:") == 0 &&
                         ends_with(l, " error -1\n");
              }));
    close(a);
    close(b);
    close(e);
}

TEST_F(StoreTest, CopiesAStoreLargerThanOnePiece)
{
    const off_t kPiece = 0x2000000;
    const off_t size_b = kPiece + 4096 + 3;
    const int b = open(path("big_b").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_NE(-1, b);
    ASSERT_EQ(0, ftruncate(b, size_b));  // sparse; only the marks take room
    const off_t marks[] = {0, kPiece - 2, kPiece - 1, kPiece, kPiece + 1, size_b - 1};
    for (unsigned char i = 0; i < 6; ++i) {
        const unsigned char value = (unsigned char)(0x11 * (i + 1));
        ASSERT_EQ(1, pwrite(b, &value, 1, marks[i]));
    }
    write_file(path("big_a"), bytes_of("head!", 5));
    const int a = open(path("big_a").c_str(), O_RDWR);
    ASSERT_NE(-1, a);

    velk_class s;
    ASSERT_EQ(0u, s.utility_append_file_b_to_file_a(b, a));
    struct stat st;
    ASSERT_EQ(0, fstat(a, &st));
    EXPECT_EQ(5 + size_b, st.st_size);
    char head[5];
    ASSERT_EQ(5, pread(a, head, 5, 0));
    EXPECT_EQ(0, memcmp(head, "head!", 5));
    for (unsigned char i = 0; i < 6; ++i) {
        unsigned char got = 0;
        ASSERT_EQ(1, pread(a, &got, 1, 5 + marks[i]));
        EXPECT_EQ(0x11 * (i + 1), got) << "mark at " << marks[i];
    }
    unsigned char gap = 0xFF;
    ASSERT_EQ(1, pread(a, &gap, 1, 5 + kPiece - 3));
    EXPECT_EQ(0, gap);
    close(a);
    close(b);
}

// All stores of a session lie in the temp directory or beside the sample
// file; both ways of ending the session remove them.
class StoreSessionTest : public velk_test::TempDirTest {
protected:
    void fill_stores(velk_class& s)
    {
        ASSERT_EQ(0u, s.VELK_initialize_me(widen(path("f.vk7")).c_str(),
                                           VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
        unsigned long long id = 0;
        ASSERT_EQ(0u, s.utility_add_string_to_temp_file("kept until close", &id));
        FILE_INFO_NODE* pid = s.sections_ptr->new_pid_store;
        FILE_INFO_NODE* tid = s.sections_ptr->legacy_tid_store;
        ASSERT_EQ(0u, pid->Open_Temp_File(s.temp_path, -1));
        ASSERT_EQ(0u, tid->Open_Temp_File(s.final_file_name, -1));
        ASSERT_EQ(0u, pid->Append_To_File("p", 1, 4, 0));
        ASSERT_EQ(0u, tid->Append_To_File("t", 1, 4, 0));
        const std::string v = "velk_" + std::to_string(s.instance);
        std::vector<std::string> expected = {"f.vk7", "f.vk7_legacy_tid.tmp", v + "_new_pid.tmp",
                                             v + "_strings.tmp"};
        std::sort(expected.begin(), expected.end());
        ASSERT_EQ(expected, list_dir(dir_));
        base_ = s.string_base;
    }
    unsigned long long base_ = 0;
};

TEST_F(StoreSessionTest, ClosedownRemovesAllStores)
{
    velk_class s;
    fill_stores(s);
    ASSERT_EQ(0u, s.VELK_closedown());
    EXPECT_EQ(std::vector<std::string>{"f.vk7"}, list_dir(dir_));
    // the strings went into the file: 17 bytes, the marker, 24 - (36 & 7) zeros
    EXPECT_EQ(base_ + 17 + 19 + 20, read_file(path("f.vk7")).size());
}

TEST_F(StoreSessionTest, AbortRemovesAllStoresAndWritesNothing)
{
    velk_class s;
    fill_stores(s);
    ASSERT_EQ(0u, s.VELK_abort_cleanup_and_close());
    EXPECT_EQ(std::vector<std::string>{"f.vk7"}, list_dir(dir_));
    EXPECT_EQ(base_, read_file(path("f.vk7")).size());
}

}  // namespace
