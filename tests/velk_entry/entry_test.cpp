// The exported frame: handle checks, platform type, version, status texts, how a handle ends.
#include <string.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

using EntryTest = TempDirTest;

TEST_F(EntryTest, HandleChecksPlatformTypeVersionAndTexts)
{
    unsigned major = 9, minor = 9, size = 0;
    EXPECT_EQ(0u, VELK_get_version(&major, &minor));
    EXPECT_TRUE(major == 2 && minor == 0);
    const wchar_t* text = nullptr;
    EXPECT_EQ(0u, VELK_error_string(VELK_E_BAD_FILE, &text));
    EXPECT_EQ(0, wcsncmp(text, L"VELK_E_BAD_FILE: ", 17));
    LogCapture log;
    EXPECT_NE(0u, VELK_error_string(12345, &text));
    EXPECT_EQ(1u, log.count_prefix("Operation failed with error code  (src/velk_entry, "));

    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(path("h.vk7")).c_str(),
                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    // Tags as a close leaves them, and a damaged tag: 63, no log line.
    velk_handle stale = *h, bad_tail = *h;
    stale.head_tag += 1;
    stale.tail_tag += 1;
    bad_tail.tail_tag = 0;
    log.clear();
    for (velk_handle* bad : {(velk_handle*)nullptr, &stale, &bad_tail}) {
        EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_close(bad));
        EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_vk_file_version(bad, &size));
    }
    EXPECT_TRUE(log.lines().empty());
    // The version's out pointer is tested by the frame: 63, not the session's own 36.
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_vk_file_version(h, nullptr));
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_open(nullptr, widen(path("h2")).c_str(), VELK_OPEN_READ));

    unsigned type = 0;
    for (unsigned set : {0u, 5u, 0x12345u}) {
        EXPECT_EQ(0u, set == 0 ? 0u : VELK_set_platform_type(h, set));
        EXPECT_EQ(0u, VELK_get_platform_type(h, &type));
        EXPECT_EQ(set == 0 ? 0x5645u : set & 0xFFFF, type);  // "EV" before any set
    }
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_get_platform_type(nullptr, &type));
    EXPECT_TRUE(VELK_get_vk_file_version(h, &type) == 0 && type == 7);  // tags untouched
    EXPECT_EQ(0u, VELK_close(h));
}

TEST_F(EntryTest, AbortAndAFailedCloseRemoveEveryStoreAndKeepTheHandle)
{
    // One session at a time: sessions made in the same second share their stores' paths.
    std::vector<std::string> files;
    for (const std::string name : {"abort.vk7", "open.vk7"}) {
        velk_handle* h = nullptr;
        ASSERT_EQ(0u, VELK_open(&h, widen(path(name)).c_str(),
                                VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
        velk_class* s = h->file_object;
        unsigned long long id = 0;
        ASSERT_EQ(0u, s->utility_add_string_to_temp_file("kept until close", &id));
        ASSERT_EQ(0u, s->sections_ptr->new_pid_store->Open_Temp_File(s->temp_path, -1));
        files.push_back(name);
        ASSERT_EQ(files.size() + 2, list_dir(dir_).size());
        const std::vector<unsigned char> before = read_file(path(name));
        LogCapture log;
        if (name == "abort.vk7") {
            // Abort: the file as it stood, the handle live and kept.
            EXPECT_EQ(0u, VELK_abort_cleanup_and_close(h));
            EXPECT_TRUE(before.size() == 1400 && before == read_file(path(name)));
            unsigned version = 0;
            EXPECT_EQ(0u, VELK_get_vk_file_version(h, &version));
        } else {
            // A close with a section left open assembles the file, then reports.
            s->sections_ptr->section_state[VELK_SECTION_THREAD] = VELK_STATE_WRITING;
            EXPECT_EQ(VELK_E_SECTION_OPEN, VELK_close(h));
            EXPECT_TRUE(log.contains_format(
                "<velk %u::VELK_check_all_sections_closed>section 6 needs to be closed!\n"));
            EXPECT_EQ(bytes_of("kept until close\0end string section"),
                      slice(read_file(path(name)), 1400, 36));
        }
        EXPECT_EQ(files, list_dir(dir_));
        free_kept(h);
    }
}
