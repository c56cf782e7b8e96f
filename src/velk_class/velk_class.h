// The session: one open sample file with everything known about it, the
// temporary stores it writes through, and the mapped windows it reads through.
#ifndef VELK_CLASS_H
#define VELK_CLASS_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "sampling_utils.h"
#include "velk.h"

#define VELK_CLASS_API __attribute__((visibility("default")))

// Log masks of the session.
#define VELK_MASK_TRACE   0x10001000u  // entry, exit and facts worth tracing
#define VELK_MASK_FAILURE 0x80001000u  // the line that explains a refusal
#define VELK_MASK_WARNING 0x40001000u  // the operation goes on, but look here
#define VELK_MASK_DETAIL  0x20001000u  // a harmless fact the operation found

// Entry and exit lines of a session method: "<velk %u::name>entering\n".
#define VELK_TRACE_ENTER(name) LOGIT_A(VELK_MASK_TRACE, "<velk %u::" name ">entering\n", instance)
#define VELK_TRACE_EXIT(name) LOGIT_A(VELK_MASK_TRACE, "<velk %u::" name ">exiting\n", instance)

// Calls something that returns a status; on failure logs the common failure
// line with the call's line number and returns the status.
#define RETURN_IF_FAILED(call)                  \
    do {                                        \
        unsigned int velk_status_ = (call);     \
        if (velk_status_ != 0) {                \
            LOG_FAILED_STATUS(velk_status_);    \
            return velk_status_;                \
        }                                       \
    } while (0)

// Sizes and limits of the container.
constexpr unsigned int VELK_PATH_MAX = 1100;                   // paths and prefixes, bytes
constexpr unsigned long long VELK_MAP_WINDOW_MAX = 0x2000000;  // largest mapped window, 32 MiB
constexpr unsigned long long VELK_COPY_PIECE = 0x2000000;      // store-to-file copy piece, 32 MiB
constexpr unsigned int VELK_SECTION_TABLE_OFFSET = 16;         // first entry of the section table
constexpr unsigned int VELK_SECTION_TABLE_ENTRIES = 20;
constexpr unsigned int VELK_BEGINNING_SIZE_V67 = 816;          // beginning with its section table
constexpr unsigned int VELK_BEGINNING_SIZE_V5 = 416;
constexpr unsigned int VELK_GLOBAL_TABLE_SIZE = 512;
constexpr unsigned int VELK_GLOBAL_TABLE_SLOTS_READ = 16;
constexpr unsigned int VELK_STREAM_TABLE_SIZE_V67 = 320;
constexpr unsigned int VELK_STREAM_TABLE_SIZE_V5 = 256;
constexpr unsigned int VELK_STREAM_TABLE_SLOTS = 8;
constexpr unsigned int VELK_PRIVATE_SECTION_SIZE = 72;
constexpr unsigned int VELK_FORMAT_REVISION = 27;

// Section kinds, the numbers stored in the file's tables.
enum : unsigned int {
    KIND_LEGACY_SAMPLE_RECORD = 1,
    KIND_LEGACY_MODULE_RECORD = 2,
    KIND_LEGACY_PID_RECORD = 3,
    KIND_LEGACY_HEADER = 4,
    KIND_LEGACY_TID_RECORD = 7,
    KIND_LEGACY_RAW_PID_RECORD = 8,
    KIND_LEGACY_RAW_TID_RECORD = 9,
    KIND_LEGACY_HARDWARE_CONFIG = 12,
    KIND_LEGACY_SOFTWARE_CONFIG = 13,
    KIND_LEGACY_EVENTS = 14,
    KIND_LEGACY_SYMBOLS = 15,
    KIND_LEGACY_HEADER_EX = 16,
    KIND_LEGACY_USER_THREAD_NAMES = 18,
    KIND_LEGACY_SAMPLE_RECORD_HEADER = 19,
    KIND_LEGACY_SAMPLE_RECORD_LEAN_ARM = 20,
    KIND_LEGACY_RAW_MODULE_RECORD = 21,
    KIND_LEGACY_CALIBRATION_RESULTS = 22,
    KIND_LEGACY_PROCESSOR_INFO = 23,
    KIND_LEGACY_RUMA_SYS_INFO = 24,
    KIND_SYSTEM = 25,
    KIND_HOST = 26,
    KIND_OS = 27,
    KIND_APPLICATION = 28,
    KIND_PID = 29,
    KIND_TID = 30,
    KIND_MODULE = 31,
    KIND_USER_DEFINED_GLOBAL = 32,
    KIND_VERSION_INFO = 33,
    KIND_GLOBAL_OFFSET = 34,
    KIND_PRIVATE_USE = 35,
    KIND_EVENT = 36,
    KIND_DATA_DESCRIPTION = 37,
    KIND_DATA = 38,
    KIND_USER_DEFINED_STREAM = 39,
    KIND_STREAM_INFO = 40,
    KIND_STREAM_OFFSET = 41,
    KIND_GLOBAL_DESCRIPTOR = 46,
    KIND_LOGICALLY_DELETED = 65534,
};

