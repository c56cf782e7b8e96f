// The file-wide records: host, operating systems, application and format
// version. Each is set once while writing and kept in the session until the
// close writes it. Reading serves the session's value if there is one, else
// the new-form section, else a translation of the legacy sections (software
// configuration, ruma_sys_info, header ex), which is then kept in the session.
#include <stdlib.h>
#include <string.h>

#include "velk_class.h"

namespace {

// The legacy software configuration record, one entry of 476 bytes.
const unsigned int kSoftwareConfigSize = 476;
const unsigned int kSwHostText2 = 0;     // 64 bytes
const unsigned int kSwHostText1 = 64;    // 64 bytes
const unsigned int kSwOsText1 = 128;     // 128 bytes
const unsigned int kSwOsType = 256;
const unsigned int kSwOsWord1 = 264;
const unsigned int kSwOsWord2 = 268;
const unsigned int kSwOsWord3 = 272;
const unsigned int kSwOsTypeAgain = 276;
const unsigned int kSwOsText2 = 280;     // 128 bytes
const unsigned int kSwHostField = 64;
const unsigned int kSwOsField = 128;
// What a translation reads of the record: the host texts end at 128, the OS
// part at 408.
const unsigned int kSwHostNeeded = 128;
const unsigned int kSwOsNeeded = kSwOsText2 + kSwOsField;

// The application's fields in the legacy __sys_info at the start of kind 24.
const unsigned int kSysInfoValue1 = 16;
const unsigned int kSysInfoValue2 = 24;
const unsigned int kSysInfoWord1 = 32;
const unsigned int kSysInfoWord2 = 36;
const unsigned int kSysInfoNeeded = 40;

// From this revision on a version 5 or 6 file has the application section.
const unsigned int kApplicationRevision = 22;

uint32_t word_at(const unsigned char* data, unsigned int offset)
{
    uint32_t value;
    memcpy(&value, data + offset, sizeof(value));
    return value;
}

uint64_t value_at(const unsigned char* data, unsigned int offset)
{
    uint64_t value;
    memcpy(&value, data + offset, sizeof(value));
    return value;
}

void put_word(unsigned char* data, unsigned int offset, uint32_t value)
{
    memcpy(data + offset, &value, sizeof(value));
}

// A section read from the file may be shorter than the record taken from it.
unsigned int check_room(const velk_class* s, const char* function,
                        const __VELK_mmap_tracker& map, unsigned long long needed)
{
    if (map.m_bytes >= needed)
        return 0;
    LOGIT_A(VELK_MASK_FAILURE, "<velk %u::%s>section is shorter than its record!\n", s->instance,
            function);
    return VELK_E_BAD_FILE;
}

// The two-call protocol of the getters. *answered tells that the call only
// asked the size, which then is in *size_out.
unsigned int size_frame(const velk_class* s, const char* function, unsigned int size,
                        const void* buffer, unsigned int* size_out, unsigned int needed,
                        bool* answered)
{
    *answered = false;
    if (size == 0 && buffer == nullptr) {
        if (size_out != nullptr)
            *size_out = needed;
        *answered = true;
        return 0;
    }
    if (size < needed) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::%s>buffer allocated by caller is not big enough!\n",
                s->instance, function);
        return VELK_E_BUFFER_TOO_SMALL;
    }
    if (buffer == nullptr) {
        LOG_NULL_POINTER();
        return VELK_E_BAD_POINTER;
    }
    return 0;
}

// A text field of the legacy record need not hold its NUL: at most the field
// is taken, terminated, and made an id of the session's strings.
unsigned int id_of_field(velk_class* s, const unsigned char* field, unsigned int width,
                         unsigned long long* id)
{
    char text[kSwOsField + 1];
    memcpy(text, field, width);
    text[width] = '\0';
    RETURN_IF_FAILED(s->utility_add_string_to_temp_file(text, id));
    return 0;
}

