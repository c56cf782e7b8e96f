// Shared fixtures: a temporary directory per test (the stores' too), log capture, file helpers.
#ifndef VELK_TEST_HELPERS_H
#define VELK_TEST_HELPERS_H

#include <gtest/gtest.h>

#include "sampling_utils.h"
#include "velk.h"

namespace velk_test {

std::vector<unsigned char> read_file(const std::string& path);  // empty when unreadable
void write_file(const std::string& path, const std::vector<unsigned char>& bytes);
bool file_exists(const std::string& path);
std::wstring widen(const std::string& text);
std::vector<std::string> list_dir(const std::string& dir);  // sorted, without "." and ".."
uint32_t u32_at(const std::vector<unsigned char>& bytes, size_t offset);  // little-endian
uint64_t u64_at(const std::vector<unsigned char>& bytes, size_t offset);  // 0 past the end

struct Slot {  // a 40-byte descriptor (versions 6, 7) at `at`; 0 when the kind isn't there
    size_t at = 0;
    uint64_t length = 0, file_offset = 0, number_entries = 0;
    uint32_t entry_length = 0;
};
// The first slot of `kind` among `slots` at `table`; with `nonempty`, not one of length 0.
Slot find_slot(const std::vector<unsigned char>& f, size_t table, unsigned slots, unsigned kind,
               bool nonempty = true);
Slot legacy_slot(const std::vector<unsigned char>& f, unsigned kind);  // 20 slots at 16
Slot global_slot(const std::vector<unsigned char>& f, unsigned kind);  // 12, through kind 34
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
std::string narrow(const wchar_t* text);                     // of ASCII characters
std::string text_of(velk_handle* h, unsigned long long id);  // "?" when it has none

struct Image {  // a file image built byte by byte; each put grows it as needed
    std::vector<unsigned char> b;
    void put(size_t at, const void* data, size_t n);
    void put8(size_t at, uint8_t v) { put(at, &v, 1); }
    void put32(size_t at, uint32_t v) { put(at, &v, 4); }
    void put64(size_t at, uint64_t v) { put(at, &v, 8); }
    // A descriptor of `form` bytes: 40 (versions 6, 7), 32 (5's tables), 20 (5's section table).
    void slot(size_t at, unsigned form, uint64_t length, uint64_t offset, uint64_t entries,
              uint32_t entry_length, uint32_t kind);
};

void free_kept(velk_handle* h);  // its record and session, after an abort or a failed close

inline wchar_t* w(const wchar_t* text)  // a literal as the non-const pointer records carry
{
    return const_cast<wchar_t*>(text);
}

class LogCapture {  // every log line whose mask shares a bit with `mask`, while alive
public:
    explicit LogCapture(unsigned int mask = ~0u) { logit_set_sink(&LogCapture::sink, this, mask); }
    ~LogCapture() { logit_set_sink(nullptr, nullptr, 0); }
    const std::vector<std::string>& lines() const { return lines_; }
    const std::vector<unsigned int>& masks() const { return masks_; }
    bool contains(const std::string& line) const;
    // A line matching a log format, each %u, %d or %x any number and each %s any text.
    bool contains_format(const std::string& format) const;
    size_t count_prefix(const std::string& prefix) const;
    void clear();

private:
    static void sink(unsigned int mask, const char* line, void* context);
    std::vector<std::string> lines_;
    std::vector<unsigned int> masks_;
};

class TempDirTest : public ::testing::Test {  // DOV_TMP_DIR points at it: stores lie there
protected:
    void SetUp() override;
    void TearDown() override;
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    std::string dir_;
};

}  // namespace velk_test

#endif  // VELK_TEST_HELPERS_H
