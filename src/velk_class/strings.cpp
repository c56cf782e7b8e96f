// The string table. A text becomes a 64-bit id: bit 63 set, the low bits the
// text's position (string_base plus the size of "strings.tmp" when it was
// added). Once a batch is flushed into the sample file the position is the
// text's absolute offset there; until then it lies in the store.
#include <stdlib.h>
#include <string.h>

#include "velk_class.h"

namespace {
const unsigned long long kStringIdFlag = 1ULL << 63;
// A text found in an existing window must have this much mapped room ahead
// of it, or the window is made anew from the text's position.
const unsigned long long kStringLookAhead = 1024;
}  // namespace

unsigned int velk_class::utility_add_string_to_temp_file(const char* text, unsigned long long* id)
{
    if (text == nullptr || text[0] == '\0') {
        *id = 0;
        return 0;
    }

    RETURN_IF_FAILED(strings_store->Open_Temp_File(temp_path, -1));
    if (strings_store->handle == -1) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::utility_add_string_to_temp_file>VELK_OSI_Open_File failed\n", instance);
        return VELK_E_OPEN_FAILED;
    }

    *id = (string_base + strings_store->Size()) | kStringIdFlag;
    RETURN_IF_FAILED(strings_store->Append_To_File(text, strlen(text) + 1, VELK_OSI_SEEK_END, 0));
    return 0;
}

unsigned int velk_class::utility_add_string_to_temp_file(const wchar_t* text, unsigned long long* id)
{
    if (text == nullptr || text[0] == L'\0') {
        *id = 0;
        return 0;
    }

    // The id may share its storage with `text` (a __string_or_id of the
    // caller's record): the text is converted before the id is stored.
    char* utf8 = nullptr;
    RETURN_IF_FAILED(wcs_to_utf8_malloced(text, &utf8));
    const unsigned int status = utility_add_string_to_temp_file(utf8, id);
    free(utf8);
    if (status != 0)
        LOG_FAILED_STATUS(status);
    return status;
}

unsigned int velk_class::write_to_file_hidden_string_section(unsigned int* wrote)
{
    VELK_TRACE_ENTER("write_to_file_hidden_string_section");
    // An empty batch leaves no trace in the file.
    if (strings_store->handle == -1) {
        VELK_TRACE_EXIT("write_to_file_hidden_string_section");
        return 0;
    }
    if (wrote != nullptr)
        *wrote = 1;

    RETURN_IF_FAILED(utility_add_string_padding(strings_store->handle, "end string section"));
    RETURN_IF_FAILED(utility_append_file_b_to_file_a(strings_store->handle, file_handle));
    RETURN_IF_FAILED(helper_unmap_strings());
    RETURN_IF_FAILED(strings_store->Close_Temp_File());
    VELK_TRACE_EXIT("write_to_file_hidden_string_section");
    return 0;
}

unsigned int velk_class::helper_map_velk_strings(long long handle, __VELK_mmap_tracker* map,
                                                 unsigned long long offset)
{
    const unsigned long long size = VELK_OSI_Get_File_Size(handle);
    if (offset >= size) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::helper_map_velk_strings>invalid start offset!\n",
                instance);
        return VELK_E_BAD_READ_START;
    }

    RETURN_IF_FAILED(map->Unmap_File());
    map->Set_Data_Size(1);
    const unsigned long long rest = size - offset;
    map->Set_Entries(rest < VELK_MAP_WINDOW_MAX ? rest : VELK_MAP_WINDOW_MAX);
    RETURN_IF_FAILED(map->Map_File(handle, offset, offset));
    return 0;
}

unsigned int velk_class::helper_unmap_strings()
{
    RETURN_IF_FAILED(final_strings_map.Unmap_File());
    RETURN_IF_FAILED(temp_strings_map.Unmap_File());
    return 0;
}

unsigned int velk_class::VELK_convert_uniqueid_to_string(unsigned int buffer_size,
                                                         const __string_or_id* id,
                                                         wchar_t* buffer, unsigned int* size)
{
    VELK_TRACE_ENTER("VELK_convert_uniqueid_to_string");
    if (!may_read()) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_convert_uniqueid_to_string>don't have permission to read the "
                "file!\n",
                instance);
        return VELK_E_NO_PERMISSION;
    }
    if (id == nullptr || id->id == 0) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_convert_uniqueid_to_string>null string passed in!\n", instance);
        if (size != nullptr)
            *size = 0;
        return VELK_E_BAD_STRING_ID;
    }

    // The first look at the file's size is the one that counts for the
    // session: ids below it are in the file, ids at or above it in the store.
    if (final_file_size == 0)
        final_file_size = VELK_OSI_Get_File_Size(file_handle);
    const unsigned long long store_size = strings_store->Size();

    unsigned long long position = id->id & ~kStringIdFlag;
    __VELK_mmap_tracker* map;
    long long handle;
    unsigned long long limit;
    const char* where;
    if (position < final_file_size) {
        map = &final_strings_map;
        handle = file_handle;
        limit = final_file_size;
        where = "final";
    } else {
        position -= final_file_size;
        map = &temp_strings_map;
        handle = strings_store->handle;
        limit = store_size;
        where = "temp";
    }
    if (position >= limit) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_convert_uniqueid_to_string>bogus uniqueid! cannot find string in "
                "%s string file!\n",
                instance, where);
        if (size != nullptr)
            *size = 0;
        return VELK_E_BAD_STRING_ID;
    }

    if (map->In_Range(position, kStringLookAhead))
        map->Rebase(position);
    else
        RETURN_IF_FAILED(helper_map_velk_strings(handle, map, position));

    const char* text = reinterpret_cast<const char*>(map->m_current);
    if (text == nullptr || text[0] == '\0') {
        if (buffer != nullptr)
            memset(buffer, 0, buffer_size);
        if (size != nullptr)
            *size = 0;
        VELK_TRACE_EXIT("VELK_convert_uniqueid_to_string");
        return 0;
    }
    // The text must end inside the window; an id that points into the middle
    // of other data, or a damaged file, may have no terminator there.
    if (memchr(text, '\0', map->m_bytes) == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::VELK_convert_uniqueid_to_string>string at the uniqueid is not "
                "terminated in the %s string file!\n",
                instance, where);
        if (size != nullptr)
            *size = 0;
        return VELK_E_BAD_STRING_ID;
    }

    if (buffer != nullptr) {
        unsigned int capacity = buffer_size / sizeof(wchar_t);
        RETURN_IF_FAILED(utf8_to_wcs(text, buffer, &capacity));
    } else {
        unsigned int needed = 0;
        const unsigned int status = utf8_to_wcs(text, nullptr, &needed);
        if (status != VELK_E_BUFFER_TOO_SMALL) {
            const unsigned int result = status == 0 ? VELK_E_NULL_POINTER : status;
            LOG_FAILED_STATUS(result);
            return result;
        }
        if (size != nullptr)
            *size = needed * sizeof(wchar_t);
    }
    VELK_TRACE_EXIT("VELK_convert_uniqueid_to_string");
    return 0;
}
