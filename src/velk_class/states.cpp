// Section and stream states: every reader and writer declares what it is
// about to do to a section, and declares it done.
#include "velk_class.h"

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
        __VELK_stream_struct* stream = stream_list;
        for (int i = 0; i < n && stream != nullptr; ++i)
            stream = stream->next;
        if (stream == nullptr)
            continue;
        for (int id = 0; id < 5; ++id) {
            const unsigned int state = stream->stream_section_state[id];
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
