// Processes, threads and modules in their new form: the public records,
// written verbatim into kinds 29, 30 and 31 of the global table. Each add
// also writes the legacy form; a file that has only the legacy form is
// translated into a store of new records the first time it is enumerated,
// and that store serves the rest of the session.
#include <string.h>

#include <initializer_list>
#include <string>

#include "velk_class.h"

namespace {

// What an add writes per record. Module records are always added at 144
// bytes; the size a reader walks by comes from the module descriptors.
constexpr unsigned int kPidRecordSize = sizeof(__VELK_pid);
constexpr unsigned int kTidRecordSize = sizeof(__VELK_tid);
constexpr unsigned int kModuleRecordSize = sizeof(__VELK_module);

// Strides of the legacy sections.
constexpr unsigned int kLegacyPidStride = sizeof(PidRecord_s);
constexpr unsigned int kLegacyTidStride = sizeof(velk_legacy_tid_record);
constexpr unsigned int kLegacyModuleStride = sizeof(velk_legacy_module_record);

constexpr unsigned int kNoIndex = 0xFFFFFFFFu;

// Legacy flag bits read back into the new records.
constexpr unsigned char kLegacyCarriedFlag = 0x01;  // record flags bit 0
constexpr unsigned char kLegacyTime64 = 0x08;       // record flags bit 3
constexpr unsigned int kFlagTime64 = 0x10;          // new flags: time came from 64 bits

// The chunked walk of a record section, by records of `record_size` bytes:
// the window that holds read_start, then window after window for as long as
// the callback answers 1.
template <typename Record>
unsigned int enumerate_by_chunks(velk_class* s, __VELK_mmap_tracker* map, unsigned int record_size,
                                 unsigned int (velk_class::*map_from)(unsigned long long),
                                 unsigned long long total,
                                 unsigned (**callback)(Record*, unsigned, unsigned, void*),
                                 void* context, unsigned long long read_start,
                                 const char* error_format)
{
    map->Set_Data_Size(record_size);
    if (callback == nullptr || *callback == nullptr) {
        LOG_NULL_POINTER();
        return VELK_E_BAD_POINTER;
    }
    // A later call inside the window left mapped only moves the position.
    if (map->In_Range(read_start, 0))
        map->Rebase(read_start);
    else
        RETURN_IF_FAILED((s->*map_from)(read_start));

    for (;;) {
        const unsigned int result = (*callback)(reinterpret_cast<Record*>(map->m_current),
                                                (unsigned)map->m_bytes, (unsigned)map->m_entries,
                                                context);
        if (result == 0)
            return 0;
        if (result != 1) {
            LOGIT_A(VELK_MASK_FAILURE, error_format, s->instance, (int)result);
            return result;
        }
        if (map->End_Of_Map(total))
            return 0;
        RETURN_IF_FAILED((s->*map_from)(map->m_last_entry + 1));
    }
}

// The section of a record kind goes into the global table, then its store,
// ended by the marker, to the end of the sample file. The length is taken
// before the marker; an empty store gives an empty section.
unsigned int write_record_section(velk_class* s, __VELK_sample_file_section_vk6* sfs,
                                  unsigned int kind, unsigned int entry_length,
                                  FILE_INFO_NODE* store, const char* marker)
{
    sfs->length = store->Size();
    sfs->entry_length = entry_length;
    sfs->section_id = kind;
    sfs->file_offset = VELK_OSI_Get_File_Size(s->file_handle);
    RETURN_IF_FAILED(s->utility_write_sfs_header(sfs, nullptr));
    RETURN_IF_FAILED(s->utility_add_string_padding(store->handle, marker));
    RETURN_IF_FAILED(s->utility_append_file_b_to_file_a(store->handle, s->file_handle));
    return 0;
}

// The start of every add: a record, its section being written, and the
// record counted and written in its legacy form.
template <typename Record>
unsigned int begin_add(velk_class* s, Record* record, unsigned int section,
                       __VELK_sample_file_section_vk6* sfs,
                       unsigned int (velk_class::*write_legacy)(Record*), const char* function)
{
    if (record == nullptr) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::%s>nothing to write!\n", s->instance, function);
        return VELK_E_NOTHING_TO_WRITE;
    }
    if (s->sections_ptr->section_state[section] != VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::%s>this section already exists or write_section was not first "
                "called!\n",
                s->instance, function);
        return VELK_E_NOT_WRITING;
    }
    sfs->number_entries += 1;
    RETURN_IF_FAILED((s->*write_legacy)(record));
    return 0;
}

