#include "tools/collector/export_otlp.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <memory>

#include "tools/collector/export_text.h"

namespace vx::collector {
namespace {

using Json = std::unique_ptr<json_t, decltype(&json_decref)>;

std::string textOf(const json_t* object, const char* key) {
    const char* text = json_string_value(json_object_get(object, key));
    return text ? text : "";
}

TransactionDetails someTransaction() {
    TransactionDetails tx;
    tx.row.id = 7;
    tx.row.instance = 11;
    tx.row.flowpath = 4611686018427387904;
    tx.row.start = 1'760'000'000'123;
    tx.row.duration = 40;
    tx.row.at = tx.row.start + 40;
    tx.row.bt = "Pay \"now\"\n\xFF";
    tx.items.resize(3);
    tx.items[0].name = "Shop.buy";
    tx.items[0].durationMs = 30;
    tx.items[1].kind = TransactionItem::Kind::kCallout;
    tx.items[1].name = "HTTP_pay";
    tx.items[1].parent = 0;
    tx.items[1].startMs = 3;
    tx.items[1].durationMs = 5.25;
    tx.items[2].kind = TransactionItem::Kind::kException;
    tx.exceptions.push_back({1'759'999'999'000, 4, "a.Timeout", "", "", "too late", "", "at a\n"});
    return tx;
}

TEST(ExportOtlp, ItemsHangBelowEachOtherWithTheirTimesAndTextsStayTexts) {
    TransactionDetails tx = someTransaction();
    std::string spans, again;
    TraceIds ids = ownIds(tx.row);
    addSpans(spans, tx, ids);
    addSpans(again, tx, ownIds(tx.row));
    EXPECT_EQ(spans, again) << "every export has the same ids";
    const Json list(json_loads(("[" + spans + "]").c_str(), 0, nullptr), json_decref);
    ASSERT_EQ(json_array_size(list.get()), 3U) << "an exception is an event, not a span";
    const json_t *root = json_array_get(list.get(), 0), *method = json_array_get(list.get(), 1),
                 *callout = json_array_get(list.get(), 2);
    EXPECT_EQ(textOf(root, "name"), "Pay \"now\"\n\xEF\xBF\xBD");
    EXPECT_FALSE(json_object_get(root, "parentSpanId"));
    EXPECT_EQ(textOf(json_array_get(json_object_get(root, "events"), 0), "timeUnixNano"),
              textOf(root, "startTimeUnixNano"))
        << "moved into the span";
    EXPECT_EQ(textOf(method, "parentSpanId"), ids.span);
    EXPECT_EQ(textOf(callout, "parentSpanId"), textOf(method, "spanId"));
    EXPECT_EQ(textOf(callout, "startTimeUnixNano"), "1760000000126000000");
    EXPECT_EQ(textOf(callout, "endTimeUnixNano"), "1760000000131250000");
    tx.row.traceId = "4BF92F3577B34DA6A3CE929D0E0E4736";
    tx.row.callerSpan = "00f067aa0ba902b7";
    ids = ownIds(tx.row);
    EXPECT_TRUE(ids.trace == "4bf92f3577b34da6a3ce929d0e0e4736" && ids.parent == "00f067aa0ba902b7");
    tx.row.traceId = std::string(32, '0');
    EXPECT_NE(ownIds(tx.row).trace, tx.row.traceId) << "zeros are no id";
}

TEST(ExportText, QuotesAndReadsTimes) {
    struct {
        const char* text;
        const char* csv;
        const char* json;
    } const rows[] = {
        {"plain", "plain", "\"plain\""},
        {"a,b", "\"a,b\"", "\"a,b\""},
        {"say \"x\"\r\n", "\"say \"\"x\"\"\r\n\"", "\"say \\\"x\\\"\\u000d\\n\""},
        {"\xC3\xA4\xC0\x80\xE2\x82", "\xC3\xA4\xC0\x80\xE2\x82",
         "\"\xC3\xA4\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""},
    };
    for (const auto& row : rows) {
        std::string csv, json;
        addCsvText(csv, row.text);
        addJsonText(json, row.text);
        EXPECT_EQ(csv, row.csv);
        EXPECT_EQ(json, row.json);
    }
    struct {
        const char* text;
        std::int64_t ms;  // -1: refused
    } const times[] = {{"1760000000123", 1'760'000'000'123},
                       {"1970-01-02", 86'400'000},
                       {"2026-11-22T10:30", 1'795'343'400'000},
                       {"2026-11-22T10:30:15Z", 1'795'343'415'000},
                       {"2026-13-01", -1},
                       {"2026-1-1", -1},
                       {"2026-11-22T10", -1},
                       {"now", -1},
                       {"", -1}};
    for (const auto& row : times) {
        std::int64_t ms = -1;
        EXPECT_EQ(readTime(row.text, ms), row.ms >= 0) << row.text;
        EXPECT_EQ(row.ms < 0 ? -1 : ms, row.ms) << row.text;
    }
}

}  // namespace
}  // namespace vx::collector