// Access bits of a session, and of VELK_OSI_Open_File.
enum : unsigned int {
    VELK_ACCESS_READ = 0x1,
    VELK_ACCESS_WRITE = 0x2,
    VELK_ACCESS_CREATE = 0x10000000,
    VELK_STORE_OPEN_MODE = 0x10000003,  // stores: create or truncate, read and write
};

// One read-only mapped window of at most 32 MiB over a file, counted in
// entries of m_data_size bytes, or in bytes when m_data_size is 0. Moving
// inside the window costs no system call. All members are zero in a fresh
// tracker; the two static counters cover every live window of the process.
class VELK_CLASS_API __VELK_mmap_tracker {
public:
    unsigned char* m_data;            // first byte of the data (view + delta)
    unsigned long long m_first_entry; // entry number of the window's first entry
    unsigned long long m_last_entry;  // entry number of its last entry, inclusive
    void* m_view;                     // what mmap gave, page aligned
    unsigned long long m_mapped_bytes;
    unsigned long long m_align_delta; // file offset modulo the page size
    long long m_map_handle;
    unsigned char* m_current;         // where an enumeration stands
    unsigned int m_data_size;         // entry size; 0 counts bytes
    unsigned long long m_entries;     // entries from m_current to the window's end
    unsigned long long m_bytes;       // bytes from m_current to the window's end
    unsigned int m_bytes_based;

    static unsigned long long m_num_bytes_mapped;
    static unsigned int m_num_mmaps;

    void Set_Data_Size(unsigned int size);
    void Set_Bytes_Based();
    void Set_Entries(unsigned long long n);
    unsigned int Map_File(long long handle, unsigned long long first_entry,
                          unsigned long long file_offset);
    unsigned int Unmap_File();
    void Rebase(unsigned long long entry);
    bool End_Of_Map(unsigned long long total);
    bool In_Range(unsigned long long entry, unsigned long long extent);
    bool Is_Non_Conforming(__VELK_mmap_tracker* other);
    void notify_mmap();
    unsigned int notify_munmap();
};

// One temporary store: a private file that collects what waits for its final
// place in the sample file. `handle` is -1 while the store has no open file.
class FILE_INFO_NODE {
public:
    long long handle;
    char path[VELK_PATH_MAX];
    const char* name;

    explicit FILE_INFO_NODE(const char* store_name);

    // Opens (creating or emptying) prefix + "_" + name [+ index]; does
    // nothing when the store is already open. A failed open leaves handle -1
    // and still returns 0.
    unsigned int Open_Temp_File(const char* prefix, int index);
    // Appends at the end of the store; `origin` is not used.
    unsigned int Append_To_File(const void* buffer, unsigned long long size, unsigned int origin,
                                long long offset);
    unsigned long long Size();
    // Closes and deletes the store's file.
    unsigned int Close_Temp_File();
};

// A list head of the descriptor lists: two links, linked to itself when empty.
struct velk_list_head {
    velk_list_head* next;
    velk_list_head* prev;
};

// One descriptor in a list: the links first, so a head's link is the node.
struct velk_desc_node {
    velk_list_head link;
    __velk_samprec_desc_entry entry;
};

inline __velk_samprec_desc_entry* velk_desc_of(velk_list_head* link)
{
    return &reinterpret_cast<velk_desc_node*>(link)->entry;
}

// Appends a copy of all 72 bytes of `entry`; false when out of memory.
inline bool velk_desc_list_append(velk_list_head* head, const __velk_samprec_desc_entry* entry)
{
    velk_desc_node* node = static_cast<velk_desc_node*>(malloc(sizeof(velk_desc_node)));
    if (node == nullptr)
        return false;
    node->entry = *entry;
    node->link.prev = head->prev;
    node->link.next = head;
    head->prev->next = &node->link;
    head->prev = &node->link;
    return true;
}

inline unsigned int velk_desc_list_count(const velk_list_head* head)
{
    unsigned int count = 0;
    for (const velk_list_head* link = head->next; link != head; link = link->next)
        ++count;
    return count;
}

// Frees every node; the head stays, empty.
inline void velk_desc_list_clear(velk_list_head* head)
{
    for (velk_list_head* link = head->next; link != head;) {
        velk_list_head* next = link->next;
        free(reinterpret_cast<velk_desc_node*>(link));
        link = next;
    }
    head->next = head->prev = head;
}

