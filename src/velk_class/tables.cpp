// The file's tables read into the session: the section table, the global
// table and the chain of stream tables, the states derived from them, and the
// stream list that mirrors the chain.
#include <stdlib.h>
#include <string.h>

#include <set>

#include "velk_class.h"

namespace {

// Names of the kinds as the walks log them.
const char* section_table_kind_name(unsigned int kind)
{
    switch (kind) {
    case KIND_LEGACY_SAMPLE_RECORD: return "sample record";
    case KIND_LEGACY_MODULE_RECORD: return "module record";
    case KIND_LEGACY_PID_RECORD: return "pid record";
    case KIND_LEGACY_HEADER: return "header";
    case KIND_LEGACY_TID_RECORD: return "tid record";
    case KIND_LEGACY_RAW_PID_RECORD: return "raw pid record";
    case KIND_LEGACY_RAW_TID_RECORD: return "raw tid record";
    case KIND_LEGACY_HARDWARE_CONFIG: return "hardware configuration";
    case KIND_LEGACY_SOFTWARE_CONFIG: return "software configuration";
    case KIND_LEGACY_EVENTS: return "legacy events";
    case KIND_LEGACY_SYMBOLS: return "symbols";
    case KIND_LEGACY_HEADER_EX: return "header ex";
    case KIND_LEGACY_USER_THREAD_NAMES: return "user defined thread names";
    case KIND_LEGACY_SAMPLE_RECORD_HEADER: return "sample record header";
    case KIND_LEGACY_SAMPLE_RECORD_LEAN_ARM: return "sample record lean arm";
    case KIND_LEGACY_RAW_MODULE_RECORD: return "raw module record";
    case KIND_LEGACY_CALIBRATION_RESULTS: return "calibration results";
    case KIND_LEGACY_PROCESSOR_INFO: return "processor information";
    case KIND_LEGACY_RUMA_SYS_INFO: return "ruma_sys_info";
    case KIND_GLOBAL_OFFSET: return "special velk global offset!";
    case KIND_LOGICALLY_DELETED: return "logically deleted";
    default: return nullptr;
    }
}

const char* global_table_kind_name(unsigned int kind)
{
    switch (kind) {
    case KIND_SYSTEM: return "velk system";
    case KIND_HOST: return "velk host";
    case KIND_OS: return "velk os";
    case KIND_APPLICATION: return "velk application";
    case KIND_PID: return "velk pid";
    case KIND_TID: return "velk tid";
    case KIND_MODULE: return "velk module";
    case KIND_USER_DEFINED_GLOBAL: return "velk user defined global";
    case KIND_VERSION_INFO: return "velk version info";
    case KIND_PRIVATE_USE: return "velk private use section info";
    case KIND_STREAM_OFFSET: return "special stream offset";
    case KIND_GLOBAL_DESCRIPTOR: return "velk global descriptor section";
    default: return nullptr;
    }
}

const char* stream_table_kind_name(unsigned int kind)
{
    switch (kind) {
    case KIND_EVENT: return "velk event";
    case KIND_DATA_DESCRIPTION: return "velk data description";
    case KIND_DATA: return "velk data section";
    case KIND_USER_DEFINED_STREAM: return "velk user defined stream";
    case KIND_STREAM_INFO: return "velk stream info";
    case KIND_STREAM_OFFSET: return "special velk stream offset";
    default: return nullptr;
    }
}

__VELK_sample_file_section_vk6* stream_table_sfs(__VELK_stream_struct* node, unsigned int kind)
{
    switch (kind) {
    case KIND_EVENT: return &node->event_section;
    case KIND_DATA_DESCRIPTION: return &node->data_description_section;
    case KIND_DATA: return &node->data_section;
    case KIND_USER_DEFINED_STREAM: return &node->user_defined_section;
    case KIND_STREAM_INFO: return &node->stream_info_section;
    case KIND_STREAM_OFFSET: return &node->next_stream_section;
    default: return nullptr;
    }
}

bool present(const __VELK_sample_file_section_vk6& sfs) { return sfs.length != 0; }

}  // namespace

