// Two aids for a person with a hex dump and a log: the plain-text report
// that ends every file a session changed, and the echo of the writer's code
// version from the private use section.
#include <string.h>

#include <string>

#include "velk_class.h"

unsigned int velk_class::utility_debug_human_readable()
{
    VELK_TRACE_ENTER("utility_debug_human_readable");
    std::string text =
        "*** DISCLAIMER: THE FOLLOWING IS USED FOR INTERNAL DEBUGGING PURPOSES ONLY! "
        "THIS INFORMATION MAY DISAPPEAR AT ANY MOMENT WITHOUT PRIOR NOTIFICATION! "
        "CUSTOMERS SHOULD NOT RELY ON THE INFORMATION FOUND IN THIS SECTION! "
        "CUSTOMERS SHOULD USE THE DOVREPORT TOOL OR VELK APIS TO GET THE EQUIVALENT INFORMATION! "
        "PLEASE ASK A MEMBER OF THE PIT (PROFILING INFRASTRUCTURE TEAM) TO PROVIDE DOCUMENTATION "
        "REGARDING PROPER USAGE! ***";

    struct Row {
        const char* label;
        unsigned int kind;
        bool global;
    };
    static const Row rows[] = {
        {"legacy sample record at ", KIND_LEGACY_SAMPLE_RECORD, false},
        {"legacy module record at ", KIND_LEGACY_MODULE_RECORD, false},
        {"legacy pid record at ", KIND_LEGACY_PID_RECORD, false},
        {"legacy header at ", KIND_LEGACY_HEADER, false},
        {"legacy tid record at ", KIND_LEGACY_TID_RECORD, false},
        {"legacy rawpid record at ", KIND_LEGACY_RAW_PID_RECORD, false},
        {"legacy rawtid record at ", KIND_LEGACY_RAW_TID_RECORD, false},
        {"legacy hardware conf at ", KIND_LEGACY_HARDWARE_CONFIG, false},
        {"legacy software conf at ", KIND_LEGACY_SOFTWARE_CONFIG, false},
        {"legacy symbols at ", KIND_LEGACY_SYMBOLS, false},
        {"legacy header ex at ", KIND_LEGACY_HEADER_EX, false},
        {"legacy user def thread name at ", KIND_LEGACY_USER_THREAD_NAMES, false},
        {"legacy sample record hdr at ", KIND_LEGACY_SAMPLE_RECORD_HEADER, false},
        {"legacy sample record la at ", KIND_LEGACY_SAMPLE_RECORD_LEAN_ARM, false},
        {"legacy raw modules at ", KIND_LEGACY_RAW_MODULE_RECORD, false},
        {"legacy calibration results at ", KIND_LEGACY_CALIBRATION_RESULTS, false},
        {"legacy processor info at ", KIND_LEGACY_PROCESSOR_INFO, false},
        {"legacy ruma_sysinfo at ", KIND_LEGACY_RUMA_SYS_INFO, false},
        {"legacy logically deleted at ", KIND_LOGICALLY_DELETED, false},
        {"legacy events at ", KIND_LEGACY_EVENTS, false},
        {"velk user def global at ", KIND_USER_DEFINED_GLOBAL, true},
        {"velk system at ", KIND_SYSTEM, true},
        {"velk host at ", KIND_HOST, true},
        {"velk os at ", KIND_OS, true},
        {"velk application at ", KIND_APPLICATION, true},
        {"velk pid at ", KIND_PID, true},
        {"velk tid at ", KIND_TID, true},
        {"velk module at ", KIND_MODULE, true},
        {"velk version info at ", KIND_VERSION_INFO, true},
        {"velk code info at ", KIND_PRIVATE_USE, true},
        {"special global offset at ", KIND_GLOBAL_OFFSET, false},
        {"special global descriptor offset at ", KIND_GLOBAL_DESCRIPTOR, true},
        {"special stream offset at ", KIND_STREAM_OFFSET, true},
    };
    char value[24];
    for (const Row& row : rows) {
        const __VELK_sample_file_section_vk6* sfs =
            row.global ? helper_global_table_sfs(row.kind) : helper_section_table_sfs(row.kind);
        // The pid record's row has no semicolon; the text has always read so.
        const char* format = row.kind == KIND_LEGACY_PID_RECORD ? "0x%llx " : "0x%llx; ";
        snprintf(value, sizeof(value), format, (unsigned long long)sfs->file_offset);
        text += row.label;
        text += value;
    }
    text += "========";

    for (int n = 0; n < stream_count; ++n) {
        __VELK_stream_struct* node = nullptr;
        RETURN_IF_FAILED(utility_point_to_stream_index((unsigned int)n, &node));
        const std::pair<const char*, unsigned long long> stream_rows[] = {
            {"velk event at ", node->event_section.file_offset},
            {"velk metadata at ", node->data_description_section.file_offset},
            {"velk data section at ", node->data_section.file_offset},
            {"velk user def stream at ", node->user_defined_section.file_offset},
            {"velk stream info at ", node->stream_info_section.file_offset},
            {"next stream sfs at ", node->next_stream_section.file_offset},
            {"this stream sfs at ", node->stream_table_offset},
        };
        snprintf(value, sizeof(value), "%u; ", (unsigned int)n);
        text += "stream # ";
        text += value;
        for (const auto& row : stream_rows) {
            snprintf(value, sizeof(value), "0x%llx; ", row.second);
            text += row.first;
            text += value;
        }
        text += "========";
    }

    RETURN_IF_FAILED(utility_write_final_file(text.c_str(), text.size() + 1, VELK_OSI_SEEK_END, 0));
    RETURN_IF_FAILED(utility_add_string_padding(file_handle, nullptr));
    VELK_TRACE_EXIT("utility_debug_human_readable");
    return 0;
}

unsigned int velk_class::helper_log_private_section()
{
    VELK_TRACE_ENTER("helper_log_private_section");
    const __VELK_sample_file_section_vk6& sfs = sections_ptr->sfs_private_use;
    __VELK_mmap_tracker map;
    RETURN_IF_FAILED(helper_map_small_section(&map, sfs.file_offset, sfs.length));
    // The text lies at offset 8, NUL-terminated within the section.
    if (map.m_bytes > 8 && memchr(map.m_data + 8, '\0', map.m_bytes - 8) != nullptr)
        LOGIT_A(VELK_MASK_TRACE, "<velk %u>%s\n", instance, (const char*)map.m_data + 8);
    RETURN_IF_FAILED(map.Unmap_File());
    VELK_TRACE_EXIT("helper_log_private_section");
    return 0;
}