// Refuses an enumeration outside a read of its section.
unsigned int check_reading(velk_class* s, unsigned int section, const char* function)
{
    if (s->sections_ptr->section_state[section] != VELK_STATE_READING) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::%s>read_section was not first called!\n",
                s->instance, function);
        return VELK_E_NOT_READING;
    }
    return 0;
}

// One translation of a legacy section into a store of new records. The whole
// legacy section, records and texts, is looked at through one window.
class legacy_translation {
public:
    legacy_translation(velk_class* s, const char* name,
                       const __VELK_sample_file_section_vk6& legacy, unsigned int stride, __VELK_sample_file_section_vk6* target,
                       FILE_INFO_NODE* store)
        : s_(s), name_(name), legacy_(legacy), stride_(stride), target_(target), store_(store),
          saved_entries_(target->number_entries)
    {
        memset(&map_, 0, sizeof(map_));
    }

    // Checks that the records fit in the section, opens the store, takes
    // over the count and maps the section.
    unsigned int begin()
    {
        // The records must lie inside the section before any is read.
        if (legacy_.number_entries > legacy_.length / stride_) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::%s>%llu legacy records of %u bytes don't fit in a section of %llu "
                    "bytes!\n",
                    s_->instance, name_, (unsigned long long)legacy_.number_entries, stride_,
                    (unsigned long long)legacy_.length);
            return VELK_E_BAD_FILE;
        }
        unsigned int status = store_->Open_Temp_File(s_->temp_path, -1);
        if (status == 0) {
            target_->number_entries = legacy_.number_entries;
            map_.Set_Data_Size(1);
            map_.Set_Entries(legacy_.length);
            status = map_.Map_File(s_->file_handle, 0, legacy_.file_offset);
        }
        if (status != 0) {
            LOG_FAILED_STATUS(status);
            return finish(status);
        }
        return 0;
    }

    // Begins, hands each record in turn to `each(index, record)`, which
    // gives its status, and finishes; a failed record ends the walk.
    template <typename Legacy, typename Each>
    unsigned int run(Each each)
    {
        RETURN_IF_FAILED(begin());
        unsigned int status = 0;
        for (unsigned long long i = 0; i < legacy_.number_entries && status == 0; ++i) {
            Legacy r;
            memcpy(&r, map_.m_current + i * stride_, sizeof(r));
            status = each(i, r);
        }
        return finish(status);
    }

    // The text of `length` bytes at `offset` from the section's start, with a
    // NUL behind it; false when it doesn't lie inside the section.
    bool text(unsigned long long index, unsigned long long offset, unsigned long long length,
              std::string* out) const
    {
        if (offset > legacy_.length || length > legacy_.length - offset) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::%s>record %llu has a text of %llu bytes at %llu, outside its "
                    "section of %llu bytes!\n",
                    s_->instance, name_, index, length, offset,
                    (unsigned long long)legacy_.length);
            return false;
        }
        out->assign(reinterpret_cast<const char*>(map_.m_current + offset), length);
        return true;
    }

    // A name that starts `offset` bytes into a text; false when that lies
    // past the text's end.
    bool tail(unsigned long long index, const std::string& text, unsigned int offset,
              const char** out) const
    {
        if (offset > text.size()) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::%s>record %llu has a name at %u, past its text of %llu bytes!\n",
                    s_->instance, name_, index, offset, (unsigned long long)text.size());
            return false;
        }
        *out = text.c_str() + offset;
        return true;
    }

    // Appends one new record to the store and counts its bytes.
    unsigned int append(const void* record, unsigned int size)
    {
        RETURN_IF_FAILED(store_->Append_To_File(record, size, VELK_OSI_SEEK_END, 0));
        target_->length += size;
        return 0;
    }

    // Unmaps; the first failure wins over the unmap's. A failed translation
    // leaves nothing behind: the store is removed and the new kind is empty
    // again, so the next reading meets the same damage.
    unsigned int finish(unsigned int status)
    {
        status = velk_class::helper_unmap_keeping_first(&map_, status);
        if (status != 0) {
            const unsigned int closed = store_->Close_Temp_File();
            if (closed != 0)
                LOG_FAILED_STATUS(closed);
            target_->length = 0;
            target_->number_entries = saved_entries_;
        }
        return status;
    }

