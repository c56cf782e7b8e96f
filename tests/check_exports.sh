#!/usr/bin/env bash
# Checks the dynamic symbol table of libvelk.so: it exports the VELK_
# functions, the data the interface names and the members of velk_class,
# bind_class and __VELK_mmap_tracker, and nothing else of the library.
set -euo pipefail
lib="$1"
symbols=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | c++filt | sort -u)

# Here-strings rather than pipes: under pipefail a grep -q that exits early
# would fail the pipeline through SIGPIPE on the writer.
unexpected=$(grep -v -E \
  '^(VELK_[A-Za-z0-9_]+|g_pid|velk_class::.*|bind_class::.*|__VELK_mmap_tracker::.*)$' <<<"$symbols" || true)
if [ -n "$unexpected" ]; then
  echo "unexpected exported symbols:"
  printf '%s\n' "$unexpected"
  exit 1
fi

for required in VELK_open VELK_close VELK_abort_cleanup_and_close VELK_get_version \
    VELK_error_string VELK_get_platform_type VELK_set_platform_type VELK_get_vk_file_version \
    VELK_convert_utf8_to_wcs VELK_convert_utf8_to_wcs_malloced VELK_convert_wcs_to_utf8 \
    VELK_convert_wcs_to_utf8_malloced VELK_convert_uniqueid_to_string \
    VELK_OSI_Open_File VELK_OSI_Create_File_Map VELK_OSI_Map_File_View VELK_OSI_Unmap_File_View \
    VELK_OSI_Close_Handle VELK_OSI_Get_Allocation_Granualarity VELK_OSI_Get_File_Size \
    VELK_OSI_Set_File_Pointer VELK_OSI_Write VELK_OSI_Read VELK_OSI_Delete_File VELK_OSI_Getenv \
    VELK_OSI_Sprintf VELK_OSI_i64toa VELK_OSI_ui64tow \
    '__VELK_mmap_tracker::m_num_mmaps' '__VELK_mmap_tracker::m_num_bytes_mapped' \
    '__VELK_mmap_tracker::Map_File(long long, unsigned long long, unsigned long long)' \
    'velk_class::velk_class()' 'velk_class::do_init()'; do
  if ! grep -q -x -F "$required" <<<"$symbols"; then
    echo "missing exported symbol: $required"
    exit 1
  fi
done
for hidden in LOGIT_A logit_write KEMO_get_error_string wcs_to_utf8 snprintf_safe; do
  if grep -q -x -F "$hidden" <<<"$symbols"; then
    echo "internal symbol exported: $hidden"
    exit 1
  fi
done
echo "exported set ok: $(wc -l <<<"$symbols") symbols"
