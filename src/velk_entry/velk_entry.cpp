// The exported functions. Each checks the handle, forwards to the session's
// method of the same name, and logs a failure once more on its way out.
#include <stdlib.h>
#include <string.h>

#include "velk_class/velk_class.h"
#include "velk_entry/velk_handle.h"

namespace {

bool handle_is_live(const velk_handle* handle)
{
    return handle != nullptr && handle->head_tag == VELK_HEAD_TAG &&
           handle->tail_tag == VELK_TAIL_TAG;
}

// Returns a method's status, logging it first when it is a failure.
unsigned int passed_on(unsigned int status, int line)
{
    if (status != 0)
        LOGIT_A(VELK_MASK_FAILURE_FORM, "%s (%s, %d) value: 0x%x\n",
                "Operation failed with error code ", VELK_SOURCE_PATH, line, status);
    return status;
}

}  // namespace

// The standard frame: a failed handle check returns 63 and logs nothing.
#define VELK_FORWARD(handle, call)                                        \
    do {                                                                  \
        if (!handle_is_live(handle))                                      \
            return VELK_E_BAD_ARGUMENT;                                   \
        return passed_on((handle)->file_object->call, __LINE__);          \
    } while (0)

// The "KLEV" tag in memory order.
static const uint32_t kPlatformTag = 'K' | ('L' << 8) | ('E' << 16) | ((uint32_t)'V' << 24);