private:
    velk_class* s_;
    const char* name_;
    const __VELK_sample_file_section_vk6 legacy_;
    const unsigned int stride_;
    __VELK_sample_file_section_vk6* target_;
    FILE_INFO_NODE* store_;
    const unsigned long long saved_entries_;
    __VELK_mmap_tracker map_;
};

// The event time of a legacy process or thread record.
void legacy_event_time(uint8_t record_flags, uint32_t event_base, uint32_t event_delta,
                       uint64_t event_time_64, uint32_t* flags, uint64_t* when)
{
    if (record_flags & kLegacyCarriedFlag)
        *flags |= 1;
    if (record_flags & kLegacyTime64) {
        *when = event_time_64;
        *flags |= kFlagTime64;
    } else {
        *when = (uint32_t)(event_base - event_delta);
    }
}

// Module flags from bytes 0 and 1 of the legacy flags word and the segment
// byte.
uint32_t module_flags_from_legacy(const velk_legacy_module_record& r)
{
    const uint8_t byte0 = r.flags_word[0], byte1 = r.flags_word[1];
    uint32_t flags = 0;
    if (byte1 & 0x08)
        flags |= 0x80;
    if (byte1 & 0x04)
        flags |= 0x100;
    if (byte1 & 0x02)
        flags |= 0x400;
    if (byte0 & 0x82)
        flags |= 0x800;
    if (byte0 & 0x01)
        flags |= 0x1000;
    flags |= (r.segment_byte & 0x04) ? VELK_MODULE_NO_LOAD_COUNT : VELK_MODULE_HAS_LOAD_COUNT;
    if (byte0 & 0x20)
        flags |= VELK_MODULE_64BIT_COUNTS;
    return flags;
}

unsigned copy_first_pid(__VELK_pid* records, unsigned, unsigned, void*)
{
    memcpy(&g_pid, records, sizeof(g_pid));
    return 0;
}

}  // namespace

unsigned int velk_class::VELK_add_process(__VELK_pid* record)
{
    VELK_TRACE_ENTER("VELK_add_process");
    // The legacy record carries its own text, so it goes first, while the
    // strings are still wide.
    const unsigned int status =
        begin_add(this, record, VELK_SECTION_PROCESS, &sections_ptr->sfs_pid,
                  &velk_class::write_to_legacy_temp_file_pid, "VELK_add_process");
    if (status != 0)
        return status;
    // Path and name are turned into ids together or not at all.
    if (record->pid_name.text != nullptr && record->pid_path.text != nullptr) {
        __string_or_id* path = &record->pid_path;
        __string_or_id* name = &record->pid_name;
        RETURN_IF_FAILED(utility_add_string_to_temp_file(path->text, &path->id));
        RETURN_IF_FAILED(utility_add_string_to_temp_file(name->text, &name->id));
    }
    FILE_INFO_NODE* store = sections_ptr->new_pid_store;
    RETURN_IF_FAILED(store->Open_Temp_File(temp_path, -1));
    record->reserved_for_legacy = (uint32_t)(sections_ptr->sfs_pid.number_entries - 1);
    RETURN_IF_FAILED(store->Append_To_File(record, kPidRecordSize, VELK_OSI_SEEK_END, 0));
    VELK_TRACE_EXIT("VELK_add_process");
    return 0;
}

