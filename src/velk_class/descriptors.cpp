// Data descriptors: the lists of 72-byte records that give the opaque data
// entries of a stream their form (one list per stream, kind 37), and the list
// that describes the records of the global sections (kind 46). Lists fill up
// through adds while writing, or from the file on first need while reading;
// a stream 0 of an older file gets its list made up from the legacy sample
// record header. Readers see a flat copy of the list, which carries only the
// first 40 bytes of each record.
#include <stdlib.h>
#include <string.h>

#include "velk_class.h"

namespace {

const unsigned int kEntrySize = VELK_DESCRIPTOR_ENTRY_SIZE;  // 72
// The part of a record that goes to the file and to readers; the rest is
// reserved and comes out as zero.
const unsigned int kEntryProperSize = 40;
// The legacy sample record header is one record of this many bytes.
const unsigned int kLegacyHeaderSize = sizeof(velk_legacy_samprec_header);
// Flags of the legacy sample record header that a reader looks at.
const uint8_t kLegacyHasSample = 0x01;
const uint8_t kLegacyHasTimestamp = 0x04;
// A legacy sample record is known for its first 40 bytes; what lies behind
// them is described as unknown.
const uint32_t kLegacyKnownRecordBytes = 40;
const uint32_t kLegacySampleLength = 32;
const uint16_t kLegacyTimestampQualifier = 32;

// Allocates the flat copy of a list: bytes 0..39 of each record, the rest
// zero. There is always at least one record's room, so an empty list still
// has a buffer to point at.
__velk_samprec_desc_entry* flat_copy(velk_list_head* head, unsigned int* count)
{
    const unsigned int n = velk_desc_list_count(head);
    __velk_samprec_desc_entry* buffer =
        static_cast<__velk_samprec_desc_entry*>(calloc(n == 0 ? 1 : n, kEntrySize));
    if (buffer == nullptr)
        return nullptr;
    unsigned int i = 0;
    for (velk_list_head* link = head->next; link != head; link = link->next, ++i)
        memcpy(&buffer[i], velk_desc_of(link), kEntryProperSize);
    *count = n;
    return buffer;
}

// Appends `count` records read from a mapped section; the section may lie at
// any alignment, so each record is copied out first.
bool append_records(velk_list_head* head, const unsigned char* data, unsigned long long count)
{
    for (unsigned long long i = 0; i < count; ++i) {
        __velk_samprec_desc_entry entry;
        memcpy(&entry, data + i * kEntrySize, sizeof(entry));
        if (!velk_desc_list_append(head, &entry))
            return false;
    }
    return true;
}

// Adds one record to a list being written: a record with a name gets its
// text into the string store first. The list is then due for writing, and
// where `id` is asked for it gets the record's number from `next_id`.
unsigned int append_descriptor(velk_class* s, velk_list_head* list, unsigned int* dirty,
                               __velk_samprec_desc_entry* entry, unsigned int* id,
                               unsigned int* next_id, const char* function)
{
    if (entry->name.id != 0)
        RETURN_IF_FAILED(s->utility_add_string_to_temp_file(entry->name.text, &entry->name.id));
    if (!velk_desc_list_append(list, entry)) {
        LOG_CALLOC_FAILED(function);
        return VELK_E_NO_MEMORY;
    }
    *dirty = 1;
    if (id != nullptr) {
        *id = *next_id;
        *next_id += 1;
    }
    return 0;
}

// Loads a list from its section in the file: the records must lie inside the
// section, which is mapped for the copy.
unsigned int read_descriptor_section(velk_class* s, const __VELK_sample_file_section_vk6& sfs,
                                     velk_list_head* list, const char* function)
{
    if (sfs.number_entries > sfs.length / kEntrySize) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::%s>%llu descriptors don't fit in %llu bytes!\n",
                s->instance, function, (unsigned long long)sfs.number_entries,
                (unsigned long long)sfs.length);
        return VELK_E_BAD_FILE;
    }
    __VELK_mmap_tracker map;
    RETURN_IF_FAILED(s->helper_map_small_section(&map, sfs.file_offset, sfs.length));
    unsigned int status = 0;
    if (!append_records(list, map.m_data, sfs.number_entries)) {
        LOG_CALLOC_FAILED(function);
        status = VELK_E_NO_MEMORY;
    }
    RETURN_IF_FAILED(velk_class::helper_unmap_keeping_first(&map, status));
    return 0;
}

