// Mapped windows: a file is looked at through read-only shared views of at
// most 32 MiB, so that a file of any size is walked in bounded address space.
#include <string.h>

#include "velk_class.h"

unsigned long long __VELK_mmap_tracker::m_num_bytes_mapped = 0;
unsigned int __VELK_mmap_tracker::m_num_mmaps = 0;

void __VELK_mmap_tracker::Set_Data_Size(unsigned int size) { m_data_size = size; }

void __VELK_mmap_tracker::Set_Bytes_Based() { m_bytes_based = 1; }

void __VELK_mmap_tracker::Set_Entries(unsigned long long n)
{
    if (m_data_size == 0) {
        m_bytes = n;
    } else {
        m_entries = n;
        m_bytes = n * m_data_size;
    }
}

unsigned int __VELK_mmap_tracker::Map_File(long long handle, unsigned long long first_entry,
                                           unsigned long long file_offset)
{
    const unsigned long long granularity =
        (unsigned long long)VELK_OSI_Get_Allocation_Granualarity();
    m_data = nullptr;

    m_map_handle = VELK_OSI_Create_File_Map(handle, 1);
    if (m_map_handle == -1) {
        LOGIT_A(VELK_MASK_FAILURE, "<vmt::Map_File>VELK_OSI_Create_File_Map failed\n");
        return VELK_E_MAP_FAILED;
    }

    m_align_delta = file_offset % granularity;
    const unsigned long long aligned_start = file_offset - m_align_delta;

    // A window that reaches past the end of the file would fault when read,
    // and the file may be damaged or cut short: refuse it here, once, for
    // every reader of the library.
    const unsigned long long file_size = VELK_OSI_Get_File_Size(handle);
    if (m_bytes == 0 || file_offset > file_size || m_bytes > file_size - file_offset) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<vmt::Map_File>window of %llu bytes at offset %llu runs past the end of the "
                "file (%llu bytes)\n",
                m_bytes, file_offset, file_size);
        return VELK_E_MAP_FAILED;
    }

    m_view = VELK_OSI_Map_File_View(m_map_handle, 1, (long long)aligned_start,
                                    m_align_delta + m_bytes, 2, nullptr);
    if (m_view == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<vmt::Map_File>VELK_OSI_Map_File_View failed\n");
        return VELK_E_MAP_FAILED;
    }

    m_data = m_current = static_cast<unsigned char*>(m_view) + m_align_delta;
    m_first_entry = first_entry;
    if (m_data_size != 0)
        m_last_entry = first_entry + m_entries - 1;
    else
        m_last_entry = first_entry + m_bytes - 1;
    m_mapped_bytes = m_bytes;
    notify_mmap();
    return 0;
}

unsigned int __VELK_mmap_tracker::Unmap_File()
{
    if (m_data == nullptr)
        return 0;

    const unsigned int data_size = m_data_size;
    RETURN_IF_FAILED(VELK_OSI_Unmap_File_View(m_view, m_align_delta + m_mapped_bytes));
    RETURN_IF_FAILED(VELK_OSI_Close_Handle(m_map_handle, 1));
    RETURN_IF_FAILED(notify_munmap());

    memset(this, 0, sizeof(*this));
    m_map_handle = -1;
    m_data_size = data_size;
    return 0;
}

void __VELK_mmap_tracker::Rebase(unsigned long long entry)
{
    if (m_data_size == 0) {
        m_current = m_data + (entry - m_first_entry);
        m_bytes = m_last_entry - entry + 1;
    } else {
        m_entries = m_last_entry - entry + 1;
        m_current = m_data + (entry - m_first_entry) * m_data_size;
        m_bytes = m_entries * m_data_size;
    }
}

bool __VELK_mmap_tracker::End_Of_Map(unsigned long long total) { return m_last_entry + 1 >= total; }

bool __VELK_mmap_tracker::In_Range(unsigned long long entry, unsigned long long extent)
{
    if (m_data == nullptr || entry < m_first_entry)
        return false;
    return entry + extent <= m_last_entry;
}

bool __VELK_mmap_tracker::Is_Non_Conforming(__VELK_mmap_tracker* other)
{
    if (m_data == nullptr || other->m_data == nullptr)
        return true;
    return m_first_entry != other->m_first_entry || m_last_entry != other->m_last_entry;
}

void __VELK_mmap_tracker::notify_mmap()
{
    m_num_mmaps += 1;
    m_num_bytes_mapped += m_align_delta + m_mapped_bytes;
}

unsigned int __VELK_mmap_tracker::notify_munmap()
{
    m_num_mmaps -= 1;
    m_num_bytes_mapped -= m_align_delta + m_mapped_bytes;
    if (m_num_mmaps == 0 && m_num_bytes_mapped != 0) {
        // The last window of the process is gone but the byte count is not
        // back at zero: the book does not balance.
        LOGIT_A(VELK_MASK_FAILURE, "<utility_notify_munmap>unmapping at 0x%p", m_view);
        LOGIT_A(VELK_MASK_FAILURE, " length is %u.\n", (unsigned int)(m_align_delta + m_mapped_bytes));
        LOGIT_A(VELK_MASK_FAILURE, "There are currently %llu bytes mapped", m_num_bytes_mapped);
        LOGIT_A(VELK_MASK_FAILURE, " and %u mmaps open.\n", m_num_mmaps);
        return VELK_E_MAP_FAILED;
    }
    return 0;
}
