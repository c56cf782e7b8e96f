// The string table of a session on a real sample file: texts become ids that
// are their positions, ids resolve back to wide text from the store and,
// after a flush, from the file; and the ids that cannot be resolved.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "test_helpers.h"
#include "velk_class/velk_class.h"

namespace {

using velk_test::file_exists;
using velk_test::LogCapture;
using velk_test::read_file;
using velk_test::widen;
using Bytes = std::vector<unsigned char>;

const unsigned long long kFlag = 1ULL << 63;
const unsigned int kReadWrite = VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE;
const wchar_t* const kWide = L"Gr\u00FC\u00DFe \u20AC\U0001D11E";  // 8 wide characters
const char kWideUtf8[] = "Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC\xF0\x9D\x84\x9E";

Bytes bytes_of(const char* text, size_t size) { return Bytes(text, text + size); }

void append(Bytes* to, const Bytes& more) { to->insert(to->end(), more.begin(), more.end()); }

unsigned int lookup(velk_class& s, unsigned long long id, unsigned int buffer_size,
                    wchar_t* buffer, unsigned int* size)
{
    __string_or_id sid;
    sid.id = id;
    return s.VELK_convert_uniqueid_to_string(buffer_size, &sid, buffer, size);
}

// Resolves an id in two calls, as callers do: the size, then the text.
unsigned int resolve(velk_class& s, unsigned long long id, std::wstring* text)
{
    unsigned int size = 0;
    unsigned int status = lookup(s, id, 0, nullptr, &size);
    if (status != 0)
        return status;
    std::vector<wchar_t> buffer(size / sizeof(wchar_t) + 1, L'\0');
    status = lookup(s, id, size, buffer.data(), &size);
    if (status == 0)
        *text = buffer.data();
    return status;
}

class StringTest : public velk_test::TempDirTest {
protected:
    void open_session(velk_class& s, unsigned int mode = kReadWrite)
    {
        ASSERT_EQ(0u, s.VELK_initialize_me(widen(file()).c_str(), mode));
    }
    std::string file() const { return path("f.vk7"); }
    std::string store(const velk_class& s) const
    {
        return path("velk_" + std::to_string(s.instance) + "_strings.tmp");
    }
    std::string lookup_line(const velk_class& s, const std::string& tail) const
    {
        return "<velk " + std::to_string(s.instance) + "::VELK_convert_uniqueid_to_string>" + tail;
    }
};

TEST_F(StringTest, EmptyTextsGetIdZeroAndLeaveNoTrace)
{
    velk_class s;
    open_session(s);
    const size_t size_before = read_file(file()).size();
    unsigned long long ids[4] = {9, 9, 9, 9};
    EXPECT_EQ(0u, s.utility_add_string_to_temp_file((const char*)nullptr, &ids[0]));
    EXPECT_EQ(0u, s.utility_add_string_to_temp_file("", &ids[1]));
    EXPECT_EQ(0u, s.utility_add_string_to_temp_file((const wchar_t*)nullptr, &ids[2]));
    EXPECT_EQ(0u, s.utility_add_string_to_temp_file(L"", &ids[3]));
    EXPECT_EQ(0u, ids[0] | ids[1] | ids[2] | ids[3]);
    EXPECT_EQ(-1, s.strings_store->handle);
    EXPECT_FALSE(file_exists(store(s)));

    unsigned int wrote = 7;
    EXPECT_EQ(0u, s.write_to_file_hidden_string_section(&wrote));
    EXPECT_EQ(7u, wrote);
    ASSERT_EQ(0u, s.VELK_closedown());
    const Bytes bytes = read_file(file());
    EXPECT_EQ(size_before, bytes.size());
    const std::string marker = "end string section";
    EXPECT_EQ(bytes.end(), std::search(bytes.begin(), bytes.end(), marker.begin(), marker.end()));
}

TEST_F(StringTest, IdsArePositionsAndResolveFromTheStore)
{
    velk_class s;
    open_session(s);
    const unsigned long long base = s.string_base;
    EXPECT_EQ(read_file(file()).size(), base);

    unsigned long long alpha = 0, wide = 0;
    ASSERT_EQ(0u, s.utility_add_string_to_temp_file("alpha", &alpha));
    ASSERT_EQ(0u, s.utility_add_string_to_temp_file(kWide, &wide));
    // The id may overwrite the very slot that holds the text.
    __string_or_id shared;
    shared.text = const_cast<wchar_t*>(L"shared slot");
    ASSERT_EQ(0u, s.utility_add_string_to_temp_file(shared.text, &shared.id));
    EXPECT_EQ(kFlag | base, alpha);
    EXPECT_EQ(kFlag | (base + 6), wide);
    EXPECT_EQ(kFlag | (base + 6 + sizeof(kWideUtf8)), shared.id);
    Bytes expected = bytes_of("alpha", 6);
    append(&expected, bytes_of(kWideUtf8, sizeof(kWideUtf8)));
    append(&expected, bytes_of("shared slot", 12));
    EXPECT_EQ(expected, read_file(store(s)));

    std::wstring text;
    EXPECT_EQ(0u, resolve(s, alpha, &text));
    EXPECT_EQ(L"alpha", text);
    EXPECT_EQ(0u, resolve(s, shared.id, &text));
    EXPECT_EQ(L"shared slot", text);
    EXPECT_EQ(base, s.final_file_size);  // the first look took the file's size
    EXPECT_NE(nullptr, s.temp_strings_map.m_data);
    EXPECT_EQ(nullptr, s.final_strings_map.m_data);

    unsigned int size = 0;
    EXPECT_EQ(0u, lookup(s, wide, 0, nullptr, &size));
    EXPECT_EQ(4u * 9, size);  // bytes, terminator included
    std::vector<wchar_t> exact(9, L'#');
    EXPECT_EQ(0u, lookup(s, wide, size, exact.data(), &size));
    EXPECT_EQ(std::wstring(kWide), exact.data());
    EXPECT_EQ(VELK_E_BUFFER_TOO_SMALL, lookup(s, wide, 4 * 8, exact.data(), &size));

    // The first look at the file's size stays for the session: after a flush
    // the batch's ids are still taken for positions in the (now empty) store.
    ASSERT_EQ(0u, s.write_to_file_hidden_string_section(nullptr));
    EXPECT_EQ(nullptr, s.temp_strings_map.m_data);  // the store's window went with it
    LogCapture log;
    EXPECT_EQ(VELK_E_BAD_STRING_ID, resolve(s, alpha, &text));
    EXPECT_EQ(base, s.final_file_size);
    EXPECT_TRUE(
        log.contains(lookup_line(s, "bogus uniqueid! cannot find string in temp string file!\n")));
    ASSERT_EQ(0u, s.VELK_closedown());
}

TEST_F(StringTest, FlushWritesTheBatchAtTheOldEndAndIdsStayTrue)
{
    velk_class s;
    open_session(s);
    const unsigned long long base = s.string_base;
    unsigned long long first = 0, second = 0, third = 0;
    ASSERT_EQ(0u, s.utility_add_string_to_temp_file("first", &first));
    ASSERT_EQ(0u, s.utility_add_string_to_temp_file(L"second \u00E9", &second));
    ASSERT_EQ(0u, s.utility_add_string_to_temp_file(kWide, &third));
    const Bytes batch = read_file(store(s));

    unsigned int wrote = 0;
    ASSERT_EQ(0u, s.write_to_file_hidden_string_section(&wrote));
    EXPECT_EQ(1u, wrote);
    EXPECT_FALSE(file_exists(store(s)));
    EXPECT_EQ(-1, s.strings_store->handle);
    EXPECT_EQ(base, s.string_base);
    Bytes section = batch;
    append(&section, bytes_of("end string section", 19));
    section.insert(section.end(), 24 - (section.size() & 7), 0);
    const Bytes bytes = read_file(file());
    ASSERT_EQ(base + section.size(), bytes.size());
    EXPECT_EQ(section, Bytes(bytes.begin() + base, bytes.end()));

    // Ids are now offsets in the file. The tail is shorter than the room a
    // window needs ahead of a text, so each lookup makes a fresh window that
    // ends at the end of the file.
    std::wstring text;
    EXPECT_EQ(0u, resolve(s, third, &text));
    EXPECT_EQ(kWide, text);
    EXPECT_EQ(bytes.size(), s.final_file_size);
    EXPECT_EQ(third & ~kFlag, s.final_strings_map.m_first_entry);
    EXPECT_EQ(bytes.size() - 1, s.final_strings_map.m_last_entry);
    EXPECT_EQ(0u, resolve(s, first, &text));
    EXPECT_EQ(L"first", text);
    EXPECT_EQ(base, s.final_strings_map.m_first_entry);
    EXPECT_EQ(0u, resolve(s, second, &text));
    EXPECT_EQ(L"second \u00E9", text);
    EXPECT_EQ(second & ~kFlag, s.final_strings_map.m_first_entry);

    // The next text starts a new, empty store. string_base moves only when a
    // stream is added, so it gets the same position as the first batch.
    unsigned long long again = 0;
    ASSERT_EQ(0u, s.utility_add_string_to_temp_file("again", &again));
    EXPECT_EQ(first, again);
    EXPECT_EQ(bytes_of("again", 6), read_file(store(s)));
    ASSERT_EQ(0u, s.VELK_closedown());
    Bytes tail = bytes_of("again\0end string section", 25);
    tail.insert(tail.end(), 24 - (25 & 7), 0);
    const Bytes closed = read_file(file());
    ASSERT_EQ(bytes.size() + tail.size(), closed.size());
    EXPECT_EQ(tail, Bytes(closed.begin() + bytes.size(), closed.end()));
}

TEST_F(StringTest, LookupReusesTheWindowWhileThereIsRoomAhead)
{
    velk_class s;
    open_session(s);
    unsigned long long one = 0, two = 0, long_id = 0;
    const std::string long_text(3000, 'z');
    ASSERT_EQ(0u, s.utility_add_string_to_temp_file("one", &one));
    ASSERT_EQ(0u, s.utility_add_string_to_temp_file("two", &two));
    ASSERT_EQ(0u, s.utility_add_string_to_temp_file(long_text.c_str(), &long_id));
    std::wstring text;
    ASSERT_EQ(0u, resolve(s, one, &text));
    const unsigned int mmaps = __VELK_mmap_tracker::m_num_mmaps;
    unsigned char* const data = s.temp_strings_map.m_data;
    EXPECT_EQ(0u, s.temp_strings_map.m_first_entry);  // positions inside the store
    EXPECT_EQ(4 + 4 + 3000u, s.temp_strings_map.m_last_entry);
    ASSERT_EQ(0u, resolve(s, two, &text));
    EXPECT_EQ(L"two", text);
    ASSERT_EQ(0u, resolve(s, long_id, &text));
    EXPECT_EQ(std::wstring(3000, L'z'), text);
    EXPECT_EQ(mmaps, __VELK_mmap_tracker::m_num_mmaps);
    EXPECT_EQ(data, s.temp_strings_map.m_data);
    EXPECT_EQ(data + 8, s.temp_strings_map.m_current);
    EXPECT_EQ(0u, s.temp_strings_map.m_first_entry);
    ASSERT_EQ(0u, s.VELK_closedown());
}

TEST_F(StringTest, RefusesIdsItCannotResolve)
{
    velk_class s;
    open_session(s);
    const unsigned long long base = s.string_base;
    LogCapture log;
    unsigned int size = 77;
    EXPECT_EQ(VELK_E_BAD_STRING_ID, lookup(s, 0, 0, nullptr, &size));
    EXPECT_EQ(0u, size);
    EXPECT_TRUE(log.contains(lookup_line(s, "null string passed in!\n")));
    size = 77;
    EXPECT_EQ(VELK_E_BAD_STRING_ID, s.VELK_convert_uniqueid_to_string(0, nullptr, nullptr, &size));
    EXPECT_EQ(0u, size);

    unsigned long long abc = 0;
    ASSERT_EQ(0u, s.utility_add_string_to_temp_file("abc", &abc));
    size = 77;
    EXPECT_EQ(VELK_E_BAD_STRING_ID, lookup(s, abc + 4, 0, nullptr, &size));  // just past the store
    EXPECT_EQ(0u, size);
    EXPECT_TRUE(
        log.contains(lookup_line(s, "bogus uniqueid! cannot find string in temp string file!\n")));

    // Bytes that are not UTF-8, then a text with no terminator up to the end.
    ASSERT_EQ(0u, s.strings_store->Append_To_File("\xC3\x28\xFF", 4, 4, 0));
    ASSERT_EQ(0u, s.strings_store->Append_To_File("xyz", 3, 4, 0));
    std::wstring text;
    EXPECT_NE(0u, resolve(s, kFlag | (base + 4), &text));
    std::vector<wchar_t> buffer(16, L'#');
    EXPECT_NE(0u, lookup(s, kFlag | (base + 4), 64, buffer.data(), &size));
    size = 77;
    EXPECT_EQ(VELK_E_BAD_STRING_ID, lookup(s, kFlag | (base + 8), 0, nullptr, &size));
    EXPECT_EQ(0u, size);
    EXPECT_EQ(VELK_E_BAD_STRING_ID, lookup(s, kFlag | (base + 8), 64, buffer.data(), &size));
    ASSERT_EQ(0u, s.VELK_closedown());
}

TEST_F(StringTest, UnterminatedTextAtTheEndOfTheFileIsRefused)
{
    velk_class s;
    open_session(s);
    const unsigned long long base = s.string_base;
    const int fd = open(file().c_str(), O_WRONLY | O_APPEND);
    ASSERT_NE(-1, fd);
    ASSERT_EQ(3, write(fd, "xyz", 3));
    close(fd);
    unsigned int size = 77;  // the id is in the file, whose first look is taken now
    EXPECT_EQ(VELK_E_BAD_STRING_ID, lookup(s, kFlag | base, 0, nullptr, &size));
    EXPECT_EQ(0u, size);
    EXPECT_EQ(base + 3, s.final_file_size);
    ASSERT_EQ(0u, s.VELK_closedown());
}

TEST_F(StringTest, WriteOnlySessionMayNotLookUp)
{
    velk_class s;
    open_session(s, VELK_OPEN_WRITE | VELK_OPEN_CREATE);
    unsigned long long id = 0;
    ASSERT_EQ(0u, s.utility_add_string_to_temp_file("text", &id));
    LogCapture log;
    unsigned int size = 0;
    EXPECT_EQ(VELK_E_NO_PERMISSION, lookup(s, id, 0, nullptr, &size));
    EXPECT_TRUE(log.contains(lookup_line(s, "don't have permission to read the file!\n")));
    ASSERT_EQ(0u, s.VELK_closedown());
}

}  // namespace