// The start of every read of a stream's list: the stream, its section being
// read, the list loaded and its flat copy made. `function` names the caller
// in the refusal.
unsigned int load_stream_descriptors(velk_class* s, unsigned int stream, const char* function,
                                     __VELK_stream_struct** out)
{
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(s->utility_point_to_stream_index(stream, &node));
    if (node->stream_section_state[VELK_STREAM_SECTION_DATA_DESCRIPTION] != VELK_STATE_READING) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::%s>read_section was not first called!\n",
                s->instance, function);
        return VELK_E_NOT_READING;
    }
    if (node->desc_list->next == node->desc_list)
        RETURN_IF_FAILED(s->helper_get_data_descriptors_from_file(stream));
    if (node->desc_buffer == nullptr)
        RETURN_IF_FAILED(s->helper_copy_data_desc_into_buffer(stream));
    *out = node;
    return 0;
}

// The start of both walks of a stream's list, which share their refusal
// text: the list loaded, and a callback to hand it to.
unsigned int begin_descriptor_walk(velk_class* s, unsigned int stream,
                                   VELK_DESCRIPTOR_CALLBACK* callback, __VELK_stream_struct** out)
{
    const unsigned int status =
        load_stream_descriptors(s, stream, "VELK_enumerate_data_descriptor_entries", out);
    if (status != 0)
        return status;
    if (callback == nullptr || *callback == nullptr) {
        LOG_NULL_POINTER();
        return VELK_E_BAD_POINTER;
    }
    return 0;
}

// How many records a group starting at `position` holds: up to the next
// group head or the end. A version 5 list is one group.
unsigned int group_size(const __velk_samprec_desc_entry* entries, unsigned int count,
                        unsigned int position, bool whole_list)
{
    if (whole_list)
        return count - position;
    unsigned int end = position + 1;
    while (end < count && entries[end].field_type != ST_GROUP_HEAD)
        ++end;
    return end - position;
}

// Frees a group table with the pointer arrays of its nodes.
void free_table(VELK_DESCRIPTOR_NODE_S* table, unsigned int nodes)
{
    if (table == nullptr)
        return;
    for (unsigned int i = 0; i < nodes; ++i)
        free(table[i].entries);
    free(table);
}

}  // namespace

unsigned int velk_class::VELK_add_data_descriptor_entry(unsigned int stream,
                                                        __velk_samprec_desc_entry* entry)
{
    VELK_TRACE_ENTER("VELK_add_data_descriptor_entry");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    if (entry == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_add_data_descriptor_entry>nothing to write!\n",
                instance);
        return VELK_E_NOTHING_TO_WRITE;
    }
    if (node->stream_section_state[VELK_STREAM_SECTION_DATA_DESCRIPTION] != VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_add_data_descriptor_entry>write_section was not first called!\n",
                instance);
        return VELK_E_NOT_WRITING;
    }
    const unsigned int status = append_descriptor(this, node->desc_list, &node->desc_dirty, entry,
                                                  nullptr, nullptr,
                                                  "VELK_add_data_descriptor_entry");
    if (status != 0)
        return status;
    // Stream 0 carries legacy samples; the close finds the entry again by
    // walking the list, so this is only a note.
    if (stream == 0 && entry->field_type == ST_LEGACY_SAMPLE_RECORD)
        descriptor_entry_flag = 1;
    sections_ptr->next_stream_desc_id += 1;
    VELK_TRACE_EXIT("VELK_add_data_descriptor_entry");
    return 0;
}

unsigned int velk_class::VELK_add_stream_section_descriptor(unsigned int section,
                                                            unsigned int stream,
                                                            __velk_samprec_desc_entry* entries,
                                                            unsigned int count)
{
    VELK_TRACE_ENTER("VELK_add_stream_section_descriptor");
    (void)section;  // the records go to stream 0's list whatever the section
    if (entries == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_add_stream_section_descriptor>nothing to write!\n", instance);
        return VELK_E_NOTHING_TO_WRITE;
    }
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    if (node->stream_section_state[VELK_STREAM_SECTION_DATA_DESCRIPTION] != VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_add_stream_section_descriptor>write_section was not first "
                "called!\n",
                instance);
        return VELK_E_NOT_WRITING;
    }
    for (unsigned int i = 0; i < count; ++i) {
        unsigned int id = 0;
        RETURN_IF_FAILED(helper_add_data_descriptor_entry(&entries[i], &id));
        if (stream == 0 && entries[i].field_type == ST_LEGACY_SAMPLE_RECORD)
            descriptor_entry_flag = 1;
    }
    VELK_TRACE_EXIT("VELK_add_stream_section_descriptor");
    return 0;
}

