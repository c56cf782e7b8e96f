// Opening a sample file: modes and files, refusals with their log lines, where stores go.
#include <string.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

using namespace velk_test;

using SessionTest = TempDirTest;

// A new file closed at once: its beginning, the header ex and the report.
const long long kNewFileSize = 3240;

TEST_F(SessionTest, ModeAndFileTable)
{
    const long long R = VELK_OPEN_READ, W = VELK_OPEN_WRITE, C = VELK_OPEN_CREATE,
                    CI = VELK_OPEN_CREATE_INTERNAL, RW = R | W, N = kNewFileSize,
                    NP = VELK_E_NO_PERMISSION, OF = VELK_E_OPEN_FAILED, BF = VELK_E_BAD_FILE;
    std::vector<unsigned char> wrong(2000, 0), cut(100, 0);
    memcpy(wrong.data(), "Sample8 ", 8);
    memcpy(cut.data(), "Sample6 ", 8);
    // The files by their number: none, empty, garbage, a wrong eyecatcher, a cut beginning.
    const std::vector<unsigned char> files[] = {
        {}, {}, std::vector<unsigned char>(2000, 0xAB), wrong, cut};
    // Mode, file, status, size afterwards (-1: no such file). Create empties
    // the file, but a session that may not write makes no beginning.
    const long long rows[][4] = {
        {0, 1, NP, 0},     {C, 2, NP, 2000},  {R, 0, OF, -1},   {R, 1, BF, 0},     {R, 3, BF, 2000},
        {R, 4, BF, 100},   {W, 1, 0, N},      {W, 2, NP, 2000}, {RW, 2, BF, 2000}, {W | C, 0, 0, N},
        {RW | C, 2, 0, N}, {W | CI, 2, 0, N}, {R | C, 2, BF, 0}};
    for (size_t n = 0; n < sizeof(rows) / sizeof(rows[0]); ++n) {
        const std::string name = path("f" + std::to_string(n));
        if (rows[n][1] != 0)
            write_file(name, files[rows[n][1]]);
        SCOPED_TRACE(n);
        velk_handle* h = reinterpret_cast<velk_handle*>(0x1);  // a failed open leaves it alone
        const unsigned status = VELK_open(&h, widen(name).c_str(), (unsigned)rows[n][0]);
        EXPECT_EQ(rows[n][2], status);
        EXPECT_TRUE(status == 0 ? VELK_close(h) == 0 : h == reinterpret_cast<velk_handle*>(0x1));
        EXPECT_EQ(rows[n][3], file_exists(name) ? (long long)read_file(name).size() : -1);
    }
}

TEST_F(SessionTest, RefusalsLogTheirLines)
{
    LogCapture log;
    velk_handle* h = nullptr;
    EXPECT_EQ(VELK_E_NO_PERMISSION, VELK_open(&h, widen(path("x")).c_str(), 0));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::helper_init_open_final_file_and_analyze_it>cannot read or write the file!\n"));

    LogCapture warnings(0xC0000000u);  // failures and warnings, no trace
    EXPECT_EQ(VELK_E_OPEN_FAILED, VELK_open(&h, widen(path("missing")).c_str(), VELK_OPEN_READ));
    ASSERT_EQ(2u, warnings.count_prefix("<velk "));
    EXPECT_TRUE(warnings.contains_format(
        "<velk %u::do_init>VELK_OSI_Open_File failed the second time, this is a real error!\n"));

    // Longer than the session's 1100 bytes; outside Unicode; null.
    const unsigned rw = VELK_OPEN_READ | VELK_OPEN_WRITE;
    EXPECT_EQ(VELK_E_BUFFER_TOO_SMALL,
              VELK_open(&h, (widen(dir_) + L"/" + std::wstring(1100, L'a')).c_str(), rw));
    EXPECT_EQ(VELK_E_BAD_ARGUMENT,
              VELK_open(&h, (widen(path("bad")) + std::wstring(1, (wchar_t)0x110000)).c_str(), rw));
    EXPECT_EQ(VELK_E_OPEN_FAILED, VELK_open(&h, nullptr, rw));
}

TEST_F(SessionTest, StoresGoToDovTmpDirThenTmpdirThenTmp)
{
    {
        velk_class s;
        EXPECT_EQ(dir_ + "/velk_" + std::to_string(s.instance), std::string(s.temp_path));
    }
    const char* old = getenv("TMPDIR");
    const std::string saved = old ? old : "";
    unsetenv("DOV_TMP_DIR");
    for (const char* tmpdir : {"/var/tmp", (const char*)nullptr}) {
        tmpdir != nullptr ? setenv("TMPDIR", tmpdir, 1) : unsetenv("TMPDIR");
        velk_class s;
        EXPECT_EQ(std::string(tmpdir ? tmpdir : "/tmp") + "/velk_" + std::to_string(s.instance),
                  std::string(s.temp_path));
    }
    if (old != nullptr)
        setenv("TMPDIR", saved.c_str(), 1);
}

TEST_F(SessionTest, TraceOfASessionsLifeUnderANonAsciiName)
{
    LogCapture log(0x10001000u);
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, (widen(dir_) + L"/Stra\u00dfe-\u6e2c.vk7").c_str(),
                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    ASSERT_EQ(0u, VELK_close(h));
    const std::string name = dir_ + "/Stra\xc3\x9f\x65-\xe6\xb8\xac.vk7";  // UTF-8 on disk
    EXPECT_EQ((size_t)kNewFileSize, read_file(name).size());
    ASSERT_FALSE(log.lines().empty());
    EXPECT_TRUE(log.contains_format(
        "<velk %u::helper_init_open_final_file_and_analyze_it>opening file " + name + "\n"));
    EXPECT_NE(std::string::npos,
              log.lines().back().find("::destructor>exiting for file " + name + "\n"));
}
