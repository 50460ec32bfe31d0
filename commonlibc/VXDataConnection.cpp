#include "commonlibc/VXDataConnection.h"

#include <algorithm>
#include <cstring>

#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXConnectMessages.h"
#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXDataLink.h"
#include "commonlibc/VXDataSender.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/lws_handler.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::int64_t kSendTimeUs = 250000;    // a stop has to wait for it
constexpr std::int64_t kSettleTimeUs = 300000;  // for what is on its way when a connection is closed
constexpr std::size_t kNewConnectionSize = 1024;
constexpr std::size_t kTextRecordSize = 5120;

VXDataLink linkOf(VXDataState_t& data) {
    return {data.dataSocket, data.dataWsi, data.connectionPool, data.dataPool};
}

bool overLws(const vxApplication& app) {
    return app.control.lws_active.load(std::memory_order_acquire) == 1;
}

bool stopSeen() {
    return dataStopSeen(*vxCurrent());
}

bool sendDirectly(const char* text, std::int32_t length) {
    if (vxCurrent()->data.dataWsi.load(std::memory_order_acquire))
        return send_data_via_lws_socket(text, length) == 0;
    return vxSendAll(vxCurrent()->data.dataSocket.get(), text, length, stopSeen);
}

// What a connection has to learn goes to it in pieces of this size, past the chain: the chain may be full of
// older records, and these are understood only behind it.
constexpr std::int32_t kAnnouncementSize = 65536;

class Announcement {
public:
    Announcement()
        : text_(static_cast<char*>(VXLB_MALLOC(static_cast<std::size_t>(kAnnouncementSize), kName, -1))) {
        current = this;
        if (text_)
            vxDivertRecords([](const char* record, std::int64_t length) { current->take(record, length); });
    }
    ~Announcement() {
        vxDivertRecords(nullptr);
        VXLB_FREE(text_, kName, -1);
    }
    Announcement(const Announcement&) = delete;
    Announcement& operator=(const Announcement&) = delete;

    // False when the connection did not take everything.
    bool send() {
        if (length_ > 0 && !failed_) failed_ = !sendDirectly(text_, length_);
        length_ = 0;
        return !failed_;
    }

private:
    static constexpr const char* kName = "announcement";
    static constinit thread_local Announcement* current;

    void take(const char* record, std::int64_t length) {
        while (length > 0 && !failed_) {
            const auto part =
                static_cast<std::int32_t>(std::min<std::int64_t>(length, kAnnouncementSize - length_));
            std::memcpy(text_ + length_, record, static_cast<std::size_t>(part));
            length_ += part;
            record += part;
            length -= part;
            if (length_ == kAnnouncementSize) send();
        }
    }

    char* text_;
    std::int32_t length_ = 0;
    bool failed_ = false;
};
constinit thread_local Announcement* Announcement::current = nullptr;

// "%d,%s\n" in a heap buffer.
void dumpTextRecord(int number, const char* text, const char* allocationName) {
    char* record = static_cast<char*>(VXLB_MALLOC(kTextRecordSize, allocationName, -1));
    if (!record) return;
    VXWriter out(record, kTextRecordSize - 1);
    out.number(number).put(',').recordText(text).endLine();
    dumpData(record, static_cast<std::int64_t>(out.length()));
    VXLB_FREE(record, allocationName, -1);
}

// `asked`: the collector wants it, whether it was made in this run or not.
void replayMetadata(vxApplication& app, bool asked) {
    VX_UPCALL(clearBtMetaDataFlags);
    VX_UPCALL(clearHeaderMetaDataFlags);
    if (!app.data.replayedThisRun || asked) VX_UPCALL(replayMetaData);
}

}  // namespace

