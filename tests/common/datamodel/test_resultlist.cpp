// Result lists: the builder's layout, the reader (also in a client process),
// the sort rules, the keyed sort against the per-comparison predicate on
// hostile documents, and readers facing crafted lists.
#include <gtest/gtest.h>

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <mox/cache_reader.h>
#include <mox/json_value.h>
#include <mox/mox_resultlist.h>

#include "block_maker.h"
#include "mox_request_defines.h"
#include "mox_resultlist_builder.h"
#include "mox_sort_key_reader.h"
#include "shm_dump.h"
#include "shm_mapping.h"
#include "shm_test_util.h"

using moxtest::Int32At;
using moxtest::MakeBlock;

namespace {

// Entries of a list's item table, read from the object.
std::vector<ResultItemIndex> ItemTable(const std::string& name) {
    std::string bytes = moxtest::ReadShm(name);
    const int nItemOffset = Int32At(bytes, 4);
    const int nCount = Int32At(bytes, 12) - Int32At(bytes, 8) + 1;
    std::vector<ResultItemIndex> entries(nCount);
    memcpy(entries.data(), bytes.data() + nItemOffset, 8 * nCount);
    return entries;
}

bool SameEntries(const std::vector<ResultItemIndex>& a, const std::vector<ResultItemIndex>& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](const auto& x, const auto& y) {
               return x.nDataBlockIndex == y.nDataBlockIndex && x.nItemIndex == y.nItemIndex;
           });
}

// Unlinks a list when the test ends, however it ends.
struct ListGuard {
    explicit ListGuard(std::string n) : name(std::move(n)) { moxtest::TrackShm(name); }
    ~ListGuard() { CResultListBuilder::Drop(name); }
    std::string name;
};

struct SortFixture {
    std::vector<std::unique_ptr<CCacheBlock>> blocks;
    std::vector<std::unique_ptr<CCacheReader>> owned;
    std::vector<CCacheReader*> readers;

    // One block per item vector; the list holds every item, blocks in order.
    std::string BuildList(const std::vector<std::vector<std::string>>& perBlock, CMOXSortFunction* fn,
                          std::vector<ResultItemIndex>* unsorted = nullptr) {
        int nTotal = 0;
        for (const auto& items : perBlock) {
            blocks.push_back(MakeBlock(items, 0, static_cast<int>(items.size()), {}));
            owned.emplace_back(new CCacheReader(blocks.back()->GetName()));
            readers.push_back(owned.back().get());
            nTotal += static_cast<int>(items.size());
        }
        CResultListBuilder builder(0, 0, nTotal - 1, nTotal, 1, static_cast<int>(perBlock.size()));
        moxtest::TrackShm(builder.GetName());
        for (size_t b = 0; b < perBlock.size(); ++b)
            for (size_t i = 0; i < perBlock[b].size(); ++i) builder.AddItem(blocks[b]->GetName(), static_cast<int>(i));
        if (unsorted) *unsorted = ItemTable(builder.GetName());
        if (fn) {
            fn->readers = &readers;
            EXPECT_TRUE(builder.SortItems(*fn));
        }
        return builder.Release();
    }

    std::vector<std::string> Keys(const std::string& listName) {
        CResultList list(listName);
        std::vector<std::string> out;
        for (int n = list.StartIndex(); list.IsValidIndex(n); ++n) {
            std::string item, shm;
            int idx;
            list.GetItem(n, item, shm, idx);
            out.push_back(item.c_str());
        }
        return out;
    }
};

CMOXSortFunction MakeFn(const char* key, MOX_VALUETYPE type, MOX_COMPARETYPE comparison) {
    CMOXSortFunction fn;
    fn.key = key;
    fn.keyType = type;
    fn.comparison = comparison;
    return fn;
}

