/*
 * velk: reading and writing sample files.
 *
 * The whole interface is this flat set of functions. One open sample file is
 * one opaque handle; every function returns an unsigned status, 0 for
 * success, unless its comment says otherwise. Text crosses the interface as
 * wchar_t (4 bytes) and lies in the file as NUL-terminated UTF-8.
 *
 * This header compiles as C and as C++.
 */
#ifndef VELK_H
#define VELK_H

#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

#if defined(__GNUC__)
#define VELK_API __attribute__((visibility("default")))
#else
#define VELK_API
#endif

#ifdef __cplusplus
#define VELK_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
extern "C" {
#else
#define VELK_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* ------------------------------------------------------------------------
 * Statuses. The numbers are fixed: callers and the status texts know them.
 * ------------------------------------------------------------------------ */
#define VELK_SUCCESS                   0u
#define VELK_E_NULL_POINTER            22u
#define VELK_E_BAD_FILE                24u
#define VELK_E_UNKNOWN_SECTION         25u
#define VELK_E_NO_MEMORY               26u
#define VELK_E_ENV_NOT_SET             27u
#define VELK_E_BUFFER_OVERFLOW         29u
#define VELK_E_MAP_FAILED              34u
#define VELK_E_BAD_POINTER             36u
#define VELK_E_BAD_READ_START          39u
#define VELK_E_OPEN_FAILED             44u
#define VELK_E_BAD_ARGUMENT            63u
#define VELK_E_ARCH_MISMATCH           72u
#define VELK_E_UNSUPPORTED             73u
#define VELK_E_SECTION_BUSY            77u
#define VELK_E_SECTION_MISSING         78u
#define VELK_E_BAD_STREAM              79u
#define VELK_E_STREAM_STATE            80u
#define VELK_E_ALREADY_IN_USE          81u
#define VELK_E_NO_DESCRIPTORS          82u
#define VELK_E_VERSION_MISMATCH        84u
#define VELK_E_NO_PID_SECTION          85u
#define VELK_E_READ_START_TOO_LARGE    86u
#define VELK_E_BAD_STRING_ID           97u
#define VELK_E_DESC_SIZE_MISMATCH      98u
#define VELK_E_BUFFER_TOO_SMALL        103u
#define VELK_E_NO_PERMISSION           111u
#define VELK_E_NOT_BOUND               113u
#define VELK_E_NOT_READING             124u
#define VELK_E_NOT_WRITING             125u
#define VELK_E_SECTION_OPEN            126u
#define VELK_E_STREAM_SECTION_OPEN     127u
#define VELK_E_STREAM_NOT_BOUND        129u
#define VELK_E_TOO_FEW_CPUIDS          143u
#define VELK_E_UNSUPPORTED_ARCH        144u
#define VELK_E_NOTHING_TO_WRITE        145u
#define VELK_E_TOO_MANY_EVENTS         168u
#define VELK_E_WRITE_FAILED            194u
#define VELK_E_DISK_FULL               195u

/* ------------------------------------------------------------------------
 * Open modes of VELK_open.
 * ------------------------------------------------------------------------ */
#define VELK_OPEN_READ    0x1u
#define VELK_OPEN_WRITE   0x2u
#define VELK_OPEN_CREATE  0x4u
/* The session's own form of the create bit; passing it has the same effect. */
#define VELK_OPEN_CREATE_INTERNAL 0x10000000u

/* Public numbers of the global sections (not the kinds in the file). */
typedef enum VELK_SECTION_IDENTIFIER {
    VELK_SECTION_SYSTEM = 0,
    VELK_SECTION_CONFIGURATION = 1,
    VELK_SECTION_PROCESS = 2,
    VELK_SECTION_MODULE = 3,
    VELK_SECTION_USER_DEFINED = 4,
    VELK_SECTION_VERSION_INFO = 5,
    VELK_SECTION_THREAD = 6,
    VELK_SECTION_DESCRIPTOR = 7
} VELK_SECTION_IDENTIFIER;

/* Public numbers of the sections of a stream. */
typedef enum VELK_STREAM_SECTION_IDENTIFIER {
    VELK_STREAM_SECTION_EVENT = 0,
    VELK_STREAM_SECTION_DATA_DESCRIPTION = 1,
    VELK_STREAM_SECTION_DATA = 2,
    VELK_STREAM_SECTION_USER_DEFINED = 3,
    VELK_STREAM_SECTION_STREAM_INFO = 4
} VELK_STREAM_SECTION_IDENTIFIER;

/* State of a section or stream. */
typedef enum VELK_STATE {
    VELK_STATE_ABSENT = 0,
    VELK_STATE_EXISTS = 1,
    VELK_STATE_READING = 2,
    VELK_STATE_WRITING = 3
} VELK_STATE;

/* ------------------------------------------------------------------------
 * On-disk section descriptors.
 * ------------------------------------------------------------------------ */

/* The 40-byte descriptor: the form in memory for every file version, and on
 * disk in every table of versions 6 and 7. */
typedef struct __VELK_sample_file_section_vk6 {
    uint64_t length;          /* bytes, without marker and padding; 0: empty slot */
    uint64_t file_offset;
    uint64_t number_entries;
    uint32_t entry_length;
    uint32_t section_id;      /* the section kind */
    uint32_t stream_number;
    int32_t  descriptor_id;   /* -1 where there is none */
} __VELK_sample_file_section_vk6;

VELK_STATIC_ASSERT(sizeof(__VELK_sample_file_section_vk6) == 40, "vk6 descriptor is 40 bytes");
VELK_STATIC_ASSERT(offsetof(__VELK_sample_file_section_vk6, file_offset) == 8, "file_offset at 8");
VELK_STATIC_ASSERT(offsetof(__VELK_sample_file_section_vk6, number_entries) == 16, "number_entries at 16");
VELK_STATIC_ASSERT(offsetof(__VELK_sample_file_section_vk6, entry_length) == 24, "entry_length at 24");
VELK_STATIC_ASSERT(offsetof(__VELK_sample_file_section_vk6, section_id) == 28, "section_id at 28");
VELK_STATIC_ASSERT(offsetof(__VELK_sample_file_section_vk6, stream_number) == 32, "stream_number at 32");
VELK_STATIC_ASSERT(offsetof(__VELK_sample_file_section_vk6, descriptor_id) == 36, "descriptor_id at 36");

/* The 32-byte slot of the global and stream tables of a version 5 file. */
typedef struct __VELK_sample_file_section {
    uint64_t length;
    uint64_t file_offset;
    uint32_t number_entries;
    uint32_t entry_length;
    uint32_t section_id;
    uint32_t stream_number;
} __VELK_sample_file_section;

VELK_STATIC_ASSERT(sizeof(__VELK_sample_file_section) == 32, "v5 table slot is 32 bytes");
VELK_STATIC_ASSERT(offsetof(__VELK_sample_file_section, file_offset) == 8, "file_offset at 8");
VELK_STATIC_ASSERT(offsetof(__VELK_sample_file_section, number_entries) == 16, "number_entries at 16");
VELK_STATIC_ASSERT(offsetof(__VELK_sample_file_section, entry_length) == 20, "entry_length at 20");
VELK_STATIC_ASSERT(offsetof(__VELK_sample_file_section, section_id) == 24, "section_id at 24");
VELK_STATIC_ASSERT(offsetof(__VELK_sample_file_section, stream_number) == 28, "stream_number at 28");

/* The 20-byte entry of the section table of a version 5 file. */
typedef struct SampleFileSections_s {
    uint32_t length;
    uint32_t file_offset;
    uint32_t number_entries;
    uint16_t entry_length;
    uint16_t section_id;
    uint32_t stream_number;
} SampleFileSections_s;

VELK_STATIC_ASSERT(sizeof(SampleFileSections_s) == 20, "v5 section table entry is 20 bytes");
VELK_STATIC_ASSERT(offsetof(SampleFileSections_s, file_offset) == 4, "file_offset at 4");
VELK_STATIC_ASSERT(offsetof(SampleFileSections_s, number_entries) == 8, "number_entries at 8");
VELK_STATIC_ASSERT(offsetof(SampleFileSections_s, entry_length) == 12, "entry_length at 12");
VELK_STATIC_ASSERT(offsetof(SampleFileSections_s, section_id) == 14, "section_id at 14");
VELK_STATIC_ASSERT(offsetof(SampleFileSections_s, stream_number) == 16, "stream_number at 16");

/* A text on the way in, a string id in the file and on the way out: bit 63
 * set, the low 63 bits the position of the UTF-8 text. 0 means no string. */
typedef union __string_or_id {
    wchar_t* text;
    unsigned long long id;
} __string_or_id;

VELK_STATIC_ASSERT(sizeof(__string_or_id) == 8, "a string or id is 8 bytes");

/* ------------------------------------------------------------------------
 * File-wide records. Texts are __string_or_id: wide text on the way in, ids
 * in the file and on the way out.
 * ------------------------------------------------------------------------ */
typedef struct __VELK_host {
    uint32_t host_size;
    uint32_t host_flags;
    __string_or_id host_text_1;
    __string_or_id host_text_2;
} __VELK_host;

VELK_STATIC_ASSERT(sizeof(__VELK_host) == 24, "host record is 24 bytes");
VELK_STATIC_ASSERT(offsetof(__VELK_host, host_flags) == 4, "host_flags at 4");
VELK_STATIC_ASSERT(offsetof(__VELK_host, host_text_1) == 8, "host_text_1 at 8");
VELK_STATIC_ASSERT(offsetof(__VELK_host, host_text_2) == 16, "host_text_2 at 16");

#define VELK_MAX_OS_RECORDS 6

typedef struct __VELK_os {
    uint32_t os_size;
    uint32_t os_type;
    uint32_t os_word_1;
    uint32_t os_word_2;
    uint32_t os_word_3;
    uint32_t os_word_4;
    __string_or_id os_text_1;
    __string_or_id os_text_2;
} __VELK_os;

VELK_STATIC_ASSERT(sizeof(__VELK_os) == 40, "OS record is 40 bytes");
VELK_STATIC_ASSERT(offsetof(__VELK_os, os_type) == 4, "os_type at 4");
VELK_STATIC_ASSERT(offsetof(__VELK_os, os_word_1) == 8, "os_word_1 at 8");
VELK_STATIC_ASSERT(offsetof(__VELK_os, os_word_4) == 20, "os_word_4 at 20");
VELK_STATIC_ASSERT(offsetof(__VELK_os, os_text_1) == 24, "os_text_1 at 24");
VELK_STATIC_ASSERT(offsetof(__VELK_os, os_text_2) == 32, "os_text_2 at 32");

typedef struct __VELK_application {
    uint32_t application_size;
    uint32_t reserved;
    uint32_t application_word_1;
    uint32_t application_word_2;
    uint64_t application_value_1;
    uint64_t application_value_2;
} __VELK_application;

VELK_STATIC_ASSERT(sizeof(__VELK_application) == 32, "application record is 32 bytes");
VELK_STATIC_ASSERT(offsetof(__VELK_application, application_word_1) == 8, "word_1 at 8");
VELK_STATIC_ASSERT(offsetof(__VELK_application, application_word_2) == 12, "word_2 at 12");
VELK_STATIC_ASSERT(offsetof(__VELK_application, application_value_1) == 16, "value_1 at 16");
VELK_STATIC_ASSERT(offsetof(__VELK_application, application_value_2) == 24, "value_2 at 24");

typedef struct __VELK_version_info {
    uint32_t version_size;
    uint16_t version_major;
    uint16_t version_minor;
    uint32_t reserved;         /* its low 16 bits: the patch level (2.0.8) */
    uint32_t version_revision;
} __VELK_version_info;

VELK_STATIC_ASSERT(sizeof(__VELK_version_info) == 16, "version record is 16 bytes");
VELK_STATIC_ASSERT(offsetof(__VELK_version_info, version_major) == 4, "version_major at 4");
VELK_STATIC_ASSERT(offsetof(__VELK_version_info, version_minor) == 6, "version_minor at 6");
VELK_STATIC_ASSERT(offsetof(__VELK_version_info, reserved) == 8, "reserved at 8");
VELK_STATIC_ASSERT(offsetof(__VELK_version_info, version_revision) == 12, "revision at 12");

/* ------------------------------------------------------------------------
 * Stream information.
 * ------------------------------------------------------------------------ */
typedef uint32_t VELK_STREAM_TYPE;
#define VELK_STREAM_TYPE_SAMPLE       1u
#define VELK_STREAM_TYPE_DATA_BIND    4u
#define VELK_STREAM_TYPE_MODULE_BIND  5u
#define VELK_STREAM_TYPE_THREAD_BIND  7u

/* What a stream is. The public record is 64 bytes. */
typedef struct __VELK_stream_info {
    uint32_t stream_info_size;
    uint32_t stream_param_a;
    VELK_STREAM_TYPE stream_type;   /* must be set before the stream is done */
    uint32_t stream_param_b;
    uint32_t stream_param_c;
    uint32_t stream_param_d;
    uint32_t stream_param_e;
    uint32_t stream_param_f;
    __string_or_id command_line;
    __string_or_id cpu;
    __string_or_id comment;         /* must be set before the stream is done */
    uint64_t stream_value;
} __VELK_stream_info;

VELK_STATIC_ASSERT(sizeof(__VELK_stream_info) == 64, "public stream info is 64 bytes");
VELK_STATIC_ASSERT(offsetof(__VELK_stream_info, stream_param_a) == 4, "param_a at 4");
VELK_STATIC_ASSERT(offsetof(__VELK_stream_info, stream_type) == 8, "stream_type at 8");
VELK_STATIC_ASSERT(offsetof(__VELK_stream_info, stream_param_b) == 12, "param_b at 12");
VELK_STATIC_ASSERT(offsetof(__VELK_stream_info, stream_param_f) == 28, "param_f at 28");
VELK_STATIC_ASSERT(offsetof(__VELK_stream_info, command_line) == 32, "command_line at 32");
VELK_STATIC_ASSERT(offsetof(__VELK_stream_info, cpu) == 40, "cpu at 40");
VELK_STATIC_ASSERT(offsetof(__VELK_stream_info, comment) == 48, "comment at 48");
VELK_STATIC_ASSERT(offsetof(__VELK_stream_info, stream_value) == 56, "stream_value at 56");

typedef struct __VELK_user_info {
    __string_or_id user_info;
} __VELK_user_info;

VELK_STATIC_ASSERT(sizeof(__VELK_user_info) == 8, "user info is 8 bytes");

/* ------------------------------------------------------------------------
 * Processes, threads and modules. Written to the file as they stand here.
 * ------------------------------------------------------------------------ */
typedef struct __VELK_pid {
    uint32_t pid_size;             /* 48 */
    uint32_t pid_id;               /* operating-system process id */
    uint32_t pid_flags;            /* bit 0 legacy flag, 0x10 64-bit time, 0x1000 of interest */
    uint32_t osid;
    uint64_t pid_event_when;
    uint32_t reserved_for_legacy;  /* the record's index, filled by the library */
    uint32_t parent_pid_index;
    __string_or_id pid_path;
    __string_or_id pid_name;
} __VELK_pid;

VELK_STATIC_ASSERT(sizeof(__VELK_pid) == 48, "process record is 48 bytes");
VELK_STATIC_ASSERT(offsetof(__VELK_pid, pid_id) == 4, "pid_id at 4");
VELK_STATIC_ASSERT(offsetof(__VELK_pid, pid_flags) == 8, "pid_flags at 8");
VELK_STATIC_ASSERT(offsetof(__VELK_pid, osid) == 12, "osid at 12");
VELK_STATIC_ASSERT(offsetof(__VELK_pid, pid_event_when) == 16, "pid_event_when at 16");
VELK_STATIC_ASSERT(offsetof(__VELK_pid, reserved_for_legacy) == 24, "reserved_for_legacy at 24");
VELK_STATIC_ASSERT(offsetof(__VELK_pid, parent_pid_index) == 28, "parent_pid_index at 28");
VELK_STATIC_ASSERT(offsetof(__VELK_pid, pid_path) == 32, "pid_path at 32");
VELK_STATIC_ASSERT(offsetof(__VELK_pid, pid_name) == 40, "pid_name at 40");

typedef struct __VELK_tid {
    uint32_t tid_size;             /* 40 */
    uint32_t tid_pid;
    uint32_t tid_id;
    uint32_t tid_flags;            /* bit 0 legacy flag, 0x10 64-bit time */
    uint64_t tid_event_when;
    uint32_t reserved_for_legacy;  /* the record's index, filled by the library */
    uint32_t tid_osid;
    __string_or_id tid_name;
} __VELK_tid;

VELK_STATIC_ASSERT(sizeof(__VELK_tid) == 40, "thread record is 40 bytes");
VELK_STATIC_ASSERT(offsetof(__VELK_tid, tid_pid) == 4, "tid_pid at 4");
VELK_STATIC_ASSERT(offsetof(__VELK_tid, tid_id) == 8, "tid_id at 8");
VELK_STATIC_ASSERT(offsetof(__VELK_tid, tid_flags) == 12, "tid_flags at 12");
VELK_STATIC_ASSERT(offsetof(__VELK_tid, tid_event_when) == 16, "tid_event_when at 16");
VELK_STATIC_ASSERT(offsetof(__VELK_tid, reserved_for_legacy) == 24, "reserved_for_legacy at 24");
VELK_STATIC_ASSERT(offsetof(__VELK_tid, tid_osid) == 28, "tid_osid at 28");
VELK_STATIC_ASSERT(offsetof(__VELK_tid, tid_name) == 32, "tid_name at 32");

/* module_flags bits with a meaning of their own; the others are carried. */
#define VELK_MODULE_OF_INTEREST      0x200u
#define VELK_MODULE_NO_LOAD_COUNT    0x4000u
#define VELK_MODULE_HAS_LOAD_COUNT   0x8000u
#define VELK_MODULE_64BIT_COUNTS     0x10000u

/* A module record is at least 144 bytes; the file's module descriptors say
 * how long it is (VELK_get_module_record_size). */
typedef struct __VELK_module {
    uint32_t module_size;
    uint32_t osid;
    uint32_t pid;                  /* operating-system id of the owning process */
    uint32_t module_flags;
    uint64_t sc_load;
    uint32_t module_ref;
    uint32_t segment_type;         /* bits 1..0 == 3: a 64-bit module */
    uint32_t code_segment;
    uint32_t reserved_36;
    uint64_t module_length;
    uint64_t module_load_address;
    uint32_t sc_unload_32;         /* 0xFFFFFFFF: never unloaded */
    uint32_t pid_index;            /* 0xFFFFFFFF when unknown */
    uint32_t legacy_flags;
    uint32_t parent_pid;
    uint64_t sc_unload;            /* with VELK_MODULE_64BIT_COUNTS */
    __string_or_id module_path;
    __string_or_id module_name;
    __string_or_id module_extra;   /* an optional third text */
    uint8_t reserved_104[40];
} __VELK_module;

VELK_STATIC_ASSERT(sizeof(__VELK_module) == 144, "module record is 144 bytes");
VELK_STATIC_ASSERT(offsetof(__VELK_module, osid) == 4, "osid at 4");
VELK_STATIC_ASSERT(offsetof(__VELK_module, pid) == 8, "pid at 8");
VELK_STATIC_ASSERT(offsetof(__VELK_module, module_flags) == 12, "module_flags at 12");
VELK_STATIC_ASSERT(offsetof(__VELK_module, sc_load) == 16, "sc_load at 16");
VELK_STATIC_ASSERT(offsetof(__VELK_module, module_ref) == 24, "module_ref at 24");
VELK_STATIC_ASSERT(offsetof(__VELK_module, segment_type) == 28, "segment_type at 28");
VELK_STATIC_ASSERT(offsetof(__VELK_module, code_segment) == 32, "code_segment at 32");
VELK_STATIC_ASSERT(offsetof(__VELK_module, reserved_36) == 36, "reserved_36 at 36");
VELK_STATIC_ASSERT(offsetof(__VELK_module, module_length) == 40, "module_length at 40");
VELK_STATIC_ASSERT(offsetof(__VELK_module, module_load_address) == 48, "load address at 48");
VELK_STATIC_ASSERT(offsetof(__VELK_module, sc_unload_32) == 56, "sc_unload_32 at 56");
VELK_STATIC_ASSERT(offsetof(__VELK_module, pid_index) == 60, "pid_index at 60");
VELK_STATIC_ASSERT(offsetof(__VELK_module, legacy_flags) == 64, "legacy_flags at 64");
VELK_STATIC_ASSERT(offsetof(__VELK_module, parent_pid) == 68, "parent_pid at 68");
VELK_STATIC_ASSERT(offsetof(__VELK_module, sc_unload) == 72, "sc_unload at 72");
VELK_STATIC_ASSERT(offsetof(__VELK_module, module_path) == 80, "module_path at 80");
VELK_STATIC_ASSERT(offsetof(__VELK_module, module_name) == 88, "module_name at 88");
VELK_STATIC_ASSERT(offsetof(__VELK_module, module_extra) == 96, "module_extra at 96");
VELK_STATIC_ASSERT(offsetof(__VELK_module, reserved_104) == 104, "reserved at 104");

/* Enumeration call-backs get the rest of a window: the first record, its
 * bytes and records to the window's end, and the caller's context. They
 * answer 0 to stop, 1 for more, anything else to fail with that value. They
 * are passed as a pointer to a function pointer. */
typedef unsigned (*VELK_PROCESS_CALLBACK)(__VELK_pid* records, unsigned bytes, unsigned entries,
                                          void* context);
typedef unsigned (*VELK_THREAD_CALLBACK)(__VELK_tid* records, unsigned bytes, unsigned entries,
                                         void* context);
typedef unsigned (*VELK_MODULE_CALLBACK)(__VELK_module* records, unsigned bytes, unsigned entries,
                                         void* context);

/* The one result slot of the single-process lookup. */
extern VELK_API __VELK_pid g_pid;

/* ------------------------------------------------------------------------
 * Data descriptors: the layout of a stream's data entries, and of the
 * records of the global sections.
 * ------------------------------------------------------------------------ */
#define ST_LEGACY_SAMPLE_RECORD  1u
#define ST_PID_RECORD            3u
#define ST_TID_RECORD            4u
#define ST_TIMESTAMP             7u
#define ST_LEGACY_UNKNOWN        23u
#define ST_GROUP_HEAD            31u
#define ST_MODULE_RECORD         33u
#define ST_BIND_PROCESS_INDEX    0x2002u
#define ST_BIND_THREAD_INDEX     0x2004u
#define ST_BIND_MODULE_INDEX     0x2008u
#define ST_BIND_OS_INDEX         0x2027u

#define VELK_DESCRIPTOR_ENTRY_SIZE 72u

typedef struct __velk_samprec_desc_entry {
    uint32_t entry_size;           /* always 72 */
    uint32_t field_offset;
    uint16_t field_type;
    uint16_t field_qualifier;
    uint32_t field_length;
    uint64_t opaque_value;
    uint8_t opaque_bytes[4];
    uint32_t opaque_word;
    __string_or_id name;           /* 0 for none */
    uint8_t reserved[32];          /* zero in the file and for readers */
} __velk_samprec_desc_entry;

VELK_STATIC_ASSERT(sizeof(__velk_samprec_desc_entry) == 72, "descriptor entry is 72 bytes");
VELK_STATIC_ASSERT(offsetof(__velk_samprec_desc_entry, field_offset) == 4, "field_offset at 4");
VELK_STATIC_ASSERT(offsetof(__velk_samprec_desc_entry, field_type) == 8, "field_type at 8");
VELK_STATIC_ASSERT(offsetof(__velk_samprec_desc_entry, field_qualifier) == 10, "qualifier at 10");
VELK_STATIC_ASSERT(offsetof(__velk_samprec_desc_entry, field_length) == 12, "field_length at 12");
VELK_STATIC_ASSERT(offsetof(__velk_samprec_desc_entry, opaque_value) == 16, "opaque_value at 16");
VELK_STATIC_ASSERT(offsetof(__velk_samprec_desc_entry, opaque_bytes) == 24, "opaque_bytes at 24");
VELK_STATIC_ASSERT(offsetof(__velk_samprec_desc_entry, opaque_word) == 28, "opaque_word at 28");
VELK_STATIC_ASSERT(offsetof(__velk_samprec_desc_entry, name) == 32, "name at 32");
VELK_STATIC_ASSERT(offsetof(__velk_samprec_desc_entry, reserved) == 40, "reserved at 40");

/* One descriptor group: pointers to its entries, their count and the sum of
 * their field lengths. */
typedef struct VELK_DESCRIPTOR_NODE_S {
    __velk_samprec_desc_entry** entries;
    uint32_t num_entries;
    uint32_t group_length;
} VELK_DESCRIPTOR_NODE_S;

VELK_STATIC_ASSERT(sizeof(VELK_DESCRIPTOR_NODE_S) == 16, "descriptor node is 16 bytes");

typedef unsigned (*VELK_DESCRIPTOR_CALLBACK)(__velk_samprec_desc_entry* entries, unsigned bytes,
                                             unsigned count, void* user);

/* Data call-backs may store in *unconsumed how many units (bytes or entries)
 * at the window's end they did not use; the next window starts there. */
typedef unsigned (*VELK_DATA_CALLBACK)(void* data, unsigned long long bytes, unsigned entries,
                                       void* user, unsigned long long* unconsumed);

/* A last-branch-record filter setting, stored as given. */
typedef uint32_t VELK_LBR_FILTER;

/* The LBR filter bits and their names, index by index. */
#define VELK_LBR_FILTER_COUNT 9
extern VELK_API const char* const VELK_lbr_filter_names[VELK_LBR_FILTER_COUNT];
extern VELK_API const uint32_t VELK_lbr_filter_values[VELK_LBR_FILTER_COUNT];

/* ------------------------------------------------------------------------
 * Handles, file and session.
 * ------------------------------------------------------------------------ */
typedef struct velk_handle velk_handle;

VELK_API unsigned VELK_open(velk_handle** handle_out, const wchar_t* file_name, unsigned mode);
VELK_API unsigned VELK_close(velk_handle* handle);
VELK_API unsigned VELK_abort_cleanup_and_close(velk_handle* handle);
VELK_API unsigned VELK_get_version(unsigned* major, unsigned* minor);
VELK_API unsigned VELK_error_string(int status, const wchar_t** text);
VELK_API unsigned VELK_get_platform_type(velk_handle* handle, unsigned* type);
VELK_API unsigned VELK_set_platform_type(velk_handle* handle, unsigned type);
VELK_API unsigned VELK_get_vk_file_version(velk_handle* handle, unsigned* version);

/* File and section state. Readers and writers declare what they are about
 * to do to a section, and declare it done. */
VELK_API unsigned VELK_verify(velk_handle* handle);
VELK_API unsigned VELK_get_number_data_streams(velk_handle* handle, unsigned* count);
VELK_API unsigned VELK_reading_section(velk_handle* handle, VELK_SECTION_IDENTIFIER id);
VELK_API unsigned VELK_writing_section(velk_handle* handle, VELK_SECTION_IDENTIFIER id);
VELK_API unsigned VELK_done_section(velk_handle* handle, VELK_SECTION_IDENTIFIER id);
VELK_API unsigned VELK_reading_stream(velk_handle* handle, unsigned stream);
VELK_API unsigned VELK_writing_stream(velk_handle* handle, unsigned stream);
VELK_API unsigned VELK_done_stream(velk_handle* handle, unsigned stream);
VELK_API unsigned VELK_reading_stream_section(velk_handle* handle, unsigned stream,
                                              VELK_STREAM_SECTION_IDENTIFIER id);
VELK_API unsigned VELK_writing_stream_section(velk_handle* handle, unsigned stream,
                                              VELK_STREAM_SECTION_IDENTIFIER id);
VELK_API unsigned VELK_done_stream_section(velk_handle* handle, unsigned stream,
                                           VELK_STREAM_SECTION_IDENTIFIER id);
/* These two take a section kind of the file, not an identifier. */
VELK_API unsigned VELK_exists_global_section(velk_handle* handle, unsigned kind, unsigned* exists);
VELK_API unsigned VELK_exists_stream_section(velk_handle* handle, unsigned stream, unsigned kind,
                                             unsigned* exists);

/* File-wide records. Getters take the two-call form: size 0 and a null
 * record ask for the size. */
VELK_API unsigned VELK_get_host(velk_handle* handle, unsigned size, __VELK_host* host,
                                unsigned* size_out);
VELK_API unsigned VELK_set_host(velk_handle* handle, __VELK_host* host);
VELK_API unsigned VELK_get_os(velk_handle* handle, unsigned size, __VELK_os* os,
                              unsigned* size_out);
VELK_API unsigned VELK_set_os(velk_handle* handle, unsigned count, __VELK_os* os);
VELK_API unsigned VELK_get_application(velk_handle* handle, unsigned size,
                                       __VELK_application* application, unsigned* size_out);
VELK_API unsigned VELK_set_application(velk_handle* handle, __VELK_application* application);
VELK_API unsigned VELK_get_version_info(velk_handle* handle, unsigned size,
                                        __VELK_version_info* info, unsigned* size_out);
VELK_API unsigned VELK_set_version_info(velk_handle* handle, __VELK_version_info* info);

/* Opaque blocks of the caller's own, one for the file and one per stream.
 * Several sets append to the block. */
VELK_API unsigned VELK_get_user_defined_global(velk_handle* handle, unsigned size, void* data,
                                               unsigned* size_out);
VELK_API unsigned VELK_set_user_defined_global(velk_handle* handle, unsigned size, void* data);
VELK_API unsigned VELK_get_user_defined_stream(velk_handle* handle, unsigned stream, unsigned size,
                                               void* data, unsigned* size_out);
VELK_API unsigned VELK_set_user_defined_stream(velk_handle* handle, unsigned stream, unsigned size,
                                               void* data);

/* Stream information. */
VELK_API unsigned VELK_set_stream_info(velk_handle* handle, unsigned stream,
                                       __VELK_stream_info* info);
VELK_API unsigned VELK_get_stream_info(velk_handle* handle, unsigned stream, unsigned size,
                                       __VELK_stream_info* info, unsigned* size_out);
VELK_API unsigned VELK_set_user_info(velk_handle* handle, unsigned stream, __VELK_user_info* info);
VELK_API unsigned VELK_get_user_info(velk_handle* handle, unsigned stream, unsigned size,
                                     __VELK_user_info* info, unsigned* size_out);
VELK_API unsigned VELK_set_lbr_info(velk_handle* handle, unsigned stream, VELK_LBR_FILTER info);
VELK_API unsigned VELK_get_lbr_info(velk_handle* handle, unsigned stream, VELK_LBR_FILTER* info);
VELK_API unsigned VELK_set_lbr_filter_info(velk_handle* handle, unsigned stream, unsigned filter);
VELK_API unsigned VELK_get_lbr_filter_info(velk_handle* handle, unsigned stream, unsigned size,
                                           char* text);
VELK_API unsigned VELK_set_uncore_info(velk_handle* handle, unsigned stream, unsigned short first,
                                       unsigned short second);
VELK_API unsigned VELK_get_uncore_info(velk_handle* handle, unsigned stream,
                                       unsigned short* first, unsigned short* second);

/* Processes, threads and modules. Adds change the caller's record: texts
 * become string ids and the library's fields are filled. */
VELK_API unsigned VELK_add_process(velk_handle* handle, __VELK_pid* record);
VELK_API unsigned VELK_add_thread(velk_handle* handle, __VELK_tid* record);
VELK_API unsigned VELK_add_module(velk_handle* handle, __VELK_module* record);
VELK_API unsigned VELK_enumerate_processes(velk_handle* handle, VELK_PROCESS_CALLBACK* callback,
                                           void* context, unsigned long long read_start);
VELK_API unsigned VELK_enumerate_threads(velk_handle* handle, VELK_THREAD_CALLBACK* callback,
                                         void* context, unsigned long long read_start);
VELK_API unsigned VELK_enumerate_modules(velk_handle* handle, VELK_MODULE_CALLBACK* callback,
                                         void* context, unsigned long long read_start);
/* Returns the size itself, not a status (63 for a bad handle). */
VELK_API unsigned VELK_get_module_record_size(velk_handle* handle);
VELK_API unsigned VELK_is_legacy_bound(velk_handle* handle, unsigned* bound);

/* Data descriptors. */
VELK_API unsigned VELK_add_data_descriptor_entry(velk_handle* handle, unsigned stream,
                                                 __velk_samprec_desc_entry* entry);
VELK_API unsigned VELK_add_stream_section_descriptor(velk_handle* handle,
                                                     VELK_SECTION_IDENTIFIER section,
                                                     unsigned stream,
                                                     __velk_samprec_desc_entry* entries,
                                                     unsigned count);
VELK_API unsigned VELK_add_global_section_descriptor(velk_handle* handle,
                                                     VELK_SECTION_IDENTIFIER section,
                                                     __velk_samprec_desc_entry* entries,
                                                     unsigned count);
VELK_API unsigned VELK_get_global_section_descriptor(velk_handle* handle,
                                                     VELK_SECTION_IDENTIFIER section,
                                                     __velk_samprec_desc_entry** entries,
                                                     int* count);
VELK_API unsigned VELK_get_stream_section_descriptor(velk_handle* handle,
                                                     VELK_SECTION_IDENTIFIER section,
                                                     unsigned stream,
                                                     __velk_samprec_desc_entry** entries,
                                                     int* count);
VELK_API unsigned VELK_enumerate_data_descriptor_entries(velk_handle* handle, unsigned stream,
                                                         VELK_DESCRIPTOR_CALLBACK* callback,
                                                         void* user);
VELK_API unsigned VELK_enumerate_data_descriptors(velk_handle* handle, unsigned stream,
                                                  VELK_DESCRIPTOR_CALLBACK* callback, void* user);
/* The table and its pointer arrays are the caller's, freed with free(). */
VELK_API unsigned VELK_get_data_desc_table(velk_handle* handle, unsigned stream,
                                           VELK_DESCRIPTOR_NODE_S** table, unsigned* num_nodes);

/* The data stream. */
VELK_API unsigned VELK_get_size_of_each_data_entry(velk_handle* handle, unsigned stream,
                                                   unsigned* size);
VELK_API unsigned VELK_add_data(velk_handle* handle, unsigned stream, unsigned size, void* data);
VELK_API unsigned VELK_add_data_from_file(velk_handle* handle, unsigned stream, wchar_t* path);
VELK_API unsigned VELK_enumerate_data(velk_handle* handle, unsigned stream,
                                      VELK_DATA_CALLBACK* callback, void* user,
                                      unsigned long long read_start);

/* Character conversion. Sizes are in/out: capacity in, needed count out
 * (bytes for UTF-8, wide characters for wchar_t, terminator included). The
 * _malloced forms allocate the result, which the caller frees with free(). */
VELK_API unsigned VELK_convert_utf8_to_wcs(const char* text, wchar_t* destination, unsigned* size);
VELK_API unsigned VELK_convert_utf8_to_wcs_malloced(const char* text, wchar_t** destination);
VELK_API unsigned VELK_convert_wcs_to_utf8(const wchar_t* text, char* destination, unsigned* size);
VELK_API unsigned VELK_convert_wcs_to_utf8_malloced(const wchar_t* text, char** destination);

/* Resolves a string id into wide text. With a null buffer the needed size in
 * bytes comes back in *size. */
VELK_API unsigned VELK_convert_uniqueid_to_string(velk_handle* handle, unsigned size,
                                                  const __string_or_id* id, wchar_t* buffer,
                                                  unsigned* size_out);

/* ------------------------------------------------------------------------
 * The OS layer. Handles are 64-bit; -1 is an invalid handle.
 * ------------------------------------------------------------------------ */
#define VELK_OSI_MODE_READ    0x1u
#define VELK_OSI_MODE_WRITE   0x2u
#define VELK_OSI_MODE_CREATE  0x10000000u

#define VELK_OSI_SEEK_BEGIN   1u
#define VELK_OSI_SEEK_CURRENT 2u
#define VELK_OSI_SEEK_END     4u

VELK_API long long VELK_OSI_Open_File(const char* path, unsigned mode);
VELK_API long long VELK_OSI_Create_File_Map(long long handle, unsigned mode);
VELK_API void* VELK_OSI_Map_File_View(long long map, unsigned protection, long long offset,
                                      unsigned long long length, unsigned flags, void* address);
VELK_API unsigned VELK_OSI_Unmap_File_View(void* address, unsigned long long length);
VELK_API unsigned VELK_OSI_Close_Handle(long long handle, unsigned is_map);
VELK_API long long VELK_OSI_Get_Allocation_Granualarity(void);
VELK_API unsigned long long VELK_OSI_Get_File_Size(long long handle);
VELK_API long long VELK_OSI_Set_File_Pointer(long long handle, long long offset, unsigned origin);
VELK_API unsigned VELK_OSI_Write(long long handle, void* buffer, unsigned long long length,
                                 unsigned long long* written);
VELK_API unsigned VELK_OSI_Read(long long handle, void* buffer, unsigned long long length,
                                unsigned long long* read);
VELK_API unsigned VELK_OSI_Delete_File(const char* path);
VELK_API unsigned VELK_OSI_Getenv(const char* name, unsigned length, char* destination);
VELK_API int VELK_OSI_Sprintf(char* destination, const char* format, ...);
VELK_API unsigned VELK_OSI_i64toa(char* destination, unsigned size, long long value,
                                  unsigned* needed);
VELK_API unsigned VELK_OSI_ui64tow(char* destination, unsigned size, unsigned long long value,
                                   unsigned* needed);

#ifdef __cplusplus
}
#endif

#endif /* VELK_H */
