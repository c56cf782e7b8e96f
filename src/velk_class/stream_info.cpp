// Stream information: what a stream is (its type, command line, processor,
// comment and collection parameters), the user info, LBR and uncore values
// stored behind the public record, and the derivation of stream 0's record
// from the legacy header ex of a file that has none of its own.
#include <stdlib.h>
#include <string.h>

#include "velk_class.h"

extern "C" {

// The LBR filter bits and their names, index by index. Their declarations in
// velk.h give them default visibility, so the library exports them.
const char* const VELK_lbr_filter_names[VELK_LBR_FILTER_COUNT] = {
    "CPL_EQ_0", "CPL_NEQ_0",    "JCC",          "NEAR_REL_CALL", "NEAR_IND_CALL",
    "NEAR_RET", "NEAR_IND_JMP", "NEAR_REL_JMP", "FAR_BRANCH",
};
const uint32_t VELK_lbr_filter_values[VELK_LBR_FILTER_COUNT] = {
    0x1, 0x2, 0x4, 0x8, 0x10, 0x20, 0x40, 0x80, 0x100,
};

}  // extern "C"

namespace {

const unsigned int kPublicSize = sizeof(__VELK_stream_info);      // 64
const unsigned int kStoredSize = sizeof(velk_stream_info_record);  // 128
// Before revision 18 a version 5 or 6 file holds only the public record.
const unsigned int kFullRecordRevision = 18;
// The words of the legacy header ex that hold stream 0's parameters; the
// last of them ends at byte 384.
const unsigned int kHeaderExParamB = 260;
const unsigned int kHeaderExParamA = 364;
const unsigned int kHeaderExParamC = 368;
const unsigned int kHeaderExParamD = 372;
const unsigned int kHeaderExParamE = 376;
const unsigned int kHeaderExParamF = 380;
const unsigned int kHeaderExNeeded = 384;
// Files from 2.0.8 on carry the uncore selection.
const unsigned int kUncoreMajor = 2;
const unsigned int kUncoreMinor = 0;
const unsigned int kUncorePatch = 8;

bool is_short_form(const velk_class* s, const __VELK_version_info& version)
{
    return (s->vk_file_version == 5 || s->vk_file_version == 6) &&
           version.version_revision < kFullRecordRevision;
}

uint32_t word_at(const unsigned char* data, unsigned int offset)
{
    uint32_t value;
    memcpy(&value, data + offset, sizeof(value));
    return value;
}

// The version record of the file, cleared when the file has none: it is
// read only if the version section can be entered for reading.
unsigned int take_version_info(velk_class* s, __VELK_version_info* version)
{
    memset(version, 0, sizeof(*version));
    if (s->VELK_reading_section(VELK_SECTION_VERSION_INFO) != 0)
        return 0;
    const unsigned int status = s->VELK_get_version_info(sizeof(*version), version, nullptr);
    if (status != 0)
        LOG_FAILED_STATUS(status);
    // The section is left again even when the read failed, so that the
    // close does not find it open.
    const unsigned int done = s->VELK_done_section(VELK_SECTION_VERSION_INFO);
    if (done != 0)
        LOG_FAILED_STATUS(done);
    return status != 0 ? status : done;
}

// The start of the getters of the values behind the public record: the
// stream's record is loaded through the two-call VELK_get_stream_info, which
// also requires the stream info section to be in the reading state.
unsigned int load_stream_info(velk_class* s, unsigned int stream, const char* function)
{
    unsigned int needed = 0;
    RETURN_IF_FAILED(s->VELK_get_stream_info(stream, 0, nullptr, &needed));
    __VELK_stream_info* buffer = static_cast<__VELK_stream_info*>(calloc(1, needed));
    if (buffer == nullptr) {
        LOG_CALLOC_FAILED(function);
        LOG_NULL_POINTER_AT(function);
        return VELK_E_NO_MEMORY;
    }
    LOG_MEMORY_ALLOCATION(function, needed);
    const unsigned int status = s->VELK_get_stream_info(stream, needed, buffer, nullptr);
    free(buffer);
    LOG_MEMORY_FREE(function, needed);
    if (status != 0)
        LOG_FAILED_STATUS(status);
    return status;
}

}  // namespace

