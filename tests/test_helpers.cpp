#include "test_helpers.h"

#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "sampling_utils.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

namespace velk_test {

namespace fs = std::filesystem;

std::vector<unsigned char> read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
}

void write_file(const std::string& path, const std::vector<unsigned char>& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    out.close();
    ASSERT_TRUE(out.good()) << path;
}

bool file_exists(const std::string& path)
{
    std::error_code ec;
    return fs::exists(path, ec);
}

std::wstring widen(const std::string& text)
{
    wchar_t* wide = nullptr;
    if (utf8_to_wcs_malloced(text.c_str(), &wide) != 0)
        return std::wstring();
    std::wstring result(wide);
    free(wide);
    return result;
}

std::vector<std::string> list_dir(const std::string& dir)
{
    std::vector<std::string> names;
    std::error_code ec;
    for (const fs::directory_entry& e : fs::directory_iterator(dir, ec))
        names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

uint32_t u32_at(const std::vector<unsigned char>& bytes, size_t offset)
{
    uint32_t v = 0;
    if (offset + sizeof(v) <= bytes.size())
        memcpy(&v, &bytes[offset], sizeof(v));
    return v;
}

uint64_t u64_at(const std::vector<unsigned char>& bytes, size_t offset)
{
    uint64_t v = 0;
    if (offset + sizeof(v) <= bytes.size())
        memcpy(&v, &bytes[offset], sizeof(v));
    return v;
}

LogCapture::LogCapture(unsigned int mask)
{
    logit_set_sink(&LogCapture::sink, this, mask);
}

LogCapture::~LogCapture()
{
    logit_set_sink(nullptr, nullptr, 0);
}

void LogCapture::sink(unsigned int mask, const char* line, void* context)
{
    static_cast<LogCapture*>(context)->lines_.push_back(line);
    static_cast<LogCapture*>(context)->masks_.push_back(mask);
}

bool LogCapture::contains(const std::string& line) const
{
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
}

bool LogCapture::contains_part(const std::string& part) const
{
    return std::any_of(lines_.begin(), lines_.end(),
                       [&](const std::string& l) { return l.find(part) != std::string::npos; });
}

namespace {

// Matches `l` against a printf format in which %u, %d and %x (with any 'l'
// length) stand for numbers and %s for any text.
bool matches_format(const char* f, const char* l)
{
    while (*f != '%') {
        if (*f != *l)
            return false;
        if (*f == '\0')
            return true;
        ++f;
        ++l;
    }
    f += 1 + strspn(f + 1, "l");
    const char conversion = *f++;
    for (; conversion == 's'; ++l) {
        if (matches_format(f, l))
            return true;
        if (*l == '\0')
            return false;
    }
    if (conversion == 'd' && *l == '-')
        ++l;
    const size_t digits = strspn(l, conversion == 'x' ? "0123456789abcdefABCDEFx" : "0123456789");
    return digits != 0 && matches_format(f, l + digits);
}

}  // namespace

bool LogCapture::contains_format(const std::string& format) const
{
    return std::any_of(lines_.begin(), lines_.end(), [&](const std::string& l) {
        return matches_format(format.c_str(), l.c_str());
    });
}

size_t LogCapture::count_prefix(const std::string& prefix) const
{
    return std::count_if(lines_.begin(), lines_.end(), [&](const std::string& l) {
        return l.compare(0, prefix.size(), prefix) == 0;
    });
}

void LogCapture::clear()
{
    lines_.clear();
    masks_.clear();
}

void TempDirTest::SetUp()
{
    char templ[] = "/tmp/velk_test_XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    dir_ = templ;
    setenv("DOV_TMP_DIR", dir_.c_str(), 1);
}

void TempDirTest::TearDown()
{
    std::error_code ec;
    fs::remove_all(dir_, ec);
    unsetenv("DOV_TMP_DIR");
}

Slot find_slot(const std::vector<unsigned char>& f, size_t table, unsigned slots, unsigned kind,
               bool nonempty)
{
    for (unsigned i = 0; i < slots; ++i) {
        const size_t at = table + 40 * (size_t)i;
        if (at == 0 || at + 40 > f.size())
            break;
        if (u32_at(f, at + 28) == kind && (!nonempty || u64_at(f, at) != 0))
            return {at, u64_at(f, at), u64_at(f, at + 8), u64_at(f, at + 16), u32_at(f, at + 24)};
    }
    return {};
}

Slot legacy_slot(const std::vector<unsigned char>& f, unsigned kind)
{
    return find_slot(f, 16, 20, kind);
}

Slot global_slot(const std::vector<unsigned char>& f, unsigned kind)
{
    return find_slot(f, (size_t)legacy_slot(f, 34).file_offset, 12, kind);
}

Slot stream_slot(const std::vector<unsigned char>& f, unsigned stream, unsigned kind)
{
    Slot chain = global_slot(f, 41);
    for (unsigned n = 0; n < stream && chain.at != 0; ++n)
        chain = find_slot(f, (size_t)chain.file_offset, 8, 41);
    return chain.at == 0 ? Slot() : find_slot(f, (size_t)chain.file_offset, 8, kind);
}

void expect_ending(const std::vector<unsigned char>& f, size_t end, const std::string& marker)
{
    ASSERT_LE(end + marker.size() + 1, f.size());
    EXPECT_EQ(marker, std::string((const char*)&f[end])) << end;
    const size_t after = end + marker.size() + 1;
    const size_t pad = 24 - (after & 7);
    ASSERT_LE(after + pad, f.size());
    for (size_t i = after; i < after + pad; ++i)
        ASSERT_EQ(0, f[i]) << marker << " padding at " << i;
}

std::vector<unsigned char> slice(const std::vector<unsigned char>& f, size_t at, size_t n)
{
    if (at + n > f.size())
        return {};
    return std::vector<unsigned char>(f.begin() + at, f.begin() + at + n);
}

std::string narrow(const wchar_t* text)
{
    return text == nullptr ? std::string() : std::string(text, text + wcslen(text));
}

std::string text_of(velk_handle* h, unsigned long long id)
{
    __string_or_id s;
    s.id = id;
    unsigned size = 0;
    if (id == 0 || VELK_convert_uniqueid_to_string(h, 0, &s, nullptr, &size) != 0)
        return "?";
    std::vector<wchar_t> wide(size / 4 + 1);
    if (VELK_convert_uniqueid_to_string(h, size, &s, wide.data(), &size) != 0)
        return "?";
    return narrow(wide.data());
}

void free_kept(velk_handle* h)
{
    delete h->file_object;
    free(h);
}

void Image::put(size_t at, const void* data, size_t n)
{
    if (b.size() < at + n)
        b.resize(at + n, 0);
    memcpy(&b[at], data, n);
}

void Image::slot(size_t at, unsigned form, uint64_t length, uint64_t offset, uint64_t entries,
                 uint32_t entry_length, uint32_t kind)
{
    __VELK_sample_file_section_vk6 sfs = {length, offset, entries, entry_length, kind, 0, 0};
    __VELK_sample_file_section v5_slot;
    SampleFileSections_s v5_table;
    velk_class::helper_copy_sfs_velk(&v5_slot, &sfs, 1);
    velk_class::helper_copy_sfs(&v5_table, &sfs, 1);
    // The form is the descriptor's size.
    put(at, form == 40 ? (const void*)&sfs : form == 32 ? (const void*)&v5_slot : &v5_table, form);
}

}  // namespace velk_test