// The text behind a string id into a UTF-8 field of the legacy record. The
// size question's status is not looked at: without read access, or without
// a text, the size stays 0 and the field stays empty.
unsigned int legacy_text(velk_class* s, const __string_or_id& id, unsigned char* field,
                         unsigned int width)
{
    unsigned int needed = 0;
    (void)s->VELK_convert_uniqueid_to_string(0, &id, nullptr, &needed);
    if (needed == 0)
        return 0;

    wchar_t* wide = static_cast<wchar_t*>(calloc(1, needed));
    if (wide == nullptr) {
        LOG_CALLOC_FAILED("write_to_file_legacy_software_section");
        LOG_NULL_POINTER_AT("write_to_file_legacy_software_section");
        return VELK_E_NO_MEMORY;
    }
    LOG_MEMORY_ALLOCATION("write_to_file_legacy_software_section", needed);
    unsigned int unused = 0;
    unsigned int status = s->VELK_convert_uniqueid_to_string(needed, &id, wide, &unused);
    if (status != 0) {
        LOG_FAILED_STATUS(status);
    } else {
        unsigned int capacity = width;
        status = wcs_to_utf8(wide, reinterpret_cast<char*>(field), &capacity);
        if (status != 0)
            LOG_FAILED_STATUS(status);
    }
    free(wide);
    LOG_MEMORY_FREE("write_to_file_legacy_software_section", needed);
    return status;
}

// A one-time look at a small section of the sample file: maps it whole,
// refuses it if it is shorter than what `work` reads, and always unmaps.
template <typename Work>
unsigned int look_at(velk_class* s, const __VELK_sample_file_section_vk6& sfs,
                     const char* function, unsigned long long needed, Work work)
{
    __VELK_mmap_tracker map;
    RETURN_IF_FAILED(s->helper_map_small_section(&map, sfs.file_offset, sfs.length));
    unsigned int status = check_room(s, function, map, needed);
    if (status == 0) {
        status = work(static_cast<const unsigned char*>(map.m_data));
        if (status != 0)
            LOG_FAILED_STATUS(status);
    }
    return velk_class::helper_unmap_keeping_first(&map, status);
}

// The host taken from the file: the new-form record as it stands, or the
// legacy software configuration's texts, which are then kept in the session.
unsigned int read_host(velk_class* s, __VELK_host* host)
{
    velk_section_block* b = s->sections_ptr;
    if (b->sfs_host.length != 0) {
        return look_at(s, b->sfs_host, "VELK_get_host", sizeof(*host),
                       [&](const unsigned char* data) {
                           memcpy(host, data, sizeof(*host));
                           return 0u;
                       });
    }
    memset(&b->host, 0, sizeof(b->host));
    return look_at(s, b->sfs_legacy_software_config, "VELK_get_host", kSwHostNeeded,
                   [&](const unsigned char* data) {
                       b->host.host_size = sizeof(__VELK_host);
                       RETURN_IF_FAILED(id_of_field(s, data + kSwHostText1, kSwHostField,
                                                    &b->host.host_text_1.id));
                       RETURN_IF_FAILED(id_of_field(s, data + kSwHostText2, kSwHostField,
                                                    &b->host.host_text_2.id));
                       memcpy(host, &b->host, sizeof(*host));
                       b->host_set = 1;
                       return 0u;
                   });
}

// OS record 0 translated from the legacy software configuration into the
// session. os_word_1 and os_word_4 stay 0, and os_count is left alone.
unsigned int translate_os(velk_class* s)
{
    velk_section_block* b = s->sections_ptr;
    __VELK_os& os = b->os[0];
    memset(&os, 0, sizeof(os));
    return look_at(s, b->sfs_legacy_software_config, "VELK_get_os", kSwOsNeeded,
                   [&](const unsigned char* data) {
                       os.os_size = sizeof(__VELK_os);
                       os.os_type = word_at(data, kSwOsType);
                       os.os_word_2 = word_at(data, kSwOsWord2);
                       os.os_word_3 = word_at(data, kSwOsWord3);
                       RETURN_IF_FAILED(id_of_field(s, data + kSwOsText1, kSwOsField,
                                                    &os.os_text_1.id));
                       RETURN_IF_FAILED(id_of_field(s, data + kSwOsText2, kSwOsField,
                                                    &os.os_text_2.id));
                       return 0u;
                   });
}

