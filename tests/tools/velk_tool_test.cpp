// The velk tool dumps what the library reads: a new file, and a file of each
// older version.
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
        {"file version 7\n", "kind    41 special velk stream offset",
         "host: size 24, flags 0x0, text 1 \"demo-host\", text 2 \"x86_64\"\n",
         "version info: 2.0.8, revision 27\n", "type 1, comment \"samples of the demo\"\n",
         "  process 1: pid 4101, flags 0x0, osid 0, when 10, parent index 0, path "
         "\"/usr/bin/helper\", name \"helper\"\n",
         "  thread 0: tid 4100, process 4100, flags 0x0, when 0, name \"main\"\n",
         "  record size 144\n  module 0: pid 4100, flags 0x8000, load 0x400000",
         "  data: entry size 48, counted by bytes\n",
         "    entry 1: \"sample\"=10104000000000000000000000000000... \"time stamp\"=1007\n"});
    // A version 5 file: section table of 20-byte entries, no global table.
    Image v5{std::vector<unsigned char>(416 + 464, 0)};
    v5.put(0, "SampleF ", 8);
    v5.put32(8, 27);
    v5.put32(12, 20);
    v5.slot(16, 20, 460, 416, 1, 460, 16);
    write_file(path("old.vk5"), v5.b);
    expect_run("dump " + path("old.vk5"), true,
               {"file version 5\n", "kind    16 legacy header ex", "streams: 0\n"});
    expect_run("dump " + path("missing"), false, {"VELK_open failed: 44 (VELK_E_OPEN_FAILED"});
}