unsigned int velk_class::VELK_set_stream_info(unsigned int stream, __VELK_stream_info* info)
{
    VELK_TRACE_ENTER("VELK_set_stream_info");
    if (info == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_set_stream_info>nothing to write!\n", instance);
        return VELK_E_NOTHING_TO_WRITE;
    }
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    if (node->stream_section_state[VELK_STREAM_SECTION_STREAM_INFO] != VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_set_stream_info>this stream section already exists or write was "
                "not first called!\n",
                instance);
        return VELK_E_ALREADY_IN_USE;
    }
    __VELK_version_info version;
    RETURN_IF_FAILED(take_version_info(this, &version));

    __VELK_stream_info& stored = node->stream_info.info;
    // An older file keeps the size its writer gave; everything else is the
    // full record.
    if (is_short_form(this, version) && version.version_revision != 0)
        stored.stream_info_size = info->stream_info_size;
    else
        stored.stream_info_size = kStoredSize;
    stored.stream_param_a = info->stream_param_a;
    stored.stream_type = info->stream_type;
    stored.stream_param_b = info->stream_param_b;
    stored.stream_param_c = info->stream_param_c;
    stored.stream_param_d = info->stream_param_d;
    stored.stream_param_e = info->stream_param_e;
    stored.stream_param_f = info->stream_param_f;

    // The texts become ids in the stored record; the caller's record keeps
    // its pointers.
    RETURN_IF_FAILED(utility_add_string_to_temp_file(info->command_line.text, &stored.command_line.id));
    RETURN_IF_FAILED(utility_add_string_to_temp_file(info->cpu.text, &stored.cpu.id));
    RETURN_IF_FAILED(utility_add_string_to_temp_file(info->comment.text, &stored.comment.id));
    stored.stream_value = info->stream_value;

    // VELK_set_user_info left the caller's text pointer here.
    __string_or_id& user = node->stream_info.user_info;
    if (user.id != 0)
        RETURN_IF_FAILED(utility_add_string_to_temp_file(user.text, &user.id));

    // Stream 0's parameters also go to the legacy header ex, unless the file
    // has one already.
    if (stream == 0 && sections_ptr->sfs_legacy_header_ex.length == 0) {
        legacy_header.stream_param_a = stored.stream_param_a;
        legacy_header.stream_param_b = stored.stream_param_b;
        legacy_header.stream_param_c = stored.stream_param_c;
        legacy_header.stream_param_d = stored.stream_param_d;
        legacy_header.stream_param_e = stored.stream_param_e;
        legacy_header.stream_param_f = stored.stream_param_f;
    }
    node->stream_info_set = 1;
    VELK_TRACE_EXIT("VELK_set_stream_info");
    return 0;
}

