// Processes, threads and modules in their legacy form, kinds 3, 7 and 2 of
// the section table. A legacy section is its array of records followed
// directly by their texts, and each record names its text by an offset from
// the section's start. That offset is unknown until the array is complete,
// so records and texts wait in two stores, and at close a pass over the
// records writes corrected copies, with the offsets filled in, to an update
// file that then goes into the sample file in place of the records store.
#include <stdlib.h>
#include <string.h>

#include <new>

#include "velk_class.h"

namespace {

constexpr unsigned int kPidRecordSize = sizeof(PidRecord_s);                 // 40
constexpr unsigned int kTidRecordSize = sizeof(velk_legacy_tid_record);      // 40
constexpr unsigned int kModuleRecordSize = sizeof(velk_legacy_module_record);// 64

// The record flags of processes and threads: only the carried bit 0 is
// written; bit 3 (event_time_64 valid) never is, the time goes to event_delta.
constexpr uint8_t kRecordFlagCarried = 0x01;

// The words of legacy writes of the session, one bit per section writer.
constexpr unsigned int kWrotePidOrModuleSection = 0x1;
constexpr unsigned int kWroteTidSection = 0x2;

// module_flags bits and their places in the module record.
constexpr unsigned int kModFlagCarried80 = 0x80;       // flags byte 1, bit 3
constexpr unsigned int kModFlagCarried400 = 0x400;     // flags byte 1, bit 1
constexpr unsigned int kModFlagCarried800 = 0x800;     // flags byte 0, bit 1
constexpr unsigned int kModFlagCarried1000 = 0x1000;   // flags byte 0, bit 0
constexpr unsigned int kModFlagNoLoadCount = 0x4000;   // segment byte, bit 2
constexpr unsigned int kModFlag64BitCounts = 0x10000;  // flags byte 0, bit 5

constexpr uint8_t kByte0From1000 = 0x01;
constexpr uint8_t kByte0From800 = 0x02;
constexpr uint8_t kByte0NotBound = 0x08;
constexpr uint8_t kByte0Counts64 = 0x20;
constexpr uint8_t kByte1ThirdText = 0x01;
constexpr uint8_t kByte1From400 = 0x02;
constexpr uint8_t kByte1From80 = 0x08;
constexpr uint8_t kSegmentTypeMask = 0x03;
constexpr uint8_t kSegmentNoLoadCount = 0x04;

// Sets or clears `bit` of `byte`.
void put_bit(uint8_t* byte, uint8_t bit, bool on)
{
    if (on)
        *byte = (uint8_t)(*byte | bit);
    else
        *byte = (uint8_t)(*byte & ~bit);
}

// A wide text as UTF-8, malloced; a null text gives a null result and
// success, so a missing text is simply no text.
unsigned int to_utf8(const wchar_t* text, char** out)
{
    *out = nullptr;
    if (text == nullptr)
        return 0;
    return wcs_to_utf8_malloced(text, out);
}

size_t length_of(const char* text) { return text != nullptr ? strlen(text) : 0; }

// The records a window can hand to an offset pass: what the count asks
// for, but never more than the window holds. The count runs ahead of the
// store when an add failed after raising it.
unsigned int records_in_window(velk_class* s, const char* function, unsigned long long wanted,
                               unsigned long long window_bytes, unsigned int record_size)
{
    const unsigned long long held = window_bytes / record_size;
    if (wanted > held) {
        LOGIT_A(VELK_MASK_WARNING,
                "<velk %u::%s>%llu records counted, but the store holds only %llu here!\n",
                s->instance, function, wanted, held);
        wanted = held;
    }
    return (unsigned int)wanted;
}

// Closes and deletes an update file; the first failure of the caller wins.
unsigned int remove_update_file(long long* handle, const char* path, unsigned int status)
{
    if (*handle == -1)
        return status;
    unsigned int closed = VELK_OSI_Close_Handle(*handle, 0);
    if (closed == 0) {
        *handle = -1;
        closed = VELK_OSI_Delete_File(path);
    }
    if (closed != 0)
        LOG_FAILED_STATUS(closed);
    return status != 0 ? status : closed;
}

// Refuses a write without a record.
unsigned int nothing_to_write(velk_class* s, const char* function)
{
    LOGIT_A(VELK_MASK_FAILURE, "<velk %u::%s>nothing to write!\n", s->instance, function);
    return VELK_E_NOTHING_TO_WRITE;
}

// Counts a new process or thread record in its section and fills the fields
// the two kinds share; the record's index is its place in the section.
template <typename Legacy>
void start_legacy_record(Legacy* legacy, unsigned int size, __VELK_sample_file_section_vk6* sfs,
                         uint32_t flags, uint32_t os_id, uint64_t when)
{
    sfs->number_entries += 1;
    memset(legacy, 0, sizeof(*legacy));
    legacy->record_size = (uint16_t)size;
    legacy->record_flags = (uint8_t)(flags & kRecordFlagCarried);
    legacy->os_id = os_id;
    legacy->record_index = (uint32_t)(sfs->number_entries - 1);
    legacy->event_delta = (uint32_t)when;
}

// True, logged, when an offset pass lacks one of its arguments.
bool offset_pass_arguments_missing(const void* records, const long long* handle,
                                   const char* path, const unsigned int* next_offset,
                                   unsigned int count)
{
    if (handle == nullptr || path == nullptr || next_offset == nullptr ||
        (records == nullptr && count != 0)) {
        LOG_NULL_POINTER();
        return true;
    }
    return false;
}

// The first window of an offset pass opens the update file; the first text
// follows the last record of the store.
unsigned int begin_offset_pass(velk_class* s, const char* function, long long* handle,
                               const char* path, unsigned int* next_offset,
                               FILE_INFO_NODE* records)
{
    if (*handle == -1) {
        *handle = VELK_OSI_Open_File(path, VELK_STORE_OPEN_MODE);
        if (*handle == -1) {
            LOGIT_A(VELK_MASK_FAILURE, "<velk %u::%s>VELK_OSI_Open_File failed\n", s->instance,
                    function);
            return VELK_E_OPEN_FAILED;
        }
    }
    if (*next_offset == 0)
        *next_offset = (unsigned int)records->Size();
    return 0;
}

// The end of a legacy section with texts: the descriptor into the
// section table, the corrected records, then the texts with the marker.
unsigned int write_records_and_texts(velk_class* s, __VELK_sample_file_section_vk6* sfs,
                                     unsigned int kind, unsigned int entry_length,
                                     unsigned long long records_size, FILE_INFO_NODE* strings,
                                     long long update, const char* marker)
{
    sfs->file_offset = VELK_OSI_Get_File_Size(s->file_handle);
    sfs->entry_length = entry_length;
    sfs->section_id = kind;
    sfs->length = records_size + strings->Size();
    RETURN_IF_FAILED(s->utility_write_legacy_sfs_header(sfs));
    // No update file means that no record was walked: there is nothing to
    // copy in front of the texts.
    if (update != -1)
        RETURN_IF_FAILED(s->utility_append_file_b_to_file_a(update, s->file_handle));
    RETURN_IF_FAILED(s->utility_add_string_padding(strings->handle, marker));
    RETURN_IF_FAILED(s->utility_append_file_b_to_file_a(strings->handle, s->file_handle));
    return 0;
}

// Writes a legacy section with texts at close. The records store is walked
// window by window; `pass` gives the records of a window their text offsets
// and appends the corrected copies to the update file, which then goes into
// the sample file in front of the texts. Sizes, positions and counts of the
// walk are held in `Size`. The window is the 32 MiB limit divided by the
// number of records, not by their size; an empty store has nothing to walk,
// whatever the count. A window that fails to map ends the walk with the
// update file removed, or, with `keep_update_on_map_failure`, ends the writer
// on the spot: nothing reaches the file and the update file stays on disk,
// its descriptor and the tracker let go so that nothing else leaks.
template <typename Size, typename Record>
unsigned int write_legacy_section_with_texts(
    velk_class* s, const char* function, char* update_path, FILE_INFO_NODE* records,
    unsigned int record_size,
    unsigned int (velk_class::*pass)(Record*, long long*, unsigned int, char*, unsigned int*),
    bool keep_update_on_map_failure, __VELK_sample_file_section_vk6* sfs, unsigned int kind,
    FILE_INFO_NODE* strings, const char* marker)
{
    const Size total = (Size)records->Size();
    const Size count = (Size)sfs->number_entries;
    const Size chunk = count != 0 ? (Size)(VELK_MAP_WINDOW_MAX / count) : 0;
    const Size chunk_bytes = chunk * record_size;

    __VELK_mmap_tracker* map = new (std::nothrow) __VELK_mmap_tracker();
    if (map == nullptr) {
        LOG_NULL_POINTER_AT(function);
        return VELK_E_NO_MEMORY;
    }
    map->Set_Data_Size(1);

    long long update = -1;
    unsigned int next_offset = 0;
    Size position = 0;
    Size done = 0;
    unsigned int status = 0;
    while (position < total) {
        const Size remainder = total - position;
        const bool last = remainder <= chunk_bytes;
        const Size bytes = last ? remainder : chunk_bytes;
        const Size wanted = last ? (count > done ? count - done : 0) : chunk;
        map->Set_Entries(bytes);
        status = map->Map_File(records->handle, 0, position);
        if (status != 0) {
            LOG_FAILED_STATUS(status);
            if (!keep_update_on_map_failure)
                break;
            if (update != -1)
                VELK_OSI_Close_Handle(update, 0);
            delete map;
            return status;
        }
        status = (s->*pass)(reinterpret_cast<Record*>(map->m_current), &update,
                            records_in_window(s, function, wanted, bytes, record_size),
                            update_path, &next_offset);
        if (status != 0)
            LOG_FAILED_STATUS(status);
        status = velk_class::helper_unmap_keeping_first(map, status);
        if (status != 0 || last)
            break;
        position += chunk_bytes;
        done += chunk;
    }

    if (status == 0) {
        status = write_records_and_texts(s, sfs, kind, record_size, records->Size(), strings,
                                         update, marker);
        if (status != 0)
            LOG_FAILED_STATUS(status);
    }
    delete map;
    return remove_update_file(&update, update_path, status);
}

}  // namespace

