// The legacy sample file header ex: the totals and parameters of the
// collection in the form older readers take, written once, at the end of the
// close of a session that changed the file.
#include <string.h>

#include "velk_class.h"

namespace {

const unsigned int kHeaderExSize = 460;

void put32(unsigned char* record, unsigned int offset, uint32_t value)
{
    memcpy(record + offset, &value, sizeof(value));
}

}  // namespace

unsigned int velk_class::helper_write_sample_file_header_ex()
{
    VELK_TRACE_ENTER("helper_write_sample_file_header_ex");
    if (file_handle == -1)
        return 0;

    const velk_legacy_header_fields& h = legacy_header;
    unsigned char record[kHeaderExSize];
    memset(record, 0, sizeof(record));
    put32(record, 0, h.header_word_0);
    put32(record, 260, h.stream_param_b);
    put32(record, 264, h.node_word_1);
    put32(record, 268, h.header_word_2);
    put32(record, 356, h.totalSampleCount);
    put32(record, 360, h.totalSampleCount);
    put32(record, 364, h.stream_param_a);
    put32(record, 368, h.stream_param_c);
    put32(record, 372, h.stream_param_d);
    put32(record, 376, h.stream_param_e);
    put32(record, 380, h.stream_param_f);
    record[392] = 200;  // bit 0 clear: not bound by an older bind
    record[393] = 6;
    record[395] = 0x80;
    put32(record, 396, h.header_word_3);

    __VELK_sample_file_section_vk6& sfs = sections_ptr->sfs_legacy_header_ex;
    sfs.length = kHeaderExSize;
    sfs.number_entries = 1;
    sfs.entry_length = kHeaderExSize;
    sfs.section_id = KIND_LEGACY_HEADER_EX;
    sfs.file_offset = VELK_OSI_Get_File_Size(file_handle);
    RETURN_IF_FAILED(utility_write_legacy_sfs_header(&sfs));
    RETURN_IF_FAILED(utility_write_final_file(record, sizeof(record), VELK_OSI_SEEK_END, 0));
    RETURN_IF_FAILED(utility_add_string_padding(file_handle, "end legacy HeaderEx"));
    VELK_TRACE_EXIT("helper_write_sample_file_header_ex");
    return 0;
}

unsigned int velk_class::helper_generate_sample_record_header_and_write_to_file()
{
    VELK_TRACE_ENTER("helper_generate_sample_record_header_and_write_to_file");
    velk_legacy_header_fields& h = legacy_header;
    h.table_slots = sections_ptr->legacy_next_slot;

    velk_legacy_samprec_header record;
    memset(&record, 0, sizeof(record));
    record.totalSampleCount = h.totalSampleCount;
    // The session's flag bits 3 to 5 sit one place higher in the record;
    // bits 0 to 2 keep their place, and nothing lands in bits 3 and 7.
    record.flags = (uint8_t)((h.flags & 0x07u) | ((h.flags & 0x38u) << 1));
    record.sample_offset = h.sample_offset;
    record.timestamp_offset = h.timestamp_offset;
    record.record_size = h.record_size;
    record.timestamp_length = h.timestamp_length;
    record.table_slots = h.table_slots;

    __VELK_sample_file_section_vk6& sfs = sections_ptr->sfs_legacy_sample_record_header;
    sfs.length = sizeof(record);
    sfs.number_entries = 1;
    sfs.entry_length = sizeof(record);
    sfs.section_id = KIND_LEGACY_SAMPLE_RECORD_HEADER;
    sfs.descriptor_id = -1;
    sfs.file_offset = VELK_OSI_Get_File_Size(file_handle);
    RETURN_IF_FAILED(utility_write_legacy_sfs_header(&sfs));
    RETURN_IF_FAILED(utility_write_final_file(&record, sizeof(record), VELK_OSI_SEEK_END, 0));
    RETURN_IF_FAILED(utility_add_string_padding(file_handle, "end legacy samprec header"));
    VELK_TRACE_EXIT("helper_generate_sample_record_header_and_write_to_file");
    return 0;
}