// The application from the file: the new-form record, or the fields of the
// legacy __sys_info, which are then kept in the session.
unsigned int read_application(velk_class* s, const __VELK_version_info& version,
                              __VELK_application* application)
{
    velk_section_block* b = s->sections_ptr;
    if (s->vk_file_version >= 7 || version.version_revision >= kApplicationRevision) {
        // The length is taken as it stands: without the section the window
        // is empty and the map fails.
        return look_at(s, b->sfs_application, "VELK_get_application", sizeof(*application),
                       [&](const unsigned char* data) {
                           memcpy(application, data, sizeof(*application));
                           return 0u;
                       });
    }
    if (b->sfs_legacy_ruma_sys_info.length == 0) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_get_application>ruma system info section not found!\n",
                s->instance);
        return VELK_E_SECTION_MISSING;
    }
    memset(&b->application, 0, sizeof(b->application));
    return look_at(s, b->sfs_legacy_ruma_sys_info, "VELK_get_application", kSysInfoNeeded,
                   [&](const unsigned char* data) {
                       __VELK_application& kept = b->application;
                       kept.application_size = sizeof(__VELK_application);
                       kept.application_word_1 = word_at(data, kSysInfoWord1);
                       kept.application_word_2 = word_at(data, kSysInfoWord2);
                       kept.application_value_1 = value_at(data, kSysInfoValue1);
                       kept.application_value_2 = value_at(data, kSysInfoValue2);
                       memcpy(application, &kept, sizeof(*application));
                       b->application_set = 1;
                       return 0u;
                   });
}

// The version from the file: the new-form record, refused unless its first
// word is the record's size, or the first word of the legacy header ex.
unsigned int read_version_info(velk_class* s, __VELK_version_info* info)
{
    velk_section_block* b = s->sections_ptr;
    if (b->sfs_version_info.length != 0) {
        return look_at(s, b->sfs_version_info, "VELK_get_version_info", sizeof(*info),
                       [&](const unsigned char* data) {
                           if (word_at(data, 0) != sizeof(__VELK_version_info)) {
                               LOGIT_A(VELK_MASK_FAILURE,
                                       "<velk %u::VELK_get_version_info>data corrupted!\n",
                                       s->instance);
                               return VELK_E_STREAM_STATE;
                           }
                           memcpy(info, data, sizeof(*info));
                           return 0u;
                       });
    }
    if (b->sfs_legacy_header_ex.length == 0) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_get_version_info>velk_version_info section not found!\n",
                s->instance);
        return VELK_E_SECTION_MISSING;
    }
    memset(&b->version, 0, sizeof(b->version));
    return look_at(s, b->sfs_legacy_header_ex, "VELK_get_version_info", sizeof(uint32_t),
                   [&](const unsigned char* data) {
                       // The header ex's first word holds major and minor as one word.
                       b->version.version_size = sizeof(__VELK_version_info);
                       memcpy(&b->version.version_major, data, sizeof(uint32_t));
                       b->version_set = 1;
                       memcpy(info, &b->version, sizeof(*info));
                       return 0u;
                   });
}

// Fills a global descriptor of one small section that starts at the end of
// the sample file.
void fill_descriptor(velk_class* s, __VELK_sample_file_section_vk6* sfs, unsigned int kind,
                     unsigned long long length, unsigned long long entries,
                     unsigned int entry_length)
{
    sfs->length = length;
    sfs->number_entries = entries;
    sfs->entry_length = entry_length;
    sfs->section_id = kind;
    sfs->file_offset = VELK_OSI_Get_File_Size(s->file_handle);
}

}  // namespace