// A random item text: members in any order, duplicates, escaped and unicode
// keys and values, integers as strings, numbers of every form and range,
// nesting, whitespace anywhere JSON allows it; and, now and then, text
// jsoncpp reads but strict JSON does not (comments, trailing text, leading
// zeros, lone surrogates, a BOM) or that neither reads.
std::string HostileItem(std::mt19937& rng) {
    static const char* const keys[] = {
        "\"FileName\"",       "\"FileSize\"",        "\"File\\u004eame\"", "\"FileSize\"",
        "\"Title\"",          "\"fileName\"",        "\"FileName \"",      "\"\xc3\xa9t\xc3\xa9\"",
        "\"FileSiz\\u0065\"", "\"File\\u0000Name\"", "\"\\\"FileName\""};
    static const char* const values[] = {"\"IMG_1.JPG\"",
                                         "\"img_1.jpg\"",
                                         "\"a\\\"b\"",
                                         "\"a\\\\b\\/c\"",
                                         "\"\\n\\t\\r\\b\\f\"",
                                         "\"caf\\u00e9\"",
                                         "\"caf\xc3\xa9\"",
                                         "\"\\ud83d\\ude00\"",
                                         "\"\xf0\x9f\x98\x80\"",
                                         "\"\"",
                                         "\"a\\u0000b\"",
                                         "\"123\"",
                                         "\"-7\"",
                                         "0",
                                         "-0",
                                         "7",
                                         "-12",
                                         "2147483647",
                                         "-2147483648",
                                         "2147483648",
                                         "-2147483649",
                                         "99999999999999999999",
                                         "18446744073709551615",
                                         "2.0",
                                         "1e3",
                                         "-1.5",
                                         "1e-400",
                                         "true",
                                         "false",
                                         "null",
                                         "[1,\"x\"]",
                                         "{\"FileName\":\"inner\",\"FileSize\":3}",
                                         "[[[[]]]]",
                                         "\"\\u00C9\"",
                                         "\"\\u00e9\"",
                                         "\"\x01\x1f\"",
                                         "\"\xff\xfe\"",
                                         "\"\\uDBFF\\uDFFF\"",
                                         "-0.0",
                                         "1E+2",
                                         "0.5e-3",
                                         "1e300",
                                         "1e308",
                                         "123456789012345678901234567890",
                                         "12345678901",
                                         "-9223372036854775808",
                                         "[ ]",
                                         "{ }",
                                         "{\"a\":[1,{\"b\":null}],\"c\":{\"FileSize\":9}}",
                                         "[true,false,null,\"\\\\\",-1.25e2]"};
    static const char* const broken[] = {"/*c*/",        " // c\n", "\"\\udc00\"", "\"\\ud800\\u0041\"",
                                         "\"\\ud800x\"", "1e400",   "1e309",       "012",
                                         "-01",          "-",       "1.",          "1.e5",
                                         "+1",           ".5",      "\"\\x\"",     "\"\\u12\"",
                                         "[1,]",         "[1 2]",   "{\"a\" 1}",   "{\"a\":1,}",
                                         "tru",          "nul",     "\"open"};
    static const char* const spaces[] = {"", "", "", " ", "\n", "\t", "\r\n "};
    auto space = [&rng]() { return spaces[rng() % (sizeof(spaces) / sizeof(spaces[0]))]; };
    std::string text = rng() % 8 == 0 ? " \n\t" : "";
    text += "{";
    const int nMembers = static_cast<int>(rng() % 5);
    for (int m = 0; m < nMembers; ++m) {
        if (m) text += rng() % 2 ? "," : " , ";
        text += space();
        text += keys[rng() % (sizeof(keys) / sizeof(keys[0]))];
        text += space();
        text += ":";
        text += space();
        if (rng() % 30 == 0)
            text += broken[rng() % (sizeof(broken) / sizeof(broken[0]))];
        else
            text += values[rng() % (sizeof(values) / sizeof(values[0]))];
        text += space();
    }
    text += "}";
    switch (rng() % 30) {
        case 0: text += " trailing"; break;
        case 1: text = "\xef\xbb\xbf" + text; break;
        case 2: text.pop_back(); break;  // cut
        case 3: text = "[" + text + "]"; break;
        case 4: text = std::string(70, '[') + std::string(70, ']'); break;
        case 5:
            text = "{\"FileSize\":" + std::string(70, '[') + std::string(70, ']') + ",\"FileName\":\"deep\"}";
            break;
        case 6: text += "/* after */"; break;
        case 7: text = ""; break;
        case 8: text += " \r\n"; break;
        case 9: text += std::string("\0\0", 2); break;
        case 10: text += std::string(" \0 ", 3); break;
        case 11: text.insert(text.size() / 2, 1, '\0'); break;
        case 12: {
            // Nesting around the depth where the fast reading stops.
            const size_t nDepth = 62 + rng() % 4;
            text = "{\"FileName\":\"n" + std::to_string(nDepth) + "\",\"x\":" + std::string(nDepth, '[') +
                   std::string(nDepth, ']') + ",\"FileSize\":" + std::to_string(nDepth) + "}";
            break;
        }
        default: break;
    }
    return text;
}