unsigned int velk_class::VELK_get_stream_info(unsigned int stream, unsigned int size,
                                              __VELK_stream_info* info, unsigned int* size_out)
{
    VELK_TRACE_ENTER("VELK_get_stream_info");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    if (node->stream_section_state[VELK_STREAM_SECTION_STREAM_INFO] != VELK_STATE_READING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_set_stream_info>this stream section does not exist or read was "
                "not first called!\n",
                instance);
        return VELK_E_ALREADY_IN_USE;
    }
    if (size == 0 && info == nullptr) {
        if (size_out != nullptr)
            *size_out = kPublicSize;
        VELK_TRACE_EXIT("VELK_get_stream_info");
        return 0;
    }
    if (size < kPublicSize) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_get_stream_info>buffer allocated by caller is not big enough!\n",
                instance);
        return VELK_E_BUFFER_TOO_SMALL;
    }
    if (info == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_get_stream_info>stream info pointer is NULL!\n",
                instance);
        return VELK_E_BAD_POINTER;
    }

    if (node->stream_info_set == 1) {
        memcpy(info, &node->stream_info, kPublicSize);
        info->stream_info_size = kPublicSize;
        VELK_TRACE_EXIT("VELK_get_stream_info");
        return 0;
    }

    const __VELK_sample_file_section_vk6& own = node->stream_info_section;
    const __VELK_sample_file_section_vk6& header_ex = sections_ptr->sfs_legacy_header_ex;
    if (own.length == 0 && !(stream == 0 && header_ex.length != 0)) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_get_stream_info>velk_stream_info section not found!\n", instance);
        return VELK_E_SECTION_MISSING;
    }

    __VELK_mmap_tracker map;
    memset(&map, 0, sizeof(map));
    unsigned int status = 0;
    if (own.length != 0) {
        // The stream's own section, read anew at each call.
        status = helper_map_small_section(&map, own.file_offset, own.length);
        __VELK_version_info version;
        if (status == 0)
            status = take_version_info(this, &version);
        if (status == 0) {
            const bool short_form = is_short_form(this, version);
            const unsigned int needed = short_form ? kPublicSize : kStoredSize;
            if (own.length < needed) {
                LOGIT_A(VELK_MASK_FAILURE,
                        "<velk %u::VELK_get_stream_info>velk_stream_info section of %llu bytes is "
                        "shorter than the %u bytes of its record!\n",
                        instance, (unsigned long long)own.length, needed);
                status = VELK_E_BAD_FILE;
            } else {
                memset(&node->stream_info, 0, sizeof(node->stream_info));
                memcpy(info, map.m_data, kPublicSize);
                memcpy(&node->stream_info, map.m_data, needed);
                if (!short_form)
                    info->stream_info_size = kPublicSize;
            }
        }
    } else {
        // Stream 0 of a legacy file: the record is made from the header ex.
        status = helper_map_small_section(&map, header_ex.file_offset, header_ex.length);
        if (status == 0 && header_ex.length < kHeaderExNeeded) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::VELK_get_stream_info>legacy header ex of %llu bytes is too short to "
                    "hold the stream parameters!\n",
                    instance, (unsigned long long)header_ex.length);
            status = VELK_E_BAD_FILE;
        }
        if (status == 0) {
            velk_stream_info_record& record = node->stream_info;
            memset(&record, 0, sizeof(record));
            const unsigned char* data = map.m_data;
            record.info.stream_info_size = kPublicSize;
            record.info.stream_param_a = word_at(data, kHeaderExParamA);
            record.info.stream_type = VELK_STREAM_TYPE_SAMPLE;
            record.info.stream_param_b = word_at(data, kHeaderExParamB);
            record.info.stream_param_c = word_at(data, kHeaderExParamC);
            record.info.stream_param_d = word_at(data, kHeaderExParamD);
            record.info.stream_param_e = word_at(data, kHeaderExParamE);
            record.info.stream_param_f = word_at(data, kHeaderExParamF);
            status = utility_add_string_to_temp_file("command line unknown",
                                                     &record.info.command_line.id);
            if (status == 0)
                status = utility_add_string_to_temp_file("cpu unknown", &record.info.cpu.id);
            if (status == 0)
                status = utility_add_string_to_temp_file(
                    "Stream info for stream 0 derived from legacy sample file header ex",
                    &record.info.comment.id);
            record.info.stream_value = 0;
        }
        if (status == 0) {
            node->stream_info_set = 1;
            memcpy(info, &node->stream_info, kPublicSize);
        }
    }
    if (status != 0)
        LOG_FAILED_STATUS(status);

    // The one-time window goes in any case; its failure counts only when
    // nothing failed before.
    status = helper_unmap_keeping_first(&map, status);
    if (status == 0)
        VELK_TRACE_EXIT("VELK_get_stream_info");
    return status;
}