// ---------------------------------------------------------------------------
// Setters.
// ---------------------------------------------------------------------------

unsigned int velk_class::VELK_set_host(__VELK_host* host)
{
    VELK_TRACE_ENTER("VELK_set_host");
    if (host == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_get_host>nothing to write!\n", instance);
        return VELK_E_NOTHING_TO_WRITE;
    }
    if (sections_ptr->section_state[VELK_SECTION_CONFIGURATION] != VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_set_host>this section already exists or write_section was not "
                "first called!\n",
                instance);
        return VELK_E_NOT_WRITING;
    }
    // The ids go into the session's record; the caller's keeps its texts.
    __VELK_host& kept = sections_ptr->host;
    kept.host_size = host->host_size;
    kept.host_flags = host->host_flags;
    RETURN_IF_FAILED(utility_add_string_to_temp_file(host->host_text_2.text, &kept.host_text_2.id));
    RETURN_IF_FAILED(utility_add_string_to_temp_file(host->host_text_1.text, &kept.host_text_1.id));
    sections_ptr->host_set = 1;
    VELK_TRACE_EXIT("VELK_set_host");
    return 0;
}

unsigned int velk_class::VELK_set_os(unsigned int count, __VELK_os* os)
{
    VELK_TRACE_ENTER("VELK_set_os");
    if (os == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_set_os>nothing to write!\n", instance);
        return VELK_E_NOTHING_TO_WRITE;
    }
    if (sections_ptr->section_state[VELK_SECTION_CONFIGURATION] != VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_set_os>this section already exists or write_section was not "
                "first called!\n",
                instance);
        return VELK_E_NOT_WRITING;
    }
    if (count > VELK_MAX_OS_RECORDS) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_set_os>this section cannot store %d number of os info!\n",
                instance, (int)count);
        return VELK_E_NOT_WRITING;
    }
    for (unsigned int i = 0; i < count; i++) {
        __VELK_os& kept = sections_ptr->os[i];
        kept.os_size = os[i].os_size;
        kept.os_type = os[i].os_type;
        kept.os_word_1 = os[i].os_word_1;
        kept.os_word_2 = os[i].os_word_2;
        kept.os_word_3 = os[i].os_word_3;
        kept.os_word_4 = os[i].os_word_4;
        RETURN_IF_FAILED(utility_add_string_to_temp_file(os[i].os_text_1.text, &kept.os_text_1.id));
        RETURN_IF_FAILED(utility_add_string_to_temp_file(os[i].os_text_2.text, &kept.os_text_2.id));
    }
    sections_ptr->os_count = count;
    sections_ptr->os_set = 1;
    VELK_TRACE_EXIT("VELK_set_os");
    return 0;
}

unsigned int velk_class::VELK_set_application(__VELK_application* application)
{
    VELK_TRACE_ENTER("VELK_set_application");
    if (application == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_set_application>nothing to write!\n", instance);
        return VELK_E_NOTHING_TO_WRITE;
    }
    if (sections_ptr->section_state[VELK_SECTION_CONFIGURATION] != VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_set_application>this section already exists or write_section was "
                "not first called!\n",
                instance);
        return VELK_E_NOT_WRITING;
    }
    memcpy(&sections_ptr->application, application, sizeof(*application));
    sections_ptr->application_set = 1;
    VELK_TRACE_EXIT("VELK_set_application");
    return 0;
}

unsigned int velk_class::VELK_set_version_info(__VELK_version_info* info)
{
    VELK_TRACE_ENTER("VELK_set_version_info");
    if (info == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_set_version_info>nothing to write!\n", instance);
        return VELK_E_NOTHING_TO_WRITE;
    }
    if (sections_ptr->section_state[VELK_SECTION_VERSION_INFO] != VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_set_version_info>this section already exists or write was not "
                "first called!\n",
                instance);
        return VELK_E_NOT_WRITING;
    }
    memcpy(&sections_ptr->version, info, sizeof(*info));
    // The legacy header ex words that follow the version start over.
    legacy_header.header_word_0 = 0;
    legacy_header.header_word_2 = 0;
    sections_ptr->version_set = 1;
    VELK_TRACE_EXIT("VELK_set_version_info");
    return 0;
}

