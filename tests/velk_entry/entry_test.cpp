// The exported frame: handle checks, forwarding, the platform type, version
// and status texts, and the two ways a handle ends.
#include <stdlib.h>
#include <string.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

namespace {

class EntryTest : public TempDirTest {
protected:
    velk_handle* open_new(const std::string& name)
    {
        velk_handle* h = nullptr;
        EXPECT_EQ(0u, VELK_open(&h, widen(path(name)).c_str(),
                                VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
        return h;
    }
};

}  // namespace

TEST_F(EntryTest, BadHandlesAreRefusedWithoutALogLine)
{
    velk_handle* h = open_new("h.vk7");
    ASSERT_NE(nullptr, h);
    // Tags as a close leaves them, and either tag damaged.
    velk_handle stale = *h, bad_head = *h, bad_tail = *h;
    stale.head_tag += 1;
    stale.tail_tag += 1;
    bad_head.head_tag ^= 0x100;
    bad_tail.tail_tag = 0;
    __string_or_id id;
    id.id = 1ULL << 63;
    unsigned out = 0;
    LogCapture log;
    for (velk_handle* bad : {(velk_handle*)nullptr, &stale, &bad_head, &bad_tail}) {
        EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_close(bad));
        EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_abort_cleanup_and_close(bad));
        EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_vk_file_version(bad, &out));
        EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_convert_uniqueid_to_string(bad, 0, &id, nullptr, &out));
    }
    EXPECT_TRUE(log.lines().empty());

    // The version's out pointer is tested by the frame: 63, not the
    // session's own 36.
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_vk_file_version(h, nullptr));
    EXPECT_EQ(VELK_E_BAD_POINTER, h->file_object->VELK_get_vk_file_version(nullptr));
    EXPECT_EQ(0u, VELK_get_vk_file_version(h, &out));
    EXPECT_EQ(7u, out);
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_open(nullptr, widen(path("h2")).c_str(), VELK_OPEN_READ));
    EXPECT_EQ(0u, VELK_close(h));
}

TEST_F(EntryTest, PlatformTypeLivesInTheTagWord)
{
    velk_handle* h = open_new("p.vk7");
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(0, memcmp(&h->tag_and_platform, "KLEV", 4));
    unsigned type = 0;
    EXPECT_EQ(0u, VELK_get_platform_type(h, &type));
    EXPECT_EQ(0x5645u, type);  // "EV" before any set
    EXPECT_EQ(0u, VELK_set_platform_type(h, 5));
    EXPECT_EQ(0u, VELK_get_platform_type(h, &type));
    EXPECT_EQ(5u, type);
    EXPECT_EQ(0u, VELK_set_platform_type(h, 0x12345));
    EXPECT_EQ(0u, VELK_get_platform_type(h, &type));
    EXPECT_EQ(0x2345u, type);
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_platform_type(nullptr, &type));
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_platform_type(h, nullptr));
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_set_platform_type(nullptr, 1));
    // The tested tags are untouched.
    EXPECT_EQ(0u, VELK_get_vk_file_version(h, &type));
    EXPECT_EQ(0u, VELK_close(h));
}

TEST_F(EntryTest, VersionStatusTextsAndConversions)
{
    unsigned major = 9, minor = 9;
    EXPECT_EQ(0u, VELK_get_version(&major, &minor));
    EXPECT_EQ(2u, major);
    EXPECT_EQ(0u, minor);
    EXPECT_TRUE(list_dir(dir_).empty());  // no file, no store

    const wchar_t* text = nullptr;
    EXPECT_EQ(0u, VELK_error_string(VELK_E_BAD_FILE, &text));
    EXPECT_EQ(0, wcsncmp(text, L"VELK_E_BAD_FILE: ", 17));
    LogCapture log;
    EXPECT_NE(0u, VELK_error_string(12345, &text));
    EXPECT_EQ(1u, log.count_prefix("Operation failed with error code  (src/velk_class, "));
    EXPECT_EQ(1u, log.count_prefix("Operation failed with error code  (src/velk_entry, "));

    // The conversions are plain forwards to the support library.
    unsigned size = 0;
    EXPECT_EQ(VELK_E_BUFFER_TOO_SMALL, VELK_convert_wcs_to_utf8(L"h\u00e9", nullptr, &size));
    EXPECT_EQ(4u, size);
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_convert_utf8_to_wcs("\xc0\x80", nullptr, &size));
}

TEST_F(EntryTest, CloseWithASectionLeftOpenAssemblesThenReports)
{
    velk_handle* h = open_new("open.vk7");
    ASSERT_NE(nullptr, h);
    unsigned long long id = 0;
    ASSERT_EQ(0u, h->file_object->utility_add_string_to_temp_file("kept", &id));
    h->file_object->sections_ptr->section_state[VELK_SECTION_THREAD] = VELK_STATE_WRITING;

    LogCapture log;
    EXPECT_EQ(VELK_E_SECTION_OPEN, VELK_close(h));
    EXPECT_TRUE(log.contains_format("<velk %u::VELK_check_all_sections_closed>section 6 needs to be closed!\n"));
    EXPECT_TRUE(log.contains_format("Operation failed with error code  (src/velk_entry, %d) value: 0x7e\n"));
    // Assembled: the strings are in the file and the stores are gone; the
    // handle stays live.
    const std::vector<unsigned char> f = read_file(path("open.vk7"));
    ASSERT_GE(f.size(), 1405u);
    EXPECT_EQ(0, memcmp(&f[1400], "kept", 5));
    EXPECT_EQ(std::vector<std::string>{"open.vk7"}, list_dir(dir_));
    EXPECT_EQ(0xDEFDEFDEu, h->head_tag);
    // A second close runs the same steps on a file already closed.
    h->file_object->sections_ptr->section_state[VELK_SECTION_THREAD] = VELK_STATE_EXISTS;
    EXPECT_EQ(VELK_E_NULL_POINTER, VELK_close(h));
    free_kept(h);
}

TEST_F(EntryTest, AbortAndCloseRemoveTheStores)
{
    // One session at a time: sessions made in the same second share their
    // stores' paths.
    velk_handle* h = open_new("abort.vk7");
    ASSERT_NE(nullptr, h);
    unsigned long long id = 0;
    ASSERT_EQ(0u, h->file_object->utility_add_string_to_temp_file("lost", &id));
    EXPECT_EQ(2u, list_dir(dir_).size());
    // Abort: stores gone, the file as it stood, the handle live and kept.
    EXPECT_EQ(0u, VELK_abort_cleanup_and_close(h));
    EXPECT_EQ(std::vector<std::string>{"abort.vk7"}, list_dir(dir_));
    EXPECT_EQ(1400u, read_file(path("abort.vk7")).size());
    unsigned version = 0;
    EXPECT_EQ(0u, VELK_get_vk_file_version(h, &version));
    free_kept(h);

    h = open_new("close.vk7");
    ASSERT_NE(nullptr, h);
    ASSERT_EQ(0u, h->file_object->utility_add_string_to_temp_file("flushed", &id));
    EXPECT_EQ(0u, VELK_close(h));
    const std::vector<unsigned char> f = read_file(path("close.vk7"));
    ASSERT_GT(f.size(), 1400u + 27);
    EXPECT_EQ(0, memcmp(&f[1400], "flushed\0end string section", 27));
    EXPECT_EQ((std::vector<std::string>{"abort.vk7", "close.vk7"}), list_dir(dir_));
}
