// The session object: construction, the members' set-up and release, and the
// opening of a sample file (creating a new one, or recognising an existing
// one).
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "velk_class.h"

namespace {

// Directory of the temporary stores: DOV_TMP_DIR, else TMPDIR, else /tmp.
const char* temp_directory()
{
    const char* dir = getenv("DOV_TMP_DIR");
    if (dir == nullptr || dir[0] == '\0')
        dir = getenv("TMPDIR");
    if (dir == nullptr || dir[0] == '\0')
        dir = "/tmp";
    return dir;
}

// The newest file this library reads: version 2.x in a version 7 file,
// format revision 27 in older ones.
const unsigned int kMaxVersionMajor = 2;
const unsigned int kMaxVersionRevision = 27;

velk_list_head* new_list_head()
{
    velk_list_head* head = new velk_list_head;
    head->next = head;
    head->prev = head;
    return head;
}

void set_builtin_descriptor(__velk_samprec_desc_entry* entry, unsigned int type,
                            unsigned int length, const wchar_t* name)
{
    memset(entry, 0, sizeof(*entry));
    entry->entry_size = VELK_DESCRIPTOR_ENTRY_SIZE;
    entry->field_type = (uint16_t)type;
    entry->field_length = length;
    entry->name.text = const_cast<wchar_t*>(name);
}

}  // namespace

velk_class::velk_class()
{
    memset(&pid_map, 0, sizeof(pid_map));
    memset(&tid_map, 0, sizeof(tid_map));
    memset(&module_map, 0, sizeof(module_map));
    memset(&final_strings_map, 0, sizeof(final_strings_map));
    memset(&temp_strings_map, 0, sizeof(temp_strings_map));
    // Every session reseeds: sessions made in the same second draw the same
    // number, and so share their stores' paths.
    srand((unsigned int)time(nullptr));
    instance = (unsigned int)rand();
    module_record_size = 0;
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::constructor>entering\n", instance);
    const unsigned int status = do_init();
    if (status != 0)
        LOG_FAILED_STATUS(status);
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::constructor>exiting\n", instance);
}

velk_class::~velk_class()
{
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::destructor>entering for file %s\n", instance,
            final_file_name);
    do_destroy();
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::destructor>exiting for file %s\n", instance,
            final_file_name);
}

unsigned int velk_class::do_init()
{
    VELK_TRACE_ENTER("do_init");
    access_mode = 0;
    file_handle = -1;
    final_file_size = 0;
    created_file = 0;
    vk_file_version = 0;

    memset(temp_prefix, 0, sizeof(temp_prefix));
    const unsigned int status =
        snprintf_safe(temp_prefix, sizeof(temp_prefix), "%s%cvelk_%u", temp_directory(), '/', instance);
    if (status != 0)
        LOG_FAILED_STATUS(status);
    temp_path = temp_prefix;

    memset(final_file_name, 0, sizeof(final_file_name));
    memset(&legacy_header, 0, sizeof(legacy_header));

    strings_store = new FILE_INFO_NODE("strings.tmp");
    string_base = 0;

    sections_ptr = &sections;
    memset(sections_ptr, 0, sizeof(*sections_ptr));
    sections_ptr->usr_defined_global_store = new FILE_INFO_NODE("usr_defined_global.tmp");
    sections_ptr->legacy_pid_record_store = new FILE_INFO_NODE("legacy_pid_record.tmp");
    sections_ptr->legacy_pr_strings_store = new FILE_INFO_NODE("legacy_pr_strings.tmp");
    sections_ptr->new_pid_store = new FILE_INFO_NODE("new_pid.tmp");
    sections_ptr->legacy_tid_store = new FILE_INFO_NODE("legacy_tid.tmp");
    sections_ptr->new_tid_store = new FILE_INFO_NODE("new_tid.tmp");
    sections_ptr->legacy_module_record_store = new FILE_INFO_NODE("legacy_module_record.tmp");
    sections_ptr->legacy_module_strings_store = new FILE_INFO_NODE("legacy_module_strings.tmp");
    sections_ptr->new_module_store = new FILE_INFO_NODE("new_module.tmp");
    sections_ptr->global_desc_list = new_list_head();
    // A version 5 file has no global descriptors; these answer for it.
    set_builtin_descriptor(&sections_ptr->builtin_module_desc, ST_MODULE_RECORD, 144,
                           L"ModuleRecord");
    set_builtin_descriptor(&sections_ptr->builtin_pid_desc, ST_PID_RECORD, 48, L"PidRecord");
    set_builtin_descriptor(&sections_ptr->builtin_tid_desc, ST_TID_RECORD, 40, L"PidRecord");

    stream_list = nullptr;
    stream_count = 0;
    descriptor_entry_flag = 0;

    memset(&pid_map, 0, sizeof(pid_map));
    memset(&tid_map, 0, sizeof(tid_map));
    memset(&module_map, 0, sizeof(module_map));
    memset(&final_strings_map, 0, sizeof(final_strings_map));
    memset(&temp_strings_map, 0, sizeof(temp_strings_map));
    VELK_TRACE_EXIT("do_init");
    return 0;
}