unsigned int velk_class::VELK_add_thread(__VELK_tid* record)
{
    VELK_TRACE_ENTER("VELK_add_thread");
    const unsigned int status =
        begin_add(this, record, VELK_SECTION_THREAD, &sections_ptr->sfs_tid,
                  &velk_class::write_to_legacy_temp_file_tid, "VELK_add_thread");
    if (status != 0)
        return status;
    RETURN_IF_FAILED(utility_add_string_to_temp_file(record->tid_name.text, &record->tid_name.id));
    FILE_INFO_NODE* store = sections_ptr->new_tid_store;
    RETURN_IF_FAILED(store->Open_Temp_File(temp_path, -1));
    record->reserved_for_legacy = (uint32_t)(sections_ptr->sfs_tid.number_entries - 1);
    RETURN_IF_FAILED(store->Append_To_File(record, kTidRecordSize, VELK_OSI_SEEK_END, 0));
    VELK_TRACE_EXIT("VELK_add_thread");
    return 0;
}

unsigned int velk_class::VELK_add_module(__VELK_module* record)
{
    VELK_TRACE_ENTER("VELK_add_module");
    const unsigned int status =
        begin_add(this, record, VELK_SECTION_MODULE, &sections_ptr->sfs_module,
                  &velk_class::write_to_legacy_temp_file_module, "VELK_add_module");
    if (status != 0)
        return status;
    for (__string_or_id* text : {&record->module_path, &record->module_name, &record->module_extra})
        RETURN_IF_FAILED(utility_add_string_to_temp_file(text->text, &text->id));
    // The process index is bind's to fill in.
    record->pid_index = kNoIndex;
    FILE_INFO_NODE* store = sections_ptr->new_module_store;
    RETURN_IF_FAILED(store->Open_Temp_File(temp_path, -1));
    RETURN_IF_FAILED(store->Append_To_File(record, kModuleRecordSize, VELK_OSI_SEEK_END, 0));
    VELK_TRACE_EXIT("VELK_add_module");
    return 0;
}

unsigned int velk_class::VELK_enumerate_processes(VELK_PROCESS_CALLBACK* callback, void* context,
                                                  unsigned long long read_start)
{
    VELK_TRACE_ENTER("VELK_enumerate_processes");
    const unsigned int status =
        check_reading(this, VELK_SECTION_PROCESS, "VELK_enumerate_processes");
    if (status != 0)
        return status;
    RETURN_IF_FAILED(enumerate_by_chunks(
        this, &pid_map, kPidRecordSize, &velk_class::helper_map_velk_pids,
        sections_ptr->sfs_pid.number_entries, callback, context, read_start,
        "<velk %u::VELK_enumerate_processes>callback returned an error, exiting with value %d\n"));
    VELK_TRACE_EXIT("VELK_enumerate_processes");
    return 0;
}

unsigned int velk_class::VELK_enumerate_threads(VELK_THREAD_CALLBACK* callback, void* context,
                                                unsigned long long read_start)
{
    VELK_TRACE_ENTER("VELK_enumerate_threads");
    const unsigned int status = check_reading(this, VELK_SECTION_THREAD, "VELK_enumerate_threads");
    if (status != 0)
        return status;
    // The error line names processes for threads too.
    RETURN_IF_FAILED(enumerate_by_chunks(
        this, &tid_map, kTidRecordSize, &velk_class::helper_map_velk_tids,
        sections_ptr->sfs_tid.number_entries, callback, context, read_start,
        "<velk %u::VELK_enumerate_processes>callback returned an error, exiting with value %d\n"));
    VELK_TRACE_EXIT("VELK_enumerate_threads");
    return 0;
}

unsigned int velk_class::VELK_enumerate_modules(VELK_MODULE_CALLBACK* callback, void* context,
                                                unsigned long long read_start)
{
    VELK_TRACE_ENTER("VELK_enumerate_modules");
    const unsigned int status = check_reading(this, VELK_SECTION_MODULE, "VELK_enumerate_modules");
    if (status != 0)
        return status;
    // Without module descriptors there is no record size to walk by.
    const unsigned int size = VELK_get_module_record_size();
    if (size == 0) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_enumerate_modules>module record size is 0!\n",
                instance);
        return VELK_E_NO_DESCRIPTORS;
    }
    RETURN_IF_FAILED(enumerate_by_chunks(
        this, &module_map, size, &velk_class::helper_map_velk_modules,
        sections_ptr->sfs_module.number_entries, callback, context, read_start,
        "<velk %u::VELK_enumerate_modules>callback returned an error, exiting with value %d\n"));
    VELK_TRACE_EXIT("VELK_enumerate_modules");
    return 0;
}