extern "C" {

VELK_API unsigned VELK_open(velk_handle** handle_out, const wchar_t* file_name, unsigned mode)
{
    if (handle_out == nullptr)
        return VELK_E_BAD_ARGUMENT;

    velk_handle* handle = static_cast<velk_handle*>(calloc(1, sizeof(velk_handle)));
    if (handle == nullptr) {
        LOG_CALLOC_FAILED("VELK_open");
        LOG_NULL_POINTER_AT("VELK_open");
        return VELK_E_NO_MEMORY;
    }
    LOG_MEMORY_ALLOCATION("VELK_open", sizeof(velk_handle));

    handle->head_tag = VELK_HEAD_TAG;
    handle->tail_tag = VELK_TAIL_TAG;
    handle->tag_and_platform = kPlatformTag;

    try {
        handle->file_object = new velk_class();
    } catch (...) {
        free(handle);
        throw;
    }

    const unsigned int status = handle->file_object->VELK_initialize_me(file_name, mode);
    if (status != 0) {
        LOG_FAILED_STATUS(status);
        delete handle->file_object;
        handle->file_object = nullptr;
        handle->bind_object = nullptr;
        free(handle);
        LOG_MEMORY_FREE("VELK_open", 8);
        return status;
    }

    *handle_out = handle;
    return 0;
}

VELK_API unsigned VELK_close(velk_handle* handle)
{
    if (!handle_is_live(handle))
        return VELK_E_BAD_ARGUMENT;

    unsigned int status = handle->file_object->VELK_closedown();
    if (status != 0)
        return passed_on(status, __LINE__);
    status = handle->file_object->VELK_check_all_sections_closed();
    if (status != 0)
        return passed_on(status, __LINE__);

    // A stale handle fails the check for as long as its memory keeps these.
    handle->head_tag += 1;
    handle->tail_tag += 1;
    handle->tag_and_platform -= 1;
    delete handle->file_object;
    free(handle);
    return 0;
}

VELK_API unsigned VELK_abort_cleanup_and_close(velk_handle* handle)
{
    // Only the session's files are released: the handle and its objects stay.
    VELK_FORWARD(handle, VELK_abort_cleanup_and_close());
}

VELK_API unsigned VELK_get_version(unsigned* major, unsigned* minor)
{
    velk_class session;
    return passed_on(session.VELK_get_version(major, minor), __LINE__);
}

VELK_API unsigned VELK_error_string(int status, const wchar_t** text)
{
    velk_class session;
    return passed_on(session.VELK_error_string(status, text), __LINE__);
}

VELK_API unsigned VELK_get_platform_type(velk_handle* handle, unsigned* type)
{
    if (handle == nullptr || type == nullptr)
        return VELK_E_BAD_ARGUMENT;
    *type = handle->tag_and_platform >> 16;
    return 0;
}

VELK_API unsigned VELK_set_platform_type(velk_handle* handle, unsigned type)
{
    if (handle == nullptr)
        return VELK_E_BAD_ARGUMENT;
    handle->tag_and_platform = (handle->tag_and_platform & 0xFFFFu) | (type << 16);
    return 0;
}

VELK_API unsigned VELK_get_vk_file_version(velk_handle* handle, unsigned* version)
{
    if (!handle_is_live(handle) || version == nullptr)
        return VELK_E_BAD_ARGUMENT;
    return passed_on(handle->file_object->VELK_get_vk_file_version(version), __LINE__);
}

VELK_API unsigned VELK_convert_utf8_to_wcs(const char* text, wchar_t* destination, unsigned* size)
{
    return utf8_to_wcs(text, destination, size);
}

VELK_API unsigned VELK_convert_utf8_to_wcs_malloced(const char* text, wchar_t** destination)
{
    return utf8_to_wcs_malloced(text, destination);
}

VELK_API unsigned VELK_convert_wcs_to_utf8(const wchar_t* text, char* destination, unsigned* size)
{
    return wcs_to_utf8(text, destination, size);
}

VELK_API unsigned VELK_convert_wcs_to_utf8_malloced(const wchar_t* text, char** destination)
{
    return wcs_to_utf8_malloced(text, destination);
}

VELK_API unsigned VELK_convert_uniqueid_to_string(velk_handle* handle, unsigned size,
                                                  const __string_or_id* id, wchar_t* buffer,
                                                  unsigned* size_out)
{
    VELK_FORWARD(handle, VELK_convert_uniqueid_to_string(size, id, buffer, size_out));
}

VELK_API unsigned VELK_verify(velk_handle* handle)
{
    VELK_FORWARD(handle, VELK_verify());
}

VELK_API unsigned VELK_get_number_data_streams(velk_handle* handle, unsigned* count)
{
    VELK_FORWARD(handle, VELK_get_number_data_streams(count));
}

VELK_API unsigned VELK_reading_section(velk_handle* handle, VELK_SECTION_IDENTIFIER id)
{
    VELK_FORWARD(handle, VELK_reading_section((unsigned)id));
}

VELK_API unsigned VELK_writing_section(velk_handle* handle, VELK_SECTION_IDENTIFIER id)
{
    VELK_FORWARD(handle, VELK_writing_section((unsigned)id));
}

VELK_API unsigned VELK_done_section(velk_handle* handle, VELK_SECTION_IDENTIFIER id)
{
    VELK_FORWARD(handle, VELK_done_section((unsigned)id));
}

VELK_API unsigned VELK_reading_stream(velk_handle* handle, unsigned stream)
{
    VELK_FORWARD(handle, VELK_reading_stream(stream));
}

VELK_API unsigned VELK_writing_stream(velk_handle* handle, unsigned stream)
{
    VELK_FORWARD(handle, VELK_writing_stream(stream));
}

VELK_API unsigned VELK_done_stream(velk_handle* handle, unsigned stream)
{
    VELK_FORWARD(handle, VELK_done_stream(stream));
}

VELK_API unsigned VELK_reading_stream_section(velk_handle* handle, unsigned stream,
                                              VELK_STREAM_SECTION_IDENTIFIER id)
{
    VELK_FORWARD(handle, VELK_reading_stream_section(stream, (unsigned)id));
}

VELK_API unsigned VELK_writing_stream_section(velk_handle* handle, unsigned stream,
                                              VELK_STREAM_SECTION_IDENTIFIER id)
{
    VELK_FORWARD(handle, VELK_writing_stream_section(stream, (unsigned)id));
}

VELK_API unsigned VELK_done_stream_section(velk_handle* handle, unsigned stream,
                                           VELK_STREAM_SECTION_IDENTIFIER id)
{
    VELK_FORWARD(handle, VELK_done_stream_section(stream, (unsigned)id));
}

VELK_API unsigned VELK_exists_global_section(velk_handle* handle, unsigned kind, unsigned* exists)
{
    VELK_FORWARD(handle, VELK_exists_global_section(kind, exists));
}

VELK_API unsigned VELK_exists_stream_section(velk_handle* handle, unsigned stream, unsigned kind,
                                             unsigned* exists)
{
    VELK_FORWARD(handle, VELK_exists_stream_section(stream, kind, exists));
}

VELK_API unsigned VELK_get_host(velk_handle* handle, unsigned size, __VELK_host* host, unsigned* size_out)
{
    VELK_FORWARD(handle, VELK_get_host(size, host, size_out));
}

VELK_API unsigned VELK_set_host(velk_handle* handle, __VELK_host* host)
{
    VELK_FORWARD(handle, VELK_set_host(host));
}

VELK_API unsigned VELK_get_os(velk_handle* handle, unsigned size, __VELK_os* os, unsigned* size_out)
{
    VELK_FORWARD(handle, VELK_get_os(size, os, size_out));
}

VELK_API unsigned VELK_set_os(velk_handle* handle, unsigned count, __VELK_os* os)
{
    VELK_FORWARD(handle, VELK_set_os(count, os));
}

VELK_API unsigned VELK_get_application(velk_handle* handle, unsigned size, __VELK_application* application, unsigned* size_out)
{
    VELK_FORWARD(handle, VELK_get_application(size, application, size_out));
}

VELK_API unsigned VELK_set_application(velk_handle* handle, __VELK_application* application)
{
    VELK_FORWARD(handle, VELK_set_application(application));
}

VELK_API unsigned VELK_get_version_info(velk_handle* handle, unsigned size, __VELK_version_info* info, unsigned* size_out)
{
    VELK_FORWARD(handle, VELK_get_version_info(size, info, size_out));
}

VELK_API unsigned VELK_set_version_info(velk_handle* handle, __VELK_version_info* info)
{
    VELK_FORWARD(handle, VELK_set_version_info(info));
}

VELK_API unsigned VELK_set_stream_info(velk_handle* handle, unsigned stream, __VELK_stream_info* info)
{
    VELK_FORWARD(handle, VELK_set_stream_info(stream, info));
}

VELK_API unsigned VELK_get_stream_info(velk_handle* handle, unsigned stream, unsigned size, __VELK_stream_info* info, unsigned* size_out)
{
    VELK_FORWARD(handle, VELK_get_stream_info(stream, size, info, size_out));
}

VELK_API unsigned VELK_set_user_info(velk_handle* handle, unsigned stream, __VELK_user_info* info)
{
    VELK_FORWARD(handle, VELK_set_user_info(stream, info));
}

VELK_API unsigned VELK_get_user_info(velk_handle* handle, unsigned stream, unsigned size, __VELK_user_info* info, unsigned* size_out)
{
    VELK_FORWARD(handle, VELK_get_user_info(stream, size, info, size_out));
}

VELK_API unsigned VELK_set_lbr_info(velk_handle* handle, unsigned stream, VELK_LBR_FILTER info)
{
    VELK_FORWARD(handle, VELK_set_lbr_info(stream, info));
}

VELK_API unsigned VELK_get_lbr_info(velk_handle* handle, unsigned stream, VELK_LBR_FILTER* info)
{
    VELK_FORWARD(handle, VELK_get_lbr_info(stream, info));
}

VELK_API unsigned VELK_set_lbr_filter_info(velk_handle* handle, unsigned stream, unsigned filter)
{
    VELK_FORWARD(handle, VELK_set_lbr_filter_info(stream, filter));
}

VELK_API unsigned VELK_get_lbr_filter_info(velk_handle* handle, unsigned stream, unsigned size, char* text)
{
    VELK_FORWARD(handle, VELK_get_lbr_filter_info(stream, size, text));
}

VELK_API unsigned VELK_set_uncore_info(velk_handle* handle, unsigned stream, unsigned short first, unsigned short second)
{
    VELK_FORWARD(handle, VELK_set_uncore_info(stream, first, second));
}

VELK_API unsigned VELK_get_uncore_info(velk_handle* handle, unsigned stream, unsigned short* first, unsigned short* second)
{
    VELK_FORWARD(handle, VELK_get_uncore_info(stream, first, second));
}

VELK_API unsigned VELK_get_user_defined_global(velk_handle* handle, unsigned size, void* data,
                                               unsigned* size_out)
{
    VELK_FORWARD(handle, VELK_get_user_defined_global(size, data, size_out));
}

VELK_API unsigned VELK_set_user_defined_global(velk_handle* handle, unsigned size, void* data)
{
    VELK_FORWARD(handle, VELK_set_user_defined_global(size, data));
}

VELK_API unsigned VELK_get_user_defined_stream(velk_handle* handle, unsigned stream, unsigned size,
                                               void* data, unsigned* size_out)
{
    VELK_FORWARD(handle, VELK_get_user_defined_stream(stream, size, data, size_out));
}

VELK_API unsigned VELK_set_user_defined_stream(velk_handle* handle, unsigned stream, unsigned size,
                                               void* data)
{
    VELK_FORWARD(handle, VELK_set_user_defined_stream(stream, size, data));
}

VELK_API unsigned VELK_add_process(velk_handle* handle, __VELK_pid* record)
{
    VELK_FORWARD(handle, VELK_add_process(record));
}

VELK_API unsigned VELK_add_thread(velk_handle* handle, __VELK_tid* record)
{
    VELK_FORWARD(handle, VELK_add_thread(record));
}

VELK_API unsigned VELK_add_module(velk_handle* handle, __VELK_module* record)
{
    VELK_FORWARD(handle, VELK_add_module(record));
}

VELK_API unsigned VELK_enumerate_processes(velk_handle* handle, VELK_PROCESS_CALLBACK* callback,
                                           void* context, unsigned long long read_start)
{
    VELK_FORWARD(handle, VELK_enumerate_processes(callback, context, read_start));
}

VELK_API unsigned VELK_enumerate_threads(velk_handle* handle, VELK_THREAD_CALLBACK* callback,
                                         void* context, unsigned long long read_start)
{
    VELK_FORWARD(handle, VELK_enumerate_threads(callback, context, read_start));
}

VELK_API unsigned VELK_enumerate_modules(velk_handle* handle, VELK_MODULE_CALLBACK* callback,
                                         void* context, unsigned long long read_start)
{
    VELK_FORWARD(handle, VELK_enumerate_modules(callback, context, read_start));
}

VELK_API unsigned VELK_get_module_record_size(velk_handle* handle)
{
    // A size, not a status: nothing is logged, and a bad handle gives 63.
    if (!handle_is_live(handle))
        return VELK_E_BAD_ARGUMENT;
    return handle->file_object->VELK_get_module_record_size();
}

VELK_API unsigned VELK_is_legacy_bound(velk_handle* handle, unsigned* bound)
{
    VELK_FORWARD(handle, VELK_is_legacy_bound(bound));
}

VELK_API unsigned VELK_add_data_descriptor_entry(velk_handle* handle, unsigned stream,
                                                 __velk_samprec_desc_entry* entry)
{
    VELK_FORWARD(handle, VELK_add_data_descriptor_entry(stream, entry));
}

VELK_API unsigned VELK_add_stream_section_descriptor(velk_handle* handle,
                                                     VELK_SECTION_IDENTIFIER section,
                                                     unsigned stream,
                                                     __velk_samprec_desc_entry* entries,
                                                     unsigned count)
{
    VELK_FORWARD(handle, VELK_add_stream_section_descriptor(section, stream, entries, count));
}

VELK_API unsigned VELK_add_global_section_descriptor(velk_handle* handle,
                                                     VELK_SECTION_IDENTIFIER section,
                                                     __velk_samprec_desc_entry* entries,
                                                     unsigned count)
{
    VELK_FORWARD(handle, VELK_add_global_section_descriptor(section, entries, count));
}

VELK_API unsigned VELK_get_global_section_descriptor(velk_handle* handle,
                                                     VELK_SECTION_IDENTIFIER section,
                                                     __velk_samprec_desc_entry** entries,
                                                     int* count)
{
    VELK_FORWARD(handle, VELK_get_global_section_descriptor(section, entries, count));
}

VELK_API unsigned VELK_get_stream_section_descriptor(velk_handle* handle,
                                                     VELK_SECTION_IDENTIFIER section,
                                                     unsigned stream,
                                                     __velk_samprec_desc_entry** entries,
                                                     int* count)
{
    VELK_FORWARD(handle, VELK_get_stream_section_descriptor(section, stream, entries, count));
}

VELK_API unsigned VELK_enumerate_data_descriptor_entries(velk_handle* handle, unsigned stream,
                                                         VELK_DESCRIPTOR_CALLBACK* callback,
                                                         void* user)
{
    VELK_FORWARD(handle, VELK_enumerate_data_descriptor_entries(stream, callback, user));
}

VELK_API unsigned VELK_enumerate_data_descriptors(velk_handle* handle, unsigned stream,
                                                  VELK_DESCRIPTOR_CALLBACK* callback, void* user)
{
    VELK_FORWARD(handle, VELK_enumerate_data_descriptors(stream, callback, user));
}

VELK_API unsigned VELK_get_data_desc_table(velk_handle* handle, unsigned stream,
                                           VELK_DESCRIPTOR_NODE_S** table, unsigned* num_nodes)
{
    VELK_FORWARD(handle, VELK_get_data_desc_table(stream, table, num_nodes));
}

VELK_API unsigned VELK_get_size_of_each_data_entry(velk_handle* handle, unsigned stream,
                                                   unsigned* size)
{
    VELK_FORWARD(handle, VELK_get_size_of_each_data_entry(stream, size));
}

VELK_API unsigned VELK_add_data(velk_handle* handle, unsigned stream, unsigned size, void* data)
{
    VELK_FORWARD(handle, VELK_add_data(stream, size, data));
}

VELK_API unsigned VELK_add_data_from_file(velk_handle* handle, unsigned stream, wchar_t* path)
{
    VELK_FORWARD(handle, VELK_add_data_from_file(stream, path));
}

VELK_API unsigned VELK_enumerate_data(velk_handle* handle, unsigned stream,
                                      VELK_DATA_CALLBACK* callback, void* user,
                                      unsigned long long read_start)
{
    VELK_FORWARD(handle, VELK_enumerate_data(stream, callback, user, read_start));
}

}  // extern "C"
