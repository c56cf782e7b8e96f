// The exported frame: handle checks, forwarding, the platform type, version
// and status texts, and the two ways a handle ends.
#include <stdlib.h>
#include <string.h>

#include <functional>

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
    // Frees what an aborted handle keeps: its session and its record.
    static void free_aborted(velk_handle* h)
    {
        delete h->file_object;
        free(h);
    }
};

// Every function with the standard check, called on `h`.
std::vector<std::pair<const char*, std::function<unsigned(velk_handle*)>>> checked_functions()
{
    return {
        {"VELK_close", [](velk_handle* h) { return VELK_close(h); }},
        {"VELK_abort_cleanup_and_close", [](velk_handle* h) { return VELK_abort_cleanup_and_close(h); }},
        {"VELK_get_vk_file_version",
         [](velk_handle* h) {
             unsigned v = 0;
             return VELK_get_vk_file_version(h, &v);
         }},
        {"VELK_convert_uniqueid_to_string",
         [](velk_handle* h) {
             __string_or_id id;
             id.id = 1ULL << 63;
             unsigned size = 0;
             return VELK_convert_uniqueid_to_string(h, 0, &id, nullptr, &size);
         }},
    };
}

}  // namespace

TEST_F(EntryTest, BadHandlesAreRefusedWithoutALogLine)
{
    velk_handle* h = open_new("h.vk7");
    ASSERT_NE(nullptr, h);

    // A record with tags as a closed handle leaves them, and copies of the
    // live one with either tag damaged.
    velk_handle stale = *h;
    stale.head_tag += 1;
    stale.tail_tag += 1;
    stale.tag_and_platform -= 1;
    velk_handle bad_head = *h;
    bad_head.head_tag ^= 0x100;
    velk_handle bad_tail = *h;
    bad_tail.tail_tag = 0;

    LogCapture log;
    for (auto& f : checked_functions()) {
        EXPECT_EQ(VELK_E_BAD_ARGUMENT, f.second(nullptr)) << f.first;
        EXPECT_EQ(VELK_E_BAD_ARGUMENT, f.second(&stale)) << f.first;
        EXPECT_EQ(VELK_E_BAD_ARGUMENT, f.second(&bad_head)) << f.first;
        EXPECT_EQ(VELK_E_BAD_ARGUMENT, f.second(&bad_tail)) << f.first;
    }
    EXPECT_TRUE(log.lines().empty());

    // The version's out pointer is tested in the frame: 63, not the
    // session's 36.
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_vk_file_version(h, nullptr));
    unsigned version = 0;
    EXPECT_EQ(0u, VELK_get_vk_file_version(h, &version));
    EXPECT_EQ(7u, version);
    EXPECT_EQ(VELK_E_BAD_POINTER, h->file_object->VELK_get_vk_file_version(nullptr));
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_open(nullptr, widen(path("h2")).c_str(), VELK_OPEN_READ));
    EXPECT_EQ(0u, VELK_close(h));
}

TEST_F(EntryTest, HandleRecordAndPlatformType)
{
    velk_handle* h = open_new("p.vk7");
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(0xDEFDEFDEu, h->head_tag);
    EXPECT_EQ(0xFDEFDEFDu, h->tail_tag);
    EXPECT_EQ(0, memcmp(&h->tag_and_platform, "KLEV", 4));
    EXPECT_NE(nullptr, h->file_object);

    // Before any set, the type is the last two bytes of "KLEV".
    unsigned type = 0;
    EXPECT_EQ(0u, VELK_get_platform_type(h, &type));
    EXPECT_EQ(0x5645u, type);
    EXPECT_EQ(0u, VELK_set_platform_type(h, 5));
    EXPECT_EQ(0u, VELK_get_platform_type(h, &type));
    EXPECT_EQ(5u, type);
    EXPECT_EQ(0u, VELK_set_platform_type(h, 0x12345));
    EXPECT_EQ(0u, VELK_get_platform_type(h, &type));
    EXPECT_EQ(0x2345u, type);
    EXPECT_EQ(0, memcmp(&h->tag_and_platform, "KL", 2));
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_platform_type(nullptr, &type));
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_platform_type(h, nullptr));
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_set_platform_type(nullptr, 1));
    // The tags are untouched, so the handle still passes every check.
    unsigned version = 0;
    EXPECT_EQ(0u, VELK_get_vk_file_version(h, &version));
    EXPECT_EQ(0u, VELK_close(h));
}

TEST_F(EntryTest, VersionAndStatusTexts)
{
    unsigned major = 9, minor = 9;
    EXPECT_EQ(0u, VELK_get_version(&major, &minor));
    EXPECT_EQ(2u, major);
    EXPECT_EQ(0u, minor);
    // No file is touched and no store is made.
    EXPECT_TRUE(list_dir(dir_).empty());

    const wchar_t* text = nullptr;
    EXPECT_EQ(0u, VELK_error_string(VELK_E_BAD_FILE, &text));
    ASSERT_NE(nullptr, text);
    EXPECT_EQ(0, wcsncmp(text, L"VELK_E_BAD_FILE", 15));
    EXPECT_EQ(0u, VELK_error_string(VELK_E_DISK_FULL, &text));
    EXPECT_EQ(0, wcsncmp(text, L"VELK_E_DISK_FULL", 16));

    // An unknown number: a text all the same, a failure logged by the session
    // and again by the frame.
    LogCapture log;
    text = nullptr;
    EXPECT_NE(0u, VELK_error_string(12345, &text));
    EXPECT_NE(nullptr, text);
    EXPECT_EQ(1u, log.count_prefix("Operation failed with error code  (src/velk_class, "));
    EXPECT_EQ(1u, log.count_prefix("Operation failed with error code  (src/velk_entry, "));
}