const char kCrafted[] = "mox_test_crafted_list";

// A well-formed list by hand: 1 group, 2 slots, 3 entries.
std::string GoodListBytes(const std::string& slot0, const std::string& slot1) {
    std::string b(36 + 8 + 256 + 24, '\0');
    const int32_t header[] = {44, 300, 0, 2, 0, 3, 1, 2, static_cast<int32_t>(b.size())};
    for (int i = 0; i < 9; ++i) moxtest::PutInt32(b, 4 * i, header[i]);
    moxtest::PutInt32(b, 36, 0);
    moxtest::PutInt32(b, 40, 3);
    memcpy(&b[44], slot0.data(), std::min<size_t>(slot0.size(), 128));
    memcpy(&b[172], slot1.data(), std::min<size_t>(slot1.size(), 128));
    const int32_t entries[] = {0, 0, 1, 0, 0, 1};
    for (int i = 0; i < 6; ++i) moxtest::PutInt32(b, 300 + 4 * i, entries[i]);
    return b;
}

}  // namespace

TEST(ResultListLayout, HeaderTablesAndSlots) {
    CResultListBuilder builder(3, 7, 7, 40, 1, 1);
    ASSERT_TRUE(builder.IsValid());
    ListGuard guard(builder.GetName());
    EXPECT_EQ(builder.GetName(), "mox_resultlist_" + mox_shm::InstanceTag() + "_" + std::to_string(builder.GetId()));
    builder.AddGroup(0, 5, 9);
    builder.AddItem("mox_datablock_12", 4);
    EXPECT_EQ(builder.Release(), guard.name);

    std::string bytes = moxtest::ReadShm(guard.name);
    ASSERT_EQ(bytes.size(), 180u);
    const int32_t header[] = {44, 172, 7, 7, 3, 40, 1, 1, 180};
    for (int i = 0; i < 9; ++i) EXPECT_EQ(Int32At(bytes, 4 * i), header[i]) << "field " << i;
    EXPECT_EQ(Int32At(bytes, 36), 5);
    EXPECT_EQ(Int32At(bytes, 40), 9);
    EXPECT_EQ(bytes.substr(44, 128), "mox_datablock_12" + std::string(112, '\0'));
    EXPECT_EQ(Int32At(bytes, 176), 4);

    // Slots follow the first appearance of a block; long names are cut.
    const std::string longName(200, 'n');
    CResultListBuilder slots(0, 0, 3, 4, 1, 3);
    ListGuard slotsGuard(slots.GetName());
    slots.AddItem("B", 0);
    slots.AddItem("A", 5);
    slots.AddItem("B", 1);
    slots.AddItem(longName, 2);
    slots.Release();
    EXPECT_TRUE(SameEntries(ItemTable(slotsGuard.name), {{0, 0}, {1, 5}, {0, 1}, {2, 2}}));
    CResultList list(slotsGuard.name);
    std::string name;
    const std::string expected[] = {"B", "A", longName.substr(0, 127)};
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(list.GetBlockName(i, name));
        EXPECT_EQ(name, expected[i]);
    }
    EXPECT_FALSE(list.GetBlockName(3, name) || list.GetBlockName(-1, name));
}