unsigned int velk_class::VELK_get_module_record_size()
{
    VELK_TRACE_ENTER("VELK_get_module_record_size");
    if (module_record_size != 0) {
        VELK_TRACE_EXIT("VELK_get_module_record_size");
        return module_record_size;
    }
    // Only a size comes back: a failure inside leaves the cache at 0, and
    // the next call tries again. A descriptor section that can't be read
    // (one being written) is left in its state.
    if (VELK_reading_section(VELK_SECTION_DESCRIPTOR) != 0)
        return 0;
    __velk_samprec_desc_entry* entries = nullptr;
    int count = -1;
    unsigned int size = 0;
    if (VELK_get_global_section_descriptor(VELK_SECTION_MODULE, &entries, &count) == 0 &&
        entries != nullptr) {
        // The group's head and the fields behind it: the sum of their
        // lengths is the record's size.
        for (int i = 0; i < count; ++i)
            size += entries[i].field_length;
    }
    VELK_done_section(VELK_SECTION_DESCRIPTOR);
    module_record_size = size;
    VELK_TRACE_EXIT("VELK_get_module_record_size");
    return size;
}

unsigned int velk_class::utility_get_one_pid(unsigned long long index, const __VELK_pid** pid)
{
    VELK_TRACE_ENTER("utility_get_one_pid");
    if (pid == nullptr) {
        LOG_NULL_POINTER();
        return VELK_E_BAD_POINTER;
    }
    RETURN_IF_FAILED(VELK_reading_section(VELK_SECTION_PROCESS));
    VELK_PROCESS_CALLBACK callback = copy_first_pid;
    RETURN_IF_FAILED(VELK_enumerate_processes(&callback, nullptr, index));
    RETURN_IF_FAILED(VELK_done_section(VELK_SECTION_PROCESS));
    *pid = &g_pid;
    VELK_TRACE_EXIT("utility_get_one_pid");
    return 0;
}

unsigned int velk_class::helper_get_os_pid_from_pid_index(unsigned long long index,
                                                          unsigned int* os_pid)
{
    VELK_TRACE_ENTER("helper_get_os_pid_from_pid_index");
    if (os_pid == nullptr) {
        LOG_NULL_POINTER();
        return VELK_E_BAD_POINTER;
    }
    if (sections_ptr->sfs_legacy_pid_record.length == 0) {
        *os_pid = kNoIndex;
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::helper_get_os_pid_from_pid_index>pid record section doesn't exist!\n",
                instance);
        return VELK_E_NO_PID_SECTION;
    }
    const __VELK_pid* pid = nullptr;
    RETURN_IF_FAILED(utility_get_one_pid(index, &pid));
    *os_pid = pid->pid_id;
    VELK_TRACE_EXIT("helper_get_os_pid_from_pid_index");
    return 0;
}

unsigned int velk_class::write_to_file_new_pid_section()
{
    VELK_TRACE_ENTER("write_to_file_new_pid_section");
    RETURN_IF_FAILED(write_record_section(this, &sections_ptr->sfs_pid, KIND_PID, kPidRecordSize,
                                          sections_ptr->new_pid_store, "end new pid section"));
    VELK_TRACE_EXIT("write_to_file_new_pid_section");
    return 0;
}

unsigned int velk_class::write_to_file_new_tid_section()
{
    VELK_TRACE_ENTER("write_to_file_new_tid_section");
    RETURN_IF_FAILED(write_record_section(this, &sections_ptr->sfs_tid, KIND_TID, kTidRecordSize,
                                          sections_ptr->new_tid_store, "end new tid section"));
    VELK_TRACE_EXIT("write_to_file_new_tid_section");
    return 0;
}

