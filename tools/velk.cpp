// velk: command-line companion of the library.
//
//   velk demo FILE   writes a small sample file through the library (host, OS,
//                    application and version records, processes, threads and
//                    modules, one stream with described samples), closes it,
//                    reopens it and dumps it.
//   velk dump FILE   opens a sample file read-only and prints its tables, its
//                    file-wide records, processes, threads, modules, and per
//                    stream its descriptors and first data entries.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "velk.h"

namespace {

int usage()
{
    fprintf(stderr, "usage: velk demo FILE\n       velk dump FILE\n");
    return 2;
}

std::wstring widen(const char* text)
{
    wchar_t* wide = nullptr;
    if (VELK_convert_utf8_to_wcs_malloced(text, &wide) != 0)
        return std::wstring();
    std::wstring result(wide);
    free(wide);
    return result;
}

bool failed(const char* what, unsigned status)
{
    if (status == 0)
        return false;
    const wchar_t* text = nullptr;
    VELK_error_string((int)status, &text);
    fprintf(stderr, "%s failed: %u (%ls)\n", what, status, text ? text : L"?");
    return true;
}

// ---------------------------------------------------------------------------
// The raw tables, read from the file's bytes.
// ---------------------------------------------------------------------------
const char* kind_name(unsigned kind)
{
    switch (kind) {
    case 1: return "legacy sample record";
    case 2: return "legacy module record";
    case 3: return "legacy pid record";
    case 4: return "legacy header";
    case 7: return "legacy tid record";
    case 8: return "legacy raw pid record";
    case 9: return "legacy raw tid record";
    case 12: return "legacy hardware configuration";
    case 13: return "legacy software configuration";
    case 14: return "legacy events";
    case 15: return "legacy symbols";
    case 16: return "legacy header ex";
    case 18: return "legacy user defined thread names";
    case 19: return "legacy sample record header";
    case 20: return "legacy sample record lean arm";
    case 21: return "legacy raw module record";
    case 22: return "legacy calibration results";
    case 23: return "legacy processor information";
    case 24: return "legacy ruma_sys_info";
    case 25: return "velk system";
    case 26: return "velk host";
    case 27: return "velk os";
    case 28: return "velk application";
    case 29: return "velk pid";
    case 30: return "velk tid";
    case 31: return "velk module";
    case 32: return "velk user defined global";
    case 33: return "velk version info";
    case 34: return "special velk global offset";
    case 35: return "velk private use section info";
    case 36: return "velk event";
    case 37: return "velk data description";
    case 38: return "velk data section";
    case 39: return "velk user defined stream";
    case 40: return "velk stream info";
    case 41: return "special velk stream offset";
    case 46: return "velk global descriptor section";
    case 65534: return "logically deleted";
    default: return "unknown";
    }
}

struct Slot {
    uint64_t length, offset, entries;
    uint32_t entry_length, kind;
};

class RawFile {
public:
    explicit RawFile(const char* path)
    {
        if (FILE* f = fopen(path, "rb")) {
            unsigned char chunk[65536];
            size_t got;
            while ((got = fread(chunk, 1, sizeof(chunk), f)) > 0)
                bytes_.insert(bytes_.end(), chunk, chunk + got);
            fclose(f);
        }
    }
    size_t size() const { return bytes_.size(); }
    bool starts_with(const char* text) const
    {
        return bytes_.size() >= strlen(text) && memcmp(bytes_.data(), text, strlen(text)) == 0;
    }
    bool has(uint64_t offset, uint64_t length) const
    {
        return offset <= bytes_.size() && length <= bytes_.size() - offset;
    }
    uint64_t u(uint64_t offset, unsigned width) const
    {
        uint64_t v = 0;
        if (has(offset, width))
            memcpy(&v, &bytes_[offset], width);
        return v;
    }
    // A slot in the 40-byte form, or in version 5's 20- or 32-byte forms.
    Slot slot(uint64_t at, unsigned form) const
    {
        if (form == 20)
            return {u(at, 4), u(at + 4, 4), u(at + 8, 4), (uint32_t)u(at + 12, 2), (uint32_t)u(at + 14, 2)};
        if (form == 32)
            return {u(at, 8), u(at + 8, 8), u(at + 16, 4), (uint32_t)u(at + 20, 4), (uint32_t)u(at + 24, 4)};
        return {u(at, 8), u(at + 8, 8), u(at + 16, 8), (uint32_t)u(at + 24, 4), (uint32_t)u(at + 28, 4)};
    }

private:
    std::vector<unsigned char> bytes_;
};

// Prints the used slots of a table; returns the kind 41 slot's offset, or 0.
uint64_t print_table(const RawFile& f, const char* title, uint64_t at, unsigned slots, unsigned form)
{
    printf("%s at %llu:\n", title, (unsigned long long)at);
    uint64_t next = 0;
    for (unsigned i = 0; i < slots && f.has(at + (uint64_t)i * form, form); ++i) {
        const Slot s = f.slot(at + (uint64_t)i * form, form);
        if (s.length == 0 && s.kind == 0)
            continue;
        printf("  slot %2u: kind %5u %-34s offset %10llu length %8llu entries %6llu entry length %u\n",
               i, s.kind, kind_name(s.kind), (unsigned long long)s.offset,
               (unsigned long long)s.length, (unsigned long long)s.entries, s.entry_length);
        if (s.kind == 41)
            next = s.offset;
    }
    return next;
}

void print_tables(const char* path)
{
    const RawFile f(path);
    if (f.size() < 16) {
        printf("file too short for a sample file: %zu bytes\n", f.size());
        return;
    }
    const bool v5 = f.starts_with("SampleF ");
    const unsigned entry_form = v5 ? 20 : 40, slot_form = v5 ? 32 : 40;
    print_table(f, "section table", 16, 20, entry_form);
    uint64_t global = 0, global_length = 0;
    for (unsigned i = 0; i < 20; ++i) {
        const Slot s = f.slot(16 + (uint64_t)i * entry_form, entry_form);
        if (s.kind == 34) {
            global = s.offset;
            global_length = s.length;
        }
    }
    if (global == 0)
        return;
    uint64_t stream = print_table(f, "global table", global, (unsigned)(global_length / slot_form), slot_form);
    std::vector<uint64_t> seen;
    for (unsigned n = 0; stream != 0 && n < 1000; ++n) {
        for (uint64_t s : seen)
            if (s == stream)
                return;
        seen.push_back(stream);
        char title[64];
        snprintf(title, sizeof(title), "stream %u table", n);
        stream = print_table(f, title, stream, 8, slot_form);
    }
}

// ---------------------------------------------------------------------------
// What the library reads back.
// ---------------------------------------------------------------------------
std::string text_of(velk_handle* h, __string_or_id id)
{
    if (id.id == 0)
        return "(none)";
    unsigned size = 0;
    if (VELK_convert_uniqueid_to_string(h, 0, &id, nullptr, &size) != 0)
        return "(unresolved)";
    std::vector<wchar_t> wide(size / sizeof(wchar_t) + 1, L'\0');
    if (size == 0 || VELK_convert_uniqueid_to_string(h, size, &id, wide.data(), &size) != 0)
        return "";
    char* utf8 = nullptr;
    if (VELK_convert_wcs_to_utf8_malloced(wide.data(), &utf8) != 0)
        return "(unconvertible)";
    std::string result = "\"" + std::string(utf8) + "\"";
    free(utf8);
    return result;
}

void print_records(velk_handle* h)
{
    if (VELK_reading_section(h, VELK_SECTION_CONFIGURATION) == 0) {
        __VELK_host host;
        if (VELK_get_host(h, sizeof(host), &host, nullptr) == 0)
            printf("host: size %u, flags 0x%x, text 1 %s, text 2 %s\n", host.host_size,
                   host.host_flags, text_of(h, host.host_text_1).c_str(),
                   text_of(h, host.host_text_2).c_str());
        unsigned size = 0;
        if (VELK_get_os(h, 0, nullptr, &size) == 0 && size > 0) {
            std::vector<__VELK_os> os(size / sizeof(__VELK_os));
            if (VELK_get_os(h, size, os.data(), &size) == 0)
                for (size_t i = 0; i < os.size(); ++i)
                    printf("os %zu: type %u, words %u %u %u %u, text 1 %s, text 2 %s\n", i,
                           os[i].os_type, os[i].os_word_1, os[i].os_word_2, os[i].os_word_3,
                           os[i].os_word_4, text_of(h, os[i].os_text_1).c_str(),
                           text_of(h, os[i].os_text_2).c_str());
        }
        __VELK_application app;
        if (VELK_get_application(h, sizeof(app), &app, nullptr) == 0)
            printf("application: words %u %u, values %llu %llu\n", app.application_word_1,
                   app.application_word_2, (unsigned long long)app.application_value_1,
                   (unsigned long long)app.application_value_2);
        VELK_done_section(h, VELK_SECTION_CONFIGURATION);
    }
    if (VELK_reading_section(h, VELK_SECTION_VERSION_INFO) == 0) {
        __VELK_version_info v;
        if (VELK_get_version_info(h, sizeof(v), &v, nullptr) == 0)
            printf("version info: %u.%u.%u, revision %u\n", v.version_major, v.version_minor,
                   v.reserved & 0xFFFF, v.version_revision);
        VELK_done_section(h, VELK_SECTION_VERSION_INFO);
    }
}

// ---------------------------------------------------------------------------
// Processes, threads and modules, and the descriptors of the global sections.
// ---------------------------------------------------------------------------
constexpr unsigned kShownRecords = 20;  // records printed per section
constexpr unsigned kShownEntries = 5;   // data entries printed per stream

struct RecordWalk {
    velk_handle* h;
    unsigned long long seen;
};

unsigned print_pids(__VELK_pid* r, unsigned, unsigned entries, void* context)
{
    RecordWalk* w = static_cast<RecordWalk*>(context);
    for (unsigned i = 0; i < entries && w->seen < kShownRecords; ++i, ++w->seen)
        printf("  process %u: pid %u, flags 0x%x, osid %u, when %llu, parent index %u, path %s, "
               "name %s\n",
               r[i].reserved_for_legacy, r[i].pid_id, r[i].pid_flags, r[i].osid,
               (unsigned long long)r[i].pid_event_when, r[i].parent_pid_index,
               text_of(w->h, r[i].pid_path).c_str(), text_of(w->h, r[i].pid_name).c_str());
    return 0;
}

unsigned print_tids(__VELK_tid* r, unsigned, unsigned entries, void* context)
{
    RecordWalk* w = static_cast<RecordWalk*>(context);
    for (unsigned i = 0; i < entries && w->seen < kShownRecords; ++i, ++w->seen)
        printf("  thread %u: tid %u, process %u, flags 0x%x, when %llu, name %s\n",
               r[i].reserved_for_legacy, r[i].tid_id, r[i].tid_pid, r[i].tid_flags,
               (unsigned long long)r[i].tid_event_when, text_of(w->h, r[i].tid_name).c_str());
    return 0;
}

unsigned module_record_size = 0;

unsigned print_modules(__VELK_module* first, unsigned, unsigned entries, void* context)
{
    RecordWalk* w = static_cast<RecordWalk*>(context);
    const unsigned char* at = reinterpret_cast<const unsigned char*>(first);
    for (unsigned i = 0; i < entries && w->seen < kShownRecords; ++i, ++w->seen) {
        __VELK_module m;
        memcpy(&m, at + (size_t)i * module_record_size, sizeof(m));
        printf("  module %llu: pid %u, flags 0x%x, load 0x%llx, length %llu, pid index 0x%x, "
               "path %s, name %s, extra %s\n",
               w->seen, m.pid, m.module_flags, (unsigned long long)m.module_load_address,
               (unsigned long long)m.module_length, m.pid_index,
               text_of(w->h, m.module_path).c_str(), text_of(w->h, m.module_name).c_str(),
               text_of(w->h, m.module_extra).c_str());
    }
    return 0;
}

void print_descriptor(velk_handle* h, const char* indent, const __velk_samprec_desc_entry& d)
{
    printf("%sfield %s: offset %u, length %u, type %u, qualifier %u\n", indent,
           text_of(h, d.name).c_str(), d.field_offset, d.field_length, d.field_type,
           d.field_qualifier);
}

void print_global_sections(velk_handle* h)
{
    static const struct {
        VELK_SECTION_IDENTIFIER id;
        unsigned kind;
        const char* name;
    } kSections[] = {{VELK_SECTION_PROCESS, 29, "processes"},
                     {VELK_SECTION_THREAD, 30, "threads"},
                     {VELK_SECTION_MODULE, 31, "modules"}};
    if (VELK_reading_section(h, VELK_SECTION_DESCRIPTOR) == 0) {
        for (const auto& s : kSections) {
            __velk_samprec_desc_entry* entries = nullptr;
            int count = -1;
            if (VELK_get_global_section_descriptor(h, s.id, &entries, &count) == 0 && count > 0) {
                printf("descriptors of the %s:\n", s.name);
                for (int i = 0; i < count; ++i)
                    print_descriptor(h, "  ", entries[i]);
            }
        }
        VELK_done_section(h, VELK_SECTION_DESCRIPTOR);
    }
    module_record_size = VELK_get_module_record_size(h);
    for (const auto& s : kSections) {
        if (VELK_reading_section(h, s.id) != 0)
            continue;
        RecordWalk walk = {h, 0};
        unsigned status = 0;
        printf("%s:\n", s.name);
        if (s.id == VELK_SECTION_PROCESS) {
            VELK_PROCESS_CALLBACK cb = print_pids;
            status = VELK_enumerate_processes(h, &cb, &walk, 0);
        } else if (s.id == VELK_SECTION_THREAD) {
            VELK_THREAD_CALLBACK cb = print_tids;
            status = VELK_enumerate_threads(h, &cb, &walk, 0);
        } else {
            printf("  record size %u\n", module_record_size);
            VELK_MODULE_CALLBACK cb = print_modules;
            status = VELK_enumerate_modules(h, &cb, &walk, 0);
        }
        if (status != 0)
            failed("enumeration", status);
        VELK_done_section(h, s.id);
    }
}

// ---------------------------------------------------------------------------
// A stream's descriptors and the first entries of its data.
// ---------------------------------------------------------------------------
struct DataWalk {
    velk_handle* h;
    std::vector<__velk_samprec_desc_entry> fields;
    unsigned entry_size;
    bool by_bytes;
    unsigned shown;
};

unsigned keep_descriptors(__velk_samprec_desc_entry* entries, unsigned, unsigned count, void* user)
{
    std::vector<__velk_samprec_desc_entry>* out = static_cast<std::vector<__velk_samprec_desc_entry>*>(user);
    out->assign(entries, entries + count);
    return 0;
}

void print_field(const unsigned char* entry, const __velk_samprec_desc_entry& d, unsigned entry_size)
{
    if (d.field_offset >= entry_size || d.field_length > entry_size - d.field_offset) {
        printf("(outside the entry)");
        return;
    }
    const unsigned char* at = entry + d.field_offset;
    if (d.field_length == 1 || d.field_length == 2 || d.field_length == 4 || d.field_length == 8) {
        unsigned long long v = 0;
        memcpy(&v, at, d.field_length);
        printf("%llu", v);
        return;
    }
    const unsigned shown = d.field_length < 16 ? d.field_length : 16;
    for (unsigned i = 0; i < shown; ++i)
        printf("%02x", at[i]);
    if (shown < d.field_length)
        printf("...");
}

unsigned print_entries(void* data, unsigned long long bytes, unsigned entries, void* user,
                       unsigned long long*)
{
    DataWalk* w = static_cast<DataWalk*>(user);
    const unsigned long long available = w->by_bytes ? bytes / w->entry_size : entries;
    const unsigned char* p = static_cast<const unsigned char*>(data);
    for (unsigned long long i = 0; i < available && w->shown < kShownEntries; ++i, ++w->shown) {
        printf("    entry %u:", w->shown);
        for (const __velk_samprec_desc_entry& d : w->fields) {
            printf(" %s=", text_of(w->h, d.name).c_str());
            print_field(p + i * w->entry_size, d, w->entry_size);
        }
        printf("\n");
    }
    return 0;
}

void print_stream_data(velk_handle* h, unsigned n, unsigned stream_type)
{
    DataWalk walk = {h, {}, 0, (stream_type & ~8u) == 1, 0};
    if (VELK_reading_stream_section(h, n, VELK_STREAM_SECTION_DATA_DESCRIPTION) == 0) {
        VELK_DESCRIPTOR_CALLBACK cb = keep_descriptors;
        if (VELK_enumerate_data_descriptor_entries(h, n, &cb, &walk.fields) == 0 &&
            !walk.fields.empty()) {
            printf("  descriptors: %zu\n", walk.fields.size());
            for (const __velk_samprec_desc_entry& d : walk.fields)
                print_descriptor(h, "    ", d);
            VELK_DESCRIPTOR_NODE_S* table = nullptr;
            unsigned groups = 0;
            if (VELK_get_data_desc_table(h, n, &table, &groups) == 0) {
                for (unsigned g = 0; g < groups; ++g) {
                    printf("    group %u: %u entries, %u bytes\n", g, table[g].num_entries,
                           table[g].group_length);
                    free(table[g].entries);
                }
                free(table);
            }
        }
        VELK_done_stream_section(h, n, VELK_STREAM_SECTION_DATA_DESCRIPTION);
    }
    unsigned exists = 0;
    VELK_exists_stream_section(h, n, 38, &exists);
    if (!exists || walk.fields.empty())
        return;
    if (VELK_get_size_of_each_data_entry(h, n, &walk.entry_size) != 0 || walk.entry_size == 0)
        return;
    if (VELK_reading_stream_section(h, n, VELK_STREAM_SECTION_DATA) != 0)
        return;
    printf("  data: entry size %u, counted by %s\n", walk.entry_size,
           walk.by_bytes ? "bytes" : "entries");
    VELK_DATA_CALLBACK cb = print_entries;
    const unsigned status = VELK_enumerate_data(h, n, &cb, &walk, 0);
    if (status != 0)
        failed("VELK_enumerate_data", status);
    VELK_done_stream_section(h, n, VELK_STREAM_SECTION_DATA);
}

void print_streams(velk_handle* h)
{
    unsigned count = 0;
    VELK_get_number_data_streams(h, &count);
    printf("streams: %u\n", count);
    for (unsigned n = 0; n < count; ++n) {
        if (VELK_reading_stream(h, n) != 0)
            continue;
        printf("stream %u:\n", n);
        unsigned exists = 0;
        unsigned stream_type = 0;
        VELK_exists_stream_section(h, n, 40, &exists);
        if (exists && VELK_reading_stream_section(h, n, VELK_STREAM_SECTION_STREAM_INFO) == 0) {
            __VELK_stream_info info;
            if (VELK_get_stream_info(h, n, sizeof(info), &info, nullptr) == 0) {
                stream_type = info.stream_type;
                printf("  type %u, comment %s\n", info.stream_type, text_of(h, info.comment).c_str());
                printf("  command line %s, cpu %s\n", text_of(h, info.command_line).c_str(),
                       text_of(h, info.cpu).c_str());
                printf("  params %u %u %u %u %u %u, value %llu\n", info.stream_param_a,
                       info.stream_param_b, info.stream_param_c, info.stream_param_d,
                       info.stream_param_e, info.stream_param_f,
                       (unsigned long long)info.stream_value);
            }
            VELK_done_stream_section(h, n, VELK_STREAM_SECTION_STREAM_INFO);
        }
        print_stream_data(h, n, stream_type);
        VELK_done_stream(h, n);
    }
}

int dump(const char* path)
{
    velk_handle* h = nullptr;
    if (failed("VELK_open", VELK_open(&h, widen(path).c_str(), VELK_OPEN_READ)))
        return 1;
    unsigned version = 0;
    VELK_get_vk_file_version(h, &version);
    const RawFile f(path);
    printf("%s: %zu bytes, file version %u\n", path, f.size(), version);
    print_tables(path);
    print_records(h);
    print_global_sections(h);
    print_streams(h);
    return failed("VELK_close", VELK_close(h)) ? 1 : 0;
}

__velk_samprec_desc_entry descriptor(unsigned type, unsigned offset, unsigned length,
                                     const wchar_t* name)
{
    __velk_samprec_desc_entry d;
    memset(&d, 0, sizeof(d));
    d.entry_size = VELK_DESCRIPTOR_ENTRY_SIZE;
    d.field_type = (uint16_t)type;
    d.field_offset = offset;
    d.field_length = length;
    d.name.text = const_cast<wchar_t*>(name);
    return d;
}

// Two processes with a thread each, three modules, and the descriptor groups
// of the three sections (the module group gives module records their size).
int demo_records(velk_handle* h)
{
    __velk_samprec_desc_entry module_desc[2] = {
        descriptor(ST_GROUP_HEAD, 0, 0, L"module group"),
        descriptor(ST_MODULE_RECORD, 0, sizeof(__VELK_module), L"module record")};
    __velk_samprec_desc_entry pid_desc[2] = {
        descriptor(ST_GROUP_HEAD, 0, 0, L"process group"),
        descriptor(ST_PID_RECORD, 0, sizeof(__VELK_pid), L"process record")};
    __velk_samprec_desc_entry tid_desc[2] = {
        descriptor(ST_GROUP_HEAD, 0, 0, L"thread group"),
        descriptor(ST_TID_RECORD, 0, sizeof(__VELK_tid), L"thread record")};
    if (failed("VELK_writing_section", VELK_writing_section(h, VELK_SECTION_DESCRIPTOR)) ||
        failed("VELK_add_global_section_descriptor",
               VELK_add_global_section_descriptor(h, VELK_SECTION_MODULE, module_desc, 2)) ||
        failed("VELK_add_global_section_descriptor",
               VELK_add_global_section_descriptor(h, VELK_SECTION_PROCESS, pid_desc, 2)) ||
        failed("VELK_add_global_section_descriptor",
               VELK_add_global_section_descriptor(h, VELK_SECTION_THREAD, tid_desc, 2)) ||
        failed("VELK_done_section", VELK_done_section(h, VELK_SECTION_DESCRIPTOR)) ||
        failed("VELK_writing_section", VELK_writing_section(h, VELK_SECTION_PROCESS)))
        return 1;
    static const wchar_t* const kPaths[] = {L"/usr/bin/app", L"/usr/bin/helper"};
    static const wchar_t* const kNames[] = {L"app", L"helper"};
    for (unsigned i = 0; i < 2; ++i) {
        __VELK_pid p;
        memset(&p, 0, sizeof(p));
        p.pid_size = sizeof(p);
        p.pid_id = 4100 + i;
        p.pid_event_when = 10 * i;
        p.pid_path.text = const_cast<wchar_t*>(kPaths[i]);
        p.pid_name.text = const_cast<wchar_t*>(kNames[i]);
        if (failed("VELK_add_process", VELK_add_process(h, &p)))
            return 1;
    }
    if (failed("VELK_done_section", VELK_done_section(h, VELK_SECTION_PROCESS)) ||
        failed("VELK_writing_section", VELK_writing_section(h, VELK_SECTION_THREAD)))
        return 1;
    for (unsigned i = 0; i < 2; ++i) {
        __VELK_tid t;
        memset(&t, 0, sizeof(t));
        t.tid_size = sizeof(t);
        t.tid_pid = 4100 + i;
        t.tid_id = 4100 + i;
        t.tid_name.text = const_cast<wchar_t*>(i == 0 ? L"main" : L"worker");
        if (failed("VELK_add_thread", VELK_add_thread(h, &t)))
            return 1;
    }
    if (failed("VELK_done_section", VELK_done_section(h, VELK_SECTION_THREAD)) ||
        failed("VELK_writing_section", VELK_writing_section(h, VELK_SECTION_MODULE)))
        return 1;
    static const wchar_t* const kModules[][2] = {{L"/usr/bin/app", L"app"},
                                                 {L"/usr/lib/libc.so.6", L"libc.so.6"},
                                                 {L"/usr/bin/helper", L"helper"}};
    for (unsigned i = 0; i < 3; ++i) {
        __VELK_module m;
        memset(&m, 0, sizeof(m));
        m.module_size = sizeof(m);
        m.pid = i < 2 ? 4100 : 4101;
        m.module_flags = VELK_MODULE_HAS_LOAD_COUNT;
        m.segment_type = 3;
        m.module_length = 0x20000;
        m.module_load_address = 0x400000 + 0x1000000ULL * i;
        m.sc_unload_32 = 0xFFFFFFFF;
        m.module_path.text = const_cast<wchar_t*>(kModules[i][0]);
        m.module_name.text = const_cast<wchar_t*>(kModules[i][1]);
        if (failed("VELK_add_module", VELK_add_module(h, &m)))
            return 1;
    }
    return failed("VELK_done_section", VELK_done_section(h, VELK_SECTION_MODULE)) ? 1 : 0;
}

// Stream 0's samples: a 40-byte legacy sample record and a time stamp.
int demo_samples(velk_handle* h)
{
    __velk_samprec_desc_entry fields[2] = {
        descriptor(ST_LEGACY_SAMPLE_RECORD, 0, 40, L"sample"),
        descriptor(ST_TIMESTAMP, 40, 8, L"time stamp")};
    if (failed("VELK_writing_stream_section",
               VELK_writing_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION)) ||
        failed("VELK_add_data_descriptor_entry", VELK_add_data_descriptor_entry(h, 0, &fields[0])) ||
        failed("VELK_add_data_descriptor_entry", VELK_add_data_descriptor_entry(h, 0, &fields[1])) ||
        failed("VELK_done_stream_section",
               VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION)) ||
        failed("VELK_writing_stream_section",
               VELK_writing_stream_section(h, 0, VELK_STREAM_SECTION_DATA)))
        return 1;
    unsigned char sample[48];
    for (unsigned i = 0; i < 8; ++i) {
        memset(sample, 0, sizeof(sample));
        const uint64_t ip = 0x401000 + 0x10 * i, stamp = 1000 + 7 * i;
        memcpy(sample, &ip, sizeof(ip));
        memcpy(sample + 40, &stamp, sizeof(stamp));
        if (failed("VELK_add_data", VELK_add_data(h, 0, sizeof(sample), sample)))
            return 1;
    }
    return failed("VELK_done_stream_section", VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_DATA))
               ? 1
               : 0;
}

