// Closing a session: the final assembly of what waited in the stores and in
// the session, then the release of windows, stores, streams and the file. An
// abort does the release only.
#include <stdlib.h>

#include "velk_class.h"

unsigned int velk_class::VELK_closedown()
{
    VELK_TRACE_ENTER("VELK_closedown");
    if (may_write())
        RETURN_IF_FAILED(helper_close_assemble_final_file());
    RETURN_IF_FAILED(helper_close_do_final_cleanup());
    VELK_TRACE_EXIT("VELK_closedown");
    return 0;
}

unsigned int velk_class::VELK_abort_cleanup_and_close()
{
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::VELK_abort_cleanup>entering\n", instance);
    RETURN_IF_FAILED(helper_close_do_final_cleanup());
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::VELK_abort_cleanup>exiting\n", instance);
    return 0;
}

unsigned int velk_class::helper_close_assemble_final_file()
{
    VELK_TRACE_ENTER("helper_close_assemble_final_file");
    unsigned int wrote = 0;
    // The strings go first: their ids were issued against this position.
    RETURN_IF_FAILED(write_to_file_hidden_string_section(&wrote));
    RETURN_IF_FAILED(helper_check_global_sections_for_write(&wrote));
    RETURN_IF_FAILED(helper_check_streams_for_write(&wrote));
    if (sections_ptr->sfs_legacy_header_ex.length == 0) {
        wrote = 1;
        RETURN_IF_FAILED(helper_write_sample_file_header_ex());
    }
    if (wrote)
        RETURN_IF_FAILED(utility_debug_human_readable());
    VELK_TRACE_EXIT("helper_close_assemble_final_file");
    return 0;
}

unsigned int velk_class::helper_check_global_sections_for_write(unsigned int* wrote)
{
    VELK_TRACE_ENTER("helper_check_global_sections_for_write");
    velk_section_block* s = sections_ptr;
    if (s->usr_defined_global_store->handle != -1) {
        *wrote = 1;
        RETURN_IF_FAILED(write_to_file_user_defined_global());
    }
    if (s->application_set == 1) {
        *wrote = 1;
        RETURN_IF_FAILED(write_to_file_ruma_sysinfo_and_velk_application());
    }
    if (s->host_set == 1 || s->os_set == 1) {
        *wrote = 1;
        if (s->host_set)
            RETURN_IF_FAILED(write_to_file_velk_host());
        if (s->os_set)
            RETURN_IF_FAILED(write_to_file_velk_os());
        if (s->sfs_legacy_software_config.length == 0)
            RETURN_IF_FAILED(write_to_file_legacy_software_section());
    }
    if (s->version_set == 1) {
        *wrote = 1;
        RETURN_IF_FAILED(write_to_file_velk_version_info());
    }
    if (s->global_desc_dirty == 1) {
        *wrote = 1;
        RETURN_IF_FAILED(write_to_file_velk_global_descriptor());
    }
    // Each kind goes new form first, then its legacy form.
    if (s->new_pid_store->handle != -1) {
        *wrote = 1;
        RETURN_IF_FAILED(write_to_file_new_pid_section());
    }
    if (s->legacy_pid_record_store->handle != -1) {
        *wrote = 1;
        RETURN_IF_FAILED(write_to_file_legacy_pid_section());
    }
    if (s->new_tid_store->handle != -1) {
        *wrote = 1;
        RETURN_IF_FAILED(write_to_file_new_tid_section());
    }
    if (s->legacy_tid_store->handle != -1) {
        *wrote = 1;
        RETURN_IF_FAILED(write_to_file_legacy_tid_section());
    }
    if (s->new_module_store->handle != -1) {
        *wrote = 1;
        RETURN_IF_FAILED(write_to_file_new_module_section());
    }
    if (s->legacy_module_record_store->handle != -1) {
        *wrote = 1;
        RETURN_IF_FAILED(write_to_file_legacy_module_section());
    }
    VELK_TRACE_EXIT("helper_check_global_sections_for_write");
    return 0;
}

unsigned int velk_class::helper_check_streams_for_write(unsigned int* wrote)
{
    VELK_TRACE_ENTER("helper_check_streams_for_write");
    // Once stream 0 mirrors into the legacy sample record, every later
    // stream with data mirrors too.
    unsigned int legacy_mirror = 0;
    for (int n = 0; n < stream_count; ++n) {
        __VELK_stream_struct* node = nullptr;
        RETURN_IF_FAILED(utility_point_to_stream_index((unsigned int)n, &node));
        unsigned long long entry_size = 0;
        RETURN_IF_FAILED(helper_find_size_of_data_entry((unsigned int)n, &entry_size));

        if (n == 0 && created_file)
            RETURN_IF_FAILED(helper_check_legacy_mirror(node, entry_size, &legacy_mirror, wrote));
        if (node->stream_info_set == 1) {
            *wrote = 1;
            RETURN_IF_FAILED(write_to_file_velk_stream_info((unsigned int)n));
        }
        if (node->user_defined_store->handle != -1) {
            *wrote = 1;
            RETURN_IF_FAILED(write_to_file_user_defined_stream((unsigned int)n));
        }
        if (node->desc_dirty) {
            *wrote = 1;
            RETURN_IF_FAILED(write_to_file_data_descriptors((unsigned int)n));
        }
        if (node->data_store->handle != -1) {
            *wrote = 1;
            RETURN_IF_FAILED(helper_check_if_data_desc_exists((unsigned int)n));
            RETURN_IF_FAILED(write_to_file_data_stream((unsigned int)n, legacy_mirror, entry_size));
        }
    }
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::helper_check_streams_for_write>exiting with value %d\n",
            instance, 0);
    return 0;
}

