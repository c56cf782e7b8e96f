// The file's outer form: its beginning, the section table, the global table,
// the private use section, and the writing of single table slots. Everything
// else is appended; a table slot is the one thing written inside the file.
#include <string.h>

#include "velk_class.h"

namespace {

const char kEyecatcher7[8] = {'S', 'a', 'm', 'p', 'l', 'e', '7', ' '};

// The file's first 16 bytes.
struct file_beginning {
    char eyecatcher[8];
    uint32_t format_revision;
    uint32_t section_count;
};
static_assert(sizeof(file_beginning) == 16, "the beginning is 16 bytes");

// The private use section: the writer's code version.
struct private_use_section {
    uint32_t major;
    uint32_t minor;
    char text[64];
};
static_assert(sizeof(private_use_section) == VELK_PRIVATE_SECTION_SIZE,
              "the private use section is 72 bytes");

const unsigned int kCodeVersionMajor = 3;
const unsigned int kCodeVersionMinor = 0;

}  // namespace

unsigned int velk_class::utility_write_final_file(const void* buffer, unsigned long long size,
                                                  unsigned int origin, long long offset)
{
    if (file_handle == -1)
        return VELK_E_NULL_POINTER;
    if (VELK_OSI_Set_File_Pointer(file_handle, offset, origin) == -1) {
        LOG_MINUS_ONE();
        return VELK_E_NULL_POINTER;
    }
    unsigned long long written = 0;
    return VELK_OSI_Write(file_handle, const_cast<void*>(buffer), size, &written);
}

void velk_class::helper_copy_sfs(SampleFileSections_s* disk, __VELK_sample_file_section_vk6* sfs,
                                 int direction)
{
    if (disk == nullptr || sfs == nullptr)
        return;
    if (direction == 1) {
        disk->length = (uint32_t)sfs->length;
        disk->file_offset = (uint32_t)sfs->file_offset;
        disk->number_entries = (uint32_t)sfs->number_entries;
        disk->entry_length = (uint16_t)sfs->entry_length;
        disk->section_id = (uint16_t)sfs->section_id;
        disk->stream_number = sfs->stream_number;
    } else if (direction == 2) {
        sfs->length = disk->length;
        sfs->file_offset = disk->file_offset;
        sfs->number_entries = disk->number_entries;
        sfs->entry_length = disk->entry_length;
        sfs->section_id = disk->section_id;
        sfs->stream_number = disk->stream_number;
        sfs->descriptor_id = -1;
    }
}

void velk_class::helper_copy_sfs_velk(__VELK_sample_file_section* disk,
                                      __VELK_sample_file_section_vk6* sfs, int direction)
{
    if (disk == nullptr || sfs == nullptr)
        return;
    if (direction == 1) {
        disk->length = sfs->length;
        disk->file_offset = sfs->file_offset;
        disk->number_entries = (uint32_t)sfs->number_entries;
        disk->entry_length = sfs->entry_length;
        disk->section_id = sfs->section_id;
        disk->stream_number = sfs->stream_number;
    } else if (direction == 2) {
        sfs->length = disk->length;
        sfs->file_offset = disk->file_offset;
        sfs->number_entries = disk->number_entries;
        sfs->entry_length = disk->entry_length;
        sfs->section_id = disk->section_id;
        sfs->stream_number = disk->stream_number;
        sfs->descriptor_id = -1;
    }
}

unsigned int velk_class::utility_write_legacy_sfs_header(__VELK_sample_file_section_vk6* section)
{
    if (section == nullptr)
        return 0;

    unsigned int status;
    if (vk_file_version == 5) {
        SampleFileSections_s disk;
        memset(&disk, 0, sizeof(disk));
        helper_copy_sfs(&disk, section, 1);
        status = utility_write_final_file(
            &disk, sizeof(disk), VELK_OSI_SEEK_BEGIN,
            VELK_SECTION_TABLE_OFFSET + (long long)sections_ptr->legacy_next_slot * sizeof(disk));
    } else {
        status = utility_write_final_file(
            section, sizeof(*section), VELK_OSI_SEEK_BEGIN,
            VELK_SECTION_TABLE_OFFSET + (long long)sections_ptr->legacy_next_slot * sizeof(*section));
    }
    if (status != 0) {
        LOG_FAILED_STATUS(status);
        return status;
    }
    sections_ptr->legacy_next_slot += 1;
    return 0;
}

