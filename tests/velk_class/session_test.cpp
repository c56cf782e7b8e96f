// Opening a sample file: the mode and file combinations, refusals of bad
// input with their log lines, and where the session puts its stores.
#include <string.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

using namespace velk_test;

using SessionTest = TempDirTest;

// A new file closed at once: its beginning, the header ex and the report.
const long long kNewFileSize = 3240;

TEST_F(SessionTest, ModeAndFileTable)
{
    const unsigned R = VELK_OPEN_READ, W = VELK_OPEN_WRITE, C = VELK_OPEN_CREATE,
                   CI = VELK_OPEN_CREATE_INTERNAL;
    std::vector<unsigned char> wrong(2000, 0), cut(100, 0);
    memcpy(wrong.data(), "Sample8 ", 8);
    memcpy(cut.data(), "Sample6 ", 8);
    const std::vector<unsigned char> missing = {'-'}, empty, garbage(2000, 0xAB), tiny = {'S'};
    struct Row {
        unsigned mode;
        const std::vector<unsigned char>* file;
        unsigned status;
        long long size_after;  // -1: no such file afterwards
    } rows[] = {
        {0, &empty, VELK_E_NO_PERMISSION, 0},
        {0x8, &missing, VELK_E_NO_PERMISSION, -1},
        {C, &garbage, VELK_E_NO_PERMISSION, 2000},
        {CI, &missing, VELK_E_NO_PERMISSION, -1},
        {R, &missing, VELK_E_OPEN_FAILED, -1},
        {R, &empty, VELK_E_BAD_FILE, 0},
        {R, &tiny, VELK_E_BAD_FILE, 1},
        {R, &wrong, VELK_E_BAD_FILE, 2000},
        {R, &cut, VELK_E_BAD_FILE, 100},
        {W, &missing, VELK_E_OPEN_FAILED, -1},
        {W, &empty, 0, kNewFileSize},
        {W, &garbage, VELK_E_NO_PERMISSION, 2000},
        {R | W, &missing, VELK_E_OPEN_FAILED, -1},
        {R | W, &empty, 0, kNewFileSize},
        {R | W, &garbage, VELK_E_BAD_FILE, 2000},
        {W | C, &missing, 0, kNewFileSize},
        {R | W | C, &garbage, 0, kNewFileSize},
        {W | CI, &garbage, 0, kNewFileSize},
        // Create empties the file, but a session that may not write makes
        // no beginning: an empty file is left.
        {R | C, &garbage, VELK_E_BAD_FILE, 0},
        {R | CI, &garbage, VELK_E_BAD_FILE, 0},
    };
    for (size_t n = 0; n < sizeof(rows) / sizeof(rows[0]); ++n) {
        const Row& row = rows[n];
        const std::string name = path("f" + std::to_string(n));
        if (row.file != &missing)
            write_file(name, *row.file);
        velk_handle* h = reinterpret_cast<velk_handle*>(0x1);
        const unsigned status = VELK_open(&h, widen(name).c_str(), row.mode);
        EXPECT_EQ(row.status, status) << "row " << n;
        if (status == 0) {
            EXPECT_EQ(0u, VELK_close(h)) << "row " << n;
        } else {
            EXPECT_EQ(reinterpret_cast<velk_handle*>(0x1), h) << "row " << n;
        }
        if (row.size_after < 0) {
            EXPECT_FALSE(file_exists(name)) << "row " << n;
        } else {
            EXPECT_EQ((size_t)row.size_after, read_file(name).size()) << "row " << n;
        }
    }
}

TEST_F(SessionTest, RefusalsLogTheirLines)
{
    LogCapture log;
    velk_handle* h = nullptr;
    EXPECT_EQ(VELK_E_NO_PERMISSION, VELK_open(&h, widen(path("x")).c_str(), 0));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::helper_init_open_final_file_and_analyze_it>cannot read or write the file!\n"));
    EXPECT_TRUE(log.contains_format("Operation failed with error code  (src/velk_class, %d) value: 0x6f\n"));
    EXPECT_TRUE(log.contains_format("Operation failed with error code  (src/velk_entry, %d) value: 0x6f\n"));
    EXPECT_TRUE(log.contains_format("VELK_open:%d Memory allocation: 32 bytes\n"));
    EXPECT_TRUE(log.contains_format("VELK_open:%d Memory free: 8 bytes\n"));

    LogCapture warnings(0xC0000000u);  // failures and warnings, no trace
    EXPECT_EQ(VELK_E_OPEN_FAILED, VELK_open(&h, widen(path("missing")).c_str(), VELK_OPEN_READ));
    ASSERT_EQ(2u, warnings.count_prefix("<velk "));
    EXPECT_TRUE(warnings.contains_format("<velk %u::do_init>VELK_OSI_Open_File failed, we assume file "
                                    "does not exist, so create a new file\n"));
    EXPECT_TRUE(warnings.contains_format(
        "<velk %u::do_init>VELK_OSI_Open_File failed the second time, this is a real error!\n"));
    EXPECT_EQ(0x40001000u, warnings.masks()[0]);  // the retry is a warning
    EXPECT_EQ(0x80001000u, warnings.masks()[1]);

    warnings.clear();
    write_file(path("junk"), std::vector<unsigned char>(900, 'x'));
    EXPECT_EQ(VELK_E_BAD_FILE, VELK_open(&h, widen(path("junk")).c_str(), VELK_OPEN_READ));
    EXPECT_TRUE(warnings.contains_format("<velk %u::VELK_verify>eyecatcher is not valid!\n"));
    EXPECT_EQ(VELK_E_NO_PERMISSION, VELK_open(&h, widen(path("junk")).c_str(), VELK_OPEN_WRITE));
    EXPECT_TRUE(warnings.contains_format(
        "<velk %u::helper_init_open_final_file_and_analyze_it>cannot read the file!\n"));
}