__VELK_sample_file_section_vk6* velk_class::helper_section_table_sfs(unsigned int kind)
{
    velk_section_block* s = sections_ptr;
    switch (kind) {
    case KIND_LEGACY_SAMPLE_RECORD: return &s->sfs_legacy_sample_record;
    case KIND_LEGACY_MODULE_RECORD: return &s->sfs_legacy_module_record;
    case KIND_LEGACY_PID_RECORD: return &s->sfs_legacy_pid_record;
    case KIND_LEGACY_HEADER: return &s->sfs_legacy_header;
    case KIND_LEGACY_TID_RECORD: return &s->sfs_legacy_tid_record;
    case KIND_LEGACY_RAW_PID_RECORD: return &s->sfs_legacy_raw_pid_record;
    case KIND_LEGACY_RAW_TID_RECORD: return &s->sfs_legacy_raw_tid_record;
    case KIND_LEGACY_HARDWARE_CONFIG: return &s->sfs_legacy_hardware_config;
    case KIND_LEGACY_SOFTWARE_CONFIG: return &s->sfs_legacy_software_config;
    case KIND_LEGACY_EVENTS: return &s->sfs_legacy_events;
    case KIND_LEGACY_SYMBOLS: return &s->sfs_legacy_symbols;
    case KIND_LEGACY_HEADER_EX: return &s->sfs_legacy_header_ex;
    case KIND_LEGACY_USER_THREAD_NAMES: return &s->sfs_legacy_user_thread_names;
    case KIND_LEGACY_SAMPLE_RECORD_HEADER: return &s->sfs_legacy_sample_record_header;
    case KIND_LEGACY_SAMPLE_RECORD_LEAN_ARM: return &s->sfs_legacy_sample_record_lean_arm;
    case KIND_LEGACY_RAW_MODULE_RECORD: return &s->sfs_legacy_raw_module_record;
    case KIND_LEGACY_CALIBRATION_RESULTS: return &s->sfs_legacy_calibration_results;
    case KIND_LEGACY_PROCESSOR_INFO: return &s->sfs_legacy_processor_info;
    case KIND_LEGACY_RUMA_SYS_INFO: return &s->sfs_legacy_ruma_sys_info;
    case KIND_GLOBAL_OFFSET: return &s->sfs_global_offset;
    case KIND_LOGICALLY_DELETED: return &s->sfs_logically_deleted;
    default: return nullptr;
    }
}

__VELK_sample_file_section_vk6* velk_class::helper_global_table_sfs(unsigned int kind)
{
    velk_section_block* s = sections_ptr;
    switch (kind) {
    case KIND_SYSTEM: return &s->sfs_system;
    case KIND_HOST: return &s->sfs_host;
    case KIND_OS: return &s->sfs_os;
    case KIND_APPLICATION: return &s->sfs_application;
    case KIND_PID: return &s->sfs_pid;
    case KIND_TID: return &s->sfs_tid;
    case KIND_MODULE: return &s->sfs_module;
    case KIND_USER_DEFINED_GLOBAL: return &s->sfs_user_defined_global;
    case KIND_VERSION_INFO: return &s->sfs_version_info;
    case KIND_PRIVATE_USE: return &s->sfs_private_use;
    case KIND_STREAM_OFFSET: return &s->sfs_stream_offset;
    case KIND_GLOBAL_DESCRIPTOR: return &s->sfs_global_descriptor;
    default: return nullptr;
    }
}

unsigned int velk_class::helper_map_small_section(__VELK_mmap_tracker* map,
                                                  unsigned long long offset,
                                                  unsigned long long length)
{
    memset(map, 0, sizeof(*map));
    map->Set_Data_Size(1);
    map->Set_Entries(length);
    RETURN_IF_FAILED(map->Map_File(file_handle, 0, offset));
    return 0;
}

unsigned int velk_class::helper_unmap_keeping_first(__VELK_mmap_tracker* map, unsigned int status)
{
    const unsigned int unmapped = map->Unmap_File();
    if (unmapped != 0)
        LOG_FAILED_STATUS(unmapped);
    return status != 0 ? status : unmapped;
}