unsigned int velk_class::write_to_file_new_module_section()
{
    VELK_TRACE_ENTER("write_to_file_new_module_section");
    RETURN_IF_FAILED(write_record_section(this, &sections_ptr->sfs_module, KIND_MODULE,
                                          VELK_get_module_record_size(),
                                          sections_ptr->new_module_store,
                                          "end new module section"));
    VELK_TRACE_EXIT("write_to_file_new_module_section");
    return 0;
}

unsigned int velk_class::helper_get_pid_info_from_file()
{
    VELK_TRACE_ENTER("helper_get_pid_info_from_file");
    legacy_translation t(this, "helper_get_pid_info_from_file", sections_ptr->sfs_legacy_pid_record,
                         kLegacyPidStride, &sections_ptr->sfs_pid, sections_ptr->new_pid_store);
    const unsigned int status = t.run<PidRecord_s>(
        [&](unsigned long long i, const PidRecord_s& r) -> unsigned int {
            __VELK_pid p;
            memset(&p, 0, sizeof(p));
            p.pid_size = kPidRecordSize;
            p.pid_id = r.os_id;
            p.reserved_for_legacy = (uint32_t)i;
            legacy_event_time(r.record_flags, r.event_base, r.event_delta, r.event_time_64,
                              &p.pid_flags, &p.pid_event_when);
            // One text holds the path; the name is its tail.
            std::string text;
            const char* name = nullptr;
            if (!t.text(i, r.string_offset, r.string_length, &text) ||
                !t.tail(i, text, r.name_offset, &name))
                return VELK_E_BAD_FILE;
            unsigned int result =
                utility_add_string_to_temp_file(text.c_str(), &p.pid_path.id);
            if (result == 0)
                result = utility_add_string_to_temp_file(name, &p.pid_name.id);
            if (result == 0)
                result = t.append(&p, kPidRecordSize);
            if (result != 0)
                LOG_FAILED_STATUS(result);
            return result;
        });
    if (status == 0)
        VELK_TRACE_EXIT("helper_get_pid_info_from_file");
    return status;
}

unsigned int velk_class::helper_get_tid_info_from_file()
{
    VELK_TRACE_ENTER("helper_get_tid_info_from_file");
    legacy_translation t(this, "helper_get_tid_info_from_file", sections_ptr->sfs_legacy_tid_record,
                         kLegacyTidStride, &sections_ptr->sfs_tid, sections_ptr->new_tid_store);
    const unsigned int status = t.run<velk_legacy_tid_record>(
        [&](unsigned long long i, const velk_legacy_tid_record& r) -> unsigned int {
            __VELK_tid p;
            memset(&p, 0, sizeof(p));
            p.tid_size = kTidRecordSize;
            p.tid_pid = r.process_word;
            p.tid_id = r.os_id;
            p.reserved_for_legacy = (uint32_t)i;
            legacy_event_time(r.record_flags, r.event_base, r.event_delta, r.event_time_64,
                              &p.tid_flags, &p.tid_event_when);
            // The legacy thread holds no text: the name stays 0.
            const unsigned int result = t.append(&p, kTidRecordSize);
            if (result != 0)
                LOG_FAILED_STATUS(result);
            return result;
        });
    if (status == 0)
        VELK_TRACE_EXIT("helper_get_tid_info_from_file");
    return status;
}