// The legacy process record, 40 bytes. Its text lies behind the section's
// records; string_offset counts from the section's start.
struct PidRecord_s {
    uint16_t record_size;
    uint8_t record_flags;     // bit 0 carried, bit 3: event_time_64 is valid
    uint8_t reserved_3;
    uint32_t os_id;
    uint32_t record_index;
    uint32_t reserved_12;
    uint32_t event_base;
    uint32_t event_delta;
    uint64_t event_time_64;
    uint32_t string_offset;
    uint16_t string_length;   // the path text with its NUL
    uint16_t name_offset;     // where the name starts inside the path text
};
static_assert(sizeof(PidRecord_s) == 40, "legacy process record is 40 bytes");
static_assert(offsetof(PidRecord_s, record_flags) == 2, "record_flags at 2");
static_assert(offsetof(PidRecord_s, os_id) == 4, "os_id at 4");
static_assert(offsetof(PidRecord_s, record_index) == 8, "record_index at 8");
static_assert(offsetof(PidRecord_s, event_base) == 16, "event_base at 16");
static_assert(offsetof(PidRecord_s, event_delta) == 20, "event_delta at 20");
static_assert(offsetof(PidRecord_s, event_time_64) == 24, "event_time_64 at 24");
static_assert(offsetof(PidRecord_s, string_offset) == 32, "string_offset at 32");
static_assert(offsetof(PidRecord_s, string_length) == 36, "string_length at 36");
static_assert(offsetof(PidRecord_s, name_offset) == 38, "name_offset at 38");

// The legacy thread record, 40 bytes, without text.
struct velk_legacy_tid_record {
    uint16_t record_size;
    uint8_t record_flags;
    uint8_t reserved_3;
    uint32_t os_id;
    uint32_t record_index;
    uint32_t reserved_12;
    uint32_t event_base;
    uint32_t event_delta;
    uint64_t event_time_64;
    uint32_t process_word;
    uint32_t reserved_36;
};
static_assert(sizeof(velk_legacy_tid_record) == 40, "legacy thread record is 40 bytes");
static_assert(offsetof(velk_legacy_tid_record, event_time_64) == 24, "event_time_64 at 24");
static_assert(offsetof(velk_legacy_tid_record, process_word) == 32, "process_word at 32");

// The legacy module record, 64 bytes; path and third text lie behind the
// section's records.
struct velk_legacy_module_record {
    uint16_t record_size;
    uint8_t segment_byte;     // bits 1..0 segment type, bit 2: no load count
    uint8_t reserved_3;
    uint16_t code_segment;
    uint16_t extra_length;
    uint32_t module_ref;
    uint8_t flags_word[4];    // bytes 0 and 1 carry module flags
    uint64_t module_length;
    uint64_t module_load_address;
    uint32_t process_word;
    uint32_t event_low;
    uint32_t event_high;
    uint32_t string_offset;
    uint16_t string_length;
    uint16_t name_offset;
    uint32_t extra_offset;
    uint64_t sc_load_64;
} __attribute__((packed));
static_assert(sizeof(velk_legacy_module_record) == 64, "legacy module record is 64 bytes");
static_assert(offsetof(velk_legacy_module_record, code_segment) == 4, "code_segment at 4");
static_assert(offsetof(velk_legacy_module_record, extra_length) == 6, "extra_length at 6");
static_assert(offsetof(velk_legacy_module_record, module_ref) == 8, "module_ref at 8");
static_assert(offsetof(velk_legacy_module_record, flags_word) == 12, "flags_word at 12");
static_assert(offsetof(velk_legacy_module_record, module_length) == 16, "module_length at 16");
static_assert(offsetof(velk_legacy_module_record, module_load_address) == 24, "load at 24");
static_assert(offsetof(velk_legacy_module_record, process_word) == 32, "process_word at 32");
static_assert(offsetof(velk_legacy_module_record, event_low) == 36, "event_low at 36");
static_assert(offsetof(velk_legacy_module_record, event_high) == 40, "event_high at 40");
static_assert(offsetof(velk_legacy_module_record, string_offset) == 44, "string_offset at 44");
static_assert(offsetof(velk_legacy_module_record, string_length) == 48, "string_length at 48");
static_assert(offsetof(velk_legacy_module_record, name_offset) == 50, "name_offset at 50");
static_assert(offsetof(velk_legacy_module_record, extra_offset) == 52, "extra_offset at 52");
static_assert(offsetof(velk_legacy_module_record, sc_load_64) == 56, "sc_load_64 at 56");