// Reads slot `slot` of a mapped table into a descriptor, converting the
// version 5 forms.
static void read_slot(const __VELK_mmap_tracker& map, unsigned int slot, unsigned int version,
                      bool section_table, __VELK_sample_file_section_vk6* out)
{
    memset(out, 0, sizeof(*out));
    if (version == 5 && section_table) {
        SampleFileSections_s disk;
        memcpy(&disk, map.m_data + slot * sizeof(disk), sizeof(disk));
        velk_class::helper_copy_sfs(&disk, out, 2);
    } else if (version == 5) {
        __VELK_sample_file_section disk;
        memcpy(&disk, map.m_data + slot * sizeof(disk), sizeof(disk));
        velk_class::helper_copy_sfs_velk(&disk, out, 2);
    } else {
        memcpy(out, map.m_data + slot * sizeof(*out), sizeof(*out));
    }
}

static void log_slot(unsigned int instance, const char* prefix, const __VELK_sample_file_section_vk6& sfs)
{
    LOGIT_A(VELK_MASK_TRACE, "<velk %u%s>length = %u, file offset %u, number entries %u, entry length%u\n",
            instance, prefix, (unsigned int)sfs.length, (unsigned int)sfs.file_offset,
            (unsigned int)sfs.number_entries, sfs.entry_length);
}

unsigned int velk_class::helper_init_fillin_SampleFileSection_info_from_file()
{
    VELK_TRACE_ENTER("helper_init_fillin_SampleFileSection_info_from_file");
    const unsigned int beginning =
        vk_file_version == 5 ? VELK_BEGINNING_SIZE_V5 : VELK_BEGINNING_SIZE_V67;
    // The beginning with its whole table must be in the file.
    if (VELK_OSI_Get_File_Size(file_handle) < beginning) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::helper_init_fillin_SampleFileSection_info_from_file>file is shorter "
                "than its section table!\n",
                instance);
        return VELK_E_BAD_FILE;
    }
    __VELK_mmap_tracker map;
    RETURN_IF_FAILED(helper_map_small_section(&map, 0, beginning));
    uint32_t section_count;
    memcpy(&section_count, map.m_data + 12, sizeof(section_count));
    // The table has room for 20 entries; a larger count would read past it.
    if (section_count > VELK_SECTION_TABLE_ENTRIES) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::helper_init_fillin_SampleFileSection_info_from_file>section count %u "
                "is more than the table holds!\n",
                instance, section_count);
        map.Unmap_File();
        return VELK_E_BAD_FILE;
    }

    __VELK_mmap_tracker table = map;
    table.m_data += VELK_SECTION_TABLE_OFFSET;
    for (unsigned int i = 0; i < section_count; ++i) {
        __VELK_sample_file_section_vk6 sfs;
        read_slot(table, i, vk_file_version, true, &sfs);
        LOGIT_A(VELK_MASK_TRACE, "<velk %u>SampleFileSections array index = %u:\n", instance, i);
        log_slot(instance, "", sfs);
        const char* name = section_table_kind_name(sfs.section_id);
        if (name != nullptr) {
            LOGIT_A(VELK_MASK_TRACE, "<velk %u>found %s\n", instance, name);
            *helper_section_table_sfs(sfs.section_id) = sfs;
        } else {
            LOGIT_A(VELK_MASK_TRACE, "<velk %u>unknown section type\n", instance);
            if (sfs.length == 0 && sections_ptr->legacy_next_slot == 0)
                sections_ptr->legacy_next_slot = i;
        }
    }
    RETURN_IF_FAILED(map.Unmap_File());

    if (sections_ptr->sfs_global_offset.file_offset != 0) {
        RETURN_IF_FAILED(helper_init_fillin_global_samplefilesections());
    } else {
        unsigned int new_stream_on_disk = 0;
        // A file from an older writer gets its global table when it is
        // opened for writing.
        if (may_write()) {
            RETURN_IF_FAILED(helper_init_create_global_offset_sfs());
            new_stream_on_disk = 1;
        }
        if (present(sections_ptr->sfs_legacy_events) || present(sections_ptr->sfs_legacy_sample_record))
            RETURN_IF_FAILED(utility_add_a_new_stream(new_stream_on_disk));
    }
    VELK_TRACE_EXIT("helper_init_fillin_SampleFileSection_info_from_file");
    return 0;
}

