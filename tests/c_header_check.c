/* The public header compiles as C (C11): records, identifiers and
   declarations, with the size checks on the records. */
#include "velk.h"

unsigned velk_c_header_check(void)
{
    velk_handle* handle = 0;
    __VELK_sample_file_section_vk6 section = {0, 0, 0, 0, 0, 0, -1};
    unsigned major = 0, minor = 0;
    (void)handle;
    (void)section;
    return VELK_get_version(&major, &minor) + (unsigned)VELK_SECTION_DESCRIPTOR;
}
