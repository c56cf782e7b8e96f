// The velk tool dumps what the library reads: a new file, and a file of each
// older version.
#include <stdio.h>

#include "test_helpers.h"

using namespace velk_test;

namespace {

using ToolTest = TempDirTest;

// Runs the tool; returns its exit status and its standard output.
int run_tool(const std::string& arguments, std::string* out)
{
    FILE* p = popen((std::string(VELK_TOOL_PATH) + " " + arguments + " 2>&1").c_str(), "r");
    if (p == nullptr)
        return -1;
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof(chunk), p)) > 0)
        out->append(chunk, got);
    return pclose(p);
}

}  // namespace

TEST_F(ToolTest, DemoWritesAFileAndDumpReadsOlderVersions)
{
    std::string out;
    ASSERT_EQ(0, run_tool("demo " + path("demo.vk7"), &out)) << out;
    for (const char* line : {"file version 7\n", "kind    41 special velk stream offset",
                             "host: size 24, flags 0x0, text 1 \"demo-host\", text 2 \"x86_64\"\n",
                             "version info: 2.0.8, revision 27\n", "type 1, comment \"samples of the demo\"\n",
                             "  process 1: pid 4101, flags 0x0, osid 0, when 10, parent index 0, path "
                             "\"/usr/bin/helper\", name \"helper\"\n",
                             "  thread 0: tid 4100, process 4100, flags 0x0, when 0, name \"main\"\n",
                             "  record size 144\n  module 0: pid 4100, flags 0x8000, load 0x400000",
                             "  data: entry size 48, counted by bytes\n",
                             "    entry 1: \"sample\"=10104000000000000000000000000000... \"time stamp\"=1007\n"})
        EXPECT_NE(std::string::npos, out.find(line)) << line;

    // A version 5 file: section table of 20-byte entries, no global table.
    std::vector<unsigned char> v5(416 + 464, 0);
    memcpy(v5.data(), "SampleF ", 8);
    v5[8] = 27;
    v5[12] = 20;
    const SampleFileSections_s ex = {460, 416, 1, 460, 16, 0};
    memcpy(&v5[16], &ex, sizeof(ex));
    write_file(path("old.vk5"), v5);
    out.clear();
    ASSERT_EQ(0, run_tool("dump " + path("old.vk5"), &out)) << out;
    EXPECT_NE(std::string::npos, out.find("file version 5\n"));
    EXPECT_NE(std::string::npos, out.find("kind    16 legacy header ex"));
    EXPECT_NE(std::string::npos, out.find("streams: 0\n"));

    out.clear();
    EXPECT_NE(0, run_tool("dump " + path("missing"), &out));
    EXPECT_NE(std::string::npos, out.find("VELK_open failed: 44 (VELK_E_OPEN_FAILED"));
}