unsigned int velk_class::helper_init_fillin_global_samplefilesections()
{
    VELK_TRACE_ENTER("helper_init_fillin_global_samplefilesections");
    const __VELK_sample_file_section_vk6 table_sfs = sections_ptr->sfs_global_offset;
    const unsigned int slot_size =
        vk_file_version == 5 ? sizeof(__VELK_sample_file_section) : sizeof(__VELK_sample_file_section_vk6);
    __VELK_mmap_tracker map;
    RETURN_IF_FAILED(helper_map_small_section(&map, table_sfs.file_offset, table_sfs.length));
    // Sixteen slots are visited, but never past the table's end: no slot
    // from there on can name a section of a file this library wrote.
    unsigned long long slots = table_sfs.length / slot_size;
    if (slots > VELK_GLOBAL_TABLE_SLOTS_READ)
        slots = VELK_GLOBAL_TABLE_SLOTS_READ;

    unsigned int status = 0;
    for (unsigned int i = 0; i < slots && status == 0; ++i) {
        __VELK_sample_file_section_vk6 sfs;
        read_slot(map, i, vk_file_version, false, &sfs);
        log_slot(instance, "", sfs);
        const char* name = global_table_kind_name(sfs.section_id);
        if (name != nullptr) {
            LOGIT_A(VELK_MASK_TRACE, "<velk %u>found %s\n", instance, name);
            *helper_global_table_sfs(sfs.section_id) = sfs;
            if (sfs.section_id == KIND_PRIVATE_USE) {
                status = helper_log_private_section();
                if (status != 0)
                    LOG_FAILED_STATUS(status);
            }
        } else {
            LOGIT_A(VELK_MASK_TRACE, "<velk %u>unknown section type\n", instance);
            if (sfs.length == 0 && sections_ptr->global_next_slot == 0)
                sections_ptr->global_next_slot = i;
        }
    }
    status = helper_unmap_keeping_first(&map, status);
    if (status == 0 && sections_ptr->sfs_stream_offset.file_offset != 0) {
        status = helper_init_fillin_stream_samplefilesections();
        if (status != 0)
            LOG_FAILED_STATUS(status);
    }
    if (status == 0)
        VELK_TRACE_EXIT("helper_init_fillin_global_samplefilesections");
    return status;
}

unsigned int velk_class::helper_init_fillin_stream_samplefilesections()
{
    VELK_TRACE_ENTER("helper_init_fillin_stream_samplefilesections");
    __VELK_sample_file_section_vk6 chain = sections_ptr->sfs_stream_offset;
    const unsigned int slot_size =
        vk_file_version == 5 ? sizeof(__VELK_sample_file_section) : sizeof(__VELK_sample_file_section_vk6);
    // A chain that comes back to a table it passed would never end.
    std::set<unsigned long long> visited;
    while (chain.file_offset != 0) {
        if (!visited.insert(chain.file_offset).second) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::helper_init_fillin_stream_samplefilesections>stream table at %llu "
                    "is already in the chain!\n",
                    instance, (unsigned long long)chain.file_offset);
            return VELK_E_BAD_FILE;
        }
        RETURN_IF_FAILED(utility_add_a_new_stream(0));
        __VELK_stream_struct* node = nullptr;
        RETURN_IF_FAILED(utility_point_to_stream_index((unsigned int)(stream_count - 1), &node));
        __VELK_mmap_tracker map;
        RETURN_IF_FAILED(helper_map_small_section(&map, chain.file_offset, chain.length));
        memset(&chain, 0, sizeof(chain));
        unsigned long long slots = map.m_bytes / slot_size;
        if (slots > VELK_STREAM_TABLE_SLOTS)
            slots = VELK_STREAM_TABLE_SLOTS;
        for (unsigned int i = 0; i < slots; ++i) {
            __VELK_sample_file_section_vk6 sfs;
            read_slot(map, i, vk_file_version, false, &sfs);
            LOGIT_A(VELK_MASK_TRACE,
                    "<velk %u::helper_init_fillin_stream_samplefilesections>---------------------"
                    "------------\n",
                    instance);
            LOGIT_A(VELK_MASK_TRACE,
                    "<velk %u::helper_init_fillin_stream_samplefilesections>stream number = %u\n",
                    instance, sfs.stream_number);
            log_slot(instance, "::helper_init_fillin_stream_samplefilesections", sfs);
            const char* name = stream_table_kind_name(sfs.section_id);
            if (name != nullptr) {
                LOGIT_A(VELK_MASK_TRACE, "<velk %u::helper_init_fillin_stream_samplefilesections>found %s\n",
                        instance, name);
                *stream_table_sfs(node, sfs.section_id) = sfs;
                if (sfs.section_id == KIND_STREAM_OFFSET)
                    chain = sfs;
            } else {
                LOGIT_A(VELK_MASK_TRACE,
                        "<velk %u::helper_init_fillin_stream_samplefilesections>unknown section type\n",
                        instance);
                if (sfs.length == 0 && node->next_slot == 0)
                    node->next_slot = i;
            }
        }
        RETURN_IF_FAILED(map.Unmap_File());
    }
    VELK_TRACE_EXIT("helper_init_fillin_stream_samplefilesections");
    return 0;
}

