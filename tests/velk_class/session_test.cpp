// Opening a sample file: the mode and file combinations, refusals of bad
// input with their log lines, and the session's set-up.
#include <string.h>

#include "test_helpers.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

using namespace velk_test;

namespace {

enum class FileState { Missing, Empty, Short, WrongEyecatcher, ShortAfterEyecatcher, Garbage };

class SessionTest : public TempDirTest {
protected:
    void make_file(const std::string& name, FileState state)
    {
        std::vector<unsigned char> bytes;
        switch (state) {
        case FileState::Missing:
            return;
        case FileState::Empty:
            break;
        case FileState::Short:
            bytes = {'S', 'a', 'm'};
            break;
        case FileState::WrongEyecatcher:
            bytes.assign(2000, 0);
            memcpy(bytes.data(), "Sample8 ", 8);
            break;
        case FileState::ShortAfterEyecatcher:
            bytes.assign(100, 0);
            memcpy(bytes.data(), "Sample6 ", 8);
            break;
        case FileState::Garbage:
            bytes.assign(2000, 0xAB);
            break;
        }
        write_file(path(name), bytes);
    }
};

}  // namespace

TEST_F(SessionTest, ModeAndFileTable)
{
    const unsigned R = VELK_OPEN_READ, W = VELK_OPEN_WRITE, C = VELK_OPEN_CREATE;
    struct Row {
        unsigned mode;
        FileState file;
        unsigned status;
        long long size_after;  // -1: the file must not exist afterwards
    } rows[] = {
        {0, FileState::Empty, VELK_E_NO_PERMISSION, 0},
        {0x8, FileState::Missing, VELK_E_NO_PERMISSION, -1},
        {C, FileState::Garbage, VELK_E_NO_PERMISSION, 2000},
        {VELK_OPEN_CREATE_INTERNAL, FileState::Missing, VELK_E_NO_PERMISSION, -1},
        {R, FileState::Missing, VELK_E_OPEN_FAILED, -1},
        {R, FileState::Empty, VELK_E_BAD_FILE, 0},
        {R, FileState::Short, VELK_E_BAD_FILE, 3},
        {R, FileState::WrongEyecatcher, VELK_E_BAD_FILE, 2000},
        {R, FileState::ShortAfterEyecatcher, VELK_E_BAD_FILE, 100},
        {W, FileState::Missing, VELK_E_OPEN_FAILED, -1},
        {W, FileState::Empty, 0, 1400},
        {W, FileState::Garbage, VELK_E_NO_PERMISSION, 2000},
        {R | W, FileState::Missing, VELK_E_OPEN_FAILED, -1},
        {R | W, FileState::Empty, 0, 1400},
        {R | W, FileState::Garbage, VELK_E_BAD_FILE, 2000},
        // Create with read alone empties the file, but a session that may not
        // write makes no beginning: what is left is an empty file.
        {R | C, FileState::Garbage, VELK_E_BAD_FILE, 0},
        {W | C, FileState::Missing, 0, 1400},
        {R | W | C, FileState::Garbage, 0, 1400},
        {W | VELK_OPEN_CREATE_INTERNAL, FileState::Garbage, 0, 1400},
        {R | VELK_OPEN_CREATE_INTERNAL, FileState::Garbage, VELK_E_BAD_FILE, 0},
    };
    int n = 0;
    for (const Row& row : rows) {
        const std::string name = "f" + std::to_string(n++);
        make_file(name, row.file);
        velk_handle* h = reinterpret_cast<velk_handle*>(0x1);
        const unsigned status = VELK_open(&h, widen(path(name)).c_str(), row.mode);
        EXPECT_EQ(row.status, status) << "row " << n - 1;
        if (status == 0) {
            EXPECT_EQ(0u, VELK_close(h)) << "row " << n - 1;
        } else {
            // A refused open leaves the out pointer alone.
            EXPECT_EQ(reinterpret_cast<velk_handle*>(0x1), h) << "row " << n - 1;
        }
        const std::vector<unsigned char> after = read_file(path(name));
        if (row.size_after < 0)
            EXPECT_FALSE(file_exists(path(name))) << "row " << n - 1;
        else
            EXPECT_EQ((size_t)row.size_after, after.size()) << "row " << n - 1;
    }
}

