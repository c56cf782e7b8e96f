// The data stream: a stream's opaque data entries. While a stream is written
// the bytes wait in its "data.tmp" store; at close they become the stream's
// data section (and, for a legacy-mirrored stream, the legacy sample
// section, over the same bytes). Reading walks the section through windows
// of at most 32 MiB, one call-back call per window.
#include <stdlib.h>

#include "velk_class.h"

namespace {

// Sample streams (type 1, and 9 which differs only in bit 3) are walked in
// bytes; every other stream in whole entries.
bool counted_by_bytes(const __VELK_stream_struct* node)
{
    return (node->stream_info.info.stream_type & ~8u) == 1;
}

// The start of both adds: something to add, a stream whose data section is
// being written, and its store open. `first_call` is the call the refusal
// names as missing.
unsigned int begin_data_add(velk_class* s, unsigned int stream, bool nothing,
                            const char* function, const char* first_call,
                            __VELK_stream_struct** out)
{
    if (nothing) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::%s>nothing to write!\n", s->instance, function);
        return VELK_E_NOTHING_TO_WRITE;
    }
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(s->utility_point_to_stream_index(stream, &node));
    if (node->stream_section_state[VELK_STREAM_SECTION_DATA] != VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::%s>%s was not first called!\n", s->instance,
                function, first_call);
        return VELK_E_NOT_WRITING;
    }
    if (node->data_store->handle == -1)
        RETURN_IF_FAILED(s->helper_open_temp_data_file(stream));
    *out = node;
    return 0;
}

}  // namespace

unsigned int velk_class::VELK_add_data(unsigned int stream, unsigned int size, void* data)
{
    VELK_TRACE_ENTER("VELK_add_data");
    __VELK_stream_struct* node = nullptr;
    const unsigned int status = begin_data_add(this, stream, data == nullptr || size == 0,
                                               "VELK_add_data", "write_section", &node);
    if (status != 0)
        return status;
    // Any number of bytes: whole entries are only counted at close.
    RETURN_IF_FAILED(node->data_store->Append_To_File(data, size, VELK_OSI_SEEK_END, 0));
    VELK_TRACE_EXIT("VELK_add_data");
    return 0;
}

unsigned int velk_class::VELK_add_data_from_file(unsigned int stream, wchar_t* path)
{
    VELK_TRACE_ENTER("VELK_add_data_from_file");
    __VELK_stream_struct* node = nullptr;
    // The refusal of an add from a file names read_section.
    const unsigned int refused = begin_data_add(this, stream, path == nullptr,
                                                "VELK_add_data_from_file", "read_section", &node);
    if (refused != 0)
        return refused;

    char* utf8 = nullptr;
    VELK_convert_wcs_to_utf8_malloced(path, &utf8);
    if (utf8 == nullptr) {
        LOG_NULL_POINTER();
        return VELK_E_NULL_POINTER;
    }
    const long long input = VELK_OSI_Open_File(utf8, 1);
    free(utf8);

    // Neither a failed open nor a broken copy ends the operation: only the
    // close of the input decides the result. A missing file thus comes back
    // as the close's failure on handle -1, and a copy cut short keeps what
    // reached the store.
    if (input == -1)
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_add_data_from_file>VELK_OSI_Open_File failed\n",
                instance);
    const unsigned int copied = utility_append_file_b_to_file_a(input, node->data_store->handle);
    if (copied != 0)
        LOG_FAILED_STATUS(copied);
    const unsigned int status = VELK_OSI_Close_Handle(input, 0);
    if (status != 0) {
        LOG_FAILED_STATUS(status);
        return status;
    }
    VELK_TRACE_EXIT("VELK_add_data_from_file");
    return 0;
}