void velk_class::do_destroy()
{
    velk_section_block* s = sections_ptr;
    delete s->usr_defined_global_store;
    delete s->legacy_pid_record_store;
    delete s->legacy_pr_strings_store;
    delete s->new_pid_store;
    delete s->legacy_tid_store;
    delete s->new_tid_store;
    delete s->legacy_module_record_store;
    delete s->legacy_module_strings_store;
    delete s->new_module_store;

    velk_list_head* head = s->global_desc_list;
    if (head != nullptr) {
        velk_desc_list_clear(head);
        delete head;
    }
    free(s->global_desc_buffer);
    delete strings_store;
    // Streams are released by the close; a session whose opening failed
    // still holds the ones its analysis made. Only their memory goes here:
    // no file is touched.
    while (stream_list != nullptr) {
        __VELK_stream_struct* next = stream_list->next;
        helper_free_stream_node(stream_list);
        stream_list = next;
    }
}

unsigned int velk_class::VELK_initialize_me(const wchar_t* file_name, unsigned int mode)
{
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::VELK_initialized_me>entering\n", instance);
    RETURN_IF_FAILED(helper_init_open_final_file_and_analyze_it(file_name, mode));
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::VELK_initialized_me>exiting\n", instance);
    return 0;
}

unsigned int velk_class::helper_init_open_final_file_and_analyze_it(const wchar_t* file_name,
                                                                     unsigned int mode)
{
    VELK_TRACE_ENTER("helper_init_open_final_file_and_analyze_it");
    if (file_name != nullptr) {
        unsigned int size = sizeof(final_file_name);
        RETURN_IF_FAILED(wcs_to_utf8(file_name, final_file_name, &size));
    }

    if (mode & VELK_OPEN_READ)
        access_mode |= VELK_ACCESS_READ;
    if (mode & VELK_OPEN_WRITE)
        access_mode |= VELK_ACCESS_WRITE;
    if (mode & (VELK_OPEN_CREATE | VELK_OPEN_CREATE_INTERNAL))
        access_mode |= VELK_ACCESS_CREATE;

    if (!may_read() && !may_write()) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::helper_init_open_final_file_and_analyze_it>cannot read or write the "
                "file!\n",
                instance);
        return VELK_E_NO_PERMISSION;
    }

    LOGIT_A(VELK_MASK_TRACE, "<velk %u::helper_init_open_final_file_and_analyze_it>opening file %s\n",
            instance, final_file_name);
    file_handle = VELK_OSI_Open_File(final_file_name, access_mode);
    if (file_handle == -1) {
        // The retry passes the same mode: a missing file is made only when
        // the caller asked for create.
        LOGIT_A(VELK_MASK_WARNING,
                "<velk %u::do_init>VELK_OSI_Open_File failed, we assume file does not exist, so "
                "create a new file\n",
                instance);
        file_handle = VELK_OSI_Open_File(final_file_name, access_mode);
        if (file_handle == -1) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::do_init>VELK_OSI_Open_File failed the second time, this is a real "
                    "error!\n",
                    instance);
            return VELK_E_OPEN_FAILED;
        }
    }

    if (VELK_OSI_Get_File_Size(file_handle) == 0 && may_write()) {
        created_file = 1;
        RETURN_IF_FAILED(helper_init_write_sampleFileBeginning_and_empty_sampleFileSections());
        RETURN_IF_FAILED(helper_init_create_global_offset_sfs());
    } else {
        if (!may_read()) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::helper_init_open_final_file_and_analyze_it>cannot read the file!\n",
                    instance);
            return VELK_E_NO_PERMISSION;
        }
        bool valid = false;
        RETURN_IF_FAILED(helper_check_is_valid_file(&valid));
        if (!valid) {
            LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_verify>eyecatcher is not valid!\n", instance);
            return VELK_E_BAD_FILE;
        }
        RETURN_IF_FAILED(helper_init_fillin_SampleFileSection_info_from_file());
        RETURN_IF_FAILED(helper_init_which_sections_present());

        // A file without version info, as a writer that died leaves it, is
        // refused here.
        __VELK_version_info info;
        memset(&info, 0, sizeof(info));
        RETURN_IF_FAILED(VELK_reading_section(VELK_SECTION_VERSION_INFO));
        RETURN_IF_FAILED(VELK_get_version_info(sizeof(info), &info, nullptr));
        RETURN_IF_FAILED(VELK_done_section(VELK_SECTION_VERSION_INFO));
        const bool too_new = vk_file_version >= 7 ? info.version_major > kMaxVersionMajor
                                                  : info.version_revision > kMaxVersionRevision;
        if (too_new) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::helper_init_open_final_file_and_analyze_it>file version %u.%u "
                    "revision %u is newer than this library!\n",
                    instance, info.version_major, info.version_minor, info.version_revision);
            return VELK_E_VERSION_MISMATCH;
        }
    }

    string_base = VELK_OSI_Get_File_Size(file_handle);
    LOGIT_A(VELK_MASK_TRACE,
            "<velk %u::helper_init_open_final_file_and_analyze_it>exiting with value %d\n",
            instance, 0);
    return 0;
}