unsigned int velk_class::write_to_legacy_temp_file_pid(__VELK_pid* record)
{
    VELK_TRACE_ENTER("write_to_legacy_temp_file_pid");
    if (record == nullptr)
        return nothing_to_write(this, "write_to_legacy_temp_file_pid");
    velk_section_block* s = sections_ptr;
    RETURN_IF_FAILED(s->legacy_pid_record_store->Open_Temp_File(temp_path, -1));
    RETURN_IF_FAILED(s->legacy_pr_strings_store->Open_Temp_File(temp_path, -1));
    PidRecord_s legacy;
    start_legacy_record(&legacy, kPidRecordSize, &s->sfs_legacy_pid_record, record->pid_flags,
                        record->pid_id, record->pid_event_when);

    // The text is the path; the name is found inside it by its offset, taken
    // as the plain difference of the lengths whether or not the name is the
    // path's tail. Without both texts the record has no text.
    char* path = nullptr;
    char* name = nullptr;
    const bool texts = record->pid_name.text != nullptr && record->pid_path.text != nullptr;
    if (texts) {
        RETURN_IF_FAILED(wcs_to_utf8_malloced(record->pid_path.text, &path));
        const unsigned int status = wcs_to_utf8_malloced(record->pid_name.text, &name);
        if (status != 0) {
            LOG_FAILED_STATUS(status);
            free(path);
            return status;
        }
        legacy.string_length = (uint16_t)(strlen(path) + 1);
        legacy.name_offset = (uint16_t)(strlen(path) - strlen(name));
    }

    unsigned int status = s->legacy_pid_record_store->Append_To_File(&legacy, sizeof(legacy),
                                                                     VELK_OSI_SEEK_END, 0);
    if (status == 0 && texts)
        status = s->legacy_pr_strings_store->Append_To_File(path, legacy.string_length,
                                                            VELK_OSI_SEEK_END, 0);
    free(path);
    free(name);
    if (status != 0) {
        LOG_FAILED_STATUS(status);
        return status;
    }
    VELK_TRACE_EXIT("write_to_legacy_temp_file_pid");
    return 0;
}