unsigned int velk_class::helper_add_data_descriptor_entry(__velk_samprec_desc_entry* entry,
                                                          unsigned int* id)
{
    if (entry == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u>nothing to write!\n", instance);
        return VELK_E_NOTHING_TO_WRITE;
    }
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(0, &node));
    return append_descriptor(this, node->desc_list, &node->desc_dirty, entry, id,
                             &sections_ptr->next_stream_desc_id,
                             "helper_add_data_descriptor_entry");
}

unsigned int velk_class::VELK_add_global_section_descriptor(unsigned int section,
                                                            __velk_samprec_desc_entry* entries,
                                                            unsigned int count)
{
    VELK_TRACE_ENTER("VELK_add_global_section_descriptor");
    if (entries == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_add_global_section_descriptor>nothing to write!\n", instance);
        return VELK_E_NOTHING_TO_WRITE;
    }
    if (sections_ptr->section_state[VELK_SECTION_DESCRIPTOR] != VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_add_global_section_descriptor>write_section was not first "
                "called!\n",
                instance);
        return VELK_E_NOT_WRITING;
    }
    for (unsigned int i = 0; i < count; ++i) {
        unsigned int id = 0;
        RETURN_IF_FAILED(helper_add_global_descriptor_entry(&entries[i], &id));
        // A group head ties the section to its place in the global list.
        if (entries[i].field_type == ST_GROUP_HEAD)
            RETURN_IF_FAILED(helper_set_section_descriptor_id(section, id));
    }
    VELK_TRACE_EXIT("VELK_add_global_section_descriptor");
    return 0;
}

unsigned int velk_class::helper_add_global_descriptor_entry(__velk_samprec_desc_entry* entry,
                                                            unsigned int* id)
{
    if (entry == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u>nothing to write!\n", instance);
        return VELK_E_NOTHING_TO_WRITE;
    }
    // The id is the record's index in the global list.
    return append_descriptor(this, sections_ptr->global_desc_list, &sections_ptr->global_desc_dirty,
                             entry, id, &sections_ptr->next_global_desc_id,
                             "helper_add_global_descriptor_entry");
}

unsigned int velk_class::helper_get_section(unsigned int section,
                                            __VELK_sample_file_section_vk6** descriptor)
{
    *descriptor = nullptr;
    // A version 5 table has no room for the id.
    if (vk_file_version == 5)
        return 0;
    velk_section_block* s = sections_ptr;
    switch (section) {
    case VELK_SECTION_SYSTEM:
        LOGIT_A(VELK_MASK_TRACE, "<velk %u>found hardware configuration\n", instance);
        *descriptor = &s->sfs_legacy_hardware_config;
        break;
    case VELK_SECTION_CONFIGURATION:
        LOGIT_A(VELK_MASK_TRACE, "<velk %u>found software configuration\n", instance);
        *descriptor = &s->sfs_legacy_software_config;
        break;
    case VELK_SECTION_PROCESS:
        LOGIT_A(VELK_MASK_TRACE, "<velk %u>found pid record\n", instance);
        *descriptor = &s->sfs_legacy_pid_record;
        break;
    case VELK_SECTION_MODULE:
        LOGIT_A(VELK_MASK_TRACE, "<velk %u>found module record\n", instance);
        *descriptor = &s->sfs_legacy_module_record;
        break;
    case VELK_SECTION_THREAD:
        LOGIT_A(VELK_MASK_TRACE, "<velk %u>found tid record\n", instance);
        *descriptor = &s->sfs_legacy_tid_record;
        break;
    default:
        LOGIT_A(VELK_MASK_TRACE, "<velk %u>unknown section type\n", instance);
        break;
    }
    return 0;
}

unsigned int velk_class::helper_set_section_descriptor_id(unsigned int section, unsigned int id)
{
    __VELK_sample_file_section_vk6* descriptor = nullptr;
    RETURN_IF_FAILED(helper_get_section(section, &descriptor));
    // A section without a descriptor of its own drops the id.
    if (descriptor != nullptr)
        descriptor->descriptor_id = (int32_t)id;
    return 0;
}

