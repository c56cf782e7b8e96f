// Section and stream states: every reader and writer declares what it is
// about to do to a section, and declares it done. A getter then tests for the
// reading state, a setter for the writing state, and the close can tell what
// was left open.
#include "velk_class.h"

unsigned int velk_class::helper_set_section_state(unsigned int id, unsigned int state)
{
    for (;;) {
        if (id >= 8)
            return VELK_E_UNKNOWN_SECTION;
        unsigned int& current = sections_ptr->section_state[id];
        if (state == VELK_STATE_READING && current == VELK_STATE_WRITING) {
            LOGIT_A(VELK_MASK_FAILURE, "<velk %u::helper_set_section_state>%d is being written!\n",
                    instance, id);
            return VELK_E_SECTION_BUSY;
        }
        // A global section is written once in a file's life.
        if (state == VELK_STATE_WRITING && current != VELK_STATE_ABSENT) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::helper_set_section_state>%d in use or already exists!\n", instance,
                    id);
            return VELK_E_SECTION_BUSY;
        }
        // The descriptor section may be read or done while absent.
        if (state != VELK_STATE_WRITING && id != VELK_SECTION_DESCRIPTOR &&
            current == VELK_STATE_ABSENT) {
            LOGIT_A(VELK_MASK_FAILURE, "<velk %u::helper_set_section_state>%d does not exist!\n",
                    instance, id);
            return VELK_E_SECTION_MISSING;
        }
        if (id == VELK_SECTION_SYSTEM || id == VELK_SECTION_PROCESS) {
            if (state == VELK_STATE_EXISTS)
                sections_ptr->section_users[id] -= 1;
            else
                sections_ptr->section_users[id] += 1;
        }
        current = state;
        // In version 5 processes and threads travel together.
        if (id == VELK_SECTION_PROCESS && vk_file_version < 6) {
            id = VELK_SECTION_THREAD;
            continue;
        }
        return 0;
    }
}

unsigned int velk_class::helper_set_stream_section_state(unsigned int stream, unsigned int id,
                                                         unsigned int state)
{
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    if (state == VELK_STATE_READING && node->stream_state != VELK_STATE_READING) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u>did not call VELK_reading_stream yet!\n", instance);
        return VELK_E_STREAM_STATE;
    }
    if (state == VELK_STATE_WRITING && node->stream_state != VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u>did not call VELK_writing_stream yet!\n", instance);
        return VELK_E_STREAM_STATE;
    }
    if (id >= 5) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u>unknown section identifier!\n", instance);
        return VELK_E_UNKNOWN_SECTION;
    }
    unsigned int& current = node->stream_section_state[id];
    if (state == VELK_STATE_READING && current == VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u>%d is already in use!\n", instance, id);
        return VELK_E_ALREADY_IN_USE;
    }
    if (state != VELK_STATE_WRITING && current == VELK_STATE_ABSENT) {
        if (id != VELK_STREAM_SECTION_DATA_DESCRIPTION) {
            LOGIT_A(VELK_MASK_FAILURE, "<velk %u>%d does not exist!\n", instance, id);
            return VELK_E_BAD_STREAM;
        }
        // Stream 0's description can be made from the legacy sections.
        if (!(state == VELK_STATE_READING && stream == 0)) {
            LOGIT_A(VELK_MASK_FAILURE, "<velk %u>data description stream does not exist!\n",
                    instance);
            return VELK_E_BAD_STREAM;
        }
    }
    current = state;
    return 0;
}

namespace {

// The three global and the three stream section calls differ only in the
// state they ask for and the name in their trace lines.
// `access` names what the session must be allowed to do, or is null.
unsigned int traced_section_state(velk_class* s, const char* name, unsigned int id,
                                  unsigned int state, const char* access = nullptr,
                                  bool permitted = true)
{
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::%s>entering, section # %u\n", s->instance, name, id);
    if (access != nullptr && !permitted) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::%s>don't have permission to %s the file!\n",
                s->instance, name, access);
        return VELK_E_NO_PERMISSION;
    }
    const unsigned int status = s->helper_set_section_state(id, state);
    if (status == 0)
        LOGIT_A(VELK_MASK_TRACE, "<velk %u::%s>exiting\n", s->instance, name);
    return status;
}