unsigned int velk_class::VELK_enumerate_data(unsigned int stream, VELK_DATA_CALLBACK* callback,
                                             void* user, unsigned long long read_start)
{
    VELK_TRACE_ENTER("VELK_enumerate_data");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    if (node->stream_section_state[VELK_STREAM_SECTION_DATA] != VELK_STATE_READING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_enumerate_data>read_section was not first called!\n", instance);
        return VELK_E_NOT_READING;
    }
    if (callback == nullptr || *callback == nullptr) {
        LOG_NULL_POINTER();
        return VELK_E_BAD_POINTER;
    }
    RETURN_IF_FAILED(helper_check_if_data_desc_exists(stream));
    unsigned long long entry_size = 0;
    RETURN_IF_FAILED(helper_find_size_of_data_entry(stream, &entry_size));

    const bool by_bytes = counted_by_bytes(node);
    // Descriptors that declare no field length give no entries to count.
    if (!by_bytes && entry_size == 0) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u> no data descriptor info exists!\n", instance);
        return VELK_E_NO_DESCRIPTORS;
    }
    const unsigned int data_size = by_bytes ? 0 : (unsigned int)entry_size;
    const unsigned long long end =
        by_bytes ? node->data_section.length : node->data_section.number_entries;

    __VELK_mmap_tracker* map = &node->data_map;
    // A window left mapped in other units (the stream type changed since)
    // can't be re-entered: its entry numbers mean something else now.
    if (map->m_data != nullptr && map->m_data_size != data_size)
        RETURN_IF_FAILED(map->Unmap_File());
    map->Set_Data_Size(data_size);

    if (map->In_Range(read_start, 0))
        map->Rebase(read_start);
    else
        RETURN_IF_FAILED(helper_map_data(stream, read_start));

    for (;;) {
        unsigned long long unconsumed = 0;
        const unsigned int result =
            (*callback)(map->m_current, map->m_bytes, (unsigned int)map->m_entries, user, &unconsumed);
        if (result == 0)
            break;
        if (result != 1) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::VELK_enumerate_data>callback returned an error, exiting with value "
                    "%d\n",
                    instance, (int)result);
            return result;
        }
        if (map->End_Of_Map(end)) {
            RETURN_IF_FAILED(map->Unmap_File());
            break;
        }
        // The next window starts `unconsumed` units before this one's end.
        // Handing back the whole window (or more) would map it again and
        // again, so that stops here.
        const unsigned long long window = map->m_last_entry - map->m_first_entry + 1;
        if (unconsumed >= window) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::VELK_enumerate_data>callback left %llu of the window's %llu units "
                    "unconsumed, the enumeration would not advance!\n",
                    instance, unconsumed, window);
            return VELK_E_BAD_READ_START;
        }
        RETURN_IF_FAILED(helper_map_data(stream, map->m_last_entry - unconsumed + 1));
    }
    VELK_TRACE_EXIT("VELK_enumerate_data");
    return 0;
}

unsigned int velk_class::VELK_get_size_of_each_data_entry(unsigned int stream, unsigned int* size)
{
    VELK_TRACE_ENTER("VELK_get_size_of_each_data_entry");
    unsigned long long entry_size = 0;
    RETURN_IF_FAILED(helper_find_size_of_data_entry(stream, &entry_size));
    if (size != nullptr)
        *size = (unsigned int)entry_size;
    VELK_TRACE_EXIT("VELK_get_size_of_each_data_entry");
    return 0;
}

unsigned int velk_class::helper_open_temp_data_file(unsigned int stream)
{
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    RETURN_IF_FAILED(node->data_store->Open_Temp_File(temp_path, (int)stream));
    return 0;
}

unsigned int velk_class::helper_find_size_of_data_entry(unsigned int stream,
                                                        unsigned long long* size)
{
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    velk_list_head* head = node->desc_list;
    if (head->next == head)
        RETURN_IF_FAILED(helper_get_data_descriptors_from_file(stream));

    // An entry ends where its last field ends: the field with the highest
    // offset, the first of equals. Gaps inside count, padding behind only
    // when a descriptor declares it.
    uint32_t last_offset = 0;
    uint32_t last_length = 0;
    for (velk_list_head* link = head->next; link != head; link = link->next) {
        const __velk_samprec_desc_entry* entry = velk_desc_of(link);
        if (entry->entry_size != VELK_DESCRIPTOR_ENTRY_SIZE) {
            LOGIT_A(VELK_MASK_FAILURE, "<velk %u>desc size is %u, expected size %u\n", instance,
                    entry->entry_size, VELK_DESCRIPTOR_ENTRY_SIZE);
            return VELK_E_DESC_SIZE_MISMATCH;
        }
        if (last_length == 0)
            last_length = entry->field_length;
        if (entry->field_offset > last_offset) {
            last_offset = entry->field_offset;
            last_length = entry->field_length;
        }
    }
    const uint32_t entry_size = last_offset + last_length;
    *size = entry_size;
    LOGIT_A(VELK_MASK_TRACE, "<velk %u>data entry size = %u\n", instance, entry_size);
    return 0;
}