unsigned int velk_class::helper_get_section_descriptor_id(unsigned int section, int* id)
{
    __VELK_sample_file_section_vk6* descriptor = nullptr;
    RETURN_IF_FAILED(helper_get_section(section, &descriptor));
    *id = descriptor != nullptr ? descriptor->descriptor_id : -1;
    return 0;
}

unsigned int velk_class::VELK_get_global_section_descriptor(unsigned int section,
                                                            __velk_samprec_desc_entry** entries,
                                                            int* count)
{
    VELK_TRACE_ENTER("VELK_get_global_section_descriptor");
    if (entries == nullptr || count == nullptr)
        return VELK_E_NOT_READING;
    *count = -1;

    if (vk_file_version == 5) {
        // The records of a version 5 file have fixed forms.
        velk_section_block* s = sections_ptr;
        switch (section) {
        case VELK_SECTION_MODULE: *entries = &s->builtin_module_desc; break;
        case VELK_SECTION_PROCESS: *entries = &s->builtin_pid_desc; break;
        case VELK_SECTION_THREAD: *entries = &s->builtin_tid_desc; break;
        default:
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::helper_get_section_descriptor_id>unknown section type\n", instance);
            return VELK_E_NOT_READING;
        }
        *count = 1;
        VELK_TRACE_EXIT("VELK_get_global_section_descriptor");
        return 0;
    }

    int id = -1;
    RETURN_IF_FAILED(helper_get_section_descriptor_id(section, &id));
    if (sections_ptr->section_state[VELK_SECTION_DESCRIPTOR] != VELK_STATE_READING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_get_global_section_descriptor>read_section was not first "
                "called!\n",
                instance);
        return VELK_E_NOT_READING;
    }
    velk_list_head* head = sections_ptr->global_desc_list;
    if (head->next == head)
        RETURN_IF_FAILED(helper_get_global_data_descriptors_from_file());
    if (sections_ptr->global_desc_buffer == nullptr)
        RETURN_IF_FAILED(helper_copy_global_desc_into_buffer());

    // The group is the head at the section's id and the records behind it up
    // to the next head; an id outside the list is never reached.
    __velk_samprec_desc_entry* buffer =
        static_cast<__velk_samprec_desc_entry*>(sections_ptr->global_desc_buffer);
    bool found = false;
    for (unsigned int i = 0; i < sections_ptr->global_desc_buffer_count; ++i) {
        if (!found) {
            if (id >= 0 && i == (unsigned int)id) {
                found = true;
                *count = 1;
                *entries = &buffer[i];
            }
        } else if (buffer[i].field_type == ST_GROUP_HEAD) {
            break;
        } else {
            *count += 1;
        }
    }
    VELK_TRACE_EXIT("VELK_get_global_section_descriptor");
    return 0;
}

unsigned int velk_class::VELK_get_stream_section_descriptor(unsigned int, unsigned int,
                                                            __velk_samprec_desc_entry**, int*)
{
    // Streams describe their data through their own lists; there is nothing
    // to give here.
    VELK_TRACE_ENTER("VELK_get_stream_section_descriptor");
    VELK_TRACE_EXIT("VELK_get_stream_section_descriptor");
    return 0;
}

unsigned int velk_class::VELK_enumerate_data_descriptor_entries(unsigned int stream,
                                                                VELK_DESCRIPTOR_CALLBACK* callback,
                                                                void* user)
{
    VELK_TRACE_ENTER("VELK_enumerate_data_descriptor_entries");
    __VELK_stream_struct* node = nullptr;
    const unsigned int status = begin_descriptor_walk(this, stream, callback, &node);
    if (status != 0)
        return status;

    const unsigned int count = node->desc_buffer_count;
    const unsigned int result =
        (*callback)(static_cast<__velk_samprec_desc_entry*>(node->desc_buffer), count * kEntrySize,
                    count, user);
    if (result != 0 && result != 1) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_enumerate_data_descriptor_entries>callback returned an error, "
                "exiting with value %d\n",
                instance, (int)result);
        return result;
    }
    VELK_TRACE_EXIT("VELK_enumerate_data_descriptor_entries");
    return 0;
}