TEST(ResultListBuilderArguments, BadRangesMakeNoObjectAndAnEmptyName) {
    struct Args {
        int section, start, end, total, groups, blocks;
    } bad[] = {{-2, 0, 0, 1, 1, 1}, {0, -1, 0, 1, 1, 1}, {0, 5, 4, 1, 1, 1},         {0, 0, 0, 0, 1, 1},
               {0, 0, 0, 1, -1, 1}, {0, 0, 0, 1, 1, 0},  {0, 0, 0x7ffffff0, 1, 1, 1}};
    for (const Args& a : bad) {
        CResultListBuilder builder(a.section, a.start, a.end, a.total, a.groups, a.blocks);
        EXPECT_FALSE(builder.IsValid());
        builder.AddGroup(0, 1, 2);
        builder.AddItem("x", 0);
        CMOXSortFunction fn;
        EXPECT_FALSE(builder.SortItems(fn));
        EXPECT_EQ(builder.Release(), "");
    }

    // A source that does not group its items still gets a list.
    CResultListBuilder noGroups(0, 0, 0, 1, 0, 1);
    ASSERT_TRUE(noGroups.IsValid());
    ListGuard guard(noGroups.GetName());
    noGroups.AddItem("b", 0);
    noGroups.Release();
    CResultList list(guard.name);
    EXPECT_TRUE(list.IsLoaded());
    EXPECT_EQ(list.GetGroupCount(), 0);
    EXPECT_EQ(Int32At(moxtest::ReadShm(guard.name), 0), 36);
}

// Only lists this process created are unlinked: foreign names, and objects
// planted under the next list names (which the builder skips), stay.
TEST(ResultListDrop, OnlyListsOfThisProcessAreUnlinkedPlantedOnesAreSkipped) {
    CResultListBuilder builder(0, 0, 0, 1, 1, 1);
    ASSERT_TRUE(builder.IsValid());
    const std::string name = builder.GetName();
    moxtest::TrackShm(name);
    builder.AddItem("b", 0);
    builder.Release();
    std::vector<std::string> planted;
    for (int i = 1; i <= 100; ++i) {
        const std::string next = "mox_resultlist_" + mox_shm::InstanceTag() + "_" + std::to_string(builder.GetId() + i);
        if (moxtest::PlantShm(next, "planted")) planted.push_back(next);
    }
    ASSERT_FALSE(planted.empty());
    CResultListBuilder skipping(0, 0, 0, 1, 1, 1);
    ASSERT_TRUE(skipping.IsValid());
    ListGuard guard(skipping.GetName());
    EXPECT_EQ(std::count(planted.begin(), planted.end(), skipping.GetName()), 0);
    EXPECT_EQ(skipping.GetName(), "mox_resultlist_" + mox_shm::InstanceTag() + "_" + std::to_string(skipping.GetId()));
    skipping.AddItem("b", 0);
    skipping.Release();
    EXPECT_TRUE(CResultList(guard.name).IsLoaded());

    ASSERT_TRUE(moxtest::WriteShm("mox_test_not_a_list", "x"));
    std::vector<std::string> foreign = {"mox_test_not_a_list", "mox_resultlist_", "mox_resultlist_1x",
                                        "../mox_resultlist_1", "mox_datablock_1"};
    foreign.insert(foreign.end(), planted.begin(), planted.end());
    for (const std::string& f : foreign) EXPECT_FALSE(CResultListBuilder::Drop(f)) << f;
    EXPECT_TRUE(moxtest::ShmExists("mox_test_not_a_list"));
    for (const std::string& p : planted) {
        EXPECT_EQ(moxtest::ReadShm(p), "planted") << p;
        shm_unlink(p.c_str());
    }
    EXPECT_TRUE(CResultListBuilder::Drop(name));
    EXPECT_FALSE(moxtest::ShmExists(name));
    // Once dropped, the name is no longer ours: someone may have taken it.
    EXPECT_FALSE(CResultListBuilder::Drop(name));
    shm_unlink("mox_test_not_a_list");
}

