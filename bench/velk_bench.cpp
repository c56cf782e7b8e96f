// Throughput of the library's bulk paths, each beside a baseline measured in
// the same iteration on the same bytes: raw write() of what is added, and a
// mmap scan of what is enumerated. The "ratio" counter is library time over
// baseline time; 1.0 would mean the library costs nothing on top of the OS.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "velk.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kSampleSize = 48;
constexpr unsigned kSamplesPerAdd = 4096;  // a collector's buffer of samples

double seconds_since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A scratch directory for the stores and files of one run.
const std::string& scratch_dir()
{
    static std::string dir = [] {
        const char* base = getenv("TMPDIR");
        std::string pattern = std::string(base ? base : "/tmp") + "/velk_bench_XXXXXX";
        std::vector<char> buf(pattern.begin(), pattern.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) == nullptr)
            abort();
        setenv("DOV_TMP_DIR", buf.data(), 1);
        atexit([] { rmdir(getenv("DOV_TMP_DIR")); });
        return std::string(buf.data());
    }();
    return dir;
}

std::wstring wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }

void check(unsigned status, benchmark::State& state, const char* what)
{
    if (status != 0) {
        std::string msg = std::string(what) + " failed with " + std::to_string(status);
        state.SkipWithError(msg.c_str());
    }
}

// Opens a new sample file for writing in place of any file at `path`.
unsigned create_file(const std::string& path, velk_handle** h)
{
    unlink(path.c_str());
    return VELK_open(h, wide(path).c_str(), VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE);
}

std::vector<unsigned char> sample_bytes(size_t count)
{
    std::vector<unsigned char> bytes(count * kSampleSize);
    for (size_t i = 0; i < count; ++i) {
        uint64_t stamp = i * 3;
        memcpy(&bytes[i * kSampleSize], &i, sizeof(i));
        memcpy(&bytes[i * kSampleSize + 40], &stamp, sizeof(stamp));
    }
    return bytes;
}

// Writes a sample file with `count` 48-byte samples on stream 0: a legacy
// sample record of 40 bytes and an 8-byte time stamp.
unsigned write_samples(const std::string& path, const std::vector<unsigned char>& bytes)
{
    velk_handle* h = nullptr;
    unsigned st = create_file(path, &h);
    if (st != 0)
        return st;
    __velk_samprec_desc_entry desc[2];
    memset(desc, 0, sizeof(desc));
    desc[0].entry_size = desc[1].entry_size = VELK_DESCRIPTOR_ENTRY_SIZE;
    desc[0].field_type = ST_LEGACY_SAMPLE_RECORD;
    desc[0].field_length = 40;
    desc[1].field_type = ST_TIMESTAMP;
    desc[1].field_offset = 40;
    desc[1].field_length = 8;
    __VELK_stream_info info;
    memset(&info, 0, sizeof(info));
    info.stream_info_size = sizeof(info);
    info.stream_type = VELK_STREAM_TYPE_SAMPLE;
    info.comment.text = const_cast<wchar_t*>(L"benchmark samples");
    if ((st = VELK_writing_stream(h, 0)) ||
        (st = VELK_writing_stream_section(h, 0, VELK_STREAM_SECTION_STREAM_INFO)) ||
        (st = VELK_set_stream_info(h, 0, &info)) ||
        (st = VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_STREAM_INFO)) ||
        (st = VELK_writing_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION)) ||
        (st = VELK_add_data_descriptor_entry(h, 0, &desc[0])) ||
        (st = VELK_add_data_descriptor_entry(h, 0, &desc[1])) ||
        (st = VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_DATA_DESCRIPTION)) ||
        (st = VELK_writing_stream_section(h, 0, VELK_STREAM_SECTION_DATA)))
        return st;
    const size_t chunk = (size_t)kSamplesPerAdd * kSampleSize;
    for (size_t at = 0; at < bytes.size(); at += chunk) {
        const size_t n = bytes.size() - at < chunk ? bytes.size() - at : chunk;
        if ((st = VELK_add_data(h, 0, (unsigned)n, (void*)&bytes[at])))
            return st;
    }
    if ((st = VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_DATA)) || (st = VELK_done_stream(h, 0)))
        return st;
    return VELK_close(h);
}

// The same bytes with write(), in the same pieces, to a plain file.
void raw_write(const std::string& path, const unsigned char* bytes, size_t size, size_t piece)
{
    int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
    for (size_t at = 0; at < size; at += piece) {
        const size_t n = size - at < piece ? size - at : piece;
        if (write(fd, bytes + at, n) != (ssize_t)n)
            abort();
    }
    close(fd);
}