unsigned int velk_class::helper_init_which_sections_present()
{
    VELK_TRACE_ENTER("helper_init_which_sections_present");
    velk_section_block* s = sections_ptr;
    memset(s->section_state, 0, sizeof(s->section_state));
    memset(s->section_users, 0, sizeof(s->section_users));
    const bool exists[8] = {
        present(s->sfs_legacy_ruma_sys_info) || present(s->sfs_system),
        (present(s->sfs_legacy_software_config) && present(s->sfs_legacy_ruma_sys_info)) ||
            (present(s->sfs_host) && present(s->sfs_os) && present(s->sfs_application)),
        present(s->sfs_legacy_pid_record) || present(s->sfs_pid),
        present(s->sfs_legacy_module_record) || present(s->sfs_module),
        present(s->sfs_user_defined_global),
        present(s->sfs_version_info) || present(s->sfs_legacy_header_ex),
        present(s->sfs_legacy_tid_record) || present(s->sfs_tid),
        present(s->sfs_global_descriptor),
    };
    for (int id = 0; id < 8; ++id)
        s->section_state[id] = exists[id] ? VELK_STATE_EXISTS : VELK_STATE_ABSENT;

    for (int n = 0; n < stream_count; ++n) {
        __VELK_stream_struct* node = nullptr;
        RETURN_IF_FAILED(utility_point_to_stream_index((unsigned int)n, &node));
        const bool stream0 = n == 0;
        const bool section[5] = {
            present(node->event_section) || (stream0 && present(s->sfs_legacy_events)),
            present(node->data_description_section),
            present(node->data_section) || (stream0 && present(s->sfs_legacy_sample_record)),
            present(node->user_defined_section),
            present(node->stream_info_section) || (stream0 && present(s->sfs_legacy_header_ex)),
        };
        for (int id = 0; id < 5; ++id)
            node->stream_section_state[id] = section[id] ? VELK_STATE_EXISTS : VELK_STATE_ABSENT;
    }
    VELK_TRACE_EXIT("helper_init_which_sections_present");
    return 0;
}

unsigned int velk_class::VELK_verify()
{
    VELK_TRACE_ENTER("VELK_verify");
    bool valid = false;
    RETURN_IF_FAILED(helper_check_is_valid_file(&valid));
    if (!valid) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_verify>eyecatcher is not valid!\n", instance);
        return VELK_E_BAD_FILE;
    }
    velk_section_block* s = sections_ptr;
    unsigned int status = 0;
    if (!present(s->sfs_legacy_software_config) || !present(s->sfs_legacy_header_ex) ||
        !present(s->sfs_legacy_sample_record_header) || !present(s->sfs_legacy_sample_record) ||
        !present(s->sfs_legacy_module_record) || !present(s->sfs_legacy_ruma_sys_info)) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_verify>missing one or more sections!\n", instance);
        status = VELK_E_BAD_FILE;
    }
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::VELK_verify>exiting with return value %d\n", instance,
            (int)status);
    return status;
}