// ---------------------------------------------------------------------------
// Getters: state, then the size question and the size test, then the record.
// ---------------------------------------------------------------------------

unsigned int velk_class::VELK_get_host(unsigned int size, __VELK_host* host, unsigned int* size_out)
{
    VELK_TRACE_ENTER("VELK_get_host");
    if (sections_ptr->section_state[VELK_SECTION_CONFIGURATION] != VELK_STATE_READING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_get_host>either this section doesn't exist, it's being written, "
                "or read_section was not first called!\n",
                instance);
        return VELK_E_NOT_READING;
    }
    bool answered = false;
    RETURN_IF_FAILED(size_frame(this, "VELK_get_host", size, host, size_out, sizeof(*host),
                                &answered));
    if (!answered) {
        if (sections_ptr->host_set) {
            memcpy(host, &sections_ptr->host, sizeof(*host));
        } else if (sections_ptr->sfs_host.length == 0 &&
                   sections_ptr->sfs_legacy_software_config.length == 0) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::VELK_get_host>software configuration section not found!\n",
                    instance);
            return VELK_E_SECTION_MISSING;
        } else {
            RETURN_IF_FAILED(read_host(this, host));
        }
    }
    VELK_TRACE_EXIT("VELK_get_host");
    return 0;
}

unsigned int velk_class::VELK_get_os(unsigned int size, __VELK_os* os, unsigned int* size_out)
{
    VELK_TRACE_ENTER("VELK_get_os");
    velk_section_block* b = sections_ptr;
    if (b->section_state[VELK_SECTION_CONFIGURATION] != VELK_STATE_READING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_get_os>either this section doesn't exist, it's being written, or "
                "read_section was not first called!\n",
                instance);
        return VELK_E_NOT_READING;
    }
    // A translated record leaves os_count at 0, so a later call that finds
    // os_set asks for 0 bytes and gets nothing.
    unsigned long long count;
    if (b->os_set)
        count = b->os_count;
    else if (b->sfs_os.length == 0)
        count = 1;
    else
        count = b->sfs_os.number_entries;
    const unsigned long long needed = count * sizeof(__VELK_os);
    if (!b->os_set && b->sfs_os.length != 0 &&
        (count > b->sfs_os.length / sizeof(__VELK_os) || needed > 0xFFFFFFFFull)) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_get_os>section is shorter than its record!\n",
                instance);
        return VELK_E_BAD_FILE;
    }

    bool answered = false;
    RETURN_IF_FAILED(size_frame(this, "VELK_get_os", size, os, size_out, (unsigned int)needed,
                                &answered));
    if (!answered) {
        if (b->os_set) {
            memcpy(os, b->os, needed);
        } else if (b->sfs_os.length != 0) {
            RETURN_IF_FAILED(look_at(this, b->sfs_os, "VELK_get_os", needed,
                                     [&](const unsigned char* data) {
                                         memcpy(os, data, needed);
                                         return 0u;
                                     }));
        } else if (b->sfs_legacy_software_config.length != 0) {
            RETURN_IF_FAILED(translate_os(this));
            memcpy(os, &b->os[0], sizeof(*os));
            b->os_set = 1;
        } else {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::VELK_get_os>software configuration section not found!\n", instance);
            return VELK_E_SECTION_MISSING;
        }
    }
    VELK_TRACE_EXIT("VELK_get_os");
    return 0;
}