unsigned int velk_class::write_to_legacy_temp_file_tid(__VELK_tid* record)
{
    VELK_TRACE_ENTER("write_to_legacy_temp_file_tid");
    if (record == nullptr)
        return nothing_to_write(this, "write_to_legacy_temp_file_tid");
    velk_section_block* s = sections_ptr;
    RETURN_IF_FAILED(s->legacy_tid_store->Open_Temp_File(final_file_name, -1));
    velk_legacy_tid_record legacy;
    start_legacy_record(&legacy, kTidRecordSize, &s->sfs_legacy_tid_record, record->tid_flags,
                        record->tid_id, record->tid_event_when);
    legacy.process_word = record->tid_pid;
    RETURN_IF_FAILED(s->legacy_tid_store->Append_To_File(&legacy, sizeof(legacy),
                                                         VELK_OSI_SEEK_END, 0));
    VELK_TRACE_EXIT("write_to_legacy_temp_file_tid");
    return 0;
}

unsigned int velk_class::write_to_legacy_temp_file_module(__VELK_module* record)
{
    VELK_TRACE_ENTER("write_to_legacy_temp_file_module");
    if (record == nullptr)
        return nothing_to_write(this, "write_to_legacy_temp_file_module");
    velk_legacy_module_record* legacy =
        static_cast<velk_legacy_module_record*>(calloc(1, kModuleRecordSize));
    if (legacy == nullptr) {
        LOG_CALLOC_FAILED("write_to_legacy_temp_file_module");
        LOG_NULL_POINTER_AT("write_to_legacy_temp_file_module");
        return VELK_E_NO_MEMORY;
    }
    velk_section_block* s = sections_ptr;
    unsigned int status = s->legacy_module_record_store->Open_Temp_File(final_file_name, -1);
    if (status == 0)
        status = s->legacy_module_strings_store->Open_Temp_File(final_file_name, -1);
    if (status != 0) {
        LOG_FAILED_STATUS(status);
        free(legacy);
        return status;
    }
    s->sfs_legacy_module_record.number_entries += 1;

    const unsigned int flags = record->module_flags;
    legacy->record_size = kModuleRecordSize;
    legacy->segment_byte = (uint8_t)(record->segment_type & kSegmentTypeMask);
    if (flags & kModFlagNoLoadCount)
        legacy->segment_byte |= kSegmentNoLoadCount;
    legacy->code_segment = (uint16_t)record->code_segment;
    legacy->module_ref = record->module_ref;
    // The whole legacy word is carried; its first two bytes then say what
    // module_flags says. Bits that no module flag stands for stay as given.
    memcpy(legacy->flags_word, &record->legacy_flags, sizeof(legacy->flags_word));
    put_bit(&legacy->flags_word[0], kByte0From1000, (flags & kModFlagCarried1000) != 0);
    put_bit(&legacy->flags_word[0], kByte0From800, (flags & kModFlagCarried800) != 0);
    put_bit(&legacy->flags_word[0], kByte0Counts64, (flags & kModFlag64BitCounts) != 0);
    put_bit(&legacy->flags_word[1], kByte1From400, (flags & kModFlagCarried400) != 0);
    put_bit(&legacy->flags_word[1], kByte1From80, (flags & kModFlagCarried80) != 0);
    legacy->module_length = record->module_length;
    legacy->module_load_address = record->module_load_address;
    legacy->process_word = record->pid;
    if (flags & kModFlag64BitCounts) {
        legacy->event_low = (uint32_t)record->sc_unload;
        legacy->event_high = (uint32_t)(record->sc_unload >> 32);
        legacy->sc_load_64 = record->sc_load;
    } else {
        legacy->event_low = (uint32_t)record->sc_load;
        legacy->event_high = record->sc_unload_32;
    }

    // Bit 3 of byte 0 marks a record of a file that is not legacy-bound.
    unsigned int bound = 0;
    status = VELK_is_legacy_bound(&bound);
    if (status != 0) {
        LOG_FAILED_STATUS(status);
        free(legacy);
        return status;
    }
    put_bit(&legacy->flags_word[0], kByte0NotBound, bound == 0);

    // A missing text is no text: a null path gives a record without text
    // (length and name offset 0), a null name an empty name at the path's
    // end, a null third text none.
    char* path = nullptr;
    char* name = nullptr;
    char* extra = nullptr;
    status = to_utf8(record->module_path.text, &path);
    if (status == 0)
        status = to_utf8(record->module_name.text, &name);
    if (status == 0)
        status = to_utf8(record->module_extra.text, &extra);
    if (status == 0) {
        if (path != nullptr) {
            legacy->string_length = (uint16_t)(strlen(path) + 1);
            legacy->name_offset = (uint16_t)(strlen(path) - length_of(name));
        }
        if (extra != nullptr) {
            legacy->flags_word[1] |= kByte1ThirdText;
            legacy->extra_length = (uint16_t)(strlen(extra) + 1);
        } else {
            legacy->flags_word[1] &= (uint8_t)~kByte1ThirdText;
        }

        // The texts go out as long as their records say they are, so the
        // offsets counted at close match the bytes.
        status = s->legacy_module_record_store->Append_To_File(legacy, kModuleRecordSize,
                                                               VELK_OSI_SEEK_END, 0);
        if (status == 0 && path != nullptr)
            status = s->legacy_module_strings_store->Append_To_File(path, legacy->string_length,
                                                                    VELK_OSI_SEEK_END, 0);
        if (status == 0 && extra != nullptr)
            status = s->legacy_module_strings_store->Append_To_File(extra, legacy->extra_length,
                                                                    VELK_OSI_SEEK_END, 0);
    }
    free(path);
    free(name);
    free(extra);
    free(legacy);
    if (status != 0) {
        LOG_FAILED_STATUS(status);
        return status;
    }
    VELK_TRACE_EXIT("write_to_legacy_temp_file_module");
    return 0;
}