unsigned int velk_class::VELK_get_number_data_streams(unsigned int* count)
{
    VELK_TRACE_ENTER("VELK_get_number_data_streams");
    if (count == nullptr)
        return VELK_E_BAD_POINTER;
    *count = (unsigned int)stream_count;
    VELK_TRACE_EXIT("VELK_get_number_data_streams");
    return 0;
}

unsigned int velk_class::utility_point_to_stream_index(unsigned int index,
                                                       __VELK_stream_struct** stream)
{
    if ((long long)index + 1 > (long long)stream_count) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::utility_point_to_stream_index>invalid index!\n",
                instance);
        return VELK_E_BAD_STREAM;
    }
    __VELK_stream_struct* node = stream_list;
    for (unsigned int i = 0; i < index; ++i)
        node = node->next;
    *stream = node;
    return 0;
}

unsigned int velk_class::utility_add_a_new_stream(unsigned int write_to_file)
{
    VELK_TRACE_ENTER("utility_add_a_new_stream");
    __VELK_stream_struct* previous = stream_list;
    while (previous != nullptr && previous->next != nullptr)
        previous = previous->next;
    if (previous == nullptr)
        LOGIT_A(VELK_MASK_TRACE, "<velk %u::utility_add_a_new_stream>adding the first link\n", instance);
    else
        LOGIT_A(VELK_MASK_TRACE, "<velk %u::utility_add_a_new_stream>adding another link\n", instance);

    __VELK_stream_struct* node =
        static_cast<__VELK_stream_struct*>(calloc(1, sizeof(__VELK_stream_struct)));
    if (node == nullptr) {
        LOG_NULL_POINTER();
        return VELK_E_NULL_POINTER;
    }
    LOG_MEMORY_ALLOCATION("utility_add_a_new_stream", sizeof(__VELK_stream_struct));
    if (previous == nullptr)
        stream_list = node;
    else
        previous->next = node;

    node->legacy_event_store = new FILE_INFO_NODE("legacy_event.tmp");
    node->new_event_store = new FILE_INFO_NODE("new_event.tmp");
    node->user_defined_store = new FILE_INFO_NODE("usr_defined_stream.tmp");
    node->data_store = new FILE_INFO_NODE("data.tmp");
    node->desc_list = new velk_list_head;
    node->desc_list->next = node->desc_list->prev = node->desc_list;

    // The chain descriptor that names this stream's table: the session's for
    // stream 0, the previous stream's otherwise.
    __VELK_sample_file_section_vk6* chain =
        previous == nullptr ? &sections_ptr->sfs_stream_offset : &previous->next_stream_section;
    node->stream_table_offset = chain->file_offset;
    memset(&node->data_map, 0, sizeof(node->data_map));
    node->event_buffer = nullptr;

    if (write_to_file) {
        const unsigned int table_size =
            vk_file_version == 5 ? VELK_STREAM_TABLE_SIZE_V5 : VELK_STREAM_TABLE_SIZE_V67;
        chain->length = table_size;
        chain->entry_length = table_size;
        chain->file_offset = VELK_OSI_Get_File_Size(file_handle);
        chain->number_entries = 1;
        chain->section_id = KIND_STREAM_OFFSET;
        node->stream_table_offset = chain->file_offset;
        RETURN_IF_FAILED(utility_write_sfs_header(chain, previous));
        static const unsigned char zeros[VELK_STREAM_TABLE_SIZE_V67] = {0};
        RETURN_IF_FAILED(utility_write_final_file(zeros, table_size, VELK_OSI_SEEK_END, 0));
    }

    // Stream 0 of a legacy file: its data is the legacy sample record.
    if (stream_count == 0 && present(sections_ptr->sfs_legacy_sample_record)) {
        const __VELK_sample_file_section_vk6& legacy = sections_ptr->sfs_legacy_sample_record;
        node->data_section.entry_length = legacy.entry_length;
        node->data_section.file_offset = legacy.file_offset;
        node->data_section.number_entries = legacy.number_entries;
        node->data_section.length = legacy.length;
        node->data_section.section_id = KIND_DATA;
        // Readers ignore kind 38 in the global table; the entry is written
        // all the same so that files come out alike.
        if (may_write() && write_to_file)
            RETURN_IF_FAILED(utility_write_sfs_header(&node->data_section, nullptr));
    }

    stream_count += 1;
    VELK_TRACE_EXIT("utility_add_a_new_stream");
    return 0;
}