unsigned int velk_class::VELK_get_application(unsigned int size, __VELK_application* application,
                                              unsigned int* size_out)
{
    VELK_TRACE_ENTER("VELK_get_application");
    if (sections_ptr->section_state[VELK_SECTION_CONFIGURATION] != VELK_STATE_READING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_get_application>either this section doesn't exist, it's being "
                "written, or read_section was not first called!\n",
                instance);
        return VELK_E_NOT_READING;
    }
    // The version is read only when the version section can NOT be entered
    // for reading; when it can, the version stays zero and the section stays
    // entered. Callers depend on this order of things, so it stays.
    __VELK_version_info version;
    memset(&version, 0, sizeof(version));
    if (VELK_reading_section(VELK_SECTION_VERSION_INFO) != 0) {
        RETURN_IF_FAILED(VELK_get_version_info(sizeof(version), &version, nullptr));
        RETURN_IF_FAILED(VELK_done_section(VELK_SECTION_VERSION_INFO));
    }

    bool answered = false;
    RETURN_IF_FAILED(size_frame(this, "VELK_get_application", size, application, size_out,
                                sizeof(*application), &answered));
    if (!answered) {
        if (sections_ptr->application_set)
            memcpy(application, &sections_ptr->application, sizeof(*application));
        else
            RETURN_IF_FAILED(read_application(this, version, application));
    }
    VELK_TRACE_EXIT("VELK_get_application");
    return 0;
}

unsigned int velk_class::VELK_get_version_info(unsigned int size, __VELK_version_info* info,
                                               unsigned int* size_out)
{
    VELK_TRACE_ENTER("VELK_get_version_info");
    if (sections_ptr->section_state[VELK_SECTION_VERSION_INFO] != VELK_STATE_READING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_get_version_info>this section does not exist or read was not "
                "first called!\n",
                instance);
        return VELK_E_NOT_READING;
    }
    bool answered = false;
    RETURN_IF_FAILED(size_frame(this, "VELK_get_version_info", size, info, size_out,
                                sizeof(*info), &answered));
    if (!answered) {
        if (sections_ptr->version_set) {
            // The caller's size word says how much of the record counts.
            unsigned int take = sections_ptr->version.version_size;
            if (take > sizeof(*info))
                take = sizeof(*info);
            memcpy(info, &sections_ptr->version, take);
        } else {
            RETURN_IF_FAILED(read_version_info(this, info));
        }
    }
    VELK_TRACE_EXIT("VELK_get_version_info");
    return 0;
}

// ---------------------------------------------------------------------------
// Writers, called at close: descriptor, table entry, record, marker.
// ---------------------------------------------------------------------------

unsigned int velk_class::write_to_file_velk_host()
{
    VELK_TRACE_ENTER("write_to_file_velk_host");
    velk_section_block* b = sections_ptr;
    fill_descriptor(this, &b->sfs_host, KIND_HOST, sizeof(__VELK_host), 1, sizeof(__VELK_host));
    RETURN_IF_FAILED(utility_write_sfs_header(&b->sfs_host, nullptr));
    RETURN_IF_FAILED(utility_write_final_file(&b->host, sizeof(b->host), VELK_OSI_SEEK_END, 0));
    RETURN_IF_FAILED(utility_add_string_padding(file_handle, "end velk host"));
    VELK_TRACE_EXIT("write_to_file_velk_host");
    return 0;
}

unsigned int velk_class::write_to_file_velk_os()
{
    VELK_TRACE_ENTER("write_to_file_velk_os");
    velk_section_block* b = sections_ptr;
    // Without records the section still claims one; the marker follows the
    // descriptor's offset directly.
    const unsigned int entries = b->os_count != 0 ? b->os_count : 1;
    fill_descriptor(this, &b->sfs_os, KIND_OS, entries * sizeof(__VELK_os), entries,
                    sizeof(__VELK_os));
    RETURN_IF_FAILED(utility_write_sfs_header(&b->sfs_os, nullptr));
    if (b->os_count != 0)
        RETURN_IF_FAILED(utility_write_final_file(b->os, b->os_count * sizeof(__VELK_os),
                                                  VELK_OSI_SEEK_END, 0));
    RETURN_IF_FAILED(utility_add_string_padding(file_handle, "end velk os"));
    VELK_TRACE_EXIT("write_to_file_velk_os");
    return 0;
}

