#include <mox/json_value.h>

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "log_capture.h"

using moxtest::LogMark;

namespace {

// Documents that parse but are not objects, and texts that do not parse.
TEST(JsonValueParse, NonObjectTopLevelIsInvalidAndRefusesEveryOperation) {
    struct Case {
        const char* text;
        int type;
    } cases[] = {{"[1,2]", 6}, {"5", 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        LogMark mark;
        CJsonValue doc{std::string(c.text)};
        EXPECT_FALSE(doc.IsValid());
        EXPECT_FALSE(mark.Contains("faild."));  // parsed fine, just not an object

        EXPECT_FALSE(doc.Set("k", 1));
        EXPECT_TRUE(mark.Contains("Set fail. jsonvalue is invalid type[" + std::to_string(c.type) + "]."));
        EXPECT_FALSE(doc.Set("k", std::vector<std::string>{"a"}));

        int n = 42;
        EXPECT_FALSE(doc.Get("k", n));
        EXPECT_EQ(42, n);
        EXPECT_TRUE(mark.Contains("Get fail. jsonvalue is invalid type["));

        EXPECT_EQ("", doc.ToString());
        EXPECT_TRUE(mark.Contains("ToString fail. jsonvalue is invalid type["));
        EXPECT_EQ("", doc.ToStyledString());

        std::vector<std::string> keys{"keep"};
        EXPECT_FALSE(doc.GetKeys(keys));
        EXPECT_EQ(std::vector<std::string>{"keep"}, keys);

        LogMark removeMark;
        EXPECT_FALSE(doc.Remove("k"));
        EXPECT_TRUE(removeMark.Contains("GetKeys fail. jsonvalue is invalid type["));

        doc.Clear();
        EXPECT_TRUE(mark.Contains("Clear fail. jsonvalue is invalid type["));
        EXPECT_FALSE(doc.IsValid());  // stays invalid for its whole life

        // The library throws on member lookups of arrays and scalars; the
        // wrapper must absorb that.
        EXPECT_FALSE(doc.Has("k"));
        EXPECT_FALSE(doc.IsInt("k"));
        EXPECT_FALSE(doc.IsString("k"));
    }
}

TEST(JsonValueParse, BrokenTextLogsTheParseWarning) {
    LogMark mark;
    CJsonValue doc{std::string("{")};
    EXPECT_FALSE(doc.IsValid());
    EXPECT_TRUE(mark.Contains("Json::Reader parse string[{] faild."));

    CJsonValue empty{std::string("")};
    EXPECT_FALSE(empty.IsValid());
}

TEST(JsonValueParse, DeepNestingIsRejectedWithoutThrowing) {
    for (const std::string& open : {std::string("["), std::string("{\"a\":")}) {
        std::string text;
        for (int i = 0; i < 100000; ++i) text += open;
        LogMark mark;
        std::unique_ptr<CJsonValue> doc;
        ASSERT_NO_THROW(doc = std::make_unique<CJsonValue>(text));
        EXPECT_FALSE(doc->IsValid());
        EXPECT_TRUE(mark.Contains("faild."));
        // The logged text is bounded, not the whole 100000-level document.
        EXPECT_LT(mark.Text().size(), 64u * 1024u);
    }
}

TEST(JsonValueParse, ModerateNestingAndCommentsParse) {
    std::string text;
    for (int i = 0; i < 200; ++i) text += "{\"a\":";
    text += "1";
    for (int i = 0; i < 200; ++i) text += "}";
    EXPECT_TRUE(CJsonValue(text).IsValid());

    CJsonValue commented{std::string("// head\n{\"n\": 3 /* inline */}")};
    ASSERT_TRUE(commented.IsValid());
    int n = 0;
    EXPECT_TRUE(commented.Get("n", n));
    EXPECT_EQ(3, n);
}

TEST(JsonValueWrite, CompactTextEndsWithNewline) {
    CJsonValue fresh;
    EXPECT_TRUE(fresh.IsValid());
    EXPECT_EQ("null\n", fresh.ToString());

    ASSERT_TRUE(fresh.Set("b", true));
    ASSERT_TRUE(fresh.Set("a", "x"));
    EXPECT_EQ("{\"a\":\"x\",\"b\":true}\n", fresh.ToString());
    EXPECT_NE(std::string::npos, fresh.ToStyledString().find("\"a\" : \"x\""));

    fresh.Clear();
    EXPECT_EQ("{}\n", fresh.ToString());
}

TEST(JsonValueSetGet, EveryTypeRoundTrips) {
    CJsonValue doc;
    ASSERT_TRUE(doc.Set("bool", true));
    ASSERT_TRUE(doc.Set("int", -7));
    ASSERT_TRUE(doc.Set("uint", 4000000000u));
    ASSERT_TRUE(doc.Set("ll", 1LL << 40));
    ASSERT_TRUE(doc.Set("ull", 1ULL << 63));
    ASSERT_TRUE(doc.Set("double", 2.5));
    ASSERT_TRUE(doc.Set("string", std::string("s")));

    CJsonValue back(doc.ToString());
    ASSERT_TRUE(back.IsValid());
    bool b = false;
    int n = 0;
    unsigned int u = 0;
    long long ll = 0;
    double d = 0;
    std::string s;
    EXPECT_TRUE(back.Get("bool", b));
    EXPECT_TRUE(b);
    EXPECT_TRUE(back.Get("int", n));
    EXPECT_EQ(-7, n);
    EXPECT_TRUE(back.Get("uint", u));
    EXPECT_EQ(4000000000u, u);
    EXPECT_TRUE(back.Get("ll", ll));
    EXPECT_EQ(1LL << 40, ll);
    EXPECT_TRUE(back.Get("double", d));
    EXPECT_DOUBLE_EQ(2.5, d);
    EXPECT_TRUE(back.Get("string", s));
    EXPECT_EQ("s", s);
    EXPECT_TRUE(back.IsInt("int"));
    EXPECT_FALSE(back.IsInt("string"));
    EXPECT_TRUE(back.IsString("string"));
    EXPECT_FALSE(back.IsString("missing"));

    // A later Set replaces the member.
    ASSERT_TRUE(doc.Set("int", std::string("now a string")));
    EXPECT_FALSE(doc.IsInt("int"));
}

TEST(JsonValueSetGet, MismatchOrMissingLeavesOutputUntouched) {
    CJsonValue doc{std::string("{\"real\": 2.0, \"s\": \"x\", \"neg\": -1, \"arr\": [1]}")};
    ASSERT_TRUE(doc.IsValid());

    LogMark mark;
    int n = 99;
    EXPECT_FALSE(doc.Get("real", n));
    EXPECT_EQ(99, n);
    EXPECT_TRUE(mark.Contains("value.type[3]."));
    EXPECT_FALSE(doc.IsInt("real"));

    EXPECT_FALSE(doc.Get("missing", n));
    EXPECT_TRUE(mark.Contains("NO strKey[missing] in josn."));

    unsigned int u = 5;
    EXPECT_FALSE(doc.Get("neg", u));
    EXPECT_EQ(5u, u);

    bool b = true;
    EXPECT_FALSE(doc.Get("s", b));
    EXPECT_TRUE(b);

    double d = 1.25;
    EXPECT_FALSE(doc.Get("s", d));
    EXPECT_EQ(1.25, d);

    std::string s = "keep";
    EXPECT_FALSE(doc.Get("arr", s));
    EXPECT_EQ("keep", s);

    long long ll = 3;
    EXPECT_FALSE(doc.Get("s", ll));
    EXPECT_EQ(3, ll);

    std::vector<int> ints{8};
    EXPECT_FALSE(doc.Get("s", ints));
    EXPECT_EQ(std::vector<int>{8}, ints);

    EXPECT_FALSE(doc.Set("s", static_cast<const char*>(nullptr)));
    EXPECT_TRUE(doc.Get("s", s));
    EXPECT_EQ("x", s);
}

TEST(JsonValueSetGet, LongLongReadsThroughADoubleAndSaturates) {
    CJsonValue doc{std::string(
        "{\"five\": 5, \"big\": 1e300, \"small\": -1e300,"
        " \"huge\": 123456789012345678901234567890, \"frac\": -2.75}")};
    ASSERT_TRUE(doc.IsValid());
    long long ll = 0;
    // jsoncpp classes integers as doubles, so integer members read too.
    EXPECT_TRUE(doc.Get("five", ll));
    EXPECT_EQ(5, ll);
    EXPECT_TRUE(doc.Get("big", ll));
    EXPECT_EQ(LLONG_MAX, ll);
    EXPECT_TRUE(doc.Get("small", ll));
    EXPECT_EQ(LLONG_MIN, ll);
    EXPECT_TRUE(doc.Get("huge", ll));
    EXPECT_EQ(LLONG_MAX, ll);
    EXPECT_TRUE(doc.Get("frac", ll));
    EXPECT_EQ(-2, ll);
    // jsoncpp rejects a number beyond the double range: a parse failure, not
    // an infinity that would reach the conversion.
    LogMark mark;
    EXPECT_FALSE(CJsonValue(std::string("{\"inf\": 1e400}")).IsValid());
    EXPECT_TRUE(mark.Contains("faild."));

    int n = 1;
    EXPECT_FALSE(doc.Get("huge", n));
    EXPECT_EQ(1, n);

    ASSERT_TRUE(doc.Set("nan", std::numeric_limits<double>::quiet_NaN()));
    EXPECT_TRUE(doc.Get("nan", ll));
    EXPECT_EQ(0, ll);
    ASSERT_TRUE(doc.Set("inf", -std::numeric_limits<double>::infinity()));
    EXPECT_TRUE(doc.Get("inf", ll));
    EXPECT_EQ(LLONG_MIN, ll);
    ASSERT_TRUE(doc.Set("max", LLONG_MAX));
    EXPECT_TRUE(doc.Get("max", ll));
    EXPECT_EQ(LLONG_MAX, ll);  // 2^63-1 rounds to 2^63 as a double, then saturates
}

TEST(JsonValueArrays, VectorSetAppendsAndGetAppends) {
    CJsonValue doc;
    ASSERT_TRUE(doc.Set("list", std::vector<std::string>{"a", "b"}));
    ASSERT_TRUE(doc.Set("list", std::vector<std::string>{"c"}));
    std::vector<std::string> out{"pre"};
    ASSERT_TRUE(doc.Get("list", out));
    EXPECT_EQ((std::vector<std::string>{"pre", "a", "b", "c"}), out);

    // Appending to a member that is not an array fails and keeps the member.
    ASSERT_TRUE(doc.Set("name", "x"));
    EXPECT_FALSE(doc.Set("name", std::vector<std::string>{"y"}));
    std::string name;
    EXPECT_TRUE(doc.Get("name", name));
    EXPECT_EQ("x", name);

    CJsonValue nums{std::string("{\"n\": [3, 1, 2], \"mixed\": [1, \"x\"], \"objs\": [{}]}")};
    std::vector<int> ints;
    ASSERT_TRUE(nums.Get("n", ints));
    EXPECT_EQ((std::vector<int>{3, 1, 2}), ints);

    LogMark mark;
    std::vector<int> untouched{7};
    EXPECT_FALSE(nums.Get("mixed", untouched));
    EXPECT_EQ(std::vector<int>{7}, untouched);
    EXPECT_TRUE(mark.Contains("Exception Handled by[Get]"));
    std::vector<std::string> strs;
    EXPECT_FALSE(nums.Get("objs", strs));
    EXPECT_TRUE(strs.empty());
}

TEST(JsonValueMembers, KeysRemoveAndCopies) {
    CJsonValue doc{std::string("{\"b\": 1, \"a\": 2, \"c\": 3}")};
    std::vector<std::string> keys;
    ASSERT_TRUE(doc.GetKeys(keys));
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), keys);

    EXPECT_TRUE(doc.Remove("b"));
    EXPECT_FALSE(doc.Has("b"));
    EXPECT_TRUE(doc.Remove("b"));  // a missing member is no error
    EXPECT_TRUE(doc.Has("a"));

    CJsonValue copy = doc;
    ASSERT_TRUE(copy.Set("a", 9));
    int n = 0;
    EXPECT_TRUE(doc.Get("a", n));
    EXPECT_EQ(2, n);

    Json::Value nested(Json::objectValue);
    nested["x"] = 1;
    ASSERT_TRUE(doc.SetValue("obj", nested));
    EXPECT_EQ(1, doc.Root()["obj"]["x"].asInt());
}

}  // namespace