TEST_F(SessionTest, AccessBitsAndWriteOnlySession)
{
    velk_class s;
    write_file(path("w.vk7"), {});
    ASSERT_EQ(0u, s.VELK_initialize_me(widen(path("w.vk7")).c_str(), VELK_OPEN_WRITE | 0x100));
    EXPECT_EQ((unsigned)VELK_ACCESS_WRITE, s.access_mode);
    EXPECT_FALSE(s.may_read());
    // A new file opened for writing alone can't be read back in the session.
    LogCapture log;
    bool valid = true;
    EXPECT_EQ(VELK_E_NO_PERMISSION, s.helper_check_is_valid_file(&valid));
    EXPECT_TRUE(valid);
    EXPECT_TRUE(log.contains("<velk " + std::to_string(s.instance) +
                             "::VELK_verify>don't have permission to read the file!\n"));
    EXPECT_EQ(0u, s.VELK_closedown());

    velk_class c;
    EXPECT_EQ(VELK_E_BAD_FILE, c.VELK_initialize_me(widen(path("c.vk7")).c_str(),
                                                    VELK_OPEN_READ | VELK_OPEN_CREATE));
    EXPECT_EQ((unsigned)(VELK_ACCESS_READ | VELK_ACCESS_CREATE), c.access_mode);
    EXPECT_EQ(0u, c.created_file);
    EXPECT_EQ(0u, c.VELK_closedown());
}

TEST_F(SessionTest, RefusalsLogTheirLines)
{
    LogCapture log;
    velk_handle* h = nullptr;

    EXPECT_EQ(VELK_E_NO_PERMISSION, VELK_open(&h, widen(path("x")).c_str(), 0));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::helper_init_open_final_file_and_analyze_it>cannot read or write the file!\n"));
    EXPECT_TRUE(log.contains_format(
        "Operation failed with error code  (src/velk_class, %d) value: 0x6f\n"));
    EXPECT_TRUE(log.contains_format(
        "Operation failed with error code  (src/velk_entry, %d) value: 0x6f\n"));
    EXPECT_TRUE(log.contains_format("VELK_open:%d Memory allocation: 32 bytes\n"));
    EXPECT_TRUE(log.contains_format("VELK_open:%d Memory free: 8 bytes\n"));

    log.clear();
    EXPECT_EQ(VELK_E_OPEN_FAILED, VELK_open(&h, widen(path("missing")).c_str(), VELK_OPEN_READ));
    EXPECT_TRUE(log.contains_format("<velk %u::do_init>VELK_OSI_Open_File failed, we assume file "
                                    "does not exist, so create a new file\n"));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::do_init>VELK_OSI_Open_File failed the second time, this is a real error!\n"));
    // The retry is a warning, the second failure a failure.
    for (size_t i = 0; i < log.lines().size(); ++i) {
        if (log.lines()[i].find("we assume file does not exist") != std::string::npos) {
            EXPECT_EQ(0x40001000u, log.masks()[i]);
        }
        if (log.lines()[i].find("the second time") != std::string::npos) {
            EXPECT_EQ(0x80001000u, log.masks()[i]);
        }
    }

    log.clear();
    write_file(path("junk"), std::vector<unsigned char>(900, 'x'));
    EXPECT_EQ(VELK_E_BAD_FILE, VELK_open(&h, widen(path("junk")).c_str(), VELK_OPEN_READ));
    EXPECT_TRUE(log.contains_format("<velk %u::VELK_verify>eyecatcher is not valid!\n"));

    log.clear();
    write_file(path("w"), std::vector<unsigned char>(10, 'x'));
    EXPECT_EQ(VELK_E_NO_PERMISSION, VELK_open(&h, widen(path("w")).c_str(), VELK_OPEN_WRITE));
    EXPECT_TRUE(log.contains_format(
        "<velk %u::helper_init_open_final_file_and_analyze_it>cannot read the file!\n"));
}