unsigned int velk_class::write_to_file_new_velk_application()
{
    VELK_TRACE_ENTER("write_to_file_new_velk_application");
    velk_section_block* b = sections_ptr;
    fill_descriptor(this, &b->sfs_application, KIND_APPLICATION, sizeof(__VELK_application), 1,
                    sizeof(__VELK_application));
    RETURN_IF_FAILED(utility_write_sfs_header(&b->sfs_application, nullptr));
    RETURN_IF_FAILED(utility_write_final_file(&b->application, sizeof(b->application),
                                              VELK_OSI_SEEK_END, 0));
    RETURN_IF_FAILED(utility_add_string_padding(file_handle, "end velk application"));
    VELK_TRACE_EXIT("write_to_file_new_velk_application");
    return 0;
}

unsigned int velk_class::write_to_file_ruma_sysinfo_and_velk_application()
{
    VELK_TRACE_ENTER("write_to_file_ruma_sysinfo_and_velk_application");
    if (sections_ptr->application_set)
        RETURN_IF_FAILED(write_to_file_new_velk_application());
    VELK_TRACE_EXIT("write_to_file_ruma_sysinfo_and_velk_application");
    return 0;
}

unsigned int velk_class::write_to_file_velk_version_info()
{
    VELK_TRACE_ENTER("write_to_file_velk_version_info");
    velk_section_block* b = sections_ptr;
    fill_descriptor(this, &b->sfs_version_info, KIND_VERSION_INFO, sizeof(__VELK_version_info), 1,
                    sizeof(__VELK_version_info));
    RETURN_IF_FAILED(utility_write_sfs_header(&b->sfs_version_info, nullptr));
    RETURN_IF_FAILED(utility_write_final_file(&b->version, sizeof(b->version), VELK_OSI_SEEK_END, 0));
    RETURN_IF_FAILED(utility_add_string_padding(file_handle, "end velk version info"));
    VELK_TRACE_EXIT("write_to_file_velk_version_info");
    return 0;
}

unsigned int velk_class::write_to_file_legacy_software_section()
{
    VELK_TRACE_ENTER("write_to_file_legacy_software_section");
    velk_section_block* b = sections_ptr;
    fill_descriptor(this, &b->sfs_legacy_software_config, KIND_LEGACY_SOFTWARE_CONFIG,
                    kSoftwareConfigSize, 1, kSoftwareConfigSize);
    RETURN_IF_FAILED(utility_write_legacy_sfs_header(&b->sfs_legacy_software_config));

    // The texts are read back through their ids, which are final by now:
    // the strings were flushed ahead of every section writer.
    unsigned char record[kSoftwareConfigSize];
    memset(record, 0, sizeof(record));
    if (b->host_set) {
        RETURN_IF_FAILED(legacy_text(this, b->host.host_text_2, record + kSwHostText2, kSwHostField));
        RETURN_IF_FAILED(legacy_text(this, b->host.host_text_1, record + kSwHostText1, kSwHostField));
    }
    if (b->os_set) {
        const __VELK_os& os = b->os[0];
        RETURN_IF_FAILED(legacy_text(this, os.os_text_1, record + kSwOsText1, kSwOsField));
        put_word(record, kSwOsType, os.os_type);
        put_word(record, kSwOsWord1, os.os_word_1);
        put_word(record, kSwOsWord2, os.os_word_2);
        put_word(record, kSwOsWord3, os.os_word_3);
        put_word(record, kSwOsTypeAgain, os.os_type);
        RETURN_IF_FAILED(legacy_text(this, os.os_text_2, record + kSwOsText2, kSwOsField));
    }
    RETURN_IF_FAILED(utility_write_final_file(record, sizeof(record), VELK_OSI_SEEK_END, 0));
    RETURN_IF_FAILED(utility_add_string_padding(file_handle, "end legacy software config"));
    VELK_TRACE_EXIT("write_to_file_legacy_software_section");
    return 0;
}