// A client process linking only libmoxcommon reads what this one wrote.
TEST(ResultListReader, ItemsResolveThroughTheirBlocksHereAndInAClient) {
    auto a = MakeBlock({"{\"n\":1}", "{\"n\":2}"}, 0, 2, {{0, 2}});
    auto b = MakeBlock({"{\"m\":3}"}, 0, 1, {});
    CResultListBuilder builder(1, 3, 5, 6, 2, 2);
    ListGuard guard(builder.GetName());
    builder.AddGroup(0, 3, 2);
    builder.AddGroup(1, 5, 1);
    builder.AddItem(a->GetName(), 1);
    builder.AddItem(b->GetName(), 0);
    builder.AddItem(a->GetName(), 0);
    builder.Release();
    std::string output;
    ASSERT_EQ(moxtest::RunProgram({MOX_SHM_CLIENT, guard.name}, output), 0);
    const std::string an = a->GetName(), bn = b->GetName();
    // "{"n":2}" is a's last item: 14 bytes of items, 2 padding NULs.
    std::string expected;
    for (const std::string& line :
         {std::string("loaded 1\nstart 3 end 5 section 1 total 6 groups 2 blocks 2\ngroup 0 3 2\ngroup 1 5 1"),
          "block 0 " + an, "block 1 " + bn, "item 3 " + an + " 1 {\"n\":2}\\x00\\x00",
          "item 4 " + bn + " 0 {\"m\":3}\\x00", "item 5 " + an + " 0 {\"n\":1}"})
        expected += line + "\n";
    EXPECT_EQ(output, expected);
    EXPECT_EQ(output, moxtest::DumpList(guard.name));
    EXPECT_EQ(moxtest::RunProgram({MOX_SHM_CLIENT, "mox_resultlist_does_not_exist"}, output), 2);

    CResultList list(guard.name);
    EXPECT_EQ(list.GetItemCount(), 3);
    EXPECT_FALSE(list.IsValidIndex(2) || list.IsValidIndex(6));
    int g1 = 0, g2 = 0;
    EXPECT_FALSE(list.GetGroup(2, g1, g2) || list.GetGroup(-1, g1, g2));
    std::string item = "untouched", shm;
    int nItemIndex = -1;
    EXPECT_FALSE(list.GetItem(6, item, shm, nItemIndex) || list.GetItem(2, item, shm, nItemIndex));
    EXPECT_EQ(item, "untouched");
    // Each block is read once, on first use: items of a block evicted since
    // come from that copy.
    ASSERT_TRUE(list.GetItem(3, item, shm, nItemIndex));
    a.reset();
    for (int n = 4; n <= 5; ++n) ASSERT_TRUE(list.GetItem(n, item, shm, nItemIndex));
    EXPECT_EQ(item.c_str(), std::string("{\"n\":1}"));
}

TEST(ResultListReader, VanishedBlockFailsTheItemButNamesIt) {
    std::string item = "untouched", shm;
    int nItemIndex = -1;
    auto block = MakeBlock({"x", "y"}, 0, 2, {});
    const std::string blockName = block->GetName();
    CResultListBuilder builder(0, 0, 0, 1, 1, 1);
    ListGuard guard(builder.GetName());
    builder.AddItem(blockName, 1);
    builder.Release();
    block.reset();  // the pool evicted the block
    CResultList list(guard.name);
    EXPECT_FALSE(list.GetItem(0, item, shm, nItemIndex));
    EXPECT_EQ(item, "untouched");
    EXPECT_EQ(shm, blockName);
    EXPECT_EQ(nItemIndex, 1);
}

