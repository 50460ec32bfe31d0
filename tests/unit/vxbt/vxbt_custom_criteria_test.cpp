#include "commonlibc/vxbt/vxbt_custom_criteria.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace vx {
namespace {

TEST(CustomCriteria, OperatorsGoByTheirBeginningAndMethodsByTheWholeWord) {
    EXPECT_EQ(vxbt_match_operator("equals"), 4);
    EXPECT_EQ(vxbt_match_operator("STARTSWITHx"), 1);
    EXPECT_EQ(vxbt_match_operator("inList"), 7);
    for (const char* other : {"", "equal", "xcontains"}) EXPECT_EQ(vxbt_match_operator(other), -1) << other;
    EXPECT_EQ(vxbt_match_operator(nullptr), -1);

    EXPECT_EQ(getHTTPMethodValue("get"), 0);
    EXPECT_EQ(getHTTPMethodValue("Delete"), 3);
    for (const char* other : {"", "GETS", "PATCH"}) EXPECT_EQ(getHTTPMethodValue(other), 255) << other;
    EXPECT_EQ(getHTTPMethodValue(nullptr), 255);
}

TEST(CustomCriteria, UriForm) {
    struct Row {
        const char* text;
        int matchOperator;  // -1: refused
        const char* uri;
        bool reverse;
    };
    const std::string longUri(300, 'u');
    const std::string tooLong = "[input2=" + longUri + "]";
    const std::string cut = longUri.substr(0, 255);
    for (const Row& row : {
             Row{"[input1=startswith&&input2=/shop]", 1, "/shop", false},
             Row{"x[[ INPUT1 = EQUALS && input2x=/a=b && input3=ActivateReverseCondition ]y", 4, "/a=b",
                 true},
             Row{"[input1=like&&input2=/a&&input3=activatereversecondition]", kMatchUnknown, "/a", false},
             Row{"[input1=contains]", 3, "", false},
             Row{tooLong.c_str(), kMatchUnknown, cut.c_str(), false},
             Row{"[input1=EQUALS&&input4=x]", -1, "", false},
             Row{"[input1=EQUALS&&]", -1, "", false},
             Row{"[=EQUALS]", -1, "", false},
             Row{"[input2=]", -1, "", false},
             Row{"[inp=x]", -1, "", false},
             Row{"input2=/a", -1, "", false},
             Row{"]input2=/a[", -1, "", false},
             Row{"", -1, "", false},
         }) {
        VXBTCustomeRule rule{};
        const int expected = row.matchOperator < 0 ? -1 : 0;
        ASSERT_EQ(updateUriMatchCriteria(&rule, row.text), expected) << row.text;
        EXPECT_STREQ(rule.uriText, row.uri) << row.text;
        EXPECT_EQ(rule.uriReverse != 0, row.reverse) << row.text;
        EXPECT_EQ(rule.uriOperator, std::max(row.matchOperator, 0)) << row.text;
    }
    VXBTCustomeRule rule{};
    EXPECT_EQ(updateUriMatchCriteria(&rule, nullptr), -1);
}

TEST(CustomCriteria, ParameterFormTakesTheKthSettingOfTheKthGroup) {
    struct Row {
        const char* text;
        int result;
        const char *name, *value;
        int matchOperator, existence;
    };
    for (const Row& row : {
             Row{"[input2=id],[x=y&&input3=contains],[x&&x&&input4=ten]", 0, "id", "ten", 3, 0},
             Row{"[input2=id],[x&&input1=CheckForExistance],[x&&x&&input4=ten]", 0, "id", "", 0, 1},
             Row{"[input1=checkForExistance],[x&&input2=id]", 0, "", "", 0, 1},
             Row{"[input2=id&&input3=EQUALS]", 0, "id", "", 0, 0},
             Row{"[input2=id],[input3=EQUALS]", 0, "id", "", 0, 0},
             Row{"[input2=id],[x&&input3=no]", 0, "id", "", kMatchUnknown, 0},
             Row{"[input2=id],[x&&input9=EQUALS]", 0, "id", "", 0, 0},
             Row{"[input2=]", -1, "", "", 0, 0},
             Row{"[input2=id],[x&&input3]", -1, "", "", 0, 0},
             Row{"[input2=id],x", -1, "", "", 0, 0},
             Row{",,", -1, "", "", 0, 0},
             Row{"", -1, "", "", 0, 0},
             Row{nullptr, -1, "", "", 0, 0},
         }) {
        const std::string told = row.text ? row.text : "(null)";
        objURIParam read{};
        ASSERT_EQ(updateParameterListForMatchCriteria(&read, row.text), row.result) << told;
        EXPECT_STREQ(read.name, row.name) << told;
        EXPECT_STREQ(read.value, row.value) << told;
        EXPECT_EQ(read.matchOperator, row.matchOperator) << told;
        EXPECT_EQ(read.checkForExistance, row.existence) << told;
    }
}

}  // namespace
}  // namespace vx
