#include "test_helpers.h"

#include <ctype.h>
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "sampling_utils.h"
#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

namespace velk_test {

std::vector<unsigned char> read_file(const std::string& path)
{
    std::vector<unsigned char> bytes;
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr)
        return bytes;
    unsigned char chunk[65536];
    size_t got;
    while ((got = fread(chunk, 1, sizeof(chunk), f)) > 0)
        bytes.insert(bytes.end(), chunk, chunk + got);
    fclose(f);
    return bytes;
}

void write_file(const std::string& path, const std::vector<unsigned char>& bytes)
{
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr) << path;
    const size_t written = bytes.empty() ? 0 : fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    ASSERT_EQ(bytes.size(), written);
}

bool file_exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
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
    DIR* d = opendir(dir.c_str());
    if (d == nullptr)
        return names;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
            names.push_back(e->d_name);
    }
    closedir(d);
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

LogCapture::LogCapture(unsigned int mask) { logit_set_sink(&LogCapture::sink, this, mask); }

LogCapture::~LogCapture() { logit_set_sink(nullptr, nullptr, 0); }

void LogCapture::sink(unsigned int mask, const char* line, void* context)
{
    LogCapture* self = static_cast<LogCapture*>(context);
    self->lines_.push_back(line);
    self->masks_.push_back(mask);
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

// Matches `line` against a printf format in which %u, %d and %x (with any
// 'l' length) stand for numbers and %s for any text.
bool matches_format(const char* f, const char* l)
{
    while (*f != '\0') {
        if (*f != '%') {
            if (*f++ != *l++)
                return false;
            continue;
        }
        ++f;
        while (*f == 'l')
            ++f;
        const char conversion = *f++;
        if (conversion == 's') {
            for (const char* rest = l;; ++rest) {
                if (matches_format(f, rest))
                    return true;
                if (*rest == '\0')
                    return false;
            }
        }
        if (conversion == 'd' && *l == '-')
            ++l;
        const char* digits = l;
        while (isdigit((unsigned char)*l) ||
               (conversion == 'x' && (isxdigit((unsigned char)*l) || *l == 'x')))
            ++l;
        if (l == digits)
            return false;
    }
    return *l == '\0';
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
    for (const std::string& name : list_dir(dir_))
        unlink(path(name).c_str());
    rmdir(dir_.c_str());
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
    std::string out;
    for (; text != nullptr && *text != 0; ++text)
        out += (char)*text;
    return out;
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
    if (form == 40) {
        put(at, &sfs, 40);
    } else if (form == 32) {
        __VELK_sample_file_section d;
        velk_class::helper_copy_sfs_velk(&d, &sfs, 1);
        put(at, &d, 32);
    } else {
        SampleFileSections_s d;
        velk_class::helper_copy_sfs(&d, &sfs, 1);
        put(at, &d, 20);
    }
}

}  // namespace velk_test
