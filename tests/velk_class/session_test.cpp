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
    const long long R = VELK_OPEN_READ, W = VELK_OPEN_WRITE, C = VELK_OPEN_CREATE,
                    CI = VELK_OPEN_CREATE_INTERNAL, RW = R | W, N = kNewFileSize,
                    NP = VELK_E_NO_PERMISSION, OF = VELK_E_OPEN_FAILED, BF = VELK_E_BAD_FILE;
    std::vector<unsigned char> wrong(2000, 0), cut(100, 0);
    memcpy(wrong.data(), "Sample8 ", 8);
    memcpy(cut.data(), "Sample6 ", 8);
    // The files by their number in the table: none, empty, garbage, one
    // byte, a wrong eyecatcher, a cut beginning.
    const std::vector<unsigned char> files[] = {
        {}, {}, std::vector<unsigned char>(2000, 0xAB), {'S'}, wrong, cut};
    // Mode, file, status, size afterwards (-1: no such file). Create empties
    // the file, but a session that may not write makes no beginning.
    const long long rows[][4] = {
        {0, 1, NP, 0},     {0x8, 0, NP, -1},  {C, 2, NP, 2000},  {CI, 0, NP, -1},
        {R, 0, OF, -1},    {R, 1, BF, 0},     {R, 3, BF, 1},     {R, 4, BF, 2000},
        {R, 5, BF, 100},   {W, 0, OF, -1},    {W, 1, 0, N},      {W, 2, NP, 2000},
        {RW, 0, OF, -1},   {RW, 1, 0, N},     {RW, 2, BF, 2000}, {W | C, 0, 0, N},
        {RW | C, 2, 0, N}, {W | CI, 2, 0, N}, {R | C, 2, BF, 0}, {R | CI, 2, BF, 0}};
    for (size_t n = 0; n < sizeof(rows) / sizeof(rows[0]); ++n) {
        const std::string name = path("f" + std::to_string(n));
        if (rows[n][1] != 0)
            write_file(name, files[rows[n][1]]);
        velk_handle* h = reinterpret_cast<velk_handle*>(0x1);
        const unsigned status = VELK_open(&h, widen(name).c_str(), (unsigned)rows[n][0]);
        EXPECT_EQ(rows[n][2], status) << "row " << n;
        // A failed open leaves the caller's pointer alone.
        EXPECT_TRUE(status == 0 ? VELK_close(h) == 0 : h == reinterpret_cast<velk_handle*>(0x1))
            << "row " << n;
        EXPECT_EQ(rows[n][3], file_exists(name) ? (long long)read_file(name).size() : -1)
            << "row " << n;
    }
}

TEST_F(SessionTest, RefusalsLogTheirLines)
{
    LogCapture log;
    velk_handle* h = nullptr;
    EXPECT_EQ(VELK_E_NO_PERMISSION, VELK_open(&h, widen(path("x")).c_str(), 0));
    for (const char* line :
         {"<velk %u::helper_init_open_final_file_and_analyze_it>cannot read or write the file!\n",
          "Operation failed with error code  (src/velk_class, %d) value: 0x6f\n",
          "Operation failed with error code  (src/velk_entry, %d) value: 0x6f\n",
          "VELK_open:%d Memory allocation: 32 bytes\n", "VELK_open:%d Memory free: 8 bytes\n"})
        EXPECT_TRUE(log.contains_format(line)) << line;

    LogCapture warnings(0xC0000000u);  // failures and warnings, no trace
    EXPECT_EQ(VELK_E_OPEN_FAILED, VELK_open(&h, widen(path("missing")).c_str(), VELK_OPEN_READ));
    ASSERT_EQ(2u, warnings.count_prefix("<velk "));
    EXPECT_TRUE(
        warnings.contains_format("<velk %u::do_init>VELK_OSI_Open_File failed, we assume file "
                                 "does not exist, so create a new file\n"));
    EXPECT_TRUE(warnings.contains_format(
        "<velk %u::do_init>VELK_OSI_Open_File failed the second time, this is a real error!\n"));
    // The retry is a warning.
    EXPECT_EQ((std::vector<unsigned>{0x40001000u, 0x80001000u}),
              std::vector<unsigned>(warnings.masks().begin(), warnings.masks().begin() + 2));

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
    std::vector<std::string> lines;
    for (const std::string& line : log.lines())
        if (line.find("::") != std::string::npos)
            lines.push_back(line.substr(line.find("::")));
    const std::vector<std::string> first = {
        "::constructor>entering\n",
        "::do_init>entering\n",
        "::do_init>exiting\n",
        "::constructor>exiting\n",
        "::VELK_initialized_me>entering\n",
        "::helper_init_open_final_file_and_analyze_it>entering\n",
        "::helper_init_open_final_file_and_analyze_it>opening file " + name + "\n"};
    ASSERT_GT(lines.size(), first.size());
    EXPECT_EQ(first, std::vector<std::string>(lines.begin(), lines.begin() + first.size()));
    EXPECT_EQ("::destructor>exiting for file " + name + "\n", lines.back());
}