TEST_F(SessionTest, BadFileNames)
{
    velk_handle* h = nullptr;
    // A path longer than the session's 1100 bytes does not fit its name.
    const std::wstring long_name = widen(dir_) + L"/" + std::wstring(1100, L'a');
    EXPECT_EQ(VELK_E_BUFFER_TOO_SMALL, VELK_open(&h, long_name.c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE));
    // A wide character outside Unicode can't become UTF-8.
    const std::wstring bad = widen(path("bad")) + std::wstring(1, (wchar_t)0x110000);
    EXPECT_EQ(VELK_E_BAD_ARGUMENT, VELK_open(&h, bad.c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE));
    // A null name leaves the name empty, and no file of that name opens.
    EXPECT_EQ(VELK_E_OPEN_FAILED, VELK_open(&h, nullptr, VELK_OPEN_READ | VELK_OPEN_WRITE));
    EXPECT_EQ(nullptr, h);
    // A non-ASCII name is a UTF-8 path on disk.
    ASSERT_EQ(0u, VELK_open(&h, (widen(dir_) + L"/Stra\u00dfe-\u6e2c.vk7").c_str(),
                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    EXPECT_EQ(0u, VELK_close(h));
    EXPECT_EQ(1400u, read_file(dir_ + "/Stra\xc3\x9f" "e-\xe6\xb8\xac.vk7").size());
}

TEST_F(SessionTest, SetUpOfMembersAndTempPrefix)
{
    {
        velk_class s;
        EXPECT_EQ(dir_ + "/velk_" + std::to_string(s.instance), std::string(s.temp_prefix));
        EXPECT_EQ(s.temp_prefix, s.temp_path);
        EXPECT_EQ(&s.sections, s.sections_ptr);
        EXPECT_EQ(-1, s.file_handle);
        EXPECT_STREQ("strings.tmp", s.strings_store->name);
        EXPECT_EQ(-1, s.strings_store->handle);
        const FILE_INFO_NODE* stores[] = {
            s.sections.usr_defined_global_store,   s.sections.legacy_pid_record_store,
            s.sections.legacy_pr_strings_store,    s.sections.new_pid_store,
            s.sections.legacy_tid_store,           s.sections.new_tid_store,
            s.sections.legacy_module_record_store, s.sections.legacy_module_strings_store,
            s.sections.new_module_store};
        const char* names[] = {"usr_defined_global.tmp",   "legacy_pid_record.tmp",
                               "legacy_pr_strings.tmp",    "new_pid.tmp",
                               "legacy_tid.tmp",           "new_tid.tmp",
                               "legacy_module_record.tmp", "legacy_module_strings.tmp",
                               "new_module.tmp"};
        for (int i = 0; i < 9; ++i) {
            EXPECT_STREQ(names[i], stores[i]->name);
            EXPECT_EQ(-1, stores[i]->handle);
        }
        velk_list_head* head = s.sections.global_desc_list;
        EXPECT_EQ(head, head->next);
        EXPECT_EQ(head, head->prev);
    }
    // Without DOV_TMP_DIR the stores go to TMPDIR, then to /tmp.
    unsetenv("DOV_TMP_DIR");
    const char* old_tmpdir = getenv("TMPDIR");
    const std::string saved = old_tmpdir ? old_tmpdir : "";
    setenv("TMPDIR", "/var/tmp", 1);
    {
        velk_class s;
        EXPECT_EQ("/var/tmp/velk_" + std::to_string(s.instance), std::string(s.temp_prefix));
    }
    unsetenv("TMPDIR");
    {
        velk_class s;
        EXPECT_EQ("/tmp/velk_" + std::to_string(s.instance), std::string(s.temp_prefix));
    }
    if (old_tmpdir != nullptr)
        setenv("TMPDIR", saved.c_str(), 1);
    setenv("DOV_TMP_DIR", dir_.c_str(), 1);
}

TEST_F(SessionTest, ConstructionAndOpenTrace)
{
    LogCapture log(0x10001000u);
    velk_handle* h = nullptr;
    ASSERT_EQ(0u, VELK_open(&h, widen(path("t.vk7")).c_str(),
                            VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    const std::string n = std::to_string(reinterpret_cast<velk_handle*>(h)->file_object->instance);
    const std::string expected[] = {
        "<velk " + n + "::constructor>entering\n",
        "<velk " + n + "::do_init>entering\n",
        "<velk " + n + "::do_init>exiting\n",
        "<velk " + n + "::constructor>exiting\n",
        "<velk " + n + "::VELK_initialized_me>entering\n",
        "<velk " + n + "::helper_init_open_final_file_and_analyze_it>entering\n",
        "<velk " + n + "::helper_init_open_final_file_and_analyze_it>opening file " + path("t.vk7") + "\n",
    };
    std::vector<std::string> session_lines;
    for (const std::string& line : log.lines())
        if (line.compare(0, 6, "<velk ") == 0)
            session_lines.push_back(line);
    ASSERT_GE(session_lines.size(), 7u);
    for (size_t i = 0; i < 7; ++i)
        EXPECT_EQ(expected[i], session_lines[i]);
    EXPECT_TRUE(log.contains("<velk " + n +
                             "::helper_init_open_final_file_and_analyze_it>exiting with value 0\n"));
    EXPECT_TRUE(log.contains("<velk " + n + "::VELK_initialized_me>exiting\n"));
    log.clear();
    ASSERT_EQ(0u, VELK_close(h));
    EXPECT_TRUE(log.contains("<velk " + n + "::destructor>entering for file " + path("t.vk7") + "\n"));
    EXPECT_EQ("<velk " + n + "::destructor>exiting for file " + path("t.vk7") + "\n", log.lines().back());
}
