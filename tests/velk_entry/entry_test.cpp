// The exported frame: handle checks, forwarding, the platform type, version
// and status texts, and the two ways a handle ends.
#include <string.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

using EntryTest = TempDirTest;

TEST_F(EntryTest, HandleChecksPlatformTypeVersionAndTexts)
{
    unsigned major = 9, minor = 9;
    EXPECT_EQ(0u, VELK_get_version(&major, &minor));
    EXPECT_TRUE(major == 2 && minor == 0);
    EXPECT_TRUE(list_dir(dir_).empty());  // no file, no store
    const wchar_t* text = nullptr;
    EXPECT_EQ(0u, VELK_error_string(VELK_E_BAD_FILE, &text));
    EXPECT_EQ(0, wcsncmp(text, L"VELK_E_BAD_FILE: ", 17));
    // The conversions are plain forwards to the support library.
    unsigned size = 0;
    EXPECT_EQ(VELK_E_BUFFER_TOO_SMALL, VELK_convert_wcs_to_utf8(L"h\u00e9", nullptr, &size));
    EXPECT_EQ(4u, size);
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_convert_utf8_to_wcs("\xc0\x80", nullptr, &size));
    LogCapture log;
    EXPECT_NE(0u, VELK_error_string(12345, &text));
    EXPECT_EQ(1u, log.count_prefix("Operation failed with error code  (src/velk_class, "));
    EXPECT_EQ(1u, log.count_prefix("Operation failed with error code  (src/velk_entry, "));

    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(path("h.vk7")).c_str(),
                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    // Tags as a close leaves them, and either tag damaged: 63, no log line.
    velk_handle stale = *h, bad_head = *h, bad_tail = *h;
    stale.head_tag += 1;
    stale.tail_tag += 1;
    bad_head.head_tag ^= 0x100;
    bad_tail.tail_tag = 0;
    __string_or_id id;
    id.id = 1ULL << 63;
    log.clear();
    for (velk_handle* bad : {(velk_handle*)nullptr, &stale, &bad_head, &bad_tail}) {
        EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_close(bad));
        EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_abort_cleanup_and_close(bad));
        EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_vk_file_version(bad, &size));
        EXPECT_EQ(VELK_E_BAD_ARGUMENT,
                  VELK_convert_uniqueid_to_string(bad, 0, &id, nullptr, &size));
    }
    EXPECT_TRUE(log.lines().empty());
    // The version's out pointer is tested by the frame: 63, not the
    // session's own 36.
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_vk_file_version(h, nullptr));
    EXPECT_EQ(VELK_E_BAD_POINTER, h->file_object->VELK_get_vk_file_version(nullptr));
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_open(nullptr, widen(path("h2")).c_str(), VELK_OPEN_READ));

    // The platform type is the upper half of the tag word "KLEV".
    EXPECT_EQ(0, memcmp(&h->tag_and_platform, "KLEV", 4));
    unsigned type = 0;
    for (unsigned set : {0u, 5u, 0x12345u}) {
        EXPECT_EQ(0u, set == 0 ? 0u : VELK_set_platform_type(h, set));
        EXPECT_EQ(0u, VELK_get_platform_type(h, &type));
        EXPECT_EQ(set == 0 ? 0x5645u : set & 0xFFFF, type);  // "EV" before any set
    }
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_platform_type(nullptr, &type));
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_platform_type(h, nullptr));
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_set_platform_type(nullptr, 1));
    EXPECT_EQ(0u, VELK_get_vk_file_version(h, &type));  // the tested tags are untouched
    EXPECT_EQ(7u, type);
    EXPECT_EQ(0u, VELK_close(h));
}

TEST_F(EntryTest, AbortAndAFailedCloseKeepTheHandle)
{
    // One session at a time: sessions made in the same second share their
    // stores' paths. Abort: stores gone, the file as it stood, the handle
    // live and kept.
    velk_handle* h = nullptr;
    const unsigned mode = VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE;
    ASSERT_EQ(0u, VELK_open(&h, widen(path("abort.vk7")).c_str(), mode));
    unsigned long long id = 0;
    ASSERT_EQ(0u, h->file_object->utility_add_string_to_temp_file("lost", &id));
    EXPECT_EQ(2u, list_dir(dir_).size());
    EXPECT_EQ(0u, VELK_abort_cleanup_and_close(h));
    EXPECT_EQ(std::vector<std::string>{"abort.vk7"}, list_dir(dir_));
    EXPECT_EQ(1400u, read_file(path("abort.vk7")).size());
    unsigned version = 0;
    EXPECT_EQ(0u, VELK_get_vk_file_version(h, &version));
    free_kept(h);

    // A close with a section left open assembles the file, then reports.
    ASSERT_EQ(0u, VELK_open(&h, widen(path("open.vk7")).c_str(), mode));
    ASSERT_EQ(0u, h->file_object->utility_add_string_to_temp_file("kept", &id));
    h->file_object->sections_ptr->section_state[VELK_SECTION_THREAD] = VELK_STATE_WRITING;
    LogCapture log;
    EXPECT_EQ(VELK_E_SECTION_OPEN, VELK_close(h));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::VELK_check_all_sections_closed>section 6 needs to be closed!\n"));
    EXPECT_TRUE(log.contains_format(
        "Operation failed with error code  (src/velk_entry, %d) value: 0x7e\n"));
    EXPECT_EQ(bytes_of("kept"), slice(read_file(path("open.vk7")), 1400, 5));
    EXPECT_EQ((std::vector<std::string>{"abort.vk7", "open.vk7"}), list_dir(dir_));
    EXPECT_EQ(0xDEFDEFDEu, h->head_tag);
    // A second close runs the same steps on a file already closed.
    h->file_object->sections_ptr->section_state[VELK_SECTION_THREAD] = VELK_STATE_EXISTS;
    EXPECT_EQ(VELK_E_NULL_POINTER, VELK_close(h));
    free_kept(h);
}
