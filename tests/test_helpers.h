// Shared fixtures: a fresh temporary directory per test (also the stores'
// directory), capture of log lines, and small file helpers.
#ifndef VELK_TEST_HELPERS_H
#define VELK_TEST_HELPERS_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "velk.h"

namespace velk_test {

// A whole file; empty when it can't be read.
std::vector<unsigned char> read_file(const std::string& path);
void write_file(const std::string& path, const std::vector<unsigned char>& bytes);
bool file_exists(const std::string& path);
std::wstring widen(const std::string& text);
// Names in a directory, sorted, without "." and "..".
std::vector<std::string> list_dir(const std::string& dir);

// Little-endian fields of a byte buffer.
uint32_t u32_at(const std::vector<unsigned char>& bytes, size_t offset);
uint64_t u64_at(const std::vector<unsigned char>& bytes, size_t offset);

// A 40-byte section descriptor in a table of a version 6 or 7 file; `at` is
// where it lies, 0 when the kind isn't there.
struct Slot {
    size_t at = 0;
    uint64_t length = 0, file_offset = 0, number_entries = 0;
    uint32_t entry_length = 0;
};
// The first slot of `kind` among `slots` slots at `table`; with `nonempty`,
// slots of length 0 are passed over.
Slot find_slot(const std::vector<unsigned char>& f, size_t table, unsigned slots, unsigned kind,
               bool nonempty = true);
// In the table at the start of the file (20 slots at 16).
Slot legacy_slot(const std::vector<unsigned char>& f, unsigned kind);
// In the global table (12 slots, reached through kind 34).
Slot global_slot(const std::vector<unsigned char>& f, unsigned kind);
// In stream `stream`'s table, through the chain of kind 41.
Slot stream_slot(const std::vector<unsigned char>& f, unsigned stream, unsigned kind);
// Expects `marker` with its NUL at `end`, then 24 - (size & 7) zero bytes.
void expect_ending(const std::vector<unsigned char>& f, size_t end, const std::string& marker);

template <typename T>
std::vector<unsigned char> bytes_of(const T& record)
{
    const unsigned char* p = reinterpret_cast<const unsigned char*>(&record);
    return std::vector<unsigned char>(p, p + sizeof(record));
}
// `n` bytes of `f` at `at`; empty when they reach past its end.
std::vector<unsigned char> slice(const std::vector<unsigned char>& f, size_t at, size_t n);
// A wide text of ASCII characters, narrowed.
std::string narrow(const wchar_t* text);
// The text behind a string id of a session, or "?" when it has none.
std::string text_of(velk_handle* h, unsigned long long id);

// A file image built byte by byte; each put grows it as needed.
struct Image {
    std::vector<unsigned char> b;
    void put(size_t at, const void* data, size_t n);
    void put8(size_t at, uint8_t v) { put(at, &v, 1); }
    void put16(size_t at, uint16_t v) { put(at, &v, 2); }
    void put32(size_t at, uint32_t v) { put(at, &v, 4); }
    void put64(size_t at, uint64_t v) { put(at, &v, 8); }
    // A section descriptor in the 40-byte form (version 6 and 7 tables), the
    // 32-byte form (version 5 global and stream tables) or the 20-byte form
    // (version 5 section table).
    void slot(size_t at, unsigned form, uint64_t length, uint64_t offset, uint64_t entries,
              uint32_t entry_length, uint32_t kind);
};

// Frees what a handle keeps after an abort or a failed close: the handle's
// record and its session.
void free_kept(velk_handle* h);

// A wide text literal as the non-const pointer the records carry.
inline wchar_t* w(const wchar_t* text)
{
    return const_cast<wchar_t*>(text);
}

// Captures every log line whose mask shares a bit with `mask` while alive.
class LogCapture {
public:
    explicit LogCapture(unsigned int mask = 0xFFFFFFFFu);
    ~LogCapture();
    const std::vector<std::string>& lines() const { return lines_; }
    const std::vector<unsigned int>& masks() const { return masks_; }
    bool contains(const std::string& line) const;
    bool contains_part(const std::string& part) const;
    // True if a line matches a log format in which every %u and %d stands for
    // any decimal number and every %s for any text.
    bool contains_format(const std::string& format) const;
    size_t count_prefix(const std::string& prefix) const;
    void clear();

private:
    static void sink(unsigned int mask, const char* line, void* context);
    std::vector<std::string> lines_;
    std::vector<unsigned int> masks_;
};

// A fresh temporary directory per test; DOV_TMP_DIR points at it while the
// test runs, so every session's stores lie there.
class TempDirTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    std::string dir_;
};

}  // namespace velk_test

#endif  // VELK_TEST_HELPERS_H