unsigned int velk_class::helper_map_data(unsigned int stream, unsigned long long start)
{
    VELK_TRACE_ENTER("helper_map_data");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    __VELK_mmap_tracker* map = &node->data_map;
    RETURN_IF_FAILED(map->Unmap_File());

    const __VELK_sample_file_section_vk6& sfs = node->data_section;
    FILE_INFO_NODE* store = node->data_store;
    // Written data lies in the sample file; data of this session is still
    // in the store.
    const bool in_file = sfs.length != 0 && store->handle == -1;
    const unsigned long long size = map->m_data_size;
    // The read start counts bytes of a section walked in bytes, entries
    // otherwise.
    if (start >= (size == 0 ? sfs.length : sfs.number_entries)) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::helper_map_data>invalid read start!\n", instance);
        return VELK_E_BAD_READ_START;
    }
    unsigned long long offset;
    if (size == 0) {
        const unsigned long long rest = sfs.length - start;
        map->Set_Entries(rest < VELK_MAP_WINDOW_MAX ? rest : VELK_MAP_WINDOW_MAX);
        offset = start;
    } else {
        // A count of entries that the section can't hold would take the
        // windows past its end.
        if (in_file && sfs.number_entries > sfs.length / size) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::helper_map_data>%llu entries of %llu bytes don't fit in a data "
                    "section of %llu bytes!\n",
                    instance, (unsigned long long)sfs.number_entries, size,
                    (unsigned long long)sfs.length);
            return VELK_E_BAD_FILE;
        }
        unsigned long long window = sfs.length <= VELK_MAP_WINDOW_MAX
                                        ? sfs.number_entries
                                        : (uint32_t)VELK_MAP_WINDOW_MAX / (uint32_t)size;
        if (window > sfs.number_entries - start)
            window = sfs.number_entries - start;
        map->Set_Entries(window);
        offset = size * start;
    }

    long long handle = store->handle;
    if (in_file) {
        handle = file_handle;
        offset += sfs.file_offset;
    }
    RETURN_IF_FAILED(map->Map_File(handle, start, offset));
    VELK_TRACE_EXIT("helper_map_data");
    return 0;
}

unsigned int velk_class::write_to_file_data_stream(unsigned int stream, unsigned int legacy_mirror,
                                                   unsigned long long entry_size)
{
    VELK_TRACE_ENTER("write_to_file_data_stream");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    FILE_INFO_NODE* store = node->data_store;
    const unsigned long long total = store->Size();
    const uint32_t count = legacy_header.totalSampleCount;

    __VELK_sample_file_section_vk6& sfs = node->data_section;
    sfs.length = total;
    // Data only exists beside descriptors; an entry size of 0 still counts
    // no entries rather than dividing by it.
    if (count != 0)
        sfs.number_entries = count;
    else
        sfs.number_entries = entry_size != 0 ? total / entry_size : 0;
    // This field holds the data's whole length, not the entry size.
    sfs.entry_length = (uint32_t)total;
    sfs.section_id = KIND_DATA;
    sfs.file_offset = VELK_OSI_Get_File_Size(file_handle);
    sfs.stream_number = stream;
    RETURN_IF_FAILED(utility_write_sfs_header(&sfs, node));

    if (legacy_mirror) {
        // The legacy table points at the very same bytes.
        unsigned long long mirror_size = 0;
        RETURN_IF_FAILED(helper_find_size_of_data_entry(stream, &mirror_size));
        __VELK_sample_file_section_vk6& legacy = sections_ptr->sfs_legacy_sample_record;
        legacy.length = total;
        legacy.number_entries = count;
        legacy.entry_length = (uint32_t)mirror_size;
        legacy.section_id = KIND_LEGACY_SAMPLE_RECORD;
        legacy.file_offset = VELK_OSI_Get_File_Size(file_handle);
        legacy.stream_number = stream;
        RETURN_IF_FAILED(utility_write_legacy_sfs_header(&legacy));
    }

    RETURN_IF_FAILED(utility_add_string_padding(store->handle, "end data section"));
    RETURN_IF_FAILED(utility_append_file_b_to_file_a(store->handle, file_handle));
    VELK_TRACE_EXIT("write_to_file_data_stream");
    return 0;
}