unsigned int velk_class::VELK_set_user_info(unsigned int stream, __VELK_user_info* info)
{
    VELK_TRACE_ENTER("VELK_set_user_info");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    // The pointer is kept as it is; VELK_set_stream_info turns it into an id.
    if (info != nullptr && info->user_info.id != 0)
        node->stream_info.user_info = info->user_info;
    VELK_TRACE_EXIT("VELK_set_user_info");
    return 0;
}

unsigned int velk_class::VELK_get_user_info(unsigned int stream, unsigned int size,
                                            __VELK_user_info* info, unsigned int* size_out)
{
    VELK_TRACE_ENTER("VELK_get_user_info");
    if (size_out != nullptr)
        *size_out = 0;
    __VELK_version_info version;
    RETURN_IF_FAILED(take_version_info(this, &version));
    if (is_short_form(this, version)) {
        VELK_TRACE_EXIT("VELK_get_user_info");
        return 0;
    }
    RETURN_IF_FAILED(load_stream_info(this, stream, "VELK_get_user_info"));
    if (size == 0 && info == nullptr) {
        if (size_out != nullptr)
            *size_out = sizeof(__VELK_user_info);
        VELK_TRACE_EXIT("VELK_get_user_info");
        return 0;
    }
    if (size < sizeof(__VELK_user_info)) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_get_user_info>buffer allocated by caller is not big enough!\n",
                instance);
        return VELK_E_BUFFER_TOO_SMALL;
    }
    if (info == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_get_user_info>user info pointer is NULL!\n",
                instance);
        return VELK_E_BAD_POINTER;
    }
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    info->user_info = node->stream_info.user_info;
    VELK_TRACE_EXIT("VELK_get_user_info");
    return 0;
}

unsigned int velk_class::VELK_set_lbr_info(unsigned int stream, VELK_LBR_FILTER info)
{
    VELK_TRACE_ENTER("VELK_set_lbr_info");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    node->stream_info.lbr_info = info;
    VELK_TRACE_EXIT("VELK_set_lbr_info");
    return 0;
}

unsigned int velk_class::VELK_get_lbr_info(unsigned int stream, VELK_LBR_FILTER* info)
{
    VELK_TRACE_ENTER("VELK_get_lbr_info");
    __VELK_version_info version;
    RETURN_IF_FAILED(take_version_info(this, &version));
    if (is_short_form(this, version)) {
        VELK_TRACE_EXIT("VELK_get_lbr_info");
        return 0;
    }
    RETURN_IF_FAILED(load_stream_info(this, stream, "VELK_get_lbr_info"));
    if (info == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_get_lbr_info>lbr info pointer is NULL!\n",
                instance);
        return VELK_E_BAD_POINTER;
    }
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    *info = node->stream_info.lbr_info;
    VELK_TRACE_EXIT("VELK_get_lbr_info");
    return 0;
}

unsigned int velk_class::VELK_set_lbr_filter_info(unsigned int stream, unsigned int filter)
{
    VELK_TRACE_ENTER("VELK_set_lbr_filter_info");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    node->stream_info.lbr_filter = filter;
    VELK_TRACE_EXIT("VELK_set_lbr_filter_info");
    return 0;
}

