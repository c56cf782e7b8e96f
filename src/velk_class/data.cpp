// Placeholder bodies, replaced as the unit is built.
#include "velk_class.h"

unsigned int velk_class::VELK_add_data(unsigned int, unsigned int, void*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_add_data_from_file(unsigned int, wchar_t*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_enumerate_data(unsigned int, VELK_DATA_CALLBACK*, void*, unsigned long long)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_get_size_of_each_data_entry(unsigned int, unsigned int*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_open_temp_data_file(unsigned int)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_find_size_of_data_entry(unsigned int, unsigned long long* size)
{
    *size = 0;
    return 0;
}

unsigned int velk_class::helper_map_data(unsigned int, unsigned long long)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::write_to_file_data_stream(unsigned int, unsigned int, unsigned long long)
{
    return VELK_E_UNSUPPORTED;
}