unsigned int velk_class::helper_update_pid_string_offsets(PidRecord_s* records, long long* handle,
                                                          unsigned int count, char* path,
                                                          unsigned int* next_offset)
{
    VELK_TRACE_ENTER("helper_update_pid_string_offsets");
    if (offset_pass_arguments_missing(records, handle, path, next_offset, count))
        return VELK_E_NULL_POINTER;
    const unsigned int status =
        begin_offset_pass(this, "helper_update_pid_string_offsets", handle, path, next_offset,
                          sections_ptr->legacy_pid_record_store);
    if (status != 0)
        return status;

    // The window may start anywhere in the store: records are copied out
    // rather than read in place.
    const unsigned char* at = reinterpret_cast<const unsigned char*>(records);
    for (unsigned int i = 0; i < count; ++i) {
        PidRecord_s copy;
        memcpy(&copy, at + (size_t)i * kPidRecordSize, sizeof(copy));
        copy.string_offset = *next_offset;
        *next_offset += copy.string_length;
        if (VELK_OSI_Set_File_Pointer(*handle, 0, VELK_OSI_SEEK_END) == -1) {
            LOG_MINUS_ONE();
            return VELK_E_NULL_POINTER;
        }
        unsigned long long written = 0;
        RETURN_IF_FAILED(VELK_OSI_Write(*handle, &copy, sizeof(copy), &written));
    }
    VELK_TRACE_EXIT("helper_update_pid_string_offsets");
    return 0;
}