TEST(ResultListSort, ShorterStringsFirstAndMissingOrMistypedNumbersAsZero) {
    const std::vector<std::vector<std::string>> names = {{R"({"FileName":"abc"})", R"({"FileName":"b"})"},
                                                         {R"({"FileName":"ab"})", R"({"Other":1})"}};
    const std::vector<std::string> ascending = {R"({"Other":1})", R"({"FileName":"ab"})", R"({"FileName":"abc"})",
                                                R"({"FileName":"b"})"};
    for (MOX_COMPARETYPE comparison : {MOX_COMPARE_ASC, MOX_COMPARE_DESC}) {
        SortFixture f;
        CMOXSortFunction fn = MakeFn("FileName", MOX_VALUE_STRING, comparison);
        ListGuard guard(f.BuildList(names, &fn));
        std::vector<std::string> expected = ascending;
        if (comparison == MOX_COMPARE_DESC) std::reverse(expected.begin(), expected.end());
        EXPECT_EQ(f.Keys(guard.name), expected);
    }

    SortFixture f;
    CMOXSortFunction fn = MakeFn("FileSize", MOX_VALUE_INT, MOX_COMPARE_ASC);
    ListGuard guard(f.BuildList({{R"({"FileSize":5})", R"({"FileName":"x"})", R"({"FileSize":-3})",
                                  R"({"FileSize":"7"})", "not json", R"({"FileSize":2})"}},
                                &fn));
    std::vector<std::string> keys = f.Keys(guard.name);
    ASSERT_EQ(keys.size(), 6u);
    // -3, three zeros in some order, 2, 5.
    std::sort(keys.begin() + 1, keys.begin() + 4);
    EXPECT_EQ(keys, (std::vector<std::string>{R"({"FileSize":-3})", "not json", R"({"FileName":"x"})",
                                              R"({"FileSize":"7"})", R"({"FileSize":2})", R"({"FileSize":5})"}));
}

TEST(ResultListSort, UnusableSettingsLeaveTheTableAlone) {
    SortFixture f;
    std::vector<ResultItemIndex> unsorted;
    ListGuard guard(f.BuildList({{R"({"k":2})", R"({"k":1})"}}, nullptr, &unsorted));
    for (auto settings : {std::pair<int, int>{0, 1}, {3, 1}, {7, 2}, {1, 0}, {1, 3}}) {
        CResultListBuilder builder(0, 0, 1, 2, 1, 1);
        moxtest::TrackShm(builder.GetName());
        builder.AddItem(f.blocks[0]->GetName(), 0);
        builder.AddItem(f.blocks[0]->GetName(), 1);
        CMOXSortFunction fn =
            MakeFn("k", static_cast<MOX_VALUETYPE>(settings.second), static_cast<MOX_COMPARETYPE>(settings.first));
        fn.readers = &f.readers;
        EXPECT_FALSE(builder.SortItems(fn));
        EXPECT_TRUE(SameEntries(ItemTable(builder.GetName()), unsorted));
        builder.Drop();
        builder.Release();
    }
}

// Keys read without a full document must be exactly CJsonValue's, whatever
// the text; so the keyed sort gives exactly the permutation of std::sort with
// the per-comparison predicate, equal keys included.
TEST(ResultListSort, KeyedSortMatchesThePredicateOnHostileDocuments) {
    std::mt19937 rng(2024);
    std::vector<std::vector<std::string>> items(2);
    for (int i = 0; i < 3000; ++i) items[rng() % 2].push_back(HostileItem(rng));
    for (auto key :
         {std::pair<const char*, MOX_VALUETYPE>{"FileName", MOX_VALUE_STRING}, {"FileSize", MOX_VALUE_INT}}) {
        for (MOX_COMPARETYPE comparison : {MOX_COMPARE_ASC, MOX_COMPARE_DESC}) {
            SortFixture f;
            CMOXSortFunction fn = MakeFn(key.first, key.second, comparison);
            std::vector<ResultItemIndex> expected;
            ListGuard guard(f.BuildList(items, &fn, &expected));
            std::vector<SMOXSortKey> keys;
            fn.GetKeys(expected.data(), expected.size(), keys);
            ASSERT_EQ(keys.size(), expected.size());
            for (size_t i = 0; i < expected.size(); ++i) {
                SMOXSortKey reference;
                fn.GetKey(expected[i], reference);
                const std::string& text = items[expected[i].nDataBlockIndex][expected[i].nItemIndex];
                ASSERT_EQ(reference.nValue, keys[i].nValue) << text;
                ASSERT_EQ(reference.strValue, keys[i].strValue) << text;
            }
            std::sort(expected.begin(), expected.end(), fn);
            EXPECT_TRUE(SameEntries(ItemTable(guard.name), expected)) << key.first << " " << comparison;
        }
    }
}