unsigned int velk_class::helper_get_module_info_from_file()
{
    VELK_TRACE_ENTER("helper_get_module_info_from_file");
    // Whether the process word is an index into the process records is
    // decided once for the section.
    unsigned int bound = 0;
    RETURN_IF_FAILED(VELK_is_legacy_bound(&bound));
    const unsigned int size = VELK_get_module_record_size();
    if (size == 0) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::helper_get_module_info_from_file>module record size is 0!\n", instance);
        return VELK_E_NO_DESCRIPTORS;
    }
    // The translated record is built in a record of 144 bytes; a file whose
    // descriptors ask for more can't be translated.
    if (size > kModuleRecordSize) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::helper_get_module_info_from_file>module record size %u is more than "
                "the %u bytes of a translated record!\n",
                instance, size, kModuleRecordSize);
        return VELK_E_BAD_FILE;
    }

    legacy_translation t(this, "helper_get_module_info_from_file",
                         sections_ptr->sfs_legacy_module_record, kLegacyModuleStride,
                         &sections_ptr->sfs_module, sections_ptr->new_module_store);
    const unsigned int status = t.run<velk_legacy_module_record>(
        [&](unsigned long long i, const velk_legacy_module_record& r) -> unsigned int {
            __VELK_module m;
            memset(&m, 0, sizeof(m));
            m.module_size = size;
            if (bound) {
                m.pid_index = r.process_word;
                const unsigned int found =
                    helper_get_os_pid_from_pid_index(r.process_word, &m.pid);
                if (found != 0) {
                    LOG_FAILED_STATUS(found);
                    return found;
                }
            } else {
                m.pid = r.process_word;
                m.osid = 0;
                m.pid_index = kNoIndex;
            }
            m.module_flags = module_flags_from_legacy(r);
            if (m.module_flags & VELK_MODULE_64BIT_COUNTS) {
                m.sc_load = r.sc_load_64;
                m.sc_unload = ((uint64_t)r.event_high << 32) | r.event_low;
            } else {
                m.sc_load = r.event_low;
                m.sc_unload_32 = r.event_high;
            }
            m.module_ref = r.module_ref;
            m.segment_type = r.segment_byte & 3;
            m.code_segment = r.code_segment;
            memcpy(&m.legacy_flags, r.flags_word, sizeof(m.legacy_flags));
            if (m.segment_type == 3) {
                m.module_length = r.module_length;
                m.module_load_address = r.module_load_address;
            } else {
                m.module_length = (uint32_t)r.module_length;
                m.module_load_address = (uint32_t)r.module_load_address;
            }

            std::string path;
            if (!t.text(i, r.string_offset, r.string_length, &path))
                return VELK_E_BAD_FILE;
            unsigned int result =
                utility_add_string_to_temp_file(path.c_str(), &m.module_path.id);
            // An absolute path (or one with a drive letter), or a name offset
            // of 0, gives the name from the offset on; a relative path is the
            // name whole.
            const char* name = path.c_str();
            const bool absolute =
                path[0] == '\\' || path[0] == '/' || (path.size() > 1 && path[1] == ':');
            if (result == 0 && (absolute || r.name_offset == 0) &&
                !t.tail(i, path, r.name_offset, &name))
                result = VELK_E_BAD_FILE;
            if (result == 0)
                result = utility_add_string_to_temp_file(name, &m.module_name.id);
            // A third text is read, but what becomes a string is nothing, and
            // its id lands in the path: such a record loses its path.
            if (result == 0 && (r.flags_word[1] & 0x01)) {
                std::string extra;
                if (!t.text(i, r.extra_offset, r.extra_length, &extra))
                    result = VELK_E_BAD_FILE;
                else
                    result = utility_add_string_to_temp_file((const char*)nullptr,
                                                             &m.module_path.id);
            }
            if (result == 0)
                result = t.append(&m, size);
            if (result != 0)
                LOG_FAILED_STATUS(result);
            return result;
        });
    if (status == 0)
        VELK_TRACE_EXIT("helper_get_module_info_from_file");
    return status;
}

