// The protocol of declared reading and writing: both transition tables, the
// version 5 coupling of processes and threads, and the stream-level rules.
#include "test_helpers.h"
#include "velk_class/velk_class.h"

using namespace velk_test;
using U = std::vector<unsigned long long>;  // a braced list runs left to right

namespace {

class StatesTest : public TempDirTest {
protected:
    void SetUp() override
    {
        TempDirTest::SetUp();
        ASSERT_EQ(0u, s_.VELK_initialize_me(widen(path("s.vk7")).c_str(),
                                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    }
    void TearDown() override
    {
        s_.VELK_closedown();
        TempDirTest::TearDown();
    }
    velk_class s_;
};

}  // namespace

TEST_F(StatesTest, SectionTransitions)
{
    ASSERT_EQ(0u, s_.VELK_writing_stream(0));
    __VELK_stream_struct* node = s_.stream_list;
    // [global or stream][from state][reading, writing, done]: the status, and
    // the state after. A stream is in the state the call needs.
    const unsigned status[2][4][3] = {{{78, 0, 78}, {0, 77, 0}, {0, 77, 0}, {77, 77, 0}},
                                      {{79, 0, 79}, {0, 0, 0}, {0, 0, 0}, {81, 0, 0}}};
    const unsigned after[2][4][3] = {{{0, 3, 0}, {2, 1, 1}, {2, 2, 1}, {3, 3, 1}},
                                     {{0, 3, 0}, {2, 3, 1}, {2, 3, 1}, {3, 3, 1}}};
    // The global descriptor section may be read and done while absent,
    // stream 0's description read.
    const unsigned absent_after[3] = {2, 3, 1};
    for (int in_stream = 0; in_stream < 2; ++in_stream)
        for (unsigned id : {in_stream ? 0u : 4u, in_stream ? 1u : 7u})
            for (unsigned from = 0; from < 4; ++from)
                for (int op = 0; op < 3; ++op) {
                    unsigned* state = in_stream ? &node->stream_section_state[id]
                                                : &s_.sections_ptr->section_state[id];
                    node->stream_state = op == 1 ? 3 : 2;
                    *state = from;
                    const unsigned got = in_stream
                                             ? (op == 0   ? s_.VELK_reading_stream_section(0, id)
                                                : op == 1 ? s_.VELK_writing_stream_section(0, id)
                                                          : s_.VELK_done_stream_section(0, id))
                                             : (op == 0   ? s_.VELK_reading_section(id)
                                                : op == 1 ? s_.VELK_writing_section(id)
                                                          : s_.VELK_done_section(id));
                    const bool special = from == 0 && (in_stream ? id == 1 && op == 0 : id == 7);
                    EXPECT_EQ((U{special ? 0 : status[in_stream][from][op],
                                 special ? absent_after[op] : after[in_stream][from][op]}),
                              (U{got, *state}))
                        << in_stream << id << from << op;
                }

    LogCapture log(0x80000000u);
    EXPECT_EQ(VELK_E_UNKNOWN_SECTION, s_.VELK_reading_section(8));
    EXPECT_EQ(0u, log.count_prefix("<velk "));  // no explaining line
    s_.sections_ptr->section_state[3] = 3;
    EXPECT_EQ(VELK_E_SECTION_BUSY, s_.VELK_reading_section(3));
    EXPECT_TRUE(log.contains_format("<velk %u::helper_set_section_state>%d is being written!\n"));
    node->stream_state = 1;
    EXPECT_EQ(VELK_E_STREAM_STATE, s_.VELK_reading_stream_section(0, 4));
    EXPECT_TRUE(log.contains_format("<velk %u>did not call VELK_reading_stream yet!\n"));
    node->stream_state = 3;
    EXPECT_EQ(VELK_E_UNKNOWN_SECTION, s_.VELK_writing_stream_section(0, 5));
    node->stream_section_state[1] = 0;
    EXPECT_EQ(VELK_E_BAD_STREAM, s_.VELK_done_stream_section(0, 1));
    EXPECT_TRUE(log.contains_format("<velk %u>data description stream does not exist!\n"));
    EXPECT_EQ(VELK_E_BAD_STREAM, s_.VELK_reading_stream_section(1, 0));
}

TEST_F(StatesTest, UseCountsAndTheVersion5Coupling)
{
    velk_section_block* b = s_.sections_ptr;
    b->section_state[VELK_SECTION_SYSTEM] = 1;
    EXPECT_EQ(
        (U{0, 0, 0, 1, 1}),
        (U{s_.VELK_reading_section(VELK_SECTION_SYSTEM),
           s_.VELK_reading_section(VELK_SECTION_SYSTEM), s_.VELK_done_section(VELK_SECTION_SYSTEM),
           b->section_state[VELK_SECTION_SYSTEM], b->section_users[VELK_SECTION_SYSTEM]}));
    for (unsigned version : {5u, 6u}) {
        s_.vk_file_version = version;
        b->section_state[VELK_SECTION_PROCESS] = 1;
        b->section_state[VELK_SECTION_THREAD] = 1;
        EXPECT_EQ(
            (U{0, version == 5 ? 2u : 1u, 0, 1}),
            (U{s_.VELK_reading_section(VELK_SECTION_PROCESS), b->section_state[VELK_SECTION_THREAD],
               s_.VELK_done_section(VELK_SECTION_PROCESS), b->section_state[VELK_SECTION_THREAD]}));
    }
    LogCapture log(0x80000000u);
    s_.access_mode = VELK_ACCESS_WRITE;
    EXPECT_EQ(VELK_E_NO_PERMISSION, s_.VELK_reading_section(VELK_SECTION_SYSTEM));
    s_.access_mode = VELK_ACCESS_READ;
    EXPECT_EQ(VELK_E_NO_PERMISSION, s_.VELK_writing_section(VELK_SECTION_SYSTEM));
    s_.access_mode = VELK_ACCESS_READ | VELK_ACCESS_WRITE;
    const std::string velk = "<velk " + std::to_string(s_.instance);
    EXPECT_EQ((std::vector<std::string>{
                  velk + "::VELK_reading_section>don't have permission to read the file!\n",
                  velk + "::VELK_writing_section>don't have permission to write the file!\n"}),
              log.lines());

    // The repeat's failure is returned; the process section keeps its state.
    s_.vk_file_version = 5;
    b->section_state[VELK_SECTION_THREAD] = 0;
    EXPECT_EQ(VELK_E_SECTION_MISSING, s_.VELK_reading_section(VELK_SECTION_PROCESS));
    EXPECT_EQ(2u, b->section_state[VELK_SECTION_PROCESS]);
}

TEST_F(StatesTest, StreamsAreMadeInOrderAndMustBeDescribed)
{
    LogCapture log;
    ASSERT_EQ(0u, s_.VELK_writing_stream(0));
    ASSERT_EQ(0u, s_.VELK_writing_stream(1));
    EXPECT_EQ(VELK_E_STREAM_STATE, s_.VELK_writing_stream(3));
    EXPECT_TRUE(log.contains_format("<velk %u>stream 2 hasn't been created yet!\n"));
    EXPECT_EQ(VELK_E_STREAM_STATE, s_.VELK_writing_stream(1));
    EXPECT_TRUE(log.contains_format("<velk %u>stream 1 already exists!\n"));
    // A second call on stream 0 in a created file adds a stream all the same.
    EXPECT_EQ((U{0, 3, 0, 4}), (U{s_.VELK_writing_stream(2), (unsigned)s_.stream_count,
                                  s_.VELK_writing_stream(0), (unsigned)s_.stream_count}));

    // Done on an undescribed stream: 80, both lines, and the writing ends.
    EXPECT_EQ(VELK_E_STREAM_STATE, s_.VELK_done_stream(1));
    EXPECT_TRUE(log.contains_format("<velk %u>data stream comment is not set!\n"));
    EXPECT_TRUE(log.contains_format("<velk %u>data stream type is not set!\n"));
    EXPECT_EQ(0u, s_.VELK_done_stream(1));
    EXPECT_EQ(VELK_E_STREAM_STATE, s_.VELK_reading_stream(0));
    EXPECT_TRUE(log.contains_format("<velk %u>stream 0 currently being written!\n"));
    EXPECT_EQ(VELK_E_BAD_STREAM, s_.VELK_done_stream(4));
    EXPECT_TRUE(log.contains_format("<velk %u>invalid stream 4!\n"));

    // Kinds 27, 26 and 24 of the global table, kind 38 of a stream's.
    unsigned e[4] = {9, 9, 9, 9};
    EXPECT_EQ(0u, s_.VELK_exists_global_section(27, &e[0]));
    s_.sections_ptr->section_state[VELK_SECTION_CONFIGURATION] = 3;
    s_.stream_list->stream_section_state[2] = 1;
    EXPECT_EQ((U{0, 0, 0, 0, 1, 0, 1}),
              (U{s_.VELK_exists_global_section(26, &e[1]), s_.VELK_exists_global_section(24, &e[2]),
                 s_.VELK_exists_stream_section(0, 38, &e[3]), e[0], e[1], e[2], e[3]}));
    EXPECT_TRUE(
        log.contains_format("<velk %u::VELK_exists_global_section>unrecognized section 24\n"));
    EXPECT_EQ(VELK_E_BAD_STREAM, s_.VELK_exists_stream_section(9, 38, &e[0]));
    s_.sections_ptr->section_state[VELK_SECTION_CONFIGURATION] = 1;
    for (auto* n = s_.stream_list; n; n = n->next)
        n->stream_state = 1;
}
