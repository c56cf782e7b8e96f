#include "test_helpers.h"

#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

namespace velk_test {

std::vector<unsigned char> read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
}

void write_file(const std::string& path, const std::vector<unsigned char>& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    ASSERT_TRUE(out.write(reinterpret_cast<const char*>(bytes.data()), bytes.size()).flush())
        << path;
}

bool file_exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

std::wstring widen(const std::string& text)
{
    wchar_t* wide = nullptr;
    const unsigned status = utf8_to_wcs_malloced(text.c_str(), &wide);
    const std::wstring result(status == 0 ? wide : L"");
    free(wide);
    return result;
}

std::vector<std::string> list_dir(const std::string& dir)
{
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir))
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

void LogCapture::sink(unsigned int mask, const char* line, void* context)
{
    static_cast<LogCapture*>(context)->lines_.push_back(line);
    static_cast<LogCapture*>(context)->masks_.push_back(mask);
}

bool LogCapture::contains(const std::string& line) const
{
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
}

static bool matches_format(const char* f, const char* l)
{
    while (*f != '%') {
        if (*f != *l++)
            return false;
        if (*f++ == '\0')
            return true;
    }
    f += 1 + strspn(f + 1, "l");
    const char conversion = *f++;
    while (conversion == 's' && !matches_format(f, l))
        if (*l++ == '\0')
            return false;
    if (conversion == 's')
        return true;
    l += conversion == 'd' && *l == '-';
    const size_t digits = strspn(l, conversion == 'x' ? "0123456789abcdefABCDEFx" : "0123456789");
    return digits != 0 && matches_format(f, l + digits);
}

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
    std::filesystem::remove_all(dir_, ec);
    unsetenv("DOV_TMP_DIR");
}

Slot find_slot(const std::vector<unsigned char>& f, size_t table, unsigned slots, unsigned kind,
               bool nonempty)
{
    const size_t end = std::min(table + 40 * (size_t)slots, table == 0 ? 0 : f.size());
    for (size_t at = table; at + 40 <= end; at += 40)
        if (u32_at(f, at + 28) == kind && (!nonempty || u64_at(f, at) != 0))
            return {at, u64_at(f, at), u64_at(f, at + 8), u64_at(f, at + 16), u32_at(f, at + 24)};
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
    std::vector<unsigned char> want(marker.begin(), marker.end());
    want.resize(marker.size() + 1 + 24 - ((end + marker.size() + 1) & 7), 0);
    EXPECT_EQ(want, slice(f, end, want.size())) << marker << " at " << end;
}

std::vector<unsigned char> slice(const std::vector<unsigned char>& f, size_t at, size_t n)
{
    return at + n > f.size() ? std::vector<unsigned char>()
                             : std::vector<unsigned char>(f.begin() + at, f.begin() + at + n);
}

std::string narrow(const wchar_t* text)
{
    return text == nullptr ? std::string() : std::string(text, text + wcslen(text));
}

std::string text_of(velk_handle* h, unsigned long long id)
{
    __string_or_id s;
    s.id = id;
    std::vector<wchar_t> wide(1 << 16);  // id 0 is not looked up: it would log a refusal
    const unsigned status =
        id == 0 ? 1u : VELK_convert_uniqueid_to_string(h, 4 << 16, &s, wide.data(), nullptr);
    return status != 0 ? "?" : narrow(wide.data());
}

void free_kept(velk_handle* h)
{
    delete h->file_object;
    free(h);
}

void Image::put(size_t at, const void* data, size_t n)
{
    b.resize(std::max(b.size(), at + n), 0);
    memcpy(&b[at], data, n);
}

void Image::slot(size_t at, unsigned form, uint64_t length, uint64_t offset, uint64_t entries,
                 uint32_t entry_length, uint32_t kind)
{
    const __VELK_sample_file_section_vk6 sfs = {length, offset, entries, entry_length, kind, 0, 0};
    const __VELK_sample_file_section v5 = {length,       offset, (uint32_t)entries,
                                           entry_length, kind,   0};
    const SampleFileSections_s v5_table = {(uint32_t)length,  (uint32_t)offset,
                                           (uint32_t)entries, (uint16_t)entry_length,
                                           (uint16_t)kind,    0};
    put(at, form == 40 ? (const void*)&sfs : form == 32 ? (const void*)&v5 : &v5_table, form);
}

}  // namespace velk_test