// The legacy sample record header, kind 19, 112 bytes.
struct velk_legacy_samprec_header {
    uint32_t totalSampleCount;
    uint8_t flags;            // bit 0 sample part, bit 2 time stamp
    uint8_t reserved_5[3];
    uint32_t sample_offset;
    uint8_t reserved_12[8];
    uint32_t timestamp_offset;
    uint32_t reserved_24;
    uint32_t record_size;
    uint32_t timestamp_length;
    uint8_t reserved_36[12];
    uint32_t table_slots;
    uint8_t reserved_52[60];
} __attribute__((packed));
static_assert(sizeof(velk_legacy_samprec_header) == 112, "sample record header is 112 bytes");
static_assert(offsetof(velk_legacy_samprec_header, sample_offset) == 8, "sample_offset at 8");
static_assert(offsetof(velk_legacy_samprec_header, timestamp_offset) == 20, "timestamp at 20");
static_assert(offsetof(velk_legacy_samprec_header, record_size) == 28, "record_size at 28");
static_assert(offsetof(velk_legacy_samprec_header, timestamp_length) == 32, "ts length at 32");
static_assert(offsetof(velk_legacy_samprec_header, table_slots) == 48, "table_slots at 48");

// What goes into the legacy sample record header and header ex at close.
struct velk_legacy_header_fields {
    uint32_t header_word_0;
    uint32_t header_word_2;
    uint32_t header_word_3;
    uint32_t node_word_1;
    uint32_t stream_param_a;
    uint32_t stream_param_b;
    uint32_t stream_param_c;
    uint32_t stream_param_d;
    uint32_t stream_param_e;
    uint32_t stream_param_f;
    uint32_t totalSampleCount;
    uint32_t flags;
    uint32_t sample_offset;
    uint32_t timestamp_offset;
    uint32_t record_size;
    uint32_t timestamp_length;
    uint32_t table_slots;
    uint32_t legacy_sections_written;
};

// The stream information as a stream holds it and a current file stores it:
// the public record, then the values that have operations of their own.
struct velk_stream_info_record {
    __VELK_stream_info info;
    __string_or_id user_info;
    VELK_LBR_FILTER lbr_info;
    uint32_t lbr_filter;
    uint16_t uncore_first;
    uint16_t uncore_second;
    uint8_t reserved[44];
};
static_assert(sizeof(velk_stream_info_record) == 128, "stored stream info is 128 bytes");
static_assert(offsetof(velk_stream_info_record, user_info) == 64, "user_info at 64");
static_assert(offsetof(velk_stream_info_record, lbr_info) == 72, "lbr_info at 72");
static_assert(offsetof(velk_stream_info_record, lbr_filter) == 76, "lbr_filter at 76");
static_assert(offsetof(velk_stream_info_record, uncore_first) == 80, "uncore_first at 80");
static_assert(offsetof(velk_stream_info_record, uncore_second) == 82, "uncore_second at 82");

// One data stream in the session's list.
struct __VELK_stream_struct {
    __VELK_sample_file_section_vk6 event_section;             // kind 36
    __VELK_sample_file_section_vk6 data_description_section;  // kind 37
    __VELK_sample_file_section_vk6 data_section;              // kind 38
    __VELK_sample_file_section_vk6 user_defined_section;      // kind 39
    __VELK_sample_file_section_vk6 stream_info_section;       // kind 40
    unsigned int next_slot;
    __VELK_sample_file_section_vk6 next_stream_section;       // kind 41
    unsigned long long stream_table_offset;
    unsigned int stream_section_state[5];
    unsigned int stream_state;
    FILE_INFO_NODE* legacy_event_store;
    FILE_INFO_NODE* new_event_store;
    void* desc_buffer;
    unsigned int desc_dirty;
    unsigned int desc_buffer_count;  // entries in desc_buffer, which may trail the list
    velk_list_head* desc_list;
    FILE_INFO_NODE* user_defined_store;
    FILE_INFO_NODE* data_store;
    velk_stream_info_record stream_info;
    unsigned int stream_info_set;
    __VELK_mmap_tracker data_map;
    void* event_buffer;
    __VELK_stream_struct* next;
};

// All that is known of the file's global level.
struct velk_section_block {
    __VELK_host host;
    unsigned int host_set;
    __VELK_os os[VELK_MAX_OS_RECORDS];
    unsigned int os_count;
    unsigned int os_set;
    __VELK_application application;
    unsigned int application_set;
    __VELK_version_info version;
    unsigned int version_set;

    void* global_desc_buffer;
    unsigned int global_desc_dirty;
    unsigned int global_desc_buffer_count;  // entries in global_desc_buffer
    velk_list_head* global_desc_list;

    FILE_INFO_NODE* usr_defined_global_store;
    FILE_INFO_NODE* legacy_pid_record_store;
    FILE_INFO_NODE* legacy_pr_strings_store;
    FILE_INFO_NODE* new_pid_store;
    FILE_INFO_NODE* legacy_tid_store;
    FILE_INFO_NODE* new_tid_store;
    FILE_INFO_NODE* legacy_module_record_store;
    FILE_INFO_NODE* legacy_module_strings_store;
    FILE_INFO_NODE* new_module_store;

