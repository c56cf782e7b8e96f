// The session: one open sample file with everything known about it, the
// temporary stores it writes through, and the mapped windows it reads through.
#ifndef VELK_CLASS_H
#define VELK_CLASS_H

#include <stdint.h>

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

    // Legacy header ex.
    unsigned int helper_write_sample_file_header_ex();

    // Closing.
    unsigned int VELK_closedown();
    unsigned int VELK_abort_cleanup_and_close();
    unsigned int helper_close_assemble_final_file();
    unsigned int helper_check_global_sections_for_write(unsigned int* wrote);
    unsigned int helper_check_streams_for_write(unsigned int* wrote);
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
