#include "commonlibc/vxbt/vxbt_custom_criteria.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace vx {
namespace {

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
             Row{"[input1=STARTSWITHx&&input2=/shop]", 1, "/shop", false},
             Row{"x[[ INPUT1 = EQUALS && input2x=/a=b && input3=ActivateReverseCondition ]y", 4, "/a=b",
                 true},
             Row{"[input1=equal&&input2=/a&&input3=activatereversecondition]", kMatchUnknown, "/a", false},
             Row{"[input1=contains]", 3, "", false},
             Row{tooLong.c_str(), kMatchUnknown, cut.c_str(), false},
             Row{"[input1=EQUALS&&input4=x]", -1, "", false},
             Row{"[=EQUALS]", -1, "", false},
             Row{"[input2=]", -1, "", false},
             Row{"]input2=/a[", -1, "", false},
             Row{"", -1, "", false},
         }) {
        VXBTCustomeRule rule{};
        const int expected = row.matchOperator < 0 ? -1 : 0;
        ASSERT_EQ(updateUriMatchCriteria(&rule, row.text), expected) << row.text;
        EXPECT_STREQ(rule.uriText, row.uri) << row.text;
        EXPECT_TRUE((rule.uriReverse != 0) == row.reverse &&
                    rule.uriOperator == std::max(row.matchOperator, 0))
            << row.text;
    }
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
             Row{"[input2=id],[x&&input3=no]", 0, "id", "", kMatchUnknown, 0},
             Row{"[input2=id],[x&&input3]", -1, "", "", 0, 0},
             Row{"[input2=id],x", -1, "", "", 0, 0},
             Row{",,", -1, "", "", 0, 0},
         }) {
        SCOPED_TRACE(row.text);
        objURIParam read{};
        ASSERT_EQ(updateParameterListForMatchCriteria(&read, row.text), row.result);
        EXPECT_EQ(std::string(read.name) + "|" + read.value, std::string(row.name) + "|" + row.value);
        EXPECT_TRUE(read.matchOperator == row.matchOperator && read.checkForExistance == row.existence);
    }
}

}  // namespace
}  // namespace vx
