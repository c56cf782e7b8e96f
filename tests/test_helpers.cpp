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

}  // namespace velk_test
