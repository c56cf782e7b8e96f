// Placeholder bodies, replaced as the unit is built.
#include "velk_class.h"

unsigned int velk_class::write_to_legacy_temp_file_pid(__VELK_pid*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::write_to_legacy_temp_file_tid(__VELK_tid*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::write_to_legacy_temp_file_module(__VELK_module*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::write_to_file_legacy_pid_section()
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::write_to_file_legacy_tid_section()
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::write_to_file_legacy_module_section()
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_update_pid_string_offsets(PidRecord_s*, long long*, unsigned int, char*, unsigned int*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_update_module_string_offsets(char*, long long*, unsigned int, char*, unsigned int*)
{
    return VELK_E_UNSUPPORTED;
}
