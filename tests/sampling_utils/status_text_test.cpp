// Status texts: every status has one that names it; other numbers are refused.

#include "sampling_utils.h"
#include "velk.h"

#include <set>
#include <string>

#include <gtest/gtest.h>

namespace {

#define STATUS(name) {name, L## #name}

TEST(StatusText, EveryStatusIsNamedAndExplained) {
    const struct {
        unsigned int status;
        const wchar_t* name;
    } statuses[] = {
        STATUS(VELK_SUCCESS),           STATUS(VELK_E_NULL_POINTER),
        STATUS(VELK_E_BAD_FILE),        STATUS(VELK_E_UNKNOWN_SECTION),
        STATUS(VELK_E_NO_MEMORY),       STATUS(VELK_E_ENV_NOT_SET),
        STATUS(VELK_E_BUFFER_OVERFLOW), STATUS(VELK_E_MAP_FAILED),
        STATUS(VELK_E_BAD_POINTER),     STATUS(VELK_E_BAD_READ_START),
        STATUS(VELK_E_OPEN_FAILED),     STATUS(VELK_E_BAD_ARGUMENT),
        STATUS(VELK_E_ARCH_MISMATCH),   STATUS(VELK_E_UNSUPPORTED),
        STATUS(VELK_E_SECTION_BUSY),    STATUS(VELK_E_SECTION_MISSING),
        STATUS(VELK_E_BAD_STREAM),      STATUS(VELK_E_STREAM_STATE),
        STATUS(VELK_E_ALREADY_IN_USE),  STATUS(VELK_E_NO_DESCRIPTORS),
        STATUS(VELK_E_VERSION_MISMATCH), STATUS(VELK_E_NO_PID_SECTION),
        STATUS(VELK_E_READ_START_TOO_LARGE), STATUS(VELK_E_BAD_STRING_ID),
        STATUS(VELK_E_DESC_SIZE_MISMATCH), STATUS(VELK_E_BUFFER_TOO_SMALL),
        STATUS(VELK_E_NO_PERMISSION),   STATUS(VELK_E_NOT_BOUND),
        STATUS(VELK_E_NOT_READING),     STATUS(VELK_E_NOT_WRITING),
        STATUS(VELK_E_SECTION_OPEN),    STATUS(VELK_E_STREAM_SECTION_OPEN),
        STATUS(VELK_E_STREAM_NOT_BOUND), STATUS(VELK_E_TOO_FEW_CPUIDS),
        STATUS(VELK_E_UNSUPPORTED_ARCH), STATUS(VELK_E_NOTHING_TO_WRITE),
        STATUS(VELK_E_TOO_MANY_EVENTS), STATUS(VELK_E_WRITE_FAILED),
        STATUS(VELK_E_DISK_FULL),       {0xFFFFFFFFu, L"-1"},
    };
    std::set<std::wstring> texts;
    for (const auto& s : statuses) {
        const wchar_t* text = nullptr;
        ASSERT_EQ(KEMO_get_error_string(s.status, &text), VELK_SUCCESS) << s.status;
        ASSERT_NE(text, nullptr);
        const std::wstring name = std::wstring(s.name) + L": ";
        const std::wstring got(text);
        EXPECT_EQ(got.compare(0, name.size(), name), 0) << s.status;
        EXPECT_GT(got.size(), name.size() + 5) << "status " << s.status << " has no meaning";
        texts.insert(got);
    }
    EXPECT_EQ(texts.size(), sizeof statuses / sizeof statuses[0]);
}

TEST(StatusText, UnknownNumbersAndNullTarget) {
    const std::wstring unknown_prefix = L"unknown status";
    for (unsigned int status : {1u, 23u, 100u, 196u, 0x7FFFFFFFu, 0xFFFFFFFEu}) {
        const wchar_t* text = nullptr;
        EXPECT_EQ(KEMO_get_error_string(status, &text), VELK_E_BAD_ARGUMENT) << status;
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::wstring(text).compare(0, unknown_prefix.size(), unknown_prefix), 0);
    }
    EXPECT_EQ(KEMO_get_error_string(VELK_E_BAD_FILE, nullptr), VELK_E_BAD_POINTER);
    EXPECT_EQ(KEMO_get_error_string(12345u, nullptr), VELK_E_BAD_POINTER);
}

}  // namespace
