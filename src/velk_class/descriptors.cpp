// Placeholder bodies, replaced as the unit is built.
#include "velk_class.h"

unsigned int velk_class::VELK_add_data_descriptor_entry(unsigned int, __velk_samprec_desc_entry*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_add_stream_section_descriptor(unsigned int, unsigned int, __velk_samprec_desc_entry*, unsigned int)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_add_global_section_descriptor(unsigned int, __velk_samprec_desc_entry*, unsigned int)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_get_global_section_descriptor(unsigned int, __velk_samprec_desc_entry**, int*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_get_stream_section_descriptor(unsigned int, unsigned int, __velk_samprec_desc_entry**, int*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_enumerate_data_descriptor_entries(unsigned int, VELK_DESCRIPTOR_CALLBACK*, void*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_enumerate_data_descriptors(unsigned int, VELK_DESCRIPTOR_CALLBACK*, void*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::VELK_get_data_desc_table(unsigned int, VELK_DESCRIPTOR_NODE_S**, unsigned int*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_add_data_descriptor_entry(__velk_samprec_desc_entry*, unsigned int*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_add_global_descriptor_entry(__velk_samprec_desc_entry*, unsigned int*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_set_section_descriptor_id(unsigned int, unsigned int)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_get_section(unsigned int, __VELK_sample_file_section_vk6**)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_get_section_descriptor_id(unsigned int, int*)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_get_data_descriptors_from_file(unsigned int)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_get_global_data_descriptors_from_file()
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_generate_data_descriptors_from_legacy(unsigned int)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_check_if_data_desc_exists(unsigned int)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_copy_data_desc_into_buffer(unsigned int)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::helper_copy_global_desc_into_buffer()
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::write_to_file_data_descriptors(unsigned int)
{
    return VELK_E_UNSUPPORTED;
}

unsigned int velk_class::write_to_file_velk_global_descriptor()
{
    return VELK_E_UNSUPPORTED;
}