bool openDataConnection(vxApplication& app) {
    const VXCollectorRecord collector = vxCollectorInUse();
    VX_TRACE(1, kControlThread, kInfo,
             "[VX DR Feature]: DATA THREAD: Active VXC Server Info: [Host | Port] = [%s | %d]",
             collector.host, collector.port);
    char error[kSockErrorSize] = "";
    const bool lws = overLws(app);
    const bool connected = lws ? create_lws_data_connection(collector.host, collector.port)
                               : vxOpenLink(linkOf(app.data), collector, kSendTimeUs, error);
    if (!connected) {
        VX_TRACE(1, kControlThread, kError, "Error while creating the data connection with %s:%d. Error %s\n",
                 collector.host, collector.port, error);
        if (lws) app.data.dataConnFailCount.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    VX_TRACE(1, kControlThread, kInfo, "Data connection created.");
    if (!lws) get_data_ip_and_port();
    return true;
}

void close_data_connection() {
    vxApplication* app = vxCurrent();
    VXDataState_t& data = app->data;
    VX_UPCALL(dropResetQueueOfInstance, app);
    VX_TRACE(1, kControlThread, kInfo, "Going to close Data connection of %s:%d with %s:%d.\n",
             data.dataConnSourceIP, data.dataConnSourcePort, data.dataConnDestIP, data.dataConnDestPort);
    data.controlCommunicationBusyFlag.store(0, std::memory_order_release);
    vxCloseLink(linkOf(data), data.chain, std::max(vxlb_steady_us() + kSettleTimeUs, data.flushDeadlineUs));
}

bool send_data_con_req_msg_to_vxc() {
    const vxApplication* app = vxCurrent();
    setControlDataReqMessage();
    const VXBCISetting_t& setting = app->VXBCISetting;
    const bool sent =
        sendDirectly(setting.dataMessage, setting.dataMessageLen) && (overLws(*app) || sendDirectly("\n", 1));
    if (!sent)
        VX_TRACE(1, kControlThread, kError,
                 "Unable to send control req message. Going to closing connection");
    return !sent;
}

void get_data_ip_and_port() {
    VXDataState_t& data = vxCurrent()->data;
    if (const VXLwsConnection* connection = data.dataWsi.load(std::memory_order_acquire)) {
        vxLwsEndOf(*connection, true, data.dataConnSourceIP, sizeof(data.dataConnSourceIP),
                   &data.dataConnSourcePort);
        vxLwsEndOf(*connection, false, data.dataConnDestIP, sizeof(data.dataConnDestIP),
                   &data.dataConnDestPort);
        return;
    }
    apr_socket_t* socket = data.dataSocket.get();
    if (!socket) return;
    get_src_addr(socket, data.dataConnSourceIP, sizeof(data.dataConnSourceIP), &data.dataConnSourcePort);
    get_dst_addr(socket, data.dataConnDestIP, sizeof(data.dataConnDestIP), &data.dataConnDestPort);
}

bool announceDataConnection(vxApplication& app) {
    if (overLws(app)) get_data_ip_and_port();
    app.VXSys.dataConnState.store(1, std::memory_order_release);
    VX_TRACE(1, kControlThread, kInfo, "Dumped 99 record, skt = %p,proxy flag:%d,and proxy mode:%d",
             static_cast<void*>(app.data.dataSocket.get()), proxyServerFlag.load(std::memory_order_relaxed),
             app.VXSys.proxyMode);
    // Taken before the replay: an order that comes while it is made is for the next one.
    const bool asked = app.Server.doNotDumpMetaData.exchange(0, std::memory_order_acq_rel) != 0;
    Announcement announcement;
    dumpNewConnectionRecord();
    replayMetadata(app, asked);
    if (vx_word_get(app.VXSys.sendTagRecords)) {
        tag_record();
        attr_record();
    }
    const bool sent = announcement.send();
    if (sent) app.data.replayedThisRun = 1;
    if (!sent && asked) app.Server.doNotDumpMetaData.store(1, std::memory_order_release);
    return sent;
}

void dumpNewConnectionRecord() {
    vxApplication* app = vxCurrent();
    char version[sizeof(app->Server.fpVersionID)];
    vxCopyKeywordText(version, sizeof(version), app->Server.fpVersionID, sizeof(app->Server.fpVersionID));
    char record[kNewConnectionSize];
    VXWriter out(record, sizeof(record) - 1);
    out.number(99).text(",NewConnection,FPGVersion:").recordText(version).endLine();
    dumpData(record, static_cast<std::int64_t>(out.length()));
    app->Server.isTenRecordDump.store(1, std::memory_order_release);
}

void tag_record() {
    const char* tags = vxCurrent()->VXBCISetting.tags.get();
    if (tags && tags[0]) dumpTextRecord(110, tags, "buffer_tag");
}

void attr_record() {
    const char* attributes = vxCurrent()->VXBCISetting.attributes.get();
    if (attributes && std::strlen(attributes) > 2) dumpTextRecord(111, attributes, "buffer_attr");
}

}  // namespace vx