unsigned int velk_class::VELK_enumerate_data_descriptors(unsigned int stream,
                                                         VELK_DESCRIPTOR_CALLBACK* callback,
                                                         void* user)
{
    VELK_TRACE_ENTER("VELK_enumerate_data_descriptors");
    __VELK_stream_struct* node = nullptr;
    const unsigned int status = begin_descriptor_walk(this, stream, callback, &node);
    if (status != 0)
        return status;

    __velk_samprec_desc_entry* entries = static_cast<__velk_samprec_desc_entry*>(node->desc_buffer);
    const unsigned int count = node->desc_buffer_count;
    const bool whole_list = vk_file_version == 5;
    unsigned int position = 0;
    do {
        // Lists of newer files are read by groups, each opened by a head.
        if (!whole_list && (position >= count || entries[position].field_type != ST_GROUP_HEAD))
            return VELK_E_BAD_FILE;
        const unsigned int n = group_size(entries, count, position, whole_list);
        const unsigned int result = (*callback)(&entries[position], n * kEntrySize, n, user);
        if (result == 0)
            break;
        if (result != 1) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::VELK_enumerate_data_descriptors>callback returned an error, "
                    "exiting with value %d\n",
                    instance, (int)result);
            return result;
        }
        position += n;
    } while (position < count);
    VELK_TRACE_EXIT("VELK_enumerate_data_descriptors");
    return 0;
}

unsigned int velk_class::VELK_get_data_desc_table(unsigned int stream,
                                                  VELK_DESCRIPTOR_NODE_S** table,
                                                  unsigned int* num_nodes)
{
    VELK_TRACE_ENTER("VELK_get_data_desc_table");
    __VELK_stream_struct* node = nullptr;
    const unsigned int status =
        load_stream_descriptors(this, stream, "helper_get_data_desc_table", &node);
    if (status != 0)
        return status;

    __velk_samprec_desc_entry* entries = static_cast<__velk_samprec_desc_entry*>(node->desc_buffer);
    const unsigned int count = node->desc_buffer_count;
    const bool whole_list = vk_file_version == 5;
    VELK_DESCRIPTOR_NODE_S* nodes = nullptr;
    unsigned int built = 0;
    unsigned int position = 0;
    do {
        if (!whole_list && (position >= count || entries[position].field_type != ST_GROUP_HEAD)) {
            free_table(nodes, built);
            return VELK_E_BAD_FILE;
        }
        const unsigned int n = group_size(entries, count, position, whole_list);

        bool failed = false;
        VELK_DESCRIPTOR_NODE_S* grown = static_cast<VELK_DESCRIPTOR_NODE_S*>(
            realloc(nodes, (size_t)(built + 1) * sizeof(VELK_DESCRIPTOR_NODE_S)));
        if (grown == nullptr) {
            LOGIT_A(VELK_MASK_FAILURE, "velk_data_desc_call_back: Unable to allocate memory\n");
            failed = true;
        } else {
            nodes = grown;
            __velk_samprec_desc_entry** pointers = static_cast<__velk_samprec_desc_entry**>(
                calloc(n == 0 ? 1 : n, sizeof(__velk_samprec_desc_entry*)));
            if (pointers == nullptr) {
                LOG_CALLOC_FAILED("velk_data_desc_call_back");
                LOG_NULL_POINTER_AT("velk_data_desc_call_back");
                failed = true;
            } else {
                uint32_t length = 0;
                for (unsigned int i = 0; i < n; ++i) {
                    pointers[i] = &entries[position + i];
                    length += entries[position + i].field_length;
                }
                nodes[built].entries = pointers;
                nodes[built].num_entries = n;
                nodes[built].group_length = length;
                built += 1;
            }
        }
        if (failed) {
            // The walk stops and the operation still succeeds, with no table:
            // what was built so far goes.
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::helper_get_data_desc_table>callback returned an error, exiting "
                    "with value %d\n",
                    instance, 0);
            free_table(nodes, built);
            nodes = nullptr;
            built = 0;
            break;
        }
        position += n;
    } while (position < count);

    if (table != nullptr) {
        *table = nodes;
        if (num_nodes != nullptr)
            *num_nodes = built;
    } else {
        free_table(nodes, built);
        if (num_nodes != nullptr)
            *num_nodes = built;
    }
    VELK_TRACE_EXIT("VELK_get_data_desc_table");
    return 0;
}

