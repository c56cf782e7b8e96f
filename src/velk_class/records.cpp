// Placeholder bodies, replaced as the unit is built.
#include "velk_class.h"

unsigned int velk_class::VELK_add_process(__VELK_pid*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_add_thread(__VELK_tid*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_add_module(__VELK_module*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_enumerate_processes(VELK_PROCESS_CALLBACK*, void*, unsigned long long)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_enumerate_threads(VELK_THREAD_CALLBACK*, void*, unsigned long long)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_enumerate_modules(VELK_MODULE_CALLBACK*, void*, unsigned long long)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_get_module_record_size()
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::utility_get_one_pid(unsigned long long, const __VELK_pid**)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_get_os_pid_from_pid_index(unsigned long long, unsigned int*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::write_to_file_new_pid_section()
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::write_to_file_new_tid_section()
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::write_to_file_new_module_section()
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_get_pid_info_from_file()
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_get_tid_info_from_file()
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_get_module_info_from_file()
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_map_sfs(__VELK_mmap_tracker*, __VELK_sample_file_section_vk6*, __VELK_sample_file_section_vk6*, FILE_INFO_NODE*, unsigned int, unsigned long long)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_map_velk_pids(unsigned long long)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_map_velk_tids(unsigned long long)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_map_velk_modules(unsigned long long)
{
    return VELK_E_UNSUPPORTED;
}

// The one result slot of utility_get_one_pid, shared by all sessions.
extern "C" VELK_API __VELK_pid g_pid;
__VELK_pid g_pid;
