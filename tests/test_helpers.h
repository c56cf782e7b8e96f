// Shared fixtures of the test suite: a fresh temporary directory per test
// (also used as the stores' directory), capture of log lines, and small file
// helpers.
#ifndef VELK_TEST_HELPERS_H
#define VELK_TEST_HELPERS_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "velk.h"

namespace velk_test {

// Reads a whole file; an empty vector when it can't be read.
std::vector<unsigned char> read_file(const std::string& path);
void write_file(const std::string& path, const std::vector<unsigned char>& bytes);
bool file_exists(const std::string& path);
std::wstring widen(const std::string& text);
// Names of the entries of a directory, sorted, without "." and "..".
std::vector<std::string> list_dir(const std::string& dir);

// Little-endian fields of a byte buffer.
uint32_t u32_at(const std::vector<unsigned char>& bytes, size_t offset);
uint64_t u64_at(const std::vector<unsigned char>& bytes, size_t offset);

// Captures every log line whose mask shares a bit with `mask` while alive.
class LogCapture {
public:
    explicit LogCapture(unsigned int mask = 0xFFFFFFFFu);
    ~LogCapture();
    const std::vector<std::string>& lines() const { return lines_; }
    const std::vector<unsigned int>& masks() const { return masks_; }
    bool contains(const std::string& line) const;
    // True if a captured line matches a log format in which every %u and %d
    // stands for any decimal number and every %s for any text.
    bool contains_format(const std::string& format) const;
    // Number of captured lines that start with `prefix`.
    size_t count_prefix(const std::string& prefix) const;
    void clear();

private:
    static void sink(unsigned int mask, const char* line, void* context);
    std::vector<std::string> lines_;
    std::vector<unsigned int> masks_;
};

// A fresh temporary directory for each test. DOV_TMP_DIR points at it while
// the test runs, so the stores of every session made in the test lie there.
class TempDirTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    std::string dir_;
};

}  // namespace velk_test

#endif  // VELK_TEST_HELPERS_H
