// The round trip: what a session sets the next one reads; a session doing nothing changes nothing.
#include <sys/stat.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;
using U = std::vector<unsigned long long>;  // a braced list runs left to right
using Texts = std::vector<std::string>;
using CloseTest = TempDirTest;

const unsigned kCreate = VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE;

TEST_F(CloseTest, WhatIsSetIsWhatTheNextSessionReads)
{
    const std::string name = path("round.vk7");
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), kCreate));
    __VELK_host host = {24, 5, {w(L"h\u00f6st")}, {w(L"second")}};
    __VELK_os os[2] = {{40, 1, 2, 3, 4, 5, {w(L"Linux")}, {nullptr}},
                       {40, 7, 8, 9, 10, 11, {w(L"guest")}, {w(L"os2")}}};
    __VELK_application app = {32, 0, 2, 4, 2400000000ULL, 7};
    __VELK_version_info version = {16, 2, 0, 8, 27};
    __VELK_stream_info info = {64, 1, 1, 2, 3, 4, 5, 6, {w(L"cmd")}, {w(L"cpu")}, {w(L"a comment")},
                               99};
    __VELK_user_info user = {{w(L"user text")}};
    // Undescribed, a stream would get a new empty descriptor section at every writing close.
    __velk_samprec_desc_entry field = {72, 0, 0, 0, 8, 0, {}, 0, {}, {}};
    for (unsigned status : {VELK_writing_section(h, VELK_SECTION_CONFIGURATION),
                            VELK_set_host(h, &host),
                            VELK_set_os(h, 2, os),
                            VELK_set_application(h, &app),
                            VELK_done_section(h, VELK_SECTION_CONFIGURATION),
                            VELK_writing_section(h, VELK_SECTION_VERSION_INFO),
                            VELK_set_version_info(h, &version),
                            VELK_done_section(h, VELK_SECTION_VERSION_INFO),
                            VELK_writing_stream(h, 0),
                            VELK_writing_stream_section(h, 0, VELK_STREAM_SECTION_STREAM_INFO),
                            VELK_set_user_info(h, 0, &user),
                            VELK_set_lbr_info(h, 0, 0x77),
                            VELK_set_uncore_info(h, 0, 3, 4),
                            VELK_set_stream_info(h, 0, &info),
                            VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_STREAM_INFO),
                            VELK_writing_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION),
                            VELK_add_data_descriptor_entry(h, 0, &field),
                            VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION),
                            VELK_done_stream(h, 0),
                            VELK_close(h)})
        ASSERT_EQ(0u, status);
    const std::vector<unsigned char> written = read_file(name);
    struct stat st;
    stat(name.c_str(), &st);
    const std::vector<unsigned char> written_at = bytes_of(st.st_mtim);

    // Read-only, then read and write with nothing done: no byte, no time stamp changes.
    for (unsigned mode : {VELK_OPEN_READ, VELK_OPEN_READ | VELK_OPEN_WRITE}) {
        ASSERT_EQ(0u, VELK_open(&h, widen(name).c_str(), mode));
        __VELK_host host_back = {};
        __VELK_os os_back[2] = {};
        __VELK_application app_back = {};
        __VELK_version_info version_back = {};
        __VELK_stream_info info_back = {};
        __VELK_user_info user_back = {};
        VELK_LBR_FILTER lbr = 0;
        unsigned short uncore[2] = {};
        // The application's getter leaves the version section in use: done ends that use.
        EXPECT_EQ(
            U(17, 0),
            (U{VELK_reading_section(h, VELK_SECTION_CONFIGURATION),
               VELK_get_host(h, sizeof(host_back), &host_back, nullptr),
               VELK_get_os(h, sizeof(os_back), os_back, nullptr),
               VELK_get_application(h, sizeof(app_back), &app_back, nullptr),
               VELK_done_section(h, VELK_SECTION_CONFIGURATION),
               VELK_done_section(h, VELK_SECTION_VERSION_INFO),
               VELK_reading_section(h, VELK_SECTION_VERSION_INFO),
               VELK_get_version_info(h, sizeof(version_back), &version_back, nullptr),
               VELK_done_section(h, VELK_SECTION_VERSION_INFO), VELK_reading_stream(h, 0),
               VELK_reading_stream_section(h, 0, VELK_STREAM_SECTION_STREAM_INFO),
               VELK_get_stream_info(h, 0, sizeof(info_back), &info_back, nullptr),
               VELK_get_user_info(h, 0, sizeof(user_back), &user_back, nullptr),
               VELK_get_lbr_info(h, 0, &lbr), VELK_get_uncore_info(h, 0, &uncore[0], &uncore[1]),
               VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_STREAM_INFO),
               VELK_done_stream(h, 0)}));
        EXPECT_EQ((U{5, 11, 0, 64, 6, 99, 0x77, 3, 4}),
                  (U{host_back.host_flags, os_back[1].os_word_4, os_back[0].os_text_2.id,
                     info_back.stream_info_size, info_back.stream_param_f, info_back.stream_value,
                     lbr, uncore[0], uncore[1]}));
        EXPECT_EQ((Texts{"h\xf6st", "second", "os2", "a comment", "user text"}),
                  (Texts{text_of(h, host_back.host_text_1.id), text_of(h, host_back.host_text_2.id),
                         text_of(h, os_back[1].os_text_2.id), text_of(h, info_back.comment.id),
                         text_of(h, user_back.user_info.id)}));
        EXPECT_EQ(bytes_of(app), bytes_of(app_back));
        EXPECT_EQ(bytes_of(version), bytes_of(version_back));
        EXPECT_EQ(0u, VELK_close(h));
        EXPECT_EQ(written, read_file(name)) << mode;
        stat(name.c_str(), &st);
        EXPECT_EQ(written_at, bytes_of(st.st_mtim)) << mode;
    }

    // Opening tests the version record: a version 7 file's major, a version 6 file's revision.
    const size_t at = (size_t)global_slot(written, KIND_VERSION_INFO).file_offset;
    for (const auto& c : {U{7, 3, 0}, U{6, 2, 28}}) {  // form, major, revision
        Image f{written};
        f.put8(6, (uint8_t)('0' + c[0]));  // "Sample6 " or "Sample7 "
        f.put8(at + 4, (uint8_t)c[1]);
        f.put32(at + 12, (uint32_t)c[2]);
        write_file(name, f.b);
        EXPECT_EQ(VELK_E_VERSION_MISMATCH, VELK_open(&h, widen(name).c_str(), VELK_OPEN_READ));
    }
    // A writer that died leaves a file with no version: it can't be opened.
    ASSERT_EQ(0u, VELK_open(&h, widen(path("died")).c_str(), kCreate));
    ASSERT_EQ(0u, h->file_object->VELK_abort_cleanup_and_close());
    free_kept(h);
    EXPECT_EQ(VELK_E_SECTION_MISSING, VELK_open(&h, widen(path("died")).c_str(), VELK_OPEN_READ));
}