unsigned int velk_class::helper_map_sfs(__VELK_mmap_tracker* map,
                                        __VELK_sample_file_section_vk6* sfs,
                                        __VELK_sample_file_section_vk6* legacy_sfs,
                                        FILE_INFO_NODE* store, unsigned int legacy_kind,
                                        unsigned long long read_start)
{
    VELK_TRACE_ENTER("helper_map_sfs");
    RETURN_IF_FAILED(map->Unmap_File());
    if (sfs == nullptr) {
        LOG_NULL_POINTER();
        return VELK_E_NULL_POINTER;
    }

    // A file with only the legacy form gets the new form first, once: the
    // store stays open and serves every later window.
    if (sfs->length == 0 && store->handle == -1) {
        if (legacy_sfs != nullptr && legacy_sfs->length == 0) {
            LOGIT_A(VELK_MASK_FAILURE, "<velk %u::helper_map_sfs>legacy section does not exist!\n",
                    instance);
            return VELK_E_SECTION_MISSING;
        }
        switch (legacy_kind) {
        case KIND_LEGACY_MODULE_RECORD:
            RETURN_IF_FAILED(helper_get_module_info_from_file());
            break;
        case KIND_LEGACY_TID_RECORD:
            RETURN_IF_FAILED(helper_get_tid_info_from_file());
            break;
        case KIND_LEGACY_PID_RECORD:
            RETURN_IF_FAILED(helper_get_pid_info_from_file());
            break;
        default:
            break;
        }
    }

    if (read_start >= sfs->number_entries) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::helper_map_velk_sfs>invalid read start!\n", instance);
        return VELK_E_BAD_READ_START;
    }
    const unsigned long long record_size = map->m_data_size;
    if (record_size == 0) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::helper_map_sfs>record size is 0!\n", instance);
        return VELK_E_NO_DESCRIPTORS;
    }

    // Written sections lie in the sample file; while a session writes, or
    // after a translation, the records are in the store.
    const bool in_file = sfs->length != 0 && store->handle == -1;
    if (in_file && sfs->number_entries > sfs->length / record_size) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::helper_map_sfs>%llu records of %llu bytes don't fit in a section of "
                "%llu bytes!\n",
                instance, (unsigned long long)sfs->number_entries, record_size,
                (unsigned long long)sfs->length);
        return VELK_E_BAD_FILE;
    }
    // Callbacks get the records in place, as structures of 8-byte fields:
    // a section off the 8-byte grid, or records of a size that leaves it,
    // would hand them misaligned records. Every writer keeps to the grid.
    if (in_file && ((sfs->file_offset | record_size) & 7) != 0) {
        LOGIT_A(VELK_MASK_FAILURE,
                "<velk %u::helper_map_sfs>records of %llu bytes at offset %llu are not 8-byte "
                "aligned!\n",
                instance, record_size, (unsigned long long)sfs->file_offset);
        return VELK_E_BAD_FILE;
    }
    unsigned long long window = sfs->length <= VELK_MAP_WINDOW_MAX
                                    ? sfs->number_entries
                                    : VELK_MAP_WINDOW_MAX / record_size;
    if (window > sfs->number_entries - read_start)
        window = sfs->number_entries - read_start;
    map->Set_Entries(window);

    unsigned long long offset = record_size * read_start;
    long long handle = store->handle;
    if (in_file) {
        handle = file_handle;
        offset += sfs->file_offset;
    }
    RETURN_IF_FAILED(map->Map_File(handle, read_start, offset));
    VELK_TRACE_EXIT("helper_map_sfs");
    return 0;
}

unsigned int velk_class::helper_map_velk_pids(unsigned long long read_start)
{
    RETURN_IF_FAILED(helper_map_sfs(&pid_map, &sections_ptr->sfs_pid, nullptr,
                                    sections_ptr->new_pid_store, KIND_LEGACY_PID_RECORD,
                                    read_start));
    return 0;
}

unsigned int velk_class::helper_map_velk_tids(unsigned long long read_start)
{
    RETURN_IF_FAILED(helper_map_sfs(&tid_map, &sections_ptr->sfs_tid, nullptr,
                                    sections_ptr->new_tid_store, KIND_LEGACY_TID_RECORD,
                                    read_start));
    return 0;
}

unsigned int velk_class::helper_map_velk_modules(unsigned long long read_start)
{
    RETURN_IF_FAILED(helper_map_sfs(&module_map, &sections_ptr->sfs_module,
                                    &sections_ptr->sfs_legacy_module_record,
                                    sections_ptr->new_module_store, KIND_LEGACY_MODULE_RECORD,
                                    read_start));
    return 0;
}

// The one result slot of utility_get_one_pid, shared by all sessions.
extern "C" VELK_API __VELK_pid g_pid;
__VELK_pid g_pid;