unsigned int traced_stream_section_state(velk_class* s, const char* name, unsigned int stream,
                                         unsigned int id, unsigned int state)
{
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::%s>entering, stream # %u\n", s->instance, name, stream);
    const unsigned int status = s->helper_set_stream_section_state(stream, id, state);
    if (status == 0)
        LOGIT_A(VELK_MASK_TRACE, "<velk %u::%s>exiting\n", s->instance, name);
    return status;
}

}  // namespace

unsigned int velk_class::VELK_reading_section(unsigned int id)
{
    return traced_section_state(this, "VELK_reading_section", id, VELK_STATE_READING, "read",
                                may_read());
}

unsigned int velk_class::VELK_writing_section(unsigned int id)
{
    return traced_section_state(this, "VELK_writing_section", id, VELK_STATE_WRITING, "write",
                                may_write());
}

unsigned int velk_class::VELK_done_section(unsigned int id)
{
    return traced_section_state(this, "VELK_done_section", id, VELK_STATE_EXISTS);
}

unsigned int velk_class::VELK_reading_stream_section(unsigned int stream, unsigned int id)
{
    return traced_stream_section_state(this, "VELK_reading_stream_section", stream, id,
                                       VELK_STATE_READING);
}

unsigned int velk_class::VELK_writing_stream_section(unsigned int stream, unsigned int id)
{
    return traced_stream_section_state(this, "VELK_writing_stream_section", stream, id,
                                       VELK_STATE_WRITING);
}

unsigned int velk_class::VELK_done_stream_section(unsigned int stream, unsigned int id)
{
    return traced_stream_section_state(this, "VELK_done_stream_section", stream, id,
                                       VELK_STATE_EXISTS);
}

unsigned int velk_class::VELK_reading_stream(unsigned int stream)
{
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::VELK_reading_stream>entering, stream # %u\n", instance,
            stream);
    if (!may_read()) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u>don't have permission to read the file!\n", instance);
        return VELK_E_NO_PERMISSION;
    }
    if ((int)stream + 1 > stream_count) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u>invalid stream %u!\n", instance, stream);
        return VELK_E_BAD_STREAM;
    }
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    if (node->stream_state == VELK_STATE_WRITING) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u>stream %u currently being written!\n", instance, stream);
        return VELK_E_STREAM_STATE;
    }
    node->stream_state = VELK_STATE_READING;
    VELK_TRACE_EXIT("VELK_reading_stream");
    return 0;
}

unsigned int velk_class::VELK_writing_stream(unsigned int stream)
{
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::VELK_writing_stream>entering, stream # %u\n", instance,
            stream);
    if (!may_write()) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u>don't have permission to write the file!\n", instance);
        return VELK_E_NO_PERMISSION;
    }
    // Streams other than 0 are written once, by the session that makes them,
    // and they come in order.
    if (stream != 0 && (long long)stream_count >= (long long)stream + 1) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u>stream %u already exists!\n", instance, stream);
        return VELK_E_STREAM_STATE;
    }
    if ((long long)stream > (long long)stream_count) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u>stream %u hasn't been created yet!\n", instance,
                stream - 1);
        return VELK_E_STREAM_STATE;
    }
    // A session that made its file adds a stream even for a second call on
    // stream 0; a reopened file with a stream 0 only enters it.
    if (created_file == 1 || stream != 0 || stream_count == 0) {
        RETURN_IF_FAILED(write_to_file_hidden_string_section(nullptr));
        RETURN_IF_FAILED(utility_add_a_new_stream(1));
        string_base = VELK_OSI_Get_File_Size(file_handle);
    }
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    node->stream_state = VELK_STATE_WRITING;
    VELK_TRACE_EXIT("VELK_writing_stream");
    return 0;
}

unsigned int velk_class::VELK_done_stream(unsigned int stream)
{
    LOGIT_A(VELK_MASK_TRACE, "<velk %u::VELK_done_stream>entering, stream # %u\n", instance, stream);
    if ((int)stream + 1 > stream_count) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u>invalid stream %u!\n", instance, stream);
        return VELK_E_BAD_STREAM;
    }
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    unsigned int status = 0;
    // A written stream must say what it is, unless it is the legacy sample
    // data of stream 0.
    const bool legacy_stream0 = stream == 0 && sections_ptr->sfs_legacy_sample_record.length != 0;
    if (node->stream_state == VELK_STATE_WRITING && !legacy_stream0) {
        if (node->stream_info.info.comment.id == 0) {
            LOGIT_A(VELK_MASK_FAILURE, "<velk %u>data stream comment is not set!\n", instance);
            status = VELK_E_STREAM_STATE;
        }
        if (node->stream_info.info.stream_type == 0) {
            LOGIT_A(VELK_MASK_FAILURE, "<velk %u>data stream type is not set!\n", instance);
            status = VELK_E_STREAM_STATE;
        }
    }
    node->stream_state = VELK_STATE_EXISTS;
    if (status == 0)
        VELK_TRACE_EXIT("VELK_done_stream");
    return status;
}