int demo(const char* path)
{
    velk_handle* h = nullptr;
    if (failed("VELK_open", VELK_open(&h, widen(path).c_str(),
                                      VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE)))
        return 1;
    __VELK_host host = {24, 0, {(wchar_t*)L"demo-host"}, {(wchar_t*)L"x86_64"}};
    __VELK_os os = {40, 1, 6, 1, 0, 0, {(wchar_t*)L"Linux"}, {(wchar_t*)L"6.1.0"}};
    __VELK_application app = {32, 0, 2, 4, 2400000000ULL, 100000000ULL};
    __VELK_version_info version = {16, 2, 0, 8, 27};
    if (failed("VELK_writing_section", VELK_writing_section(h, VELK_SECTION_CONFIGURATION)) ||
        failed("VELK_set_host", VELK_set_host(h, &host)) ||
        failed("VELK_set_os", VELK_set_os(h, 1, &os)) ||
        failed("VELK_set_application", VELK_set_application(h, &app)) ||
        failed("VELK_done_section", VELK_done_section(h, VELK_SECTION_CONFIGURATION)) ||
        failed("VELK_writing_section", VELK_writing_section(h, VELK_SECTION_VERSION_INFO)) ||
        failed("VELK_set_version_info", VELK_set_version_info(h, &version)) ||
        failed("VELK_done_section", VELK_done_section(h, VELK_SECTION_VERSION_INFO)))
        return 1;
    if (demo_records(h) != 0)
        return 1;
    __VELK_stream_info info;
    memset(&info, 0, sizeof(info));
    info.stream_type = VELK_STREAM_TYPE_SAMPLE;
    info.command_line.text = (wchar_t*)L"./app --run";
    info.cpu.text = (wchar_t*)L"demo cpu";
    info.comment.text = (wchar_t*)L"samples of the demo";
    if (failed("VELK_writing_stream", VELK_writing_stream(h, 0)) ||
        failed("VELK_writing_stream_section",
               VELK_writing_stream_section(h, 0, VELK_STREAM_SECTION_STREAM_INFO)) ||
        failed("VELK_set_stream_info", VELK_set_stream_info(h, 0, &info)) ||
        failed("VELK_done_stream_section",
               VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_STREAM_INFO)) ||
        demo_samples(h) != 0 ||
        failed("VELK_done_stream", VELK_done_stream(h, 0)) ||
        failed("VELK_close", VELK_close(h)))
        return 1;
    return dump(path);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && strcmp(argv[1], "demo") == 0)
        return demo(argv[2]);
    if (argc == 3 && strcmp(argv[1], "dump") == 0)
        return dump(argv[2]);
    return usage();
}