unsigned int velk_class::utility_write_sfs_header(__VELK_sample_file_section_vk6* section,
                                                  __VELK_stream_struct* stream)
{
    if (section == nullptr)
        return 0;

    unsigned long long table;
    unsigned int slot;
    // The counter goes up before the write: a failed write uses up the slot.
    if (stream == nullptr) {
        table = sections_ptr->sfs_global_offset.file_offset;
        slot = sections_ptr->global_next_slot++;
    } else {
        table = stream->stream_table_offset;
        slot = stream->next_slot++;
    }

    if (vk_file_version == 5) {
        __VELK_sample_file_section disk;
        memset(&disk, 0, sizeof(disk));
        helper_copy_sfs_velk(&disk, section, 1);
        RETURN_IF_FAILED(utility_write_final_file(&disk, sizeof(disk), VELK_OSI_SEEK_BEGIN,
                                                  (long long)(table + slot * sizeof(disk))));
    } else {
        RETURN_IF_FAILED(utility_write_final_file(section, sizeof(*section), VELK_OSI_SEEK_BEGIN,
                                                  (long long)(table + slot * sizeof(*section))));
    }
    return 0;
}

unsigned int velk_class::helper_init_write_sampleFileBeginning_and_empty_sampleFileSections()
{
    VELK_TRACE_ENTER("helper_init_write_sampleFileBeginning_and_empty_sampleFileSections");
    vk_file_version = 7;

    // The beginning and the first, empty, entry of the section table...
    unsigned char head[sizeof(file_beginning) + sizeof(__VELK_sample_file_section_vk6)];
    memset(head, 0, sizeof(head));
    file_beginning beginning;
    memcpy(beginning.eyecatcher, kEyecatcher7, sizeof(beginning.eyecatcher));
    beginning.format_revision = VELK_FORMAT_REVISION;
    beginning.section_count = VELK_SECTION_TABLE_ENTRIES;
    memcpy(head, &beginning, sizeof(beginning));
    RETURN_IF_FAILED(utility_write_final_file(head, sizeof(head), VELK_OSI_SEEK_CURRENT, 0));

    // ...then the other 19 entries.
    unsigned char rest[VELK_BEGINNING_SIZE_V67 - sizeof(head)];
    memset(rest, 0, sizeof(rest));
    RETURN_IF_FAILED(utility_write_final_file(rest, sizeof(rest), VELK_OSI_SEEK_CURRENT, 0));

    VELK_TRACE_EXIT("helper_init_write_sampleFileBeginning_and_empty_sampleFileSections");
    return 0;
}

unsigned int velk_class::helper_init_create_global_offset_sfs()
{
    VELK_TRACE_ENTER("helper_init_create_global_offset_sfs");
    velk_section_block* s = sections_ptr;

    // The section table's entry for the global table, then the table itself.
    s->sfs_global_offset.length = VELK_GLOBAL_TABLE_SIZE;
    s->sfs_global_offset.file_offset = VELK_OSI_Get_File_Size(file_handle);
    s->sfs_global_offset.number_entries = 1;
    s->sfs_global_offset.entry_length = VELK_GLOBAL_TABLE_SIZE;
    s->sfs_global_offset.section_id = KIND_GLOBAL_OFFSET;
    RETURN_IF_FAILED(utility_write_legacy_sfs_header(&s->sfs_global_offset));

    unsigned char table[VELK_GLOBAL_TABLE_SIZE];
    memset(table, 0, sizeof(table));
    RETURN_IF_FAILED(utility_write_final_file(table, sizeof(table), VELK_OSI_SEEK_END, 0));

    // The private use section, named in the global table's first free slot.
    private_use_section info;
    memset(&info, 0, sizeof(info));
    info.major = kCodeVersionMajor;
    info.minor = kCodeVersionMinor;
    RETURN_IF_FAILED(snprintf_safe(info.text, sizeof(info.text), "%s%d.%d", "VELK code version ",
                                   kCodeVersionMajor, kCodeVersionMinor));

    s->sfs_private_use.length = VELK_PRIVATE_SECTION_SIZE;
    s->sfs_private_use.entry_length = VELK_PRIVATE_SECTION_SIZE;
    s->sfs_private_use.section_id = KIND_PRIVATE_USE;
    s->sfs_private_use.number_entries = 1;
    s->sfs_private_use.file_offset = VELK_OSI_Get_File_Size(file_handle);
    RETURN_IF_FAILED(utility_write_sfs_header(&s->sfs_private_use, nullptr));
    RETURN_IF_FAILED(utility_write_final_file(&info, sizeof(info), VELK_OSI_SEEK_END, 0));

    VELK_TRACE_EXIT("helper_init_create_global_offset_sfs");
    return 0;
}