unsigned int velk_class::VELK_exists_global_section(unsigned int kind, unsigned int* exists)
{
    VELK_TRACE_ENTER("VELK_exists_global_section");
    int id;
    switch (kind) {
    case KIND_SYSTEM: id = VELK_SECTION_SYSTEM; break;
    case KIND_HOST:
    case KIND_OS:
    case KIND_APPLICATION: id = VELK_SECTION_CONFIGURATION; break;
    case KIND_PID: id = VELK_SECTION_PROCESS; break;
    case KIND_TID: id = VELK_SECTION_THREAD; break;
    case KIND_MODULE: id = VELK_SECTION_MODULE; break;
    case KIND_USER_DEFINED_GLOBAL: id = VELK_SECTION_USER_DEFINED; break;
    case KIND_VERSION_INFO: id = VELK_SECTION_VERSION_INFO; break;
    case KIND_GLOBAL_DESCRIPTOR: id = VELK_SECTION_DESCRIPTOR; break;
    default: id = -1; break;
    }
    if (exists == nullptr)
        return VELK_E_BAD_POINTER;
    if (id < 0) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_exists_global_section>unrecognized section %u\n",
                instance, kind);
        *exists = 0;
        return 0;
    }
    *exists = sections_ptr->section_state[id] != VELK_STATE_ABSENT ? 1 : 0;
    VELK_TRACE_EXIT("VELK_exists_global_section");
    return 0;
}

unsigned int velk_class::VELK_exists_stream_section(unsigned int stream, unsigned int kind,
                                                    unsigned int* exists)
{
    VELK_TRACE_ENTER("VELK_exists_stream_section");
    __VELK_stream_struct* node = nullptr;
    RETURN_IF_FAILED(utility_point_to_stream_index(stream, &node));
    if (exists == nullptr)
        return VELK_E_BAD_POINTER;
    if (kind < KIND_EVENT || kind > KIND_STREAM_INFO) {
        LOGIT_A(VELK_MASK_FAILURE, "<velk %u::VELK_exists_stream_section>unrecognized section %u\n",
                instance, kind);
        *exists = 0;
        return 0;
    }
    *exists = node->stream_section_state[kind - KIND_EVENT] != VELK_STATE_ABSENT ? 1 : 0;
    VELK_TRACE_EXIT("VELK_exists_stream_section");
    return 0;
}

unsigned int velk_class::VELK_check_all_sections_closed()
{
    VELK_TRACE_ENTER("VELK_check_all_sections_closed");
    for (int id = 0; id < 8; ++id) {
        const unsigned int state = sections_ptr->section_state[id];
        if (state == VELK_STATE_READING || state == VELK_STATE_WRITING) {
            LOGIT_A(VELK_MASK_FAILURE,
                    "<velk %u::VELK_check_all_sections_closed>section %d needs to be closed!\n",
                    instance, id);
            return VELK_E_SECTION_OPEN;
        }
    }
    for (int n = stream_count - 1; n >= 0; --n) {
        __VELK_stream_struct* node = nullptr;
        RETURN_IF_FAILED(utility_point_to_stream_index((unsigned int)n, &node));
        for (int id = 0; id < 5; ++id) {
            const unsigned int state = node->stream_section_state[id];
            if (state == VELK_STATE_READING || state == VELK_STATE_WRITING) {
                LOGIT_A(VELK_MASK_FAILURE,
                        "<velk %u::VELK_check_all_sections_closed>stream %d 's %d section needs "
                        "to be closed!\n",
                        instance, n, id);
                return VELK_E_STREAM_SECTION_OPEN;
            }
        }
    }
    VELK_TRACE_EXIT("VELK_check_all_sections_closed");
    return 0;
}