// Sums one 64-bit word per record of a plain file through one mapping.
uint64_t mmap_scan(const std::string& path, size_t record, size_t word_at)
{
    int fd = open(path.c_str(), O_RDONLY);
    struct stat st;
    fstat(fd, &st);
    const unsigned char* p =
        (const unsigned char*)mmap(nullptr, st.st_size, PROT_READ, MAP_SHARED, fd, 0);
    uint64_t sum = 0;
    for (off_t at = 0; at + (off_t)record <= st.st_size; at += record) {
        uint64_t v;
        memcpy(&v, p + at + word_at, sizeof(v));
        sum += v;
    }
    munmap((void*)p, st.st_size);
    close(fd);
    return sum;
}

struct ScanSum {
    uint64_t sum = 0;
    uint64_t records = 0;
};

unsigned sum_samples(void* data, unsigned long long bytes, unsigned, void* user, unsigned long long*)
{
    ScanSum* s = static_cast<ScanSum*>(user);
    const unsigned char* p = static_cast<const unsigned char*>(data);
    for (unsigned long long at = 0; at + kSampleSize <= bytes; at += kSampleSize) {
        uint64_t v;
        memcpy(&v, p + at + 40, sizeof(v));
        s->sum += v;
        s->records++;
    }
    return 1;
}

unsigned sum_modules(__VELK_module* records, unsigned, unsigned entries, void* user)
{
    ScanSum* s = static_cast<ScanSum*>(user);
    for (unsigned i = 0; i < entries; ++i) {
        s->sum += records[i].module_load_address;
        s->records++;
    }
    return 1;
}

void report(benchmark::State& state, double velk_s, double base_s, size_t bytes)
{
    // Seconds per iteration of each side.
    state.counters["velk_s"] = benchmark::Counter(velk_s, benchmark::Counter::kAvgIterations);
    state.counters["baseline_s"] = benchmark::Counter(base_s, benchmark::Counter::kAvgIterations);
    state.counters["ratio"] = base_s > 0 ? velk_s / base_s : 0;
    state.SetBytesProcessed((int64_t)bytes * (int64_t)state.iterations());
}

// An add benchmark over files named after `name`: `write` makes the sample
// file, raw_write() puts the same `bytes` to a plain file in pieces of
// `piece` bytes.
template <typename Write>
void run_add(benchmark::State& state, const std::vector<unsigned char>& bytes, const char* name,
             const char* what, Write write, size_t piece)
{
    const std::string file = scratch_dir() + "/" + name + ".vk7";
    const std::string raw = scratch_dir() + "/" + name + ".raw";
    double velk_s = 0, base_s = 0;
    for (auto _ : state) {
        Clock::time_point t = Clock::now();
        check(write(file), state, what);
        const double v = seconds_since(t);
        t = Clock::now();
        raw_write(raw, bytes.data(), bytes.size(), piece);
        const double b = seconds_since(t);
        state.SetIterationTime(v);
        velk_s += v;
        base_s += b;
    }
    report(state, velk_s, base_s, bytes.size());
    unlink(file.c_str());
    unlink(raw.c_str());
}

// An enumerate benchmark over files named after `name`: `write` makes the
// sample file once, `read` enumerates it into a ScanSum in each iteration,
// and `scan` sums the same `bytes` from a plain file; the two sums must agree.
template <typename Write, typename Read, typename Scan>
void run_enumerate(benchmark::State& state, size_t count, const std::vector<unsigned char>& bytes,
                   const char* name, const char* what, Write write, Read read, Scan scan,
                   const char* mismatch)
{
    const std::string file = scratch_dir() + "/" + name + ".vk7";
    const std::string raw = scratch_dir() + "/" + name + ".raw";
    check(write(file), state, what);
    raw_write(raw, bytes.data(), bytes.size(), bytes.size());
    double velk_s = 0, base_s = 0;
    for (auto _ : state) {
        Clock::time_point t = Clock::now();
        velk_handle* h = nullptr;
        ScanSum s;
        check(VELK_open(&h, wide(file).c_str(), VELK_OPEN_READ), state, "open");
        read(h, &s);
        check(VELK_close(h), state, "close");
        const double v = seconds_since(t);
        t = Clock::now();
        const uint64_t base_sum = scan(raw);
        const double b = seconds_since(t);
        if (s.records != count || s.sum != base_sum)
            state.SkipWithError(mismatch);
        state.SetIterationTime(v);
        velk_s += v;
        base_s += b;
    }
    report(state, velk_s, base_s, bytes.size());
    unlink(file.c_str());
    unlink(raw.c_str());
}

void BM_AddSamples(benchmark::State& state)
{
    const std::vector<unsigned char> bytes = sample_bytes((size_t)state.range(0));
    run_add(
        state, bytes, "samples_add", "writing samples",
        [&](const std::string& file) { return write_samples(file, bytes); },
        (size_t)kSamplesPerAdd * kSampleSize);
}

