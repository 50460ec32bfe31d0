#include "commonlibc/ServerMetadata.h"

#include <cstring>

#include "commonlibc/ServerReply.h"
#include "commonlibc/VXKeywordNumber.h"
#include "commonlibc/VXMetadataReplay.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_outbox.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr const char kNoTest[] = "vx_meta_data_rep:action=send_meta_data;result=Error :<No test running.>\n";
constexpr const char kComplete[] = "vx_meta_data_rep:status=complete;\n";
constexpr int kMaxFields = 64;

// Each record type at most once, however often it is named.
class Asked {
public:
    void add(const char* text) {
        const std::int32_t number = keywordInt(text);
        if (number < 1) return;
        anything_ = true;
        for (std::size_t i = 0; i < kReplayRows.size(); ++i)
            if (kReplayRows[i].recordNumber == number) rows_[i] = true;
    }
    void replay() const {
        for (std::size_t i = 0; i < kReplayRows.size(); ++i)
            if (!anything_ || rows_[i]) kReplayRows[i].collect(0, 1);
    }

private:
    bool anything_ = false;
    bool rows_[kReplayRows.size()] = {};
};

void addNumbers(Asked& asked, char* field) {
    char* equals = std::strchr(field, '=');
    char* numbers[kMaxFields];
    const int count =
        vxlb_get_tokens_with_multi_delimiter(equals ? equals + 1 : field, numbers, ", |", kMaxFields);
    for (int i = 0; i < count; ++i) asked.add(numbers[i]);
}

}  // namespace

void handleMetaDataRequest(char* line) {
    vxApplication& app = *vxCurrent();
    if (!app.Server.testRunRunning) {
        controlConnectionSendBuffer(kNoTest, sizeof(kNoTest) - 1);
        return;
    }
    parseCurrentRequestMessage(line);
    controlConnectionSendBuffer(kComplete, sizeof(kComplete) - 1);
    send_pending_control_data();
}

void parseCurrentRequestMessage(char* line) {
    char* fields[kMaxFields];
    const int count = vxlb_get_tokens_with_multi_delimiter(line, fields, ";", kMaxFields);
    Asked asked;
    for (int i = 1; i < count; ++i) addNumbers(asked, fields[i]);
    asked.replay();
}

}  // namespace vx