// Where the single-pass reading stops and jsoncpp takes over: common forms
// are read without it (else the keyed sort loses its speed), and what is read
// equals jsoncpp's reading.
TEST(ResultListSort, KeyReaderReadsStrictObjectsAndLeavesTheRestToJsoncpp) {
    const std::string nul("\0", 1);
    const std::vector<std::pair<std::string, bool>> cases = {
        {R"({"FileName":"a.jpg","FileSize":12})", true},
        {" {\n\"FileSize\" :\t-2147483648 , \"FileName\" : \"x\\u00e9\\ud83d\\ude00\" }\r\n", true},
        {R"({"FileSize":1,"FileSize":"2","FileName":[],"FileName":"last"})", true},
        {R"({"File\u0053ize":2147483648,"x":{"y":[1.5e299,-0.0,true,null]},"Fil\u0065Name":"e"})", true},
        {"{\"FileName\":\"raw\x01\xff\"}" + nul + nul, true},
        {"{\"x\":" + std::string(63, '[') + std::string(63, ']') + ",\"FileSize\":7}", true},
        {"{\"x\":" + std::string(64, '[') + std::string(64, ']') + ",\"FileSize\":7}", false},
        {R"({"FileSize":4294967296000,"FileName":"big.mkv"})", true},
        {R"({"FileSize":-9223372036854775808})", true},
        {R"({"FileSize":9223372036854775808})", true},
        {R"({"FileSize":07})", false},
        {R"({"FileSize":1e301})", false},
        {R"({"FileName":"\udc00"})", false},
        {R"({"FileName":"a"} x)", false},
        {R"({"FileName":"a"/*c*/})", false},
        {"\xef\xbb\xbf{}", false},
        {R"([{"FileName":"a"}])", false},
        {"{\"FileName\":\"a\"}" + nul + " ", false},
    };
    CMOXSortKeyReader reader;
    for (const auto& c : cases) {
        for (auto key :
             {std::pair<const char*, MOX_VALUETYPE>{"FileName", MOX_VALUE_STRING}, {"FileSize", MOX_VALUE_INT}}) {
            SMOXSortKey fast;
            ASSERT_EQ(reader.Read(c.first, key.first, key.second, fast), c.second) << c.first;
            if (!c.second) continue;
            CJsonValue doc(c.first);
            SMOXSortKey reference;
            if (key.second == MOX_VALUE_INT && IntMember(doc, key.first))
                reference.nValue = IntMember(doc, key.first)->asInt64();
            if (key.second == MOX_VALUE_STRING && doc.IsString(key.first)) doc.Get(key.first, reference.strValue);
            EXPECT_EQ(fast.nValue, reference.nValue) << c.first;
            EXPECT_EQ(fast.strValue, reference.strValue) << c.first;
        }
    }
    // Sizes past 2 GiB keep their value: a 4 TB video sorts after a photo.
    SMOXSortKey big;
    ASSERT_TRUE(reader.Read(cases[7].first, "FileSize", MOX_VALUE_INT, big));
    EXPECT_EQ(big.nValue, 4294967296000LL);
}

TEST(ResultListCrafted, SlotsWithoutEndAndEntriesOutsideTheBlockFailAlone) {
    // Crafted headers are fuzz seeds (fuzz/make_seeds.py), replayed by ctest;
    // here a loaded list whose slot 1 has no NUL and whose entry 2 names
    // item 9 of a two-item block.
    auto block = MakeBlock({"i0", "i1"}, 0, 2, {});
    std::string bytes = GoodListBytes(block->GetName(), std::string(128, 'z'));
    moxtest::PutInt32(bytes, 320, 9);
    ASSERT_TRUE(moxtest::WriteShm(kCrafted, bytes));
    CResultList list(kCrafted);
    ASSERT_TRUE(list.IsLoaded());
    std::string name, item, shm;
    int nItemIndex = -1;
    EXPECT_TRUE(list.GetBlockName(0, name));
    EXPECT_FALSE(list.GetBlockName(1, name));
    EXPECT_TRUE(list.GetItem(0, item, shm, nItemIndex));
    EXPECT_EQ(item.c_str(), std::string("i0"));
    EXPECT_FALSE(list.GetItem(1, item, shm, nItemIndex));
    EXPECT_FALSE(list.GetItem(2, item, shm, nItemIndex));
    EXPECT_EQ(nItemIndex, 9);
    shm_unlink(kCrafted);
}