unsigned int velk_class::helper_get_data_descriptors_from_file(unsigned int stream)
{
    VELK_TRACE_ENTER("helper_get_data_descriptors_from_file");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    const __VELK_sample_file_section_vk6& sfs = node->data_description_section;
    if (sfs.length != 0) {
        const unsigned int status = read_descriptor_section(
            this, sfs, node->desc_list, "helper_get_data_descriptors_from_file");
        if (status != 0)
            return status;
    } else {
        if (stream == 0)
            RETURN_IF_FAILED(helper_generate_data_descriptors_from_legacy(0));
        // A stream without a section of its own gets one at a writer's
        // close, even if it stays empty.
        node->desc_dirty = 1;
    }
    VELK_TRACE_EXIT("helper_get_data_descriptors_from_file");
    return 0;
}

unsigned int velk_class::helper_get_global_data_descriptors_from_file()
{
    VELK_TRACE_ENTER("helper_get_global_data_descriptors_from_file");
    // An empty section can't be mapped, and says so.
    const unsigned int status =
        read_descriptor_section(this, sections_ptr->sfs_global_descriptor,
                                sections_ptr->global_desc_list,
                                "helper_get_global_data_descriptors_from_file");
    if (status != 0)
        return status;
    VELK_TRACE_EXIT("helper_get_global_data_descriptors_from_file");
    return 0;
}

unsigned int velk_class::helper_generate_data_descriptors_from_legacy(unsigned int stream)
{
    VELK_TRACE_ENTER("helper_generate_data_descriptors_from_legacy");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    if (sections_ptr->sfs_legacy_sample_record.length == 0) {
        VELK_TRACE_EXIT("helper_generate_data_descriptors_from_legacy");
        return 0;
    }

    // The header is one record of 112 bytes; an empty section fails in the
    // mapping, a shorter one is damaged.
    const __VELK_sample_file_section_vk6& sfs = sections_ptr->sfs_legacy_sample_record_header;
    if (sfs.length != 0 && sfs.length < kLegacyHeaderSize) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::helper_generate_data_descriptors_from_legacy>sample record header of "
                "%llu bytes is too short!\n",
                instance, (unsigned long long)sfs.length);
        return VELK_E_BAD_FILE;
    }
    __VELK_mmap_tracker map;
    RETURN_IF_FAILED(helper_map_small_section(
        &map, sfs.file_offset, sfs.length < kLegacyHeaderSize ? sfs.length : kLegacyHeaderSize));
    velk_legacy_samprec_header header;
    memcpy(&header, map.m_data, sizeof(header));

    // One record serves all entries: what an entry doesn't set stays as the
    // one before left it, the time stamp's qualifier included.
    __velk_samprec_desc_entry entry;
    memset(&entry, 0, sizeof(entry));
    entry.entry_size = kEntrySize;
    unsigned int status = 0;
    auto add = [&](const char* name) {
        status = utility_add_string_to_temp_file(name, &entry.name.id);
        if (status != 0) {
            LOG_FAILED_STATUS(status);
            return false;
        }
        if (!velk_desc_list_append(node->desc_list, &entry)) {
            LOG_CALLOC_FAILED("helper_generate_data_descriptors_from_legacy");
            status = VELK_E_NO_MEMORY;
            return false;
        }
        return true;
    };
    bool going = true;
    if (header.flags & kLegacyHasSample) {
        entry.field_offset = header.sample_offset;
        entry.field_type = ST_LEGACY_SAMPLE_RECORD;
        entry.field_length = kLegacySampleLength;
        going = add("LEGACY_SAMPLE_RECORD");
    }
    if (going && (header.flags & kLegacyHasTimestamp)) {
        entry.field_offset = header.timestamp_offset;
        entry.field_type = ST_TIMESTAMP;
        entry.field_qualifier = kLegacyTimestampQualifier;
        entry.field_length = header.timestamp_length;
        going = add("TIMESTAMP");
    }
    if (going && header.record_size > kLegacyKnownRecordBytes) {
        entry.field_offset = kLegacyKnownRecordBytes;
        entry.field_type = ST_LEGACY_UNKNOWN;
        entry.field_length = header.record_size - kLegacyKnownRecordBytes;
        add("LEGACY_UNKNOWN");
    }
    RETURN_IF_FAILED(helper_unmap_keeping_first(&map, status));
    VELK_TRACE_EXIT("helper_generate_data_descriptors_from_legacy");
    return 0;
}

unsigned int velk_class::helper_check_if_data_desc_exists(unsigned int stream)
{
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    if (node->data_description_section.length != 0 || node->desc_list->next != node->desc_list)
        return 0;
    if (stream == 0 && sections_ptr->sfs_legacy_sample_record.length != 0) {
        LOGIT_A(VELK_MASK_DETAIL, "<velk %u> need to generate the data descriptors from legacy!\n",
                instance);
        return 0;
    }
    LOGIT_A(VELK_MASK_FAILURE, "<velk %u> no data descriptor info exists!\n", instance);
    return VELK_E_NO_DESCRIPTORS;
}

