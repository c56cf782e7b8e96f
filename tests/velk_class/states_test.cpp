// Declared reading and writing: the transition tables, use counts, version 5 coupling, streams.
#include "test_helpers.h"
#include "velk_class/velk_class.h"

using namespace velk_test;
using U = std::vector<unsigned long long>;  // a braced list runs left to right
using StatesTest = TempDirTest;

TEST_F(StatesTest, SectionTransitionsUseCountsCouplingAndStreams)
{
    velk_class s_;
    ASSERT_EQ(0u, s_.VELK_initialize_me(widen(path("s.vk7")).c_str(),
                                        VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    ASSERT_EQ(0u, s_.VELK_writing_stream(0));
    __VELK_stream_struct* node = s_.stream_list;
    velk_section_block* b = s_.sections_ptr;
    // [global, stream][from state][read, write, done]: status and state after; the stream is ready.
    const unsigned status[2][4][3] = {{{78, 0, 78}, {0, 77, 0}, {0, 77, 0}, {77, 77, 0}},
                                      {{79, 0, 79}, {0, 0, 0}, {0, 0, 0}, {81, 0, 0}}};
    const unsigned after[2][4][3] = {{{0, 3, 0}, {2, 1, 1}, {2, 2, 1}, {3, 3, 1}},
                                     {{0, 3, 0}, {2, 3, 1}, {2, 3, 1}, {3, 3, 1}}};
    // The global descriptor section may be read and done while absent, stream 0's description read.
    const unsigned absent_after[3] = {2, 3, 1};
    for (unsigned n = 0; n < 48; ++n) {  // global sections 4 and 7, then stream sections 0 and 1
        const unsigned in = n / 24, from = n / 3 % 4, op = n % 3;
        const unsigned id = n / 12 % 2 ? (in ? 1 : 7) : (in ? 0 : 4);
        unsigned* state = in ? &node->stream_section_state[id] : &b->section_state[id];
        node->stream_state = op == 1 ? 3 : 2;
        *state = from;
        const unsigned got = in ? (op == 0   ? s_.VELK_reading_stream_section(0, id)
                                   : op == 1 ? s_.VELK_writing_stream_section(0, id)
                                             : s_.VELK_done_stream_section(0, id))
                                : (op == 0   ? s_.VELK_reading_section(id)
                                   : op == 1 ? s_.VELK_writing_section(id)
                                             : s_.VELK_done_section(id));
        const bool special = from == 0 && (in ? id == 1 && op == 0 : id == 7);
        EXPECT_EQ((special ? U{0, absent_after[op]} : U{status[in][from][op], after[in][from][op]}),
                  (U{got, *state}))
            << n;
    }

    LogCapture log(0x80000000u);
    EXPECT_EQ(VELK_E_UNKNOWN_SECTION, s_.VELK_reading_section(8));
    b->section_state[3] = 3;
    EXPECT_EQ(VELK_E_SECTION_BUSY, s_.VELK_reading_section(3));
    EXPECT_TRUE(log.contains_format("<velk %u::helper_set_section_state>%d is being written!\n"));
    node->stream_state = 1;
    EXPECT_EQ(VELK_E_STREAM_STATE, s_.VELK_reading_stream_section(0, 4));
    EXPECT_TRUE(log.contains_format("<velk %u>did not call VELK_reading_stream yet!\n"));
    node->stream_state = 3;
    node->stream_section_state[1] = 0;
    EXPECT_EQ(VELK_E_BAD_STREAM, s_.VELK_done_stream_section(0, 1));
    EXPECT_TRUE(log.contains_format("<velk %u>data description stream does not exist!\n"));

    b->section_state[VELK_SECTION_SYSTEM] = 1;  // two readers, one done: still read
    EXPECT_EQ(
        (U{0, 0, 0, 1, 1}),
        (U{s_.VELK_reading_section(VELK_SECTION_SYSTEM),
           s_.VELK_reading_section(VELK_SECTION_SYSTEM), s_.VELK_done_section(VELK_SECTION_SYSTEM),
           b->section_state[VELK_SECTION_SYSTEM], b->section_users[VELK_SECTION_SYSTEM]}));
    for (unsigned version : {6u, 5u}) {  // version 5 reads the threads with the processes
        s_.vk_file_version = version;
        b->section_state[VELK_SECTION_PROCESS] = 1;
        b->section_state[VELK_SECTION_THREAD] = 1;
        EXPECT_EQ(
            (U{0, version == 5 ? 2u : 1u, 0, 1}),
            (U{s_.VELK_reading_section(VELK_SECTION_PROCESS), b->section_state[VELK_SECTION_THREAD],
               s_.VELK_done_section(VELK_SECTION_PROCESS), b->section_state[VELK_SECTION_THREAD]}));
    }
    b->section_state[VELK_SECTION_THREAD] = 0;  // the threads' failure is returned
    EXPECT_EQ(VELK_E_SECTION_MISSING, s_.VELK_reading_section(VELK_SECTION_PROCESS));
    s_.access_mode = VELK_ACCESS_WRITE;
    EXPECT_EQ(VELK_E_NO_PERMISSION, s_.VELK_reading_section(VELK_SECTION_SYSTEM));
    s_.access_mode = VELK_ACCESS_READ;
    EXPECT_EQ(VELK_E_NO_PERMISSION, s_.VELK_writing_section(VELK_SECTION_SYSTEM));
    s_.access_mode = VELK_ACCESS_READ | VELK_ACCESS_WRITE;
    EXPECT_TRUE(log.contains_format(
        "<velk %u::VELK_reading_section>don't have permission to read the file!\n"));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::VELK_writing_section>don't have permission to write the file!\n"));

    // Streams are made in order; done on an undescribed one: 80, both lines, the writing ends.
    ASSERT_EQ(0u, s_.VELK_writing_stream(1));
    EXPECT_EQ(VELK_E_STREAM_STATE, s_.VELK_writing_stream(3));
    EXPECT_TRUE(log.contains_format("<velk %u>stream 2 hasn't been created yet!\n"));
    EXPECT_EQ(VELK_E_STREAM_STATE, s_.VELK_done_stream(1));
    EXPECT_TRUE(log.contains_format("<velk %u>data stream comment is not set!\n"));
    EXPECT_TRUE(log.contains_format("<velk %u>data stream type is not set!\n"));
    EXPECT_EQ(0u, s_.VELK_done_stream(1));
    EXPECT_EQ(VELK_E_STREAM_STATE, s_.VELK_reading_stream(0));
    EXPECT_TRUE(log.contains_format("<velk %u>stream 0 currently being written!\n"));
    EXPECT_EQ(VELK_E_BAD_STREAM, s_.VELK_done_stream(4));
    unsigned e[2] = {9, 9};  // the unknown global kind 24, a stream's kind 38
    node->stream_section_state[2] = 1;
    EXPECT_EQ((U{0, 0, 0, 1}), (U{s_.VELK_exists_global_section(24, &e[0]), e[0],
                                  s_.VELK_exists_stream_section(0, 38, &e[1]), e[1]}));
    EXPECT_TRUE(
        log.contains_format("<velk %u::VELK_exists_global_section>unrecognized section 24\n"));
    s_.VELK_closedown();
}
