// velk: command-line companion of the library.
//
//   velk demo FILE   creates a new sample file through the library, closes it,
//                    and prints its size and the first entries of its tables.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "velk.h"

namespace {

int usage()
{
    fprintf(stderr, "usage: velk demo FILE\n");
    return 2;
}

std::wstring widen(const char* text)
{
    unsigned count = 0;
    VELK_convert_utf8_to_wcs(text, nullptr, &count);
    std::wstring wide(count, L'\0');
    if (VELK_convert_utf8_to_wcs(text, &wide[0], &count) != 0)
        return std::wstring();
    wide.resize(wcslen(wide.c_str()));
    return wide;
}

void print_status(const char* what, unsigned status)
{
    const wchar_t* text = nullptr;
    VELK_error_string((int)status, &text);
    fprintf(stderr, "%s failed: %u (%ls)\n", what, status, text ? text : L"?");
}

bool read_file(const char* path, std::vector<unsigned char>* bytes)
{
    FILE* f = fopen(path, "rb");
    if (f == nullptr)
        return false;
    unsigned char chunk[65536];
    size_t got;
    while ((got = fread(chunk, 1, sizeof(chunk), f)) > 0)
        bytes->insert(bytes->end(), chunk, chunk + got);
    fclose(f);
    return true;
}

void print_slot(const char* table, unsigned slot, const __VELK_sample_file_section_vk6& s)
{
    printf("  %s slot %u: kind %u, offset %llu, length %llu, entries %llu, entry length %u\n",
           table, slot, s.section_id, (unsigned long long)s.file_offset,
           (unsigned long long)s.length, (unsigned long long)s.number_entries, s.entry_length);
}

int demo(const char* path)
{
    velk_handle* handle = nullptr;
    const std::wstring name = widen(path);
    unsigned status = VELK_open(&handle, name.c_str(),
                                VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE);
    if (status != 0) {
        print_status("VELK_open", status);
        return 1;
    }
    unsigned version = 0;
    VELK_get_vk_file_version(handle, &version);
    status = VELK_close(handle);
    if (status != 0) {
        print_status("VELK_close", status);
        return 1;
    }

    std::vector<unsigned char> bytes;
    if (!read_file(path, &bytes) || bytes.size() < 16) {
        fprintf(stderr, "cannot read %s back\n", path);
        return 1;
    }
    unsigned major = 0, minor = 0;
    VELK_get_version(&major, &minor);
    printf("velk %u.%u wrote %s: %zu bytes, file version %u\n", major, minor, path, bytes.size(),
           version);
    printf("  eyecatcher \"%.8s\", format revision %u, section count %u\n",
           (const char*)bytes.data(), *(const uint32_t*)&bytes[8], *(const uint32_t*)&bytes[12]);

    __VELK_sample_file_section_vk6 slot;
    for (unsigned i = 0; i < 20 && 16 + (i + 1) * sizeof(slot) <= bytes.size(); ++i) {
        memcpy(&slot, &bytes[16 + i * sizeof(slot)], sizeof(slot));
        if (slot.length != 0)
            print_slot("section table", i, slot);
    }
    memcpy(&slot, &bytes[16], sizeof(slot));
    const unsigned long long global = slot.file_offset;
    for (unsigned i = 0; i < 12 && global + (i + 1) * sizeof(slot) <= bytes.size(); ++i) {
        memcpy(&slot, &bytes[global + i * sizeof(slot)], sizeof(slot));
        if (slot.length != 0) {
            print_slot("global table", i, slot);
            if (slot.section_id == 35 && slot.file_offset + 72 <= bytes.size())
                printf("    private use: %u.%u \"%s\"\n",
                       *(const uint32_t*)&bytes[slot.file_offset],
                       *(const uint32_t*)&bytes[slot.file_offset + 4],
                       (const char*)&bytes[slot.file_offset + 8]);
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && strcmp(argv[1], "demo") == 0)
        return demo(argv[2]);
    return usage();
}