unsigned int velk_class::helper_check_is_valid_file(bool* valid)
{
    VELK_TRACE_ENTER("helper_check_is_valid_file");
    if (!may_read()) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_verify>don't have permission to read the file!\n",
                instance);
        return VELK_E_NO_PERMISSION;
    }

    static const char* const kEyecatchers[] = {"Sample7 ", "Sample6 ", "SampleF "};
    static const unsigned int kVersions[] = {7, 6, 5};
    char eyecatcher[8];

    // A file too short to hold an eyecatcher is not a sample file.
    if (VELK_OSI_Get_File_Size(file_handle) < sizeof(eyecatcher)) {
        if (valid != nullptr)
            *valid = false;
        VELK_TRACE_EXIT("helper_check_is_valid_file");
        return 0;
    }

    __VELK_mmap_tracker map;
    memset(&map, 0, sizeof(map));
    map.Set_Data_Size(1);
    map.Set_Entries(sizeof(eyecatcher));
    RETURN_IF_FAILED(map.Map_File(file_handle, 0, 0));
    memcpy(eyecatcher, map.m_current, sizeof(eyecatcher));
    RETURN_IF_FAILED(map.Unmap_File());

    bool found = false;
    for (unsigned int i = 0; i < 3; ++i) {
        if (memcmp(eyecatcher, kEyecatchers[i], sizeof(eyecatcher)) == 0) {
            vk_file_version = kVersions[i];
            found = true;
            break;
        }
    }
    if (valid != nullptr)
        *valid = found;
    VELK_TRACE_EXIT("helper_check_is_valid_file");
    return 0;
}

unsigned int velk_class::VELK_get_vk_file_version(unsigned int* version)
{
    VELK_TRACE_ENTER("VELK_get_vk_file_version");
    if (version == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_get_vk_file_version>vk_file_version pointer is NULL!\n", instance);
        return VELK_E_BAD_POINTER;
    }
    *version = vk_file_version;
    VELK_TRACE_EXIT("VELK_get_vk_file_version");
    return 0;
}

unsigned int velk_class::VELK_get_version(unsigned int* major, unsigned int* minor)
{
    VELK_TRACE_ENTER("VELK_get_version");
    if (major == nullptr || minor == nullptr)
        return VELK_E_BAD_POINTER;
    *major = 2;
    *minor = 0;
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::VELK_get_version>exiting success\n", instance);
    return 0;
}

unsigned int velk_class::VELK_error_string(int status, const wchar_t** text)
{
    VELK_TRACE_ENTER("VELK_error_string");
    RETURN_IF_FAILED(KEMO_get_error_string((unsigned int)status, text));
    VELK_TRACE_EXIT("VELK_error_string");
    return 0;
}
