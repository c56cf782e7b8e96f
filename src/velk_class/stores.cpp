// Temporary stores, the ending of every section (marker and padding), and the
// copy of a store to the end of the sample file.
#include <stdlib.h>
#include <string.h>

#include "velk_class.h"

FILE_INFO_NODE::FILE_INFO_NODE(const char* store_name) : handle(-1), name(store_name)
{
    path[0] = '\0';
}

unsigned int FILE_INFO_NODE::Open_Temp_File(const char* prefix, int index)
{
    if (handle != -1)
        return 0;

    RETURN_IF_FAILED(strcpy_safe(path, sizeof(path), prefix));
    RETURN_IF_FAILED(strcat_safe(path, sizeof(path), "_"));
    RETURN_IF_FAILED(strcat_safe(path, sizeof(path), name));
    if (index != -1) {
        char digits[21];
        unsigned int needed = 0;
        RETURN_IF_FAILED(VELK_OSI_ui64tow(digits, sizeof(digits), (unsigned long long)index, &needed));
        RETURN_IF_FAILED(strcat_safe(path, sizeof(path), digits));
    }
    // A failed open leaves -1 in handle; the string store tests for it, every
    // other store surfaces it at its next seek.
    handle = VELK_OSI_Open_File(path, VELK_STORE_OPEN_MODE);
    return 0;
}

unsigned int FILE_INFO_NODE::Append_To_File(const void* buffer, unsigned long long size,
                                            unsigned int /*origin*/, long long offset)
{
    if (VELK_OSI_Set_File_Pointer(handle, offset, VELK_OSI_SEEK_END) == -1) {
        LOG_MINUS_ONE();
        return VELK_E_NULL_POINTER;
    }
    unsigned long long written = 0;
    return VELK_OSI_Write(handle, const_cast<void*>(buffer), size, &written);
}

unsigned long long FILE_INFO_NODE::Size()
{
    if (handle == -1)
        return 0;
    return VELK_OSI_Get_File_Size(handle);
}

unsigned int FILE_INFO_NODE::Close_Temp_File()
{
    if (handle == -1)
        return 0;
    RETURN_IF_FAILED(VELK_OSI_Close_Handle(handle, 0));
    RETURN_IF_FAILED(VELK_OSI_Delete_File(path));
    handle = -1;
    return 0;
}

unsigned int velk_class::utility_add_string_padding(long long handle, const char* text)
{
    unsigned long long written = 0;
    if (text != nullptr) {
        if (VELK_OSI_Set_File_Pointer(handle, 0, VELK_OSI_SEEK_END) == -1) {
            LOG_MINUS_ONE();
            return VELK_E_NULL_POINTER;
        }
        RETURN_IF_FAILED(VELK_OSI_Write(handle, const_cast<char*>(text), strlen(text) + 1, &written));
    }

    // 17 to 24 zero bytes: the next section starts on a multiple of 8.
    static const unsigned char zeros[24] = {0};
    const unsigned long long size = VELK_OSI_Get_File_Size(handle);
    const unsigned long long pad = 24 - (size & 7);
    unsigned int status = 0;
    if (VELK_OSI_Set_File_Pointer(handle, 0, VELK_OSI_SEEK_END) == -1) {
        LOG_MINUS_ONE();
        return status;
    }
    status = VELK_OSI_Write(handle, const_cast<unsigned char*>(zeros), pad, &written);
    if (status != 0)
        LOG_FAILED_STATUS(status);
    return status;
}

unsigned int velk_class::utility_append_file_b_to_file_a(long long b, long long a)
{
    unsigned long long remaining = VELK_OSI_Get_File_Size(b);
    unsigned char* buffer = static_cast<unsigned char*>(calloc(1, VELK_COPY_PIECE));
    if (buffer == nullptr) {
        LOG_NULL_POINTER_AT("utility_append_file_b_to_file_a");
        return VELK_E_NO_MEMORY;
    }

    if (VELK_OSI_Set_File_Pointer(b, 0, VELK_OSI_SEEK_BEGIN) < 0 ||
        VELK_OSI_Set_File_Pointer(a, 0, VELK_OSI_SEEK_END) < 0) {
        LOG_ERROR_AT("utility_append_file_b_to_file_a", -1);
        free(buffer);
        return 0xFFFFFFFFu;
    }

    unsigned int status = 0;
    while (remaining > 0) {
        const unsigned long long piece = remaining < VELK_COPY_PIECE ? remaining : VELK_COPY_PIECE;
        unsigned long long got = 0;
        status = VELK_OSI_Read(b, buffer, piece, &got);
        if (status != 0) {
            LOG_FAILED_STATUS(status);
            break;
        }
        if (got != piece) {
            LOGIT_A(VELK_MASK_FAILURE, "<velk>unexpected number of bytes read for input file!\n");
            status = VELK_E_NULL_POINTER;
            break;
        }
        unsigned long long written = 0;
        status = VELK_OSI_Write(a, buffer, piece, &written);
        if (status != 0) {
            LOG_FAILED_STATUS(status);
            break;
        }
        remaining -= piece;
    }
    free(buffer);
    return status;
}
