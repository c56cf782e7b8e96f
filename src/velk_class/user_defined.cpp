// Opaque blocks of the caller's own: one for the whole file (kind 32) and one
// per stream (kind 39). The library keeps the bytes in the order given and
// hands them back whole.
#include <string.h>

#include "velk_class.h"

namespace {

// Reads a block through a one-time window: the section in the sample file
// once it is written, else the store as it stands so far.
unsigned int read_block(velk_class* s, const char* name, const __VELK_sample_file_section_vk6& sfs,
                        FILE_INFO_NODE* store, const char* missing, unsigned int missing_status,
                        unsigned int size, void* data, unsigned int* size_out)
{
    __VELK_mmap_tracker map;
    memset(&map, 0, sizeof(map));
    map.Set_Data_Size(1);
    unsigned long long block;
    if (sfs.length != 0) {
        block = sfs.length;
        map.Set_Entries(block);
        RETURN_IF_FAILED(map.Map_File(s->file_handle, 0, sfs.file_offset));
    } else if (store->handle != -1) {
        block = store->Size();
        map.Set_Entries(block);
        // An empty block has nothing to map.
        if (block != 0)
            RETURN_IF_FAILED(map.Map_File(store->handle, 0, 0));
    } else {
        LOGIT_A(VELK_MASK_FAILURE, missing, s->instance);
        return missing_status;
    }

    // The size question leaves the window mapped, and the process-wide
    // mapping counters raised by it.
    if (size == 0 && data == nullptr) {
        if (size_out != nullptr)
            *size_out = (unsigned int)block;
        return 0;
    }
    unsigned int status = 0;
    if (size < block) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::%s>buffer allocated by caller is not big enough!\n",
                s->instance, name);
        status = VELK_E_BUFFER_TOO_SMALL;
    } else if (block != 0) {
        if (data == nullptr) {
            LOG_NULL_POINTER();
            status = VELK_E_BAD_POINTER;
        } else {
            memcpy(data, map.m_current, block);
        }
    }
    return velk_class::helper_unmap_keeping_first(&map, status);
}

}  // namespace

unsigned int velk_class::VELK_set_user_defined_global(unsigned int size, void* data)
{
    VELK_TRACE_ENTER("VELK_set_user_defined_global");
    if (data == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_set_user_defined_global>nothing to write!\n",
                instance);
        return VELK_E_NOTHING_TO_WRITE;
    }
    if (sections_ptr->section_state[VELK_SECTION_USER_DEFINED] != VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_set_user_defined_global>this section already exists or "
                "write_section was not first called!\n",
                instance);
        return VELK_E_NOT_WRITING;
    }
    FILE_INFO_NODE* store = sections_ptr->usr_defined_global_store;
    RETURN_IF_FAILED(store->Open_Temp_File(temp_path, -1));
    RETURN_IF_FAILED(store->Append_To_File(data, size, VELK_OSI_SEEK_END, 0));
    VELK_TRACE_EXIT("VELK_set_user_defined_global");
    return 0;
}

unsigned int velk_class::VELK_set_user_defined_stream(unsigned int stream, unsigned int size,
                                                      void* data)
{
    VELK_TRACE_ENTER("VELK_set_user_defined_stream");
    if (data == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_set_user_defined_stream>nothing to write!\n",
                instance);
        return VELK_E_NOTHING_TO_WRITE;
    }
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    if (node->stream_section_state[VELK_STREAM_SECTION_USER_DEFINED] != VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_set_user_defined_stream>this section already exists or "
                "write_stream was not first called!\n",
                instance);
        return VELK_E_NOT_WRITING;
    }
    RETURN_IF_FAILED(node->user_defined_store->Open_Temp_File(temp_path, (int)stream));
    RETURN_IF_FAILED(node->user_defined_store->Append_To_File(data, size, VELK_OSI_SEEK_END, 0));
    VELK_TRACE_EXIT("VELK_set_user_defined_stream");
    return 0;
}

unsigned int velk_class::VELK_get_user_defined_global(unsigned int size, void* data,
                                                      unsigned int* size_out)
{
    VELK_TRACE_ENTER("VELK_get_user_defined_global");
    if (sections_ptr->section_state[VELK_SECTION_USER_DEFINED] != VELK_STATE_READING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_get_user_defined_global>either this section doesn't exist, it's "
                "being written, or read_section was not first called!\n",
                instance);
        return VELK_E_NOT_READING;
    }
    RETURN_IF_FAILED(read_block(this, "VELK_get_user_defined_global",
                                sections_ptr->sfs_user_defined_global,
                                sections_ptr->usr_defined_global_store,
                                "<velk %u::VELK_get_user_defined_global>cannot find user defined "
                                "global info!\n",
                                VELK_E_SECTION_MISSING, size, data, size_out));
    VELK_TRACE_EXIT("VELK_get_user_defined_global");
    return 0;
}

unsigned int velk_class::VELK_get_user_defined_stream(unsigned int stream, unsigned int size,
                                                      void* data, unsigned int* size_out)
{
    VELK_TRACE_ENTER("VELK_get_user_defined_stream");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    if (node->stream_section_state[VELK_STREAM_SECTION_USER_DEFINED] != VELK_STATE_READING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_get_user_defined_stream>either this section doesn't exist, it's "
                "being written, or read_section was not first called!\n",
                instance);
        return VELK_E_NOT_READING;
    }
    // A missing block is "not reading" here, where the global form says
    // "missing".
    RETURN_IF_FAILED(read_block(this, "VELK_get_user_defined_stream", node->user_defined_section,
                                node->user_defined_store,
                                "<velk %u::VELK_get_user_defined_stream>cannot find user defined "
                                "stream info!\n",
                                VELK_E_NOT_READING, size, data, size_out));
    VELK_TRACE_EXIT("VELK_get_user_defined_stream");
    return 0;
}

namespace {

// The block's descriptor goes into its table, then the store, ended by its
// marker, to the end of the sample file. The length is taken before the
// marker.
unsigned int write_block(velk_class* s, __VELK_sample_file_section_vk6* sfs, unsigned int kind,
                         FILE_INFO_NODE* store, __VELK_stream_struct* stream, const char* marker)
{
    sfs->length = store->Size();
    sfs->file_offset = VELK_OSI_Get_File_Size(s->file_handle);
    sfs->number_entries = 1;
    sfs->entry_length = (uint32_t)sfs->length;
    sfs->section_id = kind;
    RETURN_IF_FAILED(s->utility_write_sfs_header(sfs, stream));
    RETURN_IF_FAILED(s->utility_add_string_padding(store->handle, marker));
    RETURN_IF_FAILED(s->utility_append_file_b_to_file_a(store->handle, s->file_handle));
    return 0;
}

}  // namespace

unsigned int velk_class::write_to_file_user_defined_global()
{
    VELK_TRACE_ENTER("write_to_file_user_defined_global");
    RETURN_IF_FAILED(write_block(this, &sections_ptr->sfs_user_defined_global,
                                 KIND_USER_DEFINED_GLOBAL, sections_ptr->usr_defined_global_store,
                                 nullptr, "end user defined global"));
    VELK_TRACE_EXIT("write_to_file_user_defined_global");
    return 0;
}

unsigned int velk_class::write_to_file_user_defined_stream(unsigned int stream)
{
    VELK_TRACE_ENTER("write_to_file_user_defined_stream");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    RETURN_IF_FAILED(write_block(this, &node->user_defined_section, KIND_USER_DEFINED_STREAM,
                                 node->user_defined_store, node, "end user defined stream"));
    VELK_TRACE_EXIT("write_to_file_user_defined_stream");
    return 0;
}
