// The logger: filtering by mask, the sink, the environment's configuration
// and the lines written to a file or to standard error.

#include "sampling_utils.h"
#include "velk.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Captured {
    std::vector<std::pair<unsigned int, std::string>> lines;
};

void capture(unsigned int mask, const char* line, void* context) {
    static_cast<Captured*>(context)->lines.emplace_back(mask, line);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Saves the two variables, and puts them and the logger back afterwards.
class LoggingTest : public ::testing::Test {
protected:
    void SetUp() override {
        save("VELK_LOG_MASK", mask_);
        save("VELK_LOG_FILE", file_);
        char pattern[] = "/tmp/logging_test_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory_ = pattern;
    }

    void TearDown() override {
        restore("VELK_LOG_MASK", mask_);
        restore("VELK_LOG_FILE", file_);
        logit_set_sink(nullptr, nullptr, 0);
        for (const std::string& path : created_) unlink(path.c_str());
        rmdir(directory_.c_str());
    }

    // Configures the logger from the environment: a mask text (null: unset)
    // and a log file in the test's directory (empty name: standard error).
    void configure(const char* mask, const std::string& file_name) {
        if (mask != nullptr) {
            setenv("VELK_LOG_MASK", mask, 1);
        } else {
            unsetenv("VELK_LOG_MASK");
        }
        if (file_name.empty()) {
            unsetenv("VELK_LOG_FILE");
        } else {
            setenv("VELK_LOG_FILE", path(file_name).c_str(), 1);
        }
        logit_reload_configuration();
    }

    std::string path(const std::string& file_name) {
        const std::string full = directory_ + "/" + file_name;
        created_.push_back(full);
        return full;
    }

    std::string directory_;

private:
    typedef std::pair<bool, std::string> Saved;
    static void save(const char* name, Saved& saved) {
        const char* value = getenv(name);
        saved = Saved(value != nullptr, value != nullptr ? value : "");
    }
    static void restore(const char* name, const Saved& saved) {
        if (saved.first) {
            setenv(name, saved.second.c_str(), 1);
        } else {
            unsetenv(name);
        }
    }
    Saved mask_;
    Saved file_;
    std::vector<std::string> created_;
};

TEST_F(LoggingTest, SinkGetsEnabledLinesWithTheirMasks) {
    configure(nullptr, "");
    Captured captured;
    logit_set_sink(capture, &captured, 0x80000000u);
    EXPECT_EQ(g_logit_active_mask, 0x80000000u);

    LOGIT_A(0x80001000u, "<velk %u::do_init>failed %s\n", 7u, "here");
    LOGIT_A(0x10001000u, "<velk %u::do_init>entering\n", 7u);  // shares no bit
    LOGIT_A(0x82000000u, "%s:%d error %d\n", "VELK_open", 12, -1);

    ASSERT_EQ(captured.lines.size(), 2u);
    EXPECT_EQ(captured.lines[0].first, 0x80001000u);
    EXPECT_EQ(captured.lines[0].second, "<velk 7::do_init>failed here\n");
    EXPECT_EQ(captured.lines[1].first, 0x82000000u);
    EXPECT_EQ(captured.lines[1].second, "VELK_open:12 error -1\n");

    // A second sink takes over with its own mask.
    Captured trace;
    logit_set_sink(capture, &trace, 0x00001000u);
    LOGIT_A(0x10001000u, "trace\n");
    LOGIT_A(0x80002000u, "bind failure\n");
    ASSERT_EQ(trace.lines.size(), 1u);
    EXPECT_EQ(trace.lines[0].second, "trace\n");
    EXPECT_EQ(captured.lines.size(), 2u);

    // Without the sink the environment's mask (none here) is back.
    logit_set_sink(nullptr, nullptr, 0xFFFFFFFFu);
    EXPECT_EQ(g_logit_active_mask, 0u);
    LOGIT_A(0xFFFFFFFFu, "nowhere\n");
    EXPECT_EQ(trace.lines.size(), 1u);
}

TEST_F(LoggingTest, UniformFormsExpandToExactLines) {
    Captured captured;
    logit_set_sink(capture, &captured, 0x02000000u);
    const int status_line = __LINE__ + 1;
    LOG_FAILED_STATUS(VELK_E_BUFFER_TOO_SMALL);
    const int null_line = __LINE__ + 1;
    LOG_NULL_POINTER();
    const int memory_line = __LINE__ + 1;
    LOG_MEMORY_ALLOCATION("VELK_add_module", 144);

    ASSERT_EQ(captured.lines.size(), 3u);
    EXPECT_EQ(captured.lines[0].first, VELK_MASK_FAILURE_FORM);
    EXPECT_EQ(captured.lines[0].second, "Operation failed with error code  (" VELK_SOURCE_PATH ", " +
                                            std::to_string(status_line) + ") value: 0x67\n");
    EXPECT_EQ(captured.lines[1].second, "Encountered null pointer (" VELK_SOURCE_PATH ", " +
                                            std::to_string(null_line) + ")\n");
    EXPECT_EQ(captured.lines[2].first, VELK_MASK_MEMORY_TRACE);
    EXPECT_EQ(captured.lines[2].second,
              "VELK_add_module:" + std::to_string(memory_line) + " Memory allocation: 144 bytes\n");
}

TEST_F(LoggingTest, LongLinesAreNotCut) {
    Captured captured;
    logit_set_sink(capture, &captured, 0x80000000u);
    const std::string long_text(10000, 'x');
    LOGIT_A(0x80000000u, "<%s>%d\n", long_text.c_str(), 42);
    ASSERT_EQ(captured.lines.size(), 1u);
    EXPECT_EQ(captured.lines[0].second, "<" + long_text + ">42\n");

    // Exactly at the stack buffer's edge: 4095 characters, then 4096.
    captured.lines.clear();
    const std::string edge(4094, 'e');
    LOGIT_A(0x80000000u, "%s\n", edge.c_str());
    LOGIT_A(0x80000000u, "%s!\n", edge.c_str());
    ASSERT_EQ(captured.lines.size(), 2u);
    EXPECT_EQ(captured.lines[0].second, edge + "\n");
    EXPECT_EQ(captured.lines[1].second, edge + "!\n");
}

TEST_F(LoggingTest, MaskIsParsedFromTheEnvironment) {
    const struct {
        const char* text;
        unsigned int mask;
    } cases[] = {
        {"0x80000000", 0x80000000u}, {"0X10001000", 0x10001000u}, {"0xffffffff", 0xFFFFFFFFu},
        {"2147483648", 0x80000000u}, {"4096", 0x1000u},           {"010", 10u},
        {" 0x20 ", 0x20u},           {nullptr, 0u},               {"", 0u},
        {"0", 0u},                   {"0x0", 0u},                 {"junk", 0u},
        {"0x", 0u},                  {"12ab", 0u},                {"-1", 0u},
        {"0x100000000", 0u},         {"0x-5", 0u},
    };
    for (const auto& c : cases) {
        configure(c.text, "mask.log");
        EXPECT_EQ(g_logit_active_mask, c.mask) << (c.text != nullptr ? c.text : "(unset)");
    }

    // A line is written when its mask shares a bit with the configured one.
    configure("0x80001000", "shared.log");
    LOGIT_A(0x80000000u, "failure\n");
    LOGIT_A(0x00001000u, "component\n");
    LOGIT_A(0x10002000u, "other trace\n");
    LOGIT_A(0x90003000u, "both\n");
    EXPECT_EQ(read_file(directory_ + "/shared.log"), "failure\ncomponent\nboth\n");

    // With no mask nothing is written and no file is made.
    configure("0", "silent.log");
    LOGIT_A(0xFFFFFFFFu, "dropped\n");
    EXPECT_NE(access((directory_ + "/silent.log").c_str(), F_OK), 0);
}

TEST_F(LoggingTest, FileGetsLinesAppended) {
    const std::string log = path("velk.log");
    {
        std::ofstream existing(log, std::ios::binary);
        existing << "earlier\n";
    }
    configure("0x80000000", "velk.log");
    LOGIT_A(0x80001000u, "<velk %u::VELK_open>don't have permission!\n", 3u);
    const std::string long_text(5000, 'y');
    LOGIT_A(0x80001000u, "%s\n", long_text.c_str());
    LOGIT_A(0x80001000u, "no newline");
    EXPECT_EQ(read_file(log),
              "earlier\n<velk 3::VELK_open>don't have permission!\n" + long_text + "\nno newline");

    // A file the logger creates gets 0644, less the umask.
    const std::string fresh = path("fresh.log");
    configure("0x80000000", "fresh.log");
    LOGIT_A(0x80000000u, "first\n");
    const mode_t mask = umask(0);
    umask(mask);
    struct stat info;
    ASSERT_EQ(stat(fresh.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u & ~mask);
    EXPECT_EQ(read_file(fresh), "first\n");
}

TEST_F(LoggingTest, LinesOfSeveralProcessesDoNotInterleave) {
    const std::string log = path("shared.log");
    configure("0x80000000", "shared.log");
    const int kProcesses = 4;
    const int kLines = 200;
    const size_t kWidth = 3000;
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            const std::string body(kWidth, (char)('a' + p));
            for (int i = 0; i < kLines; ++i) LOGIT_A(0x80000000u, "%d:%s\n", p, body.c_str());
            _exit(0);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    std::istringstream lines(read_file(log));
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        ASSERT_EQ(line.size(), kWidth + 2) << "line " << count;
        const char letter = (char)('a' + (line[0] - '0'));
        ASSERT_EQ(line[1], ':');
        ASSERT_EQ(line.find_first_not_of(letter, 2), std::string::npos) << "line " << count;
    }
    EXPECT_EQ(count, kProcesses * kLines);
}

TEST_F(LoggingTest, StandardErrorWhenNoFileCanBeUsed) {
    const std::string captured_path = path("stderr.txt");
    const int saved = dup(2);
    ASSERT_GE(saved, 0);
    const int redirected = open(captured_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(redirected, 0);
    ASSERT_EQ(dup2(redirected, 2), 2);
    close(redirected);

    configure("0x80000000", "");
    LOGIT_A(0x80000000u, "to stderr %d\n", 1);
    setenv("VELK_LOG_FILE", (directory_ + "/missing/dir/velk.log").c_str(), 1);
    logit_reload_configuration();
    LOGIT_A(0x80000000u, "to stderr %d\n", 2);

    dup2(saved, 2);
    close(saved);
    EXPECT_EQ(read_file(captured_path), "to stderr 1\nto stderr 2\n");
}

}  // namespace
