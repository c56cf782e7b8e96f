// Strings of a session: ids that resolve from the store and, after a flush, from the file.
#include "test_helpers.h"
#include "velk_class/velk_class.h"

using namespace velk_test;
using Bytes = std::vector<unsigned char>;
using Ids = std::vector<unsigned long long>;
const unsigned long long kFlag = 1ULL << 63;
const wchar_t* const kWide = L"Gr\u00FC\u00DFe \u20AC\U0001D11E";  // 8 wide characters
const std::string kWhere = "<velk %u::VELK_convert_uniqueid_to_string>";

template <typename T>
static unsigned long long add(velk_class& s, const T* text)
{
    unsigned long long id = 9;
    EXPECT_EQ(0u, s.utility_add_string_to_temp_file(text, &id));
    return id;
}
static unsigned int lookup(velk_class& s, unsigned long long id, unsigned int* size,
                           unsigned int buffer_size = 0, wchar_t* buffer = nullptr)
{
    __string_or_id sid;
    sid.id = id;
    return s.VELK_convert_uniqueid_to_string(buffer_size, &sid, buffer, size);
}
using StringTest = TempDirTest;

TEST_F(StringTest, TextsResolveFromTheStoreUntilTheFlushThenFromTheFile)
{
    velk_class s;
    ASSERT_EQ(0u, s.VELK_initialize_me(widen(path("f")).c_str(),
                                       VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    const std::string store = path("velk_" + std::to_string(s.instance) + "_strings.tmp");
    const unsigned long long base = s.string_base;
    LogCapture log;
    EXPECT_EQ(0u, add(s, (const char*)0) | add(s, "") | add(s, (const wchar_t*)0) | add(s, L""));
    unsigned int size = 77, size0 = 77;

    const unsigned long long alpha = add(s, "alpha"), wide = add(s, kWide), last = add(s, L"last");
    EXPECT_EQ((Ids{kFlag | base, kFlag | (base + 6), kFlag | (base + 22)}),
              (Ids{alpha, wide, last}));
    std::string section("alpha\0Gr\xC3\xBC\xC3\x9F\x65 \xE2\x82\xAC\xF0\x9D\x84\x9E\0last", 27);
    EXPECT_EQ(Bytes(section.begin(), section.end()), read_file(store));
    wchar_t text[9];
    EXPECT_TRUE(lookup(s, wide, &size) == 0 && size == 4 * 9);  // bytes, terminator included
    EXPECT_TRUE(lookup(s, wide, &size, size, text) == 0 && std::wstring(kWide) == text);
    EXPECT_EQ(VELK_E_BAD_STRING_ID, lookup(s, 0, &size0));
    EXPECT_TRUE(size0 == 0 && log.contains_format(kWhere + "null string passed in!\n"));
    EXPECT_EQ(VELK_E_BAD_STRING_ID, lookup(s, last + 5, &size));  // just past the store
    EXPECT_TRUE(size == 0 && log.contains_format(kWhere + "bogus uniqueid! cannot find string "
                                                          "in temp string file!\n"));
    ASSERT_EQ(0u, s.strings_store->Append_To_File("\xC3\x28\xFF\0xyz", 7, 4, 0));
    EXPECT_EQ(VELK_E_BAD_STRING_ID, lookup(s, last + 9, &size));  // unterminated

    ASSERT_EQ(0u, s.write_to_file_hidden_string_section(nullptr));
    section += std::string("\xC3\x28\xFF\0xyzend string section", 25) + std::string(20, '\0');
    const Bytes file = read_file(path("f"));
    EXPECT_EQ(Bytes(section.begin(), section.end()), Bytes(file.begin() + base, file.end()));
    EXPECT_EQ(0u, s.VELK_closedown());

    velk_handle* h = nullptr;  // a reading session finds them in the file, the last one first
    ASSERT_EQ(0u, VELK_open(&h, widen(path("f")).c_str(), VELK_OPEN_READ));
    EXPECT_EQ((std::vector<std::string>{"last", "alpha"}),
              (std::vector<std::string>{text_of(h, last), text_of(h, alpha)}));
    EXPECT_EQ(0u, VELK_close(h));
}