    // One descriptor per section kind; a zero length means absent.
    __VELK_sample_file_section_vk6 sfs_legacy_sample_record;         // 1
    __VELK_sample_file_section_vk6 sfs_legacy_module_record;         // 2
    __VELK_sample_file_section_vk6 sfs_legacy_pid_record;            // 3
    __VELK_sample_file_section_vk6 sfs_legacy_header;                // 4
    __VELK_sample_file_section_vk6 sfs_legacy_tid_record;            // 7
    __VELK_sample_file_section_vk6 sfs_legacy_raw_pid_record;        // 8
    __VELK_sample_file_section_vk6 sfs_legacy_raw_tid_record;        // 9
    __VELK_sample_file_section_vk6 sfs_legacy_hardware_config;       // 12
    __VELK_sample_file_section_vk6 sfs_legacy_software_config;       // 13
    __VELK_sample_file_section_vk6 sfs_legacy_symbols;               // 15
    __VELK_sample_file_section_vk6 sfs_legacy_header_ex;             // 16
    __VELK_sample_file_section_vk6 sfs_legacy_user_thread_names;     // 18
    __VELK_sample_file_section_vk6 sfs_legacy_sample_record_header;  // 19
    __VELK_sample_file_section_vk6 sfs_legacy_sample_record_lean_arm;// 20
    __VELK_sample_file_section_vk6 sfs_legacy_raw_module_record;     // 21
    __VELK_sample_file_section_vk6 sfs_legacy_calibration_results;   // 22
    __VELK_sample_file_section_vk6 sfs_legacy_processor_info;        // 23
    __VELK_sample_file_section_vk6 sfs_legacy_ruma_sys_info;         // 24
    __VELK_sample_file_section_vk6 sfs_logically_deleted;            // 65534
    __VELK_sample_file_section_vk6 sfs_legacy_events;                // 14
    __VELK_sample_file_section_vk6 sfs_user_defined_global;          // 32
    __VELK_sample_file_section_vk6 sfs_system;                       // 25
    __VELK_sample_file_section_vk6 sfs_host;                         // 26
    __VELK_sample_file_section_vk6 sfs_os;                           // 27
    __VELK_sample_file_section_vk6 sfs_application;                  // 28
    __VELK_sample_file_section_vk6 sfs_pid;                          // 29
    __VELK_sample_file_section_vk6 sfs_tid;                          // 30
    __VELK_sample_file_section_vk6 sfs_module;                       // 31
    __VELK_sample_file_section_vk6 sfs_version_info;                 // 33
    __VELK_sample_file_section_vk6 sfs_private_use;                  // 35
    __VELK_sample_file_section_vk6 sfs_global_descriptor;            // 46

    unsigned int legacy_next_slot;                // next slot of the section table
    __VELK_sample_file_section_vk6 sfs_global_offset;   // 34: where the global table lies
    unsigned int global_next_slot;                // next slot of the global table
    __VELK_sample_file_section_vk6 sfs_stream_offset;   // 41: the table of stream 0

    unsigned int section_state[8];  // one per VELK_SECTION_IDENTIFIER
    unsigned int section_users[8];

    unsigned int next_global_desc_id;  // index the next global descriptor gets
    unsigned int next_stream_desc_id;
    // The fixed answers for the records of a version 5 file.
    __velk_samprec_desc_entry builtin_module_desc;
    __velk_samprec_desc_entry builtin_pid_desc;
    __velk_samprec_desc_entry builtin_tid_desc;
};

class VELK_CLASS_API velk_class {
public:
    unsigned int instance;
    unsigned int vk_file_version;
    unsigned int module_record_size;
    __VELK_mmap_tracker pid_map;
    __VELK_mmap_tracker tid_map;
    __VELK_mmap_tracker module_map;
    __VELK_mmap_tracker final_strings_map;
    __VELK_mmap_tracker temp_strings_map;
    long long file_handle;
    unsigned long long final_file_size;
    char final_file_name[VELK_PATH_MAX];
    unsigned int access_mode;
    char temp_prefix[VELK_PATH_MAX];
    char* temp_path;
    unsigned int created_file;
    velk_legacy_header_fields legacy_header;
    FILE_INFO_NODE* strings_store;
    unsigned long long string_base;
    velk_section_block sections;
    velk_section_block* sections_ptr;
    __VELK_stream_struct* stream_list;
    int stream_count;
    unsigned int descriptor_entry_flag;

    velk_class();
    ~velk_class();
    velk_class(const velk_class&) = delete;
    velk_class& operator=(const velk_class&) = delete;

    unsigned int do_init();
    void do_destroy();

    // Opening.
    unsigned int VELK_initialize_me(const wchar_t* file_name, unsigned int mode);
    unsigned int helper_init_open_final_file_and_analyze_it(const wchar_t* file_name,
                                                            unsigned int mode);
    unsigned int helper_check_is_valid_file(bool* valid);
    unsigned int VELK_get_vk_file_version(unsigned int* version);
    unsigned int VELK_get_version(unsigned int* major, unsigned int* minor);
    unsigned int VELK_error_string(int status, const wchar_t** text);