unsigned int velk_class::helper_update_module_string_offsets(char* records, long long* handle,
                                                             unsigned int count, char* path,
                                                             unsigned int* next_offset)
{
    VELK_TRACE_ENTER("helper_update_module_string_offsets");
    if (offset_pass_arguments_missing(records, handle, path, next_offset, count))
        return VELK_E_NULL_POINTER;
    velk_legacy_module_record* copy =
        static_cast<velk_legacy_module_record*>(calloc(1, kModuleRecordSize));
    if (copy == nullptr) {
        LOG_CALLOC_FAILED("helper_update_module_string_offsets");
        LOG_NULL_POINTER_AT("helper_update_module_string_offsets");
        return VELK_E_NO_MEMORY;
    }
    unsigned int status = begin_offset_pass(this, "helper_update_module_string_offsets", handle,
                                            path, next_offset,
                                            sections_ptr->legacy_module_record_store);
    if (status != 0) {
        free(copy);
        return status;
    }

    // Only a write that answers all ones counts as failed here; a failed
    // seek ends the pass with what the last write answered.
    for (unsigned int i = 0; i < count; ++i) {
        memcpy(copy, records + (size_t)i * kModuleRecordSize, kModuleRecordSize);
        copy->string_offset = *next_offset;
        if (copy->flags_word[1] & kByte1ThirdText)
            copy->extra_offset = *next_offset + copy->string_length;
        *next_offset += (unsigned int)copy->string_length + copy->extra_length;
        if (VELK_OSI_Set_File_Pointer(*handle, 0, VELK_OSI_SEEK_END) == -1) {
            LOG_MINUS_ONE();
            free(copy);
            return status;
        }
        unsigned long long written = 0;
        status = VELK_OSI_Write(*handle, copy, kModuleRecordSize, &written);
        if (status == 0xFFFFFFFFu) {
            LOG_FAILED_STATUS(status);
            free(copy);
            return status;
        }
    }
    free(copy);
    VELK_TRACE_EXIT("helper_update_module_string_offsets");
    return status;
}

