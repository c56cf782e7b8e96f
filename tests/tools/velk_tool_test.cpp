// The velk tool: its demo writes a file it dumps; dump reads a bare version 5 file.
#include <stdio.h>

#include "test_helpers.h"

using namespace velk_test;

using ToolTest = TempDirTest;

// Runs the tool and expects its exit status and each of `parts` in its output.
void expect_run(const std::string& arguments, bool succeeds, std::vector<std::string> parts)
{
    FILE* p = popen((std::string(VELK_TOOL_PATH) + " " + arguments + " 2>&1").c_str(), "r");
    ASSERT_NE(nullptr, p);
    std::string out;
    char chunk[4096];
    for (size_t got; (got = fread(chunk, 1, sizeof(chunk), p)) > 0;)
        out.append(chunk, got);
    EXPECT_EQ(succeeds, pclose(p) == 0) << out;
    for (const std::string& part : parts)
        EXPECT_NE(std::string::npos, out.find(part)) << part;
}

TEST_F(ToolTest, DemoWritesAFileAndDumpReadsOlderVersions)
{
    expect_run(
        "demo " + path("demo.vk7"), true,
        {"file version 7\n", "host: size 24, flags 0x0, text 1 \"demo-host\", text 2 \"x86_64\"\n",
         "  record size 144\n  module 0: pid 4100, flags 0x8000, load 0x400000",
         "    entry 1: \"sample\"=10104000000000000000000000000000... \"time stamp\"=1007\n"});
    Image v5{std::vector<unsigned char>(416 + 464, 0)};
    v5.put(0, "SampleF ", 8);
    v5.put32(8, 27);
    v5.put32(12, 20);
    v5.slot(16, 20, 460, 416, 1, 460, 16);
    write_file(path("old.vk5"), v5.b);
    expect_run("dump " + path("old.vk5"), true,
               {"file version 5\n", "kind    16 legacy header ex"});
    expect_run("dump " + path("missing"), false, {"VELK_open failed: 44 (VELK_E_OPEN_FAILED"});
}