    // Container writers.
    unsigned int helper_init_write_sampleFileBeginning_and_empty_sampleFileSections();
    unsigned int helper_init_create_global_offset_sfs();
    unsigned int utility_write_legacy_sfs_header(__VELK_sample_file_section_vk6* section);
    unsigned int utility_write_sfs_header(__VELK_sample_file_section_vk6* section,
                                          __VELK_stream_struct* stream);
    unsigned int utility_write_final_file(const void* buffer, unsigned long long size,
                                          unsigned int origin, long long offset);
    static void helper_copy_sfs(SampleFileSections_s* disk, __VELK_sample_file_section_vk6* sfs,
                                int direction);
    static void helper_copy_sfs_velk(__VELK_sample_file_section* disk,
                                     __VELK_sample_file_section_vk6* sfs, int direction);

    // Stores and strings.
    unsigned int utility_add_string_to_temp_file(const char* text, unsigned long long* id);
    unsigned int utility_add_string_to_temp_file(const wchar_t* text, unsigned long long* id);
    unsigned int utility_add_string_padding(long long handle, const char* text);
    unsigned int utility_append_file_b_to_file_a(long long b, long long a);
    unsigned int write_to_file_hidden_string_section(unsigned int* wrote);
    unsigned int helper_map_velk_strings(long long handle, __VELK_mmap_tracker* map,
                                         unsigned long long offset);
    unsigned int helper_unmap_strings();
    unsigned int VELK_convert_uniqueid_to_string(unsigned int buffer_size,
                                                 const __string_or_id* id, wchar_t* buffer,
                                                 unsigned int* size);

    // Analysing an existing file.
    unsigned int helper_init_fillin_SampleFileSection_info_from_file();
    unsigned int helper_init_fillin_global_samplefilesections();
    unsigned int helper_init_fillin_stream_samplefilesections();
    unsigned int helper_init_which_sections_present();
    unsigned int VELK_verify();
    // The session's descriptor of a kind of the section table, or of the
    // global table; null for a kind that is not valid at that level.
    __VELK_sample_file_section_vk6* helper_section_table_sfs(unsigned int kind);
    __VELK_sample_file_section_vk6* helper_global_table_sfs(unsigned int kind);

    // States.
    unsigned int helper_set_section_state(unsigned int id, unsigned int state);
    unsigned int helper_set_stream_section_state(unsigned int stream, unsigned int id,
                                                 unsigned int state);
    unsigned int VELK_reading_section(unsigned int id);
    unsigned int VELK_writing_section(unsigned int id);
    unsigned int VELK_done_section(unsigned int id);
    unsigned int VELK_reading_stream_section(unsigned int stream, unsigned int id);
    unsigned int VELK_writing_stream_section(unsigned int stream, unsigned int id);
    unsigned int VELK_done_stream_section(unsigned int stream, unsigned int id);
    unsigned int VELK_reading_stream(unsigned int stream);
    unsigned int VELK_writing_stream(unsigned int stream);
    unsigned int VELK_done_stream(unsigned int stream);
    unsigned int VELK_exists_global_section(unsigned int kind, unsigned int* exists);
    unsigned int VELK_exists_stream_section(unsigned int stream, unsigned int kind,
                                            unsigned int* exists);
    unsigned int VELK_check_all_sections_closed();

    // Stream list.
    unsigned int VELK_get_number_data_streams(unsigned int* count);
    unsigned int utility_point_to_stream_index(unsigned int index, __VELK_stream_struct** stream);
    unsigned int utility_add_a_new_stream(unsigned int write_to_file);

    // Host, OS, application and version.
    unsigned int VELK_set_host(__VELK_host* host);
    unsigned int VELK_get_host(unsigned int size, __VELK_host* host, unsigned int* size_out);
    unsigned int VELK_set_os(unsigned int count, __VELK_os* os);
    unsigned int VELK_get_os(unsigned int size, __VELK_os* os, unsigned int* size_out);
    unsigned int VELK_set_application(__VELK_application* application);
    unsigned int VELK_get_application(unsigned int size, __VELK_application* application,
                                      unsigned int* size_out);
    unsigned int VELK_set_version_info(__VELK_version_info* info);
    unsigned int VELK_get_version_info(unsigned int size, __VELK_version_info* info,
                                       unsigned int* size_out);
    unsigned int write_to_file_velk_host();
    unsigned int write_to_file_velk_os();
    unsigned int write_to_file_new_velk_application();
    unsigned int write_to_file_ruma_sysinfo_and_velk_application();
    unsigned int write_to_file_velk_version_info();
    unsigned int write_to_file_legacy_software_section();