unsigned int velk_class::VELK_get_lbr_filter_info(unsigned int stream, unsigned int size, char* text)
{
    VELK_TRACE_ENTER("VELK_get_lbr_filter_info");
    __VELK_version_info version;
    RETURN_IF_FAILED(take_version_info(this, &version));
    if (is_short_form(this, version)) {
        VELK_TRACE_EXIT("VELK_get_lbr_filter_info");
        return 0;
    }
    RETURN_IF_FAILED(load_stream_info(this, stream, "VELK_get_lbr_filter_info"));
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    const uint32_t filter = node->stream_info.lbr_filter;
    if (filter != 0 && text == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_get_lbr_filter_info>text pointer is NULL!\n",
                instance);
        return VELK_E_BAD_POINTER;
    }

    // The names of the set bits, each with a blank, appended to the caller's
    // text; a name that would take the total past `size` ends the text, so
    // names are never cut.
    unsigned long long total = 0;
    for (unsigned int index = 0; index < VELK_LBR_FILTER_COUNT; ++index) {
        if ((VELK_lbr_filter_values[index] & filter) == 0)
            continue;
        char name[1024];
        RETURN_IF_FAILED(snprintf_safe(name, sizeof(name), "%s ", VELK_lbr_filter_names[index]));
        total += strlen(name);
        if (total > size)
            break;
        strcat(text, name);
    }
    VELK_TRACE_EXIT("VELK_get_lbr_filter_info");
    return 0;
}

unsigned int velk_class::VELK_set_uncore_info(unsigned int stream, unsigned short first,
                                              unsigned short second)
{
    VELK_TRACE_ENTER("VELK_set_uncore_info");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    node->stream_info.uncore_first = first;
    node->stream_info.uncore_second = second;
    VELK_TRACE_EXIT("VELK_set_uncore_info");
    return 0;
}

unsigned int velk_class::VELK_get_uncore_info(unsigned int stream, unsigned short* first,
                                              unsigned short* second)
{
    VELK_TRACE_ENTER("VELK_get_uncore_info");
    __VELK_version_info version;
    RETURN_IF_FAILED(take_version_info(this, &version));
    // Only version 7 files of 2.0.8 and later carry the uncore values. The
    // patch level is the 16-bit word at offset 8 of the version record.
    uint16_t patch;
    memcpy(&patch, reinterpret_cast<const unsigned char*>(&version) + 8, sizeof(patch));
    const bool carried =
        vk_file_version >= 7 &&
        (version.version_major > kUncoreMajor ||
         (version.version_major == kUncoreMajor && version.version_minor > kUncoreMinor) ||
         (version.version_major == kUncoreMajor && version.version_minor == kUncoreMinor &&
          patch >= kUncorePatch));
    if (!carried) {
        VELK_TRACE_EXIT("VELK_get_uncore_info");
        return 0;
    }
    RETURN_IF_FAILED(load_stream_info(this, stream, "VELK_get_uncore_info"));
    if (first == nullptr || second == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_get_uncore_info>uncore pointer is NULL!\n",
                instance);
        return VELK_E_BAD_POINTER;
    }
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    *first = node->stream_info.uncore_first;
    *second = node->stream_info.uncore_second;
    VELK_TRACE_EXIT("VELK_get_uncore_info");
    return 0;
}

unsigned int velk_class::write_to_file_velk_stream_info(unsigned int stream)
{
    VELK_TRACE_ENTER("write_to_file_velk_stream_info");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    __VELK_version_info version;
    RETURN_IF_FAILED(take_version_info(this, &version));
    // Unlike the reader's test, a revision of 0 writes the full record.
    const unsigned int size = vk_file_version < 7 && version.version_revision != 0 &&
                                      version.version_revision < kFullRecordRevision
                                  ? kPublicSize
                                  : kStoredSize;

    __VELK_sample_file_section_vk6& sfs = node->stream_info_section;
    sfs.length = size;
    sfs.entry_length = size;
    sfs.section_id = KIND_STREAM_INFO;
    sfs.number_entries = 1;
    sfs.file_offset = VELK_OSI_Get_File_Size(file_handle);
    sfs.descriptor_id = -1;
    RETURN_IF_FAILED(utility_write_sfs_header(&node->stream_info_section, node));
    RETURN_IF_FAILED(utility_write_final_file(&node->stream_info, size, VELK_OSI_SEEK_END, 0));
    RETURN_IF_FAILED(utility_add_string_padding(file_handle, "end velk stream info"));
    VELK_TRACE_EXIT("write_to_file_velk_stream_info");
    return 0;
}