TEST_F(SessionTest, FileNames)
{
    velk_handle* h = nullptr;
    const unsigned rw = VELK_OPEN_READ | VELK_OPEN_WRITE;
    // Longer than the session's 1100 bytes; outside Unicode; null.
    EXPECT_EQ(VELK_E_BUFFER_TOO_SMALL,
              VELK_open(&h, (widen(dir_) + L"/" + std::wstring(1100, L'a')).c_str(), rw));
    EXPECT_EQ(VELK_E_BAD_ARGUMENT,
              VELK_open(&h, (widen(path("bad")) + std::wstring(1, (wchar_t)0x110000)).c_str(), rw));
    EXPECT_EQ(VELK_E_OPEN_FAILED, VELK_open(&h, nullptr, rw));
    EXPECT_EQ(nullptr, h);
    // A non-ASCII name is a UTF-8 path on disk.
    ASSERT_EQ(0u, VELK_open(&h, (widen(dir_) + L"/Stra\u00dfe-\u6e2c.vk7").c_str(),
                            rw | VELK_OPEN_CREATE));
    EXPECT_EQ(0u, VELK_close(h));
    EXPECT_EQ((size_t)kNewFileSize, read_file(dir_ + "/Stra\xc3\x9f" "e-\xe6\xb8\xac.vk7").size());
}

TEST_F(SessionTest, StoresGoToDovTmpDirThenTmpdirThenTmp)
{
    {
        velk_class s;
        EXPECT_EQ(dir_ + "/velk_" + std::to_string(s.instance), std::string(s.temp_path));
        unsigned long long id = 0;
        ASSERT_EQ(0u, s.VELK_initialize_me(widen(path("s.vk7")).c_str(),
                                           VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
        ASSERT_EQ(0u, s.utility_add_string_to_temp_file("x", &id));
        EXPECT_TRUE(file_exists(dir_ + "/velk_" + std::to_string(s.instance) + "_strings.tmp"));
        EXPECT_EQ(0u, s.VELK_closedown());
    }
    const char* old = getenv("TMPDIR");
    const std::string saved = old ? old : "";
    unsetenv("DOV_TMP_DIR");
    setenv("TMPDIR", "/var/tmp", 1);
    {
        velk_class s;
        EXPECT_EQ("/var/tmp/velk_" + std::to_string(s.instance), std::string(s.temp_path));
    }
    unsetenv("TMPDIR");
    {
        velk_class s;
        EXPECT_EQ("/tmp/velk_" + std::to_string(s.instance), std::string(s.temp_path));
    }
    if (old != nullptr)
        setenv("TMPDIR", saved.c_str(), 1);
}

TEST_F(SessionTest, TraceOfASessionsLife)
{
    LogCapture log(0x10001000u);
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(path("t.vk7")).c_str(),
                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    ASSERT_EQ(0u, VELK_close(h));
    std::vector<std::string> lines;
    for (const std::string& line : log.lines())
        if (line.find("::") != std::string::npos)
            lines.push_back(line.substr(line.find("::")));
    const std::vector<std::string> first = {
        "::constructor>entering\n", "::do_init>entering\n", "::do_init>exiting\n",
        "::constructor>exiting\n", "::VELK_initialized_me>entering\n",
        "::helper_init_open_final_file_and_analyze_it>entering\n",
        "::helper_init_open_final_file_and_analyze_it>opening file " + path("t.vk7") + "\n"};
    ASSERT_GT(lines.size(), first.size());
    EXPECT_EQ(first, std::vector<std::string>(lines.begin(), lines.begin() + first.size()));
    EXPECT_EQ("::destructor>exiting for file " + path("t.vk7") + "\n", lines.back());
}
