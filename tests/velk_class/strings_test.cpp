// Strings of a session: ids that resolve from the store and, after a flush, from the file.
#include "test_helpers.h"
#include "velk_class/velk_class.h"

namespace {

using namespace velk_test;
using Bytes = std::vector<unsigned char>;
using Ids = std::vector<unsigned long long>;
const unsigned long long kFlag = 1ULL << 63;
const unsigned int kReadWrite = VELK_OPEN_READ | VELK_OPEN_WRITE | VELK_OPEN_CREATE;
const wchar_t* const kWide = L"Gr\u00FC\u00DFe \u20AC\U0001D11E";  // 8 wide characters
const std::string kWhere = "<velk %u::VELK_convert_uniqueid_to_string>";

template <typename T>
unsigned long long add(velk_class& s, const T* text)
{
    unsigned long long id = 9;
    EXPECT_EQ(0u, s.utility_add_string_to_temp_file(text, &id));
    return id;
}
unsigned int lookup(velk_class& s, unsigned long long id, unsigned int* size,
                    unsigned int buffer_size = 0, wchar_t* buffer = nullptr)
{
    __string_or_id sid;
    sid.id = id;
    return s.VELK_convert_uniqueid_to_string(buffer_size, &sid, buffer, size);
}
std::wstring text_of(velk_class& s, unsigned long long id)  // the size, then the text
{
    unsigned int size = 0;
    std::vector<wchar_t> buffer(lookup(s, id, &size) == 0 ? size / 4 + 1 : 0);
    return !buffer.empty() && lookup(s, id, &size, size, buffer.data()) == 0 ? buffer.data() : L"#";
}
class StringTest : public TempDirTest {};

TEST_F(StringTest, TextsResolveFromTheStoreUntilTheFlush)
{
    velk_class s;
    ASSERT_EQ(0u, s.VELK_initialize_me(widen(path("f")).c_str(), kReadWrite));
    const std::string store = path("velk_" + std::to_string(s.instance) + "_strings.tmp");
    const unsigned long long base = s.string_base;
    LogCapture log;
    EXPECT_EQ(0u, add(s, (const char*)0) | add(s, "") | add(s, (const wchar_t*)0) | add(s, L""));
    unsigned int wrote = 7, size = 77, size0 = 77;
    EXPECT_EQ(0u, s.write_to_file_hidden_string_section(&wrote));
    EXPECT_TRUE(wrote == 7 && !file_exists(store) && read_file(path("f")).size() == base);

    const unsigned long long alpha = add(s, "alpha"), wide = add(s, kWide), last = add(s, L"last");
    EXPECT_EQ((Ids{kFlag | base, kFlag | (base + 6), kFlag | (base + 22)}),
              (Ids{alpha, wide, last}));
    std::string section("alpha\0Gr\xC3\xBC\xC3\x9F\x65 \xE2\x82\xAC\xF0\x9D\x84\x9E\0last", 27);
    EXPECT_EQ(Bytes(section.begin(), section.end()), read_file(store));
    EXPECT_EQ(L"alpha", text_of(s, alpha));
    EXPECT_EQ(kWide, text_of(s, wide));
    EXPECT_TRUE(lookup(s, wide, &size) == 0 && size == 4 * 9);  // bytes, terminator included
    wchar_t small[8];
    EXPECT_EQ(VELK_E_BUFFER_TOO_SMALL, lookup(s, wide, &size, sizeof(small), small));
    EXPECT_EQ(VELK_E_BAD_STRING_ID, lookup(s, 0, &size0));
    EXPECT_TRUE(size0 == 0 && log.contains_format(kWhere + "null string passed in!\n"));
    EXPECT_EQ(VELK_E_BAD_STRING_ID, lookup(s, last + 5, &size));  // just past the store
    EXPECT_TRUE(size == 0 && log.contains_format(kWhere + "bogus uniqueid! cannot find string "
                                                          "in temp string file!\n"));
    ASSERT_EQ(0u, s.strings_store->Append_To_File("\xC3\x28\xFF\0xyz", 7, 4, 0));
    EXPECT_EQ(L"#", text_of(s, last + 5));                        // not UTF-8
    EXPECT_EQ(VELK_E_BAD_STRING_ID, lookup(s, last + 9, &size));  // unterminated

    ASSERT_EQ(0u, s.write_to_file_hidden_string_section(&wrote));
    EXPECT_TRUE(wrote == 1 && !file_exists(store));
    section += std::string("\xC3\x28\xFF\0xyzend string section", 25) + std::string(20, '\0');
    const Bytes file = read_file(path("f"));
    EXPECT_EQ(Bytes(section.begin(), section.end()), Bytes(file.begin() + base, file.end()));
    EXPECT_EQ(VELK_E_BAD_STRING_ID, lookup(s, alpha, &size));  // the first look at the size counts
    EXPECT_EQ(0u, s.VELK_closedown());
}

TEST_F(StringTest, FlushedTextsResolveFromTheFile)
{
    velk_class s;
    ASSERT_EQ(0u, s.VELK_initialize_me(widen(path("f")).c_str(), kReadWrite));
    const std::wstring texts[] = {L"first", L"second \u00E9", kWide};  // the last ends the file
    const unsigned long long ids[] = {add(s, L"first"), add(s, L"second \u00E9"), add(s, kWide)};
    ASSERT_EQ(0u, s.write_to_file_hidden_string_section(nullptr));
    for (int i = 2; i >= 0; --i)
        EXPECT_EQ(texts[i], text_of(s, ids[i])) << i;
    EXPECT_EQ(0u, s.VELK_closedown());
}

TEST_F(StringTest, WriteOnlySessionMayNotLookUp)
{
    velk_class s;
    ASSERT_EQ(0u,
              s.VELK_initialize_me(widen(path("f")).c_str(), VELK_OPEN_WRITE | VELK_OPEN_CREATE));
    LogCapture log;
    EXPECT_EQ(VELK_E_NO_PERMISSION, lookup(s, add(s, "text"), nullptr));
    EXPECT_TRUE(log.contains_format(kWhere + "don't have permission to read the file!\n"));
    EXPECT_EQ(0u, s.VELK_closedown());
}

}  // namespace
