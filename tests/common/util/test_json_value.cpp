#include <mox/json_value.h>

#include <gtest/gtest.h>

#include <climits>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "log_capture.h"

namespace {

// Documents that parse but are not objects: every operation is refused, none
// throws (the library throws on member lookups of arrays and scalars).
TEST(JsonValueParse, NonObjectTopLevelIsInvalidAndRefusesEveryOperation) {
    for (const char* text : {"[1,2]", "5"}) {
        SCOPED_TRACE(text);
        CJsonValue doc{std::string(text)};
        EXPECT_FALSE(doc.IsValid());
        EXPECT_FALSE(doc.Set("k", 1));
        EXPECT_FALSE(doc.Set("k", std::vector<std::string>{"a"}));
        int n = 42;
        EXPECT_FALSE(doc.Get("k", n));
        EXPECT_EQ(42, n);
        EXPECT_EQ("", doc.ToString());
        EXPECT_EQ("", doc.ToStyledString());
        std::vector<std::string> keys{"keep"};
        EXPECT_FALSE(doc.GetKeys(keys));
        EXPECT_EQ(std::vector<std::string>{"keep"}, keys);
        EXPECT_FALSE(doc.Remove("k"));
        doc.Clear();
        EXPECT_FALSE(doc.IsValid());  // stays invalid for its whole life
        EXPECT_FALSE(doc.Has("k"));
        EXPECT_FALSE(doc.IsInt("k"));
        EXPECT_FALSE(doc.IsString("k"));
    }
}

TEST(JsonValueParse, BrokenAndDeeplyNestedTextIsRejectedWithoutThrowing) {
    EXPECT_FALSE(CJsonValue(std::string("{")).IsValid() || CJsonValue(std::string()).IsValid());
    for (const std::string& open : {std::string("["), std::string("{\"a\":")}) {
        std::string text;
        for (int i = 0; i < 100000; ++i) text += open;
        moxtest::LogMark mark;
        std::unique_ptr<CJsonValue> doc;
        ASSERT_NO_THROW(doc = std::make_unique<CJsonValue>(text));
        EXPECT_FALSE(doc->IsValid());
        // The logged text is bounded, not the whole 100000-level document.
        EXPECT_LT(mark.Text().size(), 64u * 1024u);
    }
    // Moderate nesting and comments still parse.
    std::string text;
    for (int i = 0; i < 200; ++i) text += "{\"a\":";
    text += "1" + std::string(200, '}');
    EXPECT_TRUE(CJsonValue(text).IsValid());
    EXPECT_TRUE(CJsonValue(std::string("// head\n{\"n\": 3 /* inline */}")).IsValid());
}

TEST(JsonValueSetGet, RoundTripAndCompactText) {
    CJsonValue doc;
    EXPECT_EQ("null\n", doc.ToString());
    // Values past the int range keep their type through the text.
    ASSERT_TRUE(doc.Set("uint", 4000000000u));
    ASSERT_TRUE(doc.Set("ll", 1LL << 40));
    ASSERT_TRUE(doc.Set("list", std::vector<std::string>{"a", "b"}));
    ASSERT_TRUE(doc.Set("list", std::vector<std::string>{"c"}));  // appends

    CJsonValue back(doc.ToString());
    ASSERT_TRUE(back.IsValid());
    unsigned int u = 0;
    long long ll = 0;
    std::vector<std::string> list{"pre"};
    EXPECT_TRUE(back.Get("uint", u) && u == 4000000000u);
    EXPECT_TRUE(back.Get("ll", ll) && ll == 1LL << 40);
    EXPECT_TRUE(back.Get("list", list));  // appends too
    EXPECT_EQ((std::vector<std::string>{"pre", "a", "b", "c"}), list);

    // Compact text, sorted members, one newline; copies are deep.
    CJsonValue small;
    ASSERT_TRUE(small.Set("b", true));
    ASSERT_TRUE(small.Set("a", "x"));
    EXPECT_EQ("{\"a\":\"x\",\"b\":true}\n", small.ToString());
    CJsonValue copy = small;
    ASSERT_TRUE(copy.Set("a", 9));
    EXPECT_TRUE(small.IsString("a"));
    EXPECT_TRUE(small.Remove("b"));
    EXPECT_TRUE(small.Remove("b"));  // a missing member is no error
    EXPECT_EQ("{\"a\":\"x\"}\n", small.ToString());
}

TEST(JsonValueSetGet, MismatchOrMissingLeavesOutputUntouched) {
    CJsonValue doc{
        std::string("{\"real\": 2.0, \"s\": \"x\", \"neg\": -1, \"arr\": [1], \"mixed\": [1, \"x\"], \"objs\": [{}]}")};
    ASSERT_TRUE(doc.IsValid());
    int n = 99;
    unsigned int u = 5;
    bool b = true;
    double d = 1.25;
    std::string s = "keep";
    long long ll = 3;
    EXPECT_FALSE(doc.Get("real", n) || doc.Get("missing", n) || doc.Get("neg", u) || doc.Get("s", b) ||
                 doc.Get("s", d) || doc.Get("arr", s) || doc.Get("s", ll));
    EXPECT_TRUE(n == 99 && u == 5u && b && d == 1.25 && s == "keep" && ll == 3);
    std::vector<int> ints{7};
    EXPECT_FALSE(doc.Get("mixed", ints));
    EXPECT_EQ(std::vector<int>{7}, ints);
    std::vector<std::string> strs;
    EXPECT_FALSE(doc.Get("objs", strs));
    EXPECT_TRUE(strs.empty());

    // Appending to a member that is not an array fails and keeps the member;
    // a null string is refused.
    EXPECT_FALSE(doc.Set("s", std::vector<std::string>{"y"}));
    EXPECT_FALSE(doc.Set("s", static_cast<const char*>(nullptr)));
    EXPECT_TRUE(doc.Get("s", s));
    EXPECT_EQ("x", s);
}

TEST(JsonValueSetGet, LongLongReadsThroughADoubleAndSaturates) {
    CJsonValue doc{
        std::string("{\"five\": 5, \"big\": 1e300, \"small\": -1e300,"
                    " \"huge\": 123456789012345678901234567890, \"frac\": -2.75}")};
    ASSERT_TRUE(doc.IsValid());
    const struct {
        const char* key;
        long long want;
    } cases[] = {{"five", 5}, {"big", LLONG_MAX}, {"small", LLONG_MIN}, {"huge", LLONG_MAX}, {"frac", -2}};
    for (const auto& c : cases) {
        long long ll = 0;
        EXPECT_TRUE(doc.Get(c.key, ll)) << c.key;
        EXPECT_EQ(c.want, ll) << c.key;
    }
    int n = 1;
    EXPECT_FALSE(doc.Get("huge", n));
    EXPECT_EQ(1, n);
    // A number beyond the double range is a parse failure, not an infinity.
    EXPECT_FALSE(CJsonValue(std::string("{\"inf\": 1e400}")).IsValid());

    long long ll = 9;
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

}  // namespace