namespace {

// Notes whether the first descriptor of stream 0 is a legacy sample record.
unsigned int velk_helper_metadata_callback(__velk_samprec_desc_entry* entries, unsigned int,
                                           unsigned int count, void* user)
{
    *static_cast<unsigned int*>(user) =
        (count > 0 && entries[0].field_type == ST_LEGACY_SAMPLE_RECORD) ? 1 : 0;
    return 0;
}

// Where the header ex keeps the bound bit.
constexpr unsigned int kHeaderExBoundByte = 392;

}  // namespace

unsigned int velk_class::VELK_is_legacy_bound(unsigned int* bound)
{
    VELK_TRACE_ENTER("VELK_is_legacy_bound");
    if (bound == nullptr) {
        LOG_NULL_POINTER();
        return VELK_E_BAD_POINTER;
    }
    *bound = 0;
    velk_section_block* s = sections_ptr;
    if (!present(s->sfs_legacy_pid_record)) {
        LOGIT_A(VELK_MASK_DETAIL,
                "<velk %u::VELK_is_legacy_bound>legacy pid record doesn't exist! This implies that "
                "the vk5 file is not bound!\n",
                instance);
        return 0;
    }
    if (!present(s->sfs_legacy_tid_record)) {
        LOGIT_A(VELK_MASK_DETAIL,
                "<velk %u::VELK_is_legacy_bound>legacy tid record doesn't exist! This implies that "
                "the vk5 file is not bound!\n",
                instance);
        return 0;
    }
    if (stream_count == 0) {
        LOGIT_A(VELK_MASK_DETAIL,
                "<velk %u::VELK_is_legacy_bound>There is no stream 0! This implies that the vk5 "
                "file is not bound!\n",
                instance);
        return 0;
    }

    unsigned int found = 0;
    VELK_DESCRIPTOR_CALLBACK callback = velk_helper_metadata_callback;
    RETURN_IF_FAILED(VELK_reading_stream(0));
    RETURN_IF_FAILED(VELK_reading_stream_section(0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
    RETURN_IF_FAILED(VELK_enumerate_data_descriptor_entries(0, &callback, &found));
    RETURN_IF_FAILED(VELK_done_stream_section(0, VELK_STREAM_SECTION_DATA_DESCRIPTION));
    RETURN_IF_FAILED(VELK_done_stream(0));
    if (found == 0) {
        LOGIT_A(VELK_MASK_DETAIL,
                "<velk %u::VELK_is_legacy_bound>the data in stream 0 is not of type "
                "ST_LEGACY_SAMPLE_RECORD! This implies that the vk5 file is not bound!\n",
                instance);
        return 0;
    }
    if (!present(s->sfs_legacy_sample_record)) {
        LOGIT_A(VELK_MASK_DETAIL,
                "<velk %u::VELK_is_legacy_bound>legacy sample record doesn't exist! This implies "
                "that the vk5 file is not bound!\n",
                instance);
        return 0;
    }

    const __VELK_sample_file_section_vk6& header_ex = s->sfs_legacy_header_ex;
    __VELK_mmap_tracker map;
    RETURN_IF_FAILED(helper_map_small_section(&map, header_ex.file_offset, header_ex.length));
    // A header ex too short to hold the bound byte is not one this library
    // can read.
    unsigned int status = 0;
    if (map.m_bytes <= kHeaderExBoundByte) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_is_legacy_bound>header ex is %llu bytes long!\n",
                instance, (unsigned long long)map.m_bytes);
        status = VELK_E_BAD_FILE;
    } else if (map.m_current[kHeaderExBoundByte] & 1) {
        LOGIT_A(VELK_MASK_TRACE, "<velk %u::VELK_is_legacy_bound>this file is bound\n", instance);
        *bound = 1;
    } else {
        LOGIT_A(VELK_MASK_TRACE, "<velk %u::VELK_is_legacy_bound>this file is not bound\n",
                instance);
    }
    status = helper_unmap_keeping_first(&map, status);
    if (status == 0)
        VELK_TRACE_EXIT("VELK_is_legacy_bound");
    return status;
}