void BM_EnumerateSamples(benchmark::State& state)
{
    const size_t count = (size_t)state.range(0);
    const std::vector<unsigned char> bytes = sample_bytes(count);
    run_enumerate(
        state, count, bytes, "samples_read", "writing samples",
        [&](const std::string& file) { return write_samples(file, bytes); },
        [&](velk_handle* h, ScanSum* s) {
            VELK_DATA_CALLBACK cb = sum_samples;
            check(VELK_reading_stream(h, 0), state, "reading stream");
            check(VELK_reading_stream_section(h, 0, VELK_STREAM_SECTION_DATA), state,
                  "reading data");
            check(VELK_enumerate_data(h, 0, &cb, s, 0), state, "enumerate");
            VELK_done_stream_section(h, 0, VELK_STREAM_SECTION_DATA);
            VELK_done_stream(h, 0);
        },
        [](const std::string& raw) { return mmap_scan(raw, kSampleSize, 40); },
        "enumeration saw other samples than were written");
}

// Describes the module records, adds `count` modules with a path and a name,
// and closes.
unsigned write_modules(const std::string& path, size_t count)
{
    velk_handle* h = nullptr;
    unsigned st = create_file(path, &h);
    if (st != 0)
        return st;
    __velk_samprec_desc_entry desc[2];
    memset(desc, 0, sizeof(desc));
    desc[0].entry_size = desc[1].entry_size = VELK_DESCRIPTOR_ENTRY_SIZE;
    desc[0].field_type = ST_GROUP_HEAD;
    desc[1].field_type = ST_MODULE_RECORD;
    desc[1].field_length = sizeof(__VELK_module);
    if ((st = VELK_writing_section(h, VELK_SECTION_DESCRIPTOR)) ||
        (st = VELK_add_global_section_descriptor(h, VELK_SECTION_MODULE, desc, 2)) ||
        (st = VELK_done_section(h, VELK_SECTION_DESCRIPTOR)) ||
        (st = VELK_writing_section(h, VELK_SECTION_MODULE)))
        return st;
    for (size_t i = 0; i < count; ++i) {
        wchar_t path_text[] = L"/usr/lib/libbench.so";
        wchar_t name_text[] = L"libbench.so";
        __VELK_module m;
        memset(&m, 0, sizeof(m));
        m.module_size = sizeof(m);
        m.pid = 100 + (uint32_t)(i % 7);
        m.module_flags = VELK_MODULE_HAS_LOAD_COUNT;
        m.module_length = 0x1000;
        m.module_load_address = 0x400000 + i * 0x1000;
        m.segment_type = 3;
        m.module_path.text = path_text;
        m.module_name.text = name_text;
        if ((st = VELK_add_module(h, &m)))
            return st;
    }
    if ((st = VELK_done_section(h, VELK_SECTION_MODULE)))
        return st;
    return VELK_close(h);
}

std::vector<unsigned char> module_bytes(size_t count)
{
    std::vector<unsigned char> bytes(count * sizeof(__VELK_module));
    for (size_t i = 0; i < count; ++i) {
        const uint64_t load = 0x400000 + i * 0x1000;
        memcpy(&bytes[i * sizeof(__VELK_module) + offsetof(__VELK_module, module_load_address)], &load,
               sizeof(load));
    }
    return bytes;
}

void BM_AddModules(benchmark::State& state)
{
    const size_t count = (size_t)state.range(0);
    const std::vector<unsigned char> bytes = module_bytes(count);
    // One write per record, as the library gets one call per module.
    run_add(
        state, bytes, "modules_add", "writing modules",
        [&](const std::string& file) { return write_modules(file, count); },
        sizeof(__VELK_module));
}

void BM_EnumerateModules(benchmark::State& state)
{
    const size_t count = (size_t)state.range(0);
    const std::vector<unsigned char> bytes = module_bytes(count);
    run_enumerate(
        state, count, bytes, "modules_read", "writing modules",
        [&](const std::string& file) { return write_modules(file, count); },
        [&](velk_handle* h, ScanSum* s) {
            VELK_MODULE_CALLBACK cb = sum_modules;
            check(VELK_reading_section(h, VELK_SECTION_MODULE), state, "reading modules");
            check(VELK_enumerate_modules(h, &cb, s, 0), state, "enumerate");
            VELK_done_section(h, VELK_SECTION_MODULE);
        },
        [](const std::string& raw) {
            return mmap_scan(raw, sizeof(__VELK_module),
                             offsetof(__VELK_module, module_load_address));
        },
        "enumeration saw other modules than were written");
}

BENCHMARK(BM_AddSamples)->Arg(100000)->Arg(1000000)->Arg(10000000)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EnumerateSamples)->Arg(100000)->Arg(1000000)->Arg(10000000)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AddModules)->Arg(10000)->Arg(100000)->Arg(300000)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EnumerateModules)->Arg(10000)->Arg(100000)->Arg(300000)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