TEST_F(EntryTest, ConversionsForwardToTheSupportLibrary)
{
    unsigned size = 0;
    EXPECT_EQ(VELK_E_BUFFER_TOO_SMALL, VELK_convert_wcs_to_utf8(L"h\u00e9", nullptr, &size));
    EXPECT_EQ(4u, size);
    char utf8[4];
    EXPECT_EQ(0u, VELK_convert_wcs_to_utf8(L"h\u00e9", utf8, &size));
    EXPECT_STREQ("h\xc3\xa9", utf8);

    unsigned count = 0;
    EXPECT_EQ(VELK_E_BUFFER_TOO_SMALL, VELK_convert_utf8_to_wcs("h\xc3\xa9", nullptr, &count));
    EXPECT_EQ(3u, count);
    wchar_t wide[3];
    EXPECT_EQ(0u, VELK_convert_utf8_to_wcs("h\xc3\xa9", wide, &count));
    EXPECT_EQ(0, wcscmp(L"h\u00e9", wide));
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_convert_utf8_to_wcs("\xc0\x80", wide, &count));

    char* m = nullptr;
    EXPECT_EQ(0u, VELK_convert_wcs_to_utf8_malloced(L"\U0001D11E", &m));
    EXPECT_STREQ("\xf0\x9d\x84\x9e", m);
    free(m);
    wchar_t* w = nullptr;
    EXPECT_EQ(0u, VELK_convert_utf8_to_wcs_malloced("\xf0\x9d\x84\x9e", &w));
    EXPECT_EQ(0, wcscmp(L"\U0001D11E", w));
    free(w);
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
    EXPECT_TRUE(log.contains("<velk " + std::to_string(h->file_object->instance) +
                             "::VELK_check_all_sections_closed>section 6 needs to be closed!\n"));
    EXPECT_TRUE(log.contains_format("Operation failed with error code  (src/velk_entry, %d) value: 0x7e\n"));
    // The file was assembled: the strings are in it, and the stores are gone.
    const std::vector<unsigned char> f = read_file(path("open.vk7"));
    ASSERT_GE(f.size(), 1400u + 5);
    EXPECT_EQ(0, memcmp(&f[1400], "kept", 5));
    EXPECT_EQ(std::vector<std::string>{"open.vk7"}, list_dir(dir_));
    // The handle is still live and its objects are allocated.
    EXPECT_EQ(0xDEFDEFDEu, h->head_tag);
    ASSERT_NE(nullptr, h->file_object);

    // Closing again runs the same sequence; with the section done it ends.
    h->file_object->sections_ptr->section_state[VELK_SECTION_THREAD] = VELK_STATE_EXISTS;
    EXPECT_EQ(VELK_E_NULL_POINTER, VELK_close(h));  // the file was closed already
    free_aborted(h);
}

TEST_F(EntryTest, AbortRemovesStoresAndKeepsTheHandle)
{
    velk_handle* h = open_new("abort.vk7");
    ASSERT_NE(nullptr, h);
    unsigned long long id = 0;
    ASSERT_EQ(0u, h->file_object->utility_add_string_to_temp_file("lost", &id));
    const std::string store =
        dir_ + "/velk_" + std::to_string(h->file_object->instance) + "_strings.tmp";
    EXPECT_TRUE(file_exists(store));

    EXPECT_EQ(0u, VELK_abort_cleanup_and_close(h));
    EXPECT_FALSE(file_exists(store));
    // The file stays as it stood: its beginning, nothing of the store.
    EXPECT_EQ(1400u, read_file(path("abort.vk7")).size());
    // Tags stay live and nothing is freed.
    EXPECT_EQ(0xDEFDEFDEu, h->head_tag);
    EXPECT_EQ(0xFDEFDEFDu, h->tail_tag);
    unsigned version = 0;
    EXPECT_EQ(0u, VELK_get_vk_file_version(h, &version));
    free_aborted(h);
}

TEST_F(EntryTest, CloseRemovesStoresAndFreesTheHandle)
{
    velk_handle* h = open_new("close.vk7");
    ASSERT_NE(nullptr, h);
    unsigned long long id = 0;
    ASSERT_EQ(0u, h->file_object->utility_add_string_to_temp_file("flushed", &id));
    EXPECT_EQ(2u, list_dir(dir_).size());
    EXPECT_EQ(0u, VELK_close(h));
    EXPECT_EQ(std::vector<std::string>{"close.vk7"}, list_dir(dir_));
}