unsigned int velk_class::write_to_file_legacy_pid_section()
{
    VELK_TRACE_ENTER("write_to_file_legacy_pid_section");
    velk_section_block* s = sections_ptr;
    char update_path[VELK_PATH_MAX];
    RETURN_IF_FAILED(snprintf_safe(update_path, sizeof(update_path), "%s_%s", final_file_name,
                                   "leg_pr_updated.tmp"));
    legacy_header.legacy_sections_written |= kWrotePidOrModuleSection;
    const unsigned int status = write_legacy_section_with_texts<unsigned long long>(
        this, "write_to_file_legacy_pid_section", update_path, s->legacy_pid_record_store,
        kPidRecordSize, &velk_class::helper_update_pid_string_offsets, false,
        &s->sfs_legacy_pid_record, KIND_LEGACY_PID_RECORD, s->legacy_pr_strings_store,
        "end legacy pid strings");
    if (status != 0)
        return status;
    VELK_TRACE_EXIT("write_to_file_legacy_pid_section");
    return 0;
}

unsigned int velk_class::write_to_file_legacy_tid_section()
{
    VELK_TRACE_ENTER("write_to_file_legacy_tid_section");
    velk_section_block* s = sections_ptr;
    legacy_header.legacy_sections_written |= kWroteTidSection;
    // Threads carry no text, so the records go out as they were stored.
    FILE_INFO_NODE* store = s->legacy_tid_store;
    __VELK_sample_file_section_vk6* sfs = &s->sfs_legacy_tid_record;
    sfs->file_offset = VELK_OSI_Get_File_Size(file_handle);
    sfs->entry_length = kTidRecordSize;
    sfs->section_id = KIND_LEGACY_TID_RECORD;
    sfs->length = store->Size();
    RETURN_IF_FAILED(utility_write_legacy_sfs_header(sfs));
    RETURN_IF_FAILED(utility_add_string_padding(store->handle, "end legacy tid section"));
    RETURN_IF_FAILED(utility_append_file_b_to_file_a(store->handle, file_handle));
    VELK_TRACE_EXIT("write_to_file_legacy_tid_section");
    return 0;
}

unsigned int velk_class::write_to_file_legacy_module_section()
{
    VELK_TRACE_ENTER("write_to_file_legacy_module_section");
    velk_section_block* s = sections_ptr;
    char update_path[VELK_PATH_MAX];
    RETURN_IF_FAILED(strcpy_safe(update_path, sizeof(update_path), final_file_name));
    RETURN_IF_FAILED(strcat_safe(update_path, sizeof(update_path), "_"));
    RETURN_IF_FAILED(strcat_safe(update_path, sizeof(update_path), "leg_mr_updated.tmp"));
    legacy_header.legacy_sections_written |= kWrotePidOrModuleSection;
    // Sizes and positions of this pass are 32-bit: a records store of 4 GiB
    // or more is not handled.
    const unsigned int status = write_legacy_section_with_texts<unsigned int>(
        this, "write_to_file_legacy_module_section", update_path, s->legacy_module_record_store,
        kModuleRecordSize, &velk_class::helper_update_module_string_offsets, true,
        &s->sfs_legacy_module_record, KIND_LEGACY_MODULE_RECORD, s->legacy_module_strings_store,
        "end legacy module strings");
    if (status != 0)
        return status;
    VELK_TRACE_EXIT("write_to_file_legacy_module_section");
    return 0;
}
