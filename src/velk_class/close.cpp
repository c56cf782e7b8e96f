// Closing a session: the final assembly of what waited in the stores, then
// the release of windows, stores and the file. An abort does the release
// only.
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
    VELK_TRACE_EXIT("helper_close_assemble_final_file");
    return 0;
}

unsigned int velk_class::helper_close_unmap_all()
{
    VELK_TRACE_ENTER("helper_close_unmap_all");
    RETURN_IF_FAILED(module_map.Unmap_File());
    RETURN_IF_FAILED(pid_map.Unmap_File());
    RETURN_IF_FAILED(tid_map.Unmap_File());
    RETURN_IF_FAILED(helper_unmap_strings());
    VELK_TRACE_EXIT("helper_close_unmap_all");
    return 0;
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

    stream_list = nullptr;
    // The handle keeps its value: the session's file is closed, not forgotten.
    if (file_handle != -1)
        RETURN_IF_FAILED(VELK_OSI_Close_Handle(file_handle, 0));
    VELK_TRACE_EXIT("helper_close_do_final_cleanup");
    return 0;
}