// The flat copies are made when a reader first needs one, and again each time
// a section is written, at close. A new copy frees the one before: readers
// get pointers into the buffer only while the session is open, and the only
// remake during a session is the close's, after which nothing of the session
// may be used.
unsigned int velk_class::helper_copy_data_desc_into_buffer(unsigned int stream)
{
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    unsigned int count = 0;
    __velk_samprec_desc_entry* buffer = flat_copy(node->desc_list, &count);
    if (buffer == nullptr) {
        LOG_CALLOC_FAILED("helper_copy_data_desc_into_buffer");
        LOG_NULL_POINTER_AT("helper_copy_data_desc_into_buffer");
        return VELK_E_NO_MEMORY;
    }
    free(node->desc_buffer);
    node->desc_buffer = buffer;
    node->desc_buffer_count = count;
    return 0;
}

unsigned int velk_class::helper_copy_global_desc_into_buffer()
{
    unsigned int count = 0;
    __velk_samprec_desc_entry* buffer = flat_copy(sections_ptr->global_desc_list, &count);
    if (buffer == nullptr) {
        LOG_NULL_POINTER();
        return VELK_E_NULL_POINTER;
    }
    free(sections_ptr->global_desc_buffer);
    sections_ptr->global_desc_buffer = buffer;
    sections_ptr->global_desc_buffer_count = count;
    return 0;
}

namespace {

// A descriptor section: its entry in the table, the flat copy of the list,
// and the closing text.
unsigned int write_descriptor_section(velk_class* s, __VELK_sample_file_section_vk6* sfs,
                                      unsigned int stream_number, __VELK_stream_struct* stream,
                                      void** buffer, const unsigned int* count,
                                      const char* marker)
{
    RETURN_IF_FAILED(s->utility_write_sfs_header(sfs, stream));
    if (stream != nullptr)
        RETURN_IF_FAILED(s->helper_copy_data_desc_into_buffer(stream_number));
    else
        RETURN_IF_FAILED(s->helper_copy_global_desc_into_buffer());
    RETURN_IF_FAILED(s->utility_write_final_file(*buffer, (unsigned long long)*count * kEntrySize,
                                                 VELK_OSI_SEEK_END, 0));
    RETURN_IF_FAILED(s->utility_add_string_padding(s->file_handle, marker));
    return 0;
}

void fill_descriptor_section(velk_class* s, __VELK_sample_file_section_vk6* sfs,
                             unsigned int count, unsigned int kind, unsigned int stream_number)
{
    sfs->length = (unsigned long long)count * kEntrySize;
    sfs->number_entries = count;
    sfs->entry_length = kEntrySize;
    sfs->section_id = kind;
    sfs->file_offset = VELK_OSI_Get_File_Size(s->file_handle);
    sfs->stream_number = stream_number;
}

}  // namespace

unsigned int velk_class::write_to_file_data_descriptors(unsigned int stream)
{
    VELK_TRACE_ENTER("write_to_file_data_descriptors");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    fill_descriptor_section(this, &node->data_description_section,
                            velk_desc_list_count(node->desc_list), KIND_DATA_DESCRIPTION, stream);
    RETURN_IF_FAILED(write_descriptor_section(this, &node->data_description_section, stream, node,
                                              &node->desc_buffer, &node->desc_buffer_count,
                                              "end velk metadata"));
    VELK_TRACE_EXIT("write_to_file_data_descriptors");
    return 0;
}

unsigned int velk_class::write_to_file_velk_global_descriptor()
{
    VELK_TRACE_ENTER("write_to_file_velk_global_descriptor");
    velk_section_block* s = sections_ptr;
    fill_descriptor_section(this, &s->sfs_global_descriptor,
                            velk_desc_list_count(s->global_desc_list), KIND_GLOBAL_DESCRIPTOR, 0);
    RETURN_IF_FAILED(write_descriptor_section(this, &s->sfs_global_descriptor, 0, nullptr,
                                              &s->global_desc_buffer,
                                              &s->global_desc_buffer_count,
                                              "end velk global descriptor"));
    VELK_TRACE_EXIT("write_to_file_velk_global_descriptor");
    return 0;
}