    // Stream information.
    unsigned int VELK_set_stream_info(unsigned int stream, __VELK_stream_info* info);
    unsigned int VELK_get_stream_info(unsigned int stream, unsigned int size,
                                      __VELK_stream_info* info, unsigned int* size_out);
    unsigned int VELK_set_user_info(unsigned int stream, __VELK_user_info* info);
    unsigned int VELK_get_user_info(unsigned int stream, unsigned int size, __VELK_user_info* info,
                                    unsigned int* size_out);
    unsigned int VELK_set_lbr_info(unsigned int stream, VELK_LBR_FILTER info);
    unsigned int VELK_get_lbr_info(unsigned int stream, VELK_LBR_FILTER* info);
    unsigned int VELK_set_lbr_filter_info(unsigned int stream, unsigned int filter);
    unsigned int VELK_get_lbr_filter_info(unsigned int stream, unsigned int size, char* text);
    unsigned int VELK_set_uncore_info(unsigned int stream, unsigned short first,
                                      unsigned short second);
    unsigned int VELK_get_uncore_info(unsigned int stream, unsigned short* first,
                                      unsigned short* second);
    unsigned int write_to_file_velk_stream_info(unsigned int stream);

    // User-defined blocks.
    unsigned int VELK_set_user_defined_global(unsigned int size, void* data);
    unsigned int VELK_get_user_defined_global(unsigned int size, void* data,
                                              unsigned int* size_out);
    unsigned int VELK_set_user_defined_stream(unsigned int stream, unsigned int size, void* data);
    unsigned int VELK_get_user_defined_stream(unsigned int stream, unsigned int size, void* data,
                                              unsigned int* size_out);
    unsigned int write_to_file_user_defined_global();
    unsigned int write_to_file_user_defined_stream(unsigned int stream);

    // Processes, threads and modules in their new form.
    unsigned int VELK_add_process(__VELK_pid* record);
    unsigned int VELK_add_thread(__VELK_tid* record);
    unsigned int VELK_add_module(__VELK_module* record);
    unsigned int VELK_enumerate_processes(VELK_PROCESS_CALLBACK* callback, void* context,
                                          unsigned long long read_start);
    unsigned int VELK_enumerate_threads(VELK_THREAD_CALLBACK* callback, void* context,
                                        unsigned long long read_start);
    unsigned int VELK_enumerate_modules(VELK_MODULE_CALLBACK* callback, void* context,
                                        unsigned long long read_start);
    unsigned int VELK_get_module_record_size();
    unsigned int utility_get_one_pid(unsigned long long index, const __VELK_pid** pid);
    unsigned int helper_get_os_pid_from_pid_index(unsigned long long index, unsigned int* os_pid);
    unsigned int write_to_file_new_pid_section();
    unsigned int write_to_file_new_tid_section();
    unsigned int write_to_file_new_module_section();
    unsigned int helper_get_pid_info_from_file();
    unsigned int helper_get_tid_info_from_file();
    unsigned int helper_get_module_info_from_file();
    // Maps the window of a record section that holds `read_start`, making
    // the new form from the legacy one first when the file has only that.
    unsigned int helper_map_sfs(__VELK_mmap_tracker* map, __VELK_sample_file_section_vk6* sfs,
                                __VELK_sample_file_section_vk6* legacy_sfs, FILE_INFO_NODE* store,
                                unsigned int legacy_kind, unsigned long long read_start);
    unsigned int helper_map_velk_pids(unsigned long long read_start);
    unsigned int helper_map_velk_tids(unsigned long long read_start);
    unsigned int helper_map_velk_modules(unsigned long long read_start);

    // Processes, threads and modules in their legacy form.
    unsigned int write_to_legacy_temp_file_pid(__VELK_pid* record);
    unsigned int write_to_legacy_temp_file_tid(__VELK_tid* record);
    unsigned int write_to_legacy_temp_file_module(__VELK_module* record);
    unsigned int write_to_file_legacy_pid_section();
    unsigned int write_to_file_legacy_tid_section();
    unsigned int write_to_file_legacy_module_section();
    unsigned int helper_update_pid_string_offsets(PidRecord_s* records, long long* handle,
                                                  unsigned int count, char* path,
                                                  unsigned int* next_offset);
    unsigned int helper_update_module_string_offsets(char* records, long long* handle,
                                                     unsigned int count, char* path,
                                                     unsigned int* next_offset);
    unsigned int VELK_is_legacy_bound(unsigned int* bound);