unsigned int velk_class::helper_check_legacy_mirror(__VELK_stream_struct* node,
                                                    unsigned long long entry_size,
                                                    unsigned int* legacy_mirror,
                                                    unsigned int* wrote)
{
    velk_legacy_header_fields* h = &legacy_header;
    velk_list_head* head = node->desc_list;
    for (velk_list_head* link = head->next; link != head; link = link->next) {
        const __velk_samprec_desc_entry* entry = velk_desc_of(link);
        if (entry->field_type == ST_LEGACY_SAMPLE_RECORD) {
            h->flags |= 0x3B;
            h->sample_offset = entry->field_offset;
            *legacy_mirror = 1;
        } else if (entry->field_type == ST_TIMESTAMP) {
            h->flags |= 0x04;
            h->timestamp_offset = entry->field_offset;
            h->timestamp_length = entry->field_length;
        }
    }
    if (!*legacy_mirror)
        return 0;
    if (sections_ptr->sfs_legacy_sample_record_header.length != 0) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::helper_check_streams_for_write>sample record header already exists when "
                "we want to add legacy sample records!\n",
                instance);
        return VELK_E_BAD_ARGUMENT;
    }
    h->record_size = (uint32_t)entry_size;
    if (entry_size != 0 && node->data_store->Size() > 0)
        h->totalSampleCount = (uint32_t)(node->data_store->Size() / entry_size);
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::helper_check_streams_for_write>totalSampleCount = %d\n",
            instance, (int)h->totalSampleCount);
    *wrote = 1;
    RETURN_IF_FAILED(helper_generate_sample_record_header_and_write_to_file());
    return 0;
}

unsigned int velk_class::helper_close_unmap_all()
{
    VELK_TRACE_ENTER("helper_close_unmap_all");
    RETURN_IF_FAILED(module_map.Unmap_File());
    RETURN_IF_FAILED(pid_map.Unmap_File());
    RETURN_IF_FAILED(tid_map.Unmap_File());
    RETURN_IF_FAILED(helper_unmap_strings());
    for (__VELK_stream_struct* node = stream_list; node != nullptr; node = node->next) {
        RETURN_IF_FAILED(node->data_map.Unmap_File());
        free(node->event_buffer);
        node->event_buffer = nullptr;
    }
    VELK_TRACE_EXIT("helper_close_unmap_all");
    return 0;
}

unsigned int velk_class::helper_close_abort_streams(unsigned int stream, unsigned int previous)
{
    if (stream_count == 0)
        return 0;
    __VELK_stream_struct* node = nullptr;
    __VELK_stream_struct* before = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    RETURN_IF_FAILED(utility_point_to_stream_index(previous, &before));
    before->next = node->next;

    // The stores' statuses don't matter here: the stream goes either way.
    node->data_store->Close_Temp_File();
    node->legacy_event_store->Close_Temp_File();
    node->new_event_store->Close_Temp_File();
    node->user_defined_store->Close_Temp_File();
    helper_free_stream_node(node);
    LOG_MEMORY_FREE("helper_close_abort_streams", sizeof(__VELK_stream_struct));
    stream_count -= 1;
    return 0;
}

void velk_class::helper_free_stream_node(__VELK_stream_struct* node)
{
    delete node->data_store;
    delete node->legacy_event_store;
    delete node->new_event_store;
    delete node->user_defined_store;
    free(node->desc_buffer);
    velk_desc_list_clear(node->desc_list);
    delete node->desc_list;
    free(node);
}

unsigned int velk_class::helper_close_do_final_cleanup()
{
    VELK_TRACE_ENTER("helper_close_do_final_cleanup");
    RETURN_IF_FAILED(helper_close_unmap_all());

    velk_section_block* s = sections_ptr;
    FILE_INFO_NODE* const stores[] = {
        strings_store,          s->usr_defined_global_store,   s->new_pid_store,
        s->legacy_pid_record_store, s->legacy_pr_strings_store, s->new_tid_store,
        s->legacy_tid_store,    s->new_module_store,           s->legacy_module_record_store,
        s->legacy_module_strings_store,
    };
    for (FILE_INFO_NODE* store : stores)
        RETURN_IF_FAILED(store->Close_Temp_File());

    // Streams go from the last to the first; the last one left is unlinked
    // from itself.
    for (int n = stream_count - 1; n > 0; --n)
        RETURN_IF_FAILED(helper_close_abort_streams((unsigned int)n, (unsigned int)n - 1));
    RETURN_IF_FAILED(helper_close_abort_streams(0, 0));
    stream_list = nullptr;

    // The handle keeps its value: the session's file is closed, not forgotten.
    if (file_handle != -1)
        RETURN_IF_FAILED(VELK_OSI_Close_Handle(file_handle, 0));
    VELK_TRACE_EXIT("helper_close_do_final_cleanup");
    return 0;
}