    // Data descriptors.
    unsigned int VELK_add_data_descriptor_entry(unsigned int stream,
                                                __velk_samprec_desc_entry* entry);
    unsigned int VELK_add_stream_section_descriptor(unsigned int section, unsigned int stream,
                                                    __velk_samprec_desc_entry* entries,
                                                    unsigned int count);
    unsigned int VELK_add_global_section_descriptor(unsigned int section,
                                                    __velk_samprec_desc_entry* entries,
                                                    unsigned int count);
    unsigned int VELK_get_global_section_descriptor(unsigned int section,
                                                    __velk_samprec_desc_entry** entries,
                                                    int* count);
    unsigned int VELK_get_stream_section_descriptor(unsigned int section, unsigned int stream,
                                                    __velk_samprec_desc_entry** entries,
                                                    int* count);
    unsigned int VELK_enumerate_data_descriptor_entries(unsigned int stream,
                                                        VELK_DESCRIPTOR_CALLBACK* callback,
                                                        void* user);
    unsigned int VELK_enumerate_data_descriptors(unsigned int stream,
                                                 VELK_DESCRIPTOR_CALLBACK* callback, void* user);
    unsigned int VELK_get_data_desc_table(unsigned int stream, VELK_DESCRIPTOR_NODE_S** table,
                                          unsigned int* num_nodes);
    unsigned int helper_add_data_descriptor_entry(__velk_samprec_desc_entry* entry,
                                                  unsigned int* id);
    unsigned int helper_add_global_descriptor_entry(__velk_samprec_desc_entry* entry,
                                                    unsigned int* id);
    unsigned int helper_set_section_descriptor_id(unsigned int section, unsigned int id);
    unsigned int helper_get_section(unsigned int section,
                                    __VELK_sample_file_section_vk6** descriptor);
    unsigned int helper_get_section_descriptor_id(unsigned int section, int* id);
    unsigned int helper_get_data_descriptors_from_file(unsigned int stream);
    unsigned int helper_get_global_data_descriptors_from_file();
    unsigned int helper_generate_data_descriptors_from_legacy(unsigned int stream);
    unsigned int helper_check_if_data_desc_exists(unsigned int stream);
    unsigned int helper_copy_data_desc_into_buffer(unsigned int stream);
    unsigned int helper_copy_global_desc_into_buffer();
    unsigned int write_to_file_data_descriptors(unsigned int stream);
    unsigned int write_to_file_velk_global_descriptor();

    // The data stream.
    unsigned int VELK_add_data(unsigned int stream, unsigned int size, void* data);
    unsigned int VELK_add_data_from_file(unsigned int stream, wchar_t* path);
    unsigned int VELK_enumerate_data(unsigned int stream, VELK_DATA_CALLBACK* callback, void* user,
                                     unsigned long long read_start);
    unsigned int VELK_get_size_of_each_data_entry(unsigned int stream, unsigned int* size);
    unsigned int helper_open_temp_data_file(unsigned int stream);
    unsigned int helper_find_size_of_data_entry(unsigned int stream, unsigned long long* size);
    unsigned int helper_map_data(unsigned int stream, unsigned long long start);
    unsigned int write_to_file_data_stream(unsigned int stream, unsigned int legacy_mirror,
                                           unsigned long long entry_size);

    // Legacy sample record header and header ex.
    unsigned int helper_generate_sample_record_header_and_write_to_file();
    unsigned int helper_write_sample_file_header_ex();

    // Closing.
    unsigned int VELK_closedown();
    unsigned int VELK_abort_cleanup_and_close();
    unsigned int helper_close_assemble_final_file();
    unsigned int helper_check_global_sections_for_write(unsigned int* wrote);
    unsigned int helper_check_streams_for_write(unsigned int* wrote);
    // The legacy part of the stream walk, for stream 0 of a file this
    // session created: takes over the sample and time stamp fields, and
    // writes the legacy sample record header when the stream mirrors.
    unsigned int helper_check_legacy_mirror(__VELK_stream_struct* node,
                                            unsigned long long entry_size,
                                            unsigned int* legacy_mirror, unsigned int* wrote);
    unsigned int helper_close_do_final_cleanup();
    unsigned int helper_close_unmap_all();
    unsigned int helper_close_abort_streams(unsigned int stream, unsigned int previous);
    // Frees a stream node with its stores' objects and descriptor list.
    static void helper_free_stream_node(__VELK_stream_struct* node);

    // Debug report and private section.
    unsigned int utility_debug_human_readable();
    unsigned int helper_log_private_section();

    // Maps `length` bytes at `offset` of the sample file into a one-time
    // window counted in bytes, for a small section read whole.
    unsigned int helper_map_small_section(__VELK_mmap_tracker* map, unsigned long long offset,
                                          unsigned long long length);
    // Unmaps a one-time window on the way out; a failure that came first
    // wins over the unmap's.
    static unsigned int helper_unmap_keeping_first(__VELK_mmap_tracker* map, unsigned int status);

    bool may_read() const { return (access_mode & VELK_ACCESS_READ) != 0; }
    bool may_write() const { return (access_mode & VELK_ACCESS_WRITE) != 0; }
};

#endif  // VELK_CLASS_H
