#include "commonlibc/VXParsingFiles.h"

#include <cstdio>
#include <cstring>

#include "commonlibc/VXMetadataReplay.h"
#include "commonlibc/VXMethodClasses.h"
#include "commonlibc/VXMethodManager.h"
#include "commonlibc/VXParsingLines.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/backend/VXBackendMonitor.h"
#include "commonlibc/mm/VXMethodMonitor.h"
#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vxbt/vxbt_utils.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
constexpr int kPortion = 64;  // lines per turn of the lock
constexpr std::int64_t kPauseUs = 50;
constexpr std::size_t kPathSize = 1024;
constexpr std::size_t kSecondNameSize = kMaxTextLine + 16;
constexpr int kMethodsRecord = 5;
constexpr std::uint8_t kSubtypeCustom = 8;
constexpr const char* kStateMachineMethod = "MoveNext";

// What the parsers share of one text.
struct Delivery {
    vxApplication& app;
    methodHashMapNode_t* table;
    VXMethodDelivery classes;
    bool replayComes;  // a replay behind this text tells the collector of every method in use
};

struct EntryLine {
    VXSignature signature;
    const char *module, *callout, *calloutText, *flag;
    int value;
};
struct MonitorLine {
    const char *module, *method, *alias;
};
struct ProfileLine {
    VXSignature signature;
    std::uint8_t subtype;
    std::uint32_t entry;
    bool hasStatus;
    std::int32_t status;
};

bool tellsAtEnd(const vxApplication& app) {
    return app.Server.runtimeChange.load(relaxed) && !app.Server.fileUpdatedAtRuntime &&
           app.data.data_thread_running.load(relaxed);
}

// A run that has not begun, or whose stream does not stand yet, is told by the replay behind its 99 record.
Delivery beginDelivery(int kind) {
    vxApplication& app = *vxCurrent();
    VXMethodLock lock;
    methodHashMapNode_t* table = vxMethodTable();
    return {app, table, makeHashmapCopyAndaddToLL(kind),
            !app.data.data_thread_running.load(relaxed) || tellsAtEnd(app)};
}

void tellCollector(Delivery& delivery) {
    if (!tellsAtEnd(delivery.app)) return;
    delivery.app.Server.fileUpdatedAtRuntime = 1;
    VX_TRACE(1, kControlThread, kInfo, "Going to dump 5 record at RTC.");
    dump11Record(kMethodsRecord);
    collectAndSendOnlyCached5Records(0, 1);
}

// An operator's copy of a text, in the folder of the settings.
void keepText(const vxApplication& app, const char* fileName, const char* text, std::size_t length) {
    if (!app.method.keepsFiles || !app.method.keepsFilesHere) return;
    char folder[kPathSize];
    char path[kPathSize];
    vx_path_join(folder, sizeof(folder), getVXHome(), "config");
    vx_path_join(path, sizeof(path), folder, fileName);
    const VXFile file(std::fopen(path, "wb"));
    if (!file || std::fwrite(text, 1, length, file.get()) != length)
        VX_TRACE(1, kControlThread, kError, "'%s' cannot be written", path);
}

// Splits lines outside the lock and applies what is well-formed under it.
template <class Line>
void readLines(Delivery& delivery, char* text, bool (*split)(char*, Line&),
               void (*apply)(Delivery&, const Line&)) {
    VXTextLines lines(text);
    Line portion[kPortion];
    for (char* line = lines.next(); line;) {
        int count = 0;
        for (; line && count < kPortion; line = lines.next())
            if (split(line, portion[count])) ++count;
        {
            VXMethodLock lock;
            for (int i = 0; i < count; ++i) apply(delivery, portion[i]);
        }
        if (line) vxlb_sleep_us(kPauseUs);  // lets in who waits for the lock
    }
}

bool splitEntry(char* text, EntryLine& line) {
    constexpr int kFields = 4;
    char* field[kFields + 1];
    if (vxlb_split_keep_empty(text, field, "|", kFields + 1) < kFields) return false;
    line = {vxSplitSignature(field[1]), field[0], field[2], nullptr, field[3], 1};
    if (char* colon = std::strchr(field[2], ':')) {
        *colon = '\0';
        line.calloutText = colon + 1;
        line.value = vxbt_int(colon + 1);
    }
    return *line.signature.name != '\0';
}

// The record under which calls of a custom callout are counted. Lock held.
void makeSecondRecord(Delivery& delivery, mPP& method) {
    mPP* second = method.customBackend.load(relaxed);
    if (!second) {
        char name[kSecondNameSize];
        std::snprintf(name, sizeof(name), "CUSTOM_%s", method.methodName);
        second = vxSearchMethod(delivery.table, name);
        if (!second) second = updateMethodHashMap(name, kTypeCustom, delivery.table->map, kSubtypeCustom);
        if (!second) return;
        method.customBackend.store(second, std::memory_order_release);
    }
    VXMethodClass methodClass = vxTakeClass(*second, delivery.classes);
    methodClass.subtype = kSubtypeCustom;
    vxPutClass(*second, methodClass);
    checkAndIncrementAggrBackendDataArray(second);
}

// Classifies a method by its line. Lock held.
void classifyEntry(Delivery& delivery, mPP& method, const EntryLine& line) {
    VXMethodClass methodClass = vxTakeClass(method, delivery.classes);
    vxClassify(methodClass, line.callout, line.value);
    if (std::strcmp(line.flag, "1") == 0) methodClass.flags |= kMethodEntryPoint;
    if (methodClass.flags & kMethodCustomBackend) makeSecondRecord(delivery, method);
    if (methodClass.flags & kMethodBackend) checkAndIncrementAggrBackendDataArray(&method);
    vxPutClass(method, methodClass);
}

void addEntry(Delivery& delivery, const EntryLine& line) {
    mPP* method = vxNewMethod(line.signature.name, kTypePlain, 0);
    if (!method) return;
    method->moduleName = vxlb_strdup(line.module);
    method->calloutText = vxlb_strdup(line.calloutText);
    method->returnType = vxlb_strdup(line.signature.returnType);
    method->arguments = make_argument_copy(line.signature.arguments, &method->argumentCount);
    classifyEntry(delivery, *method, line);
    method->usedFlag.store(delivery.replayComes, relaxed);
    vxFileMethod(method, delivery.table->map);
}

void applyEntry(Delivery& delivery, const EntryLine& line) {
    if (*line.flag == '0') return;
    if (mPP* known = vxSearchMethod(delivery.table, line.signature.name)) {
        classifyEntry(delivery, *known, line);
    } else {
        addEntry(delivery, line);
    }
}

// The back-end of database calls without a name stays one, whatever the text says. Lock held.
void keepSqlDb(Delivery& delivery) {
    mPP* database = vxFixSqlDb(delivery.table);
    if (!database) return;
    VXMethodClass methodClass = vxTakeClass(*database, delivery.classes);
    vxClassify(methodClass, kSqlCallout, 0);
    vxPutClass(*database, methodClass);
    if (delivery.replayComes) {
        database->usedFlag.store(1, relaxed);
    } else {
        markMethodUsed(database);
    }
}

bool splitMonitor(char* text, MonitorLine& line) {
    constexpr int kFields = 3;
    char* field[kFields + 1];
    if (vxlb_split_keep_empty(text, field, "|", kFields + 1) < kFields) return false;
    line = {field[0], field[1], field[2]};
    return *line.method != '\0';
}

mPP* addMonitored(const MonitorLine& line, VXMap* map) {
    mPP* method = vxNewMethod(line.method, kTypeMonitored, 0);
    if (!method) return nullptr;
    method->moduleName = vxlb_strdup(line.module);
    vxFileMethod(method, map);
    return method;
}

void applyMonitor(Delivery& delivery, const MonitorLine& line) {
    mPP* method = vxSearchMethod(delivery.table, line.method);
    if (method) {
        method->instrumentationProp = kPropMonitored;
    } else {
        method = addMonitored(line, delivery.table->map);
        if (!method) return;
    }
    VXMethodClass methodClass = vxTakeClass(*method, delivery.classes);
    if (methodClass.type == kTypePlain) methodClass.type = kTypeMonitored;
    methodClass.flags |= kMethodMonitored;
    setSharedText(delivery.app.retired, method->aliasMethodName, *line.alias ? line.alias : nullptr);
    checkAndIncrementAggrMethodDataArray(method);
    vxPutClass(*method, methodClass);
    VX_TRACE(2, kMethodMon, kInfo,
             "methodname = %s, aliasMethodName = %s, isEntryPoint = %d, methodId = %dinstrumentationProp = "
             "%d, instrumentationStatus = %d",
             method->methodName, line.alias, static_cast<int>(methodClass.flags),
             static_cast<int>(method->methodId.load(relaxed)), method->instrumentationProp,
             method->instrumentationStatus);
}

// "module|class|method" become one name in place: the fields lie side by side.
char* joinName(char* const* field) {
    char* const methodField = field[2];
    if (*methodField == '\0') return field[1];
    methodField[-1] = '.';
    if (*field[0] == '\0' || std::strcmp(methodField, kStateMachineMethod) != 0) return field[1];
    field[1][-1] = '.';
    return field[0];
}

bool splitProfile(char* text, ProfileLine& line) {
    constexpr int kFields = 5, kExtra = 6;
    char* field[kExtra + 1];
    const int count = vxlb_split_keep_empty(text, field, "|", kExtra + 1);
    if (count < kFields) return false;
    const int flag = vxbt_int(field[3]);
    if (flag == 0) return false;
    line.signature = vxSplitSignature(joinName(field));
    line.subtype = static_cast<std::uint8_t>(flag);
    line.entry = static_cast<std::uint32_t>(vxbt_int(field[4]));
    line.hasStatus = count >= kExtra;
    line.status = line.hasStatus ? vxbt_int(field[5]) : 0;
    return *line.signature.name != '\0';
}

void addProfiled(Delivery& delivery, const ProfileLine& line) {
    mPP* method = vxNewMethod(line.signature.name, kTypePlain, line.subtype);
    if (!method) return;
    method->isEntryPointPtr.store(line.entry, relaxed);
    if (line.hasStatus) method->instrumentationStatus = line.status;
    method->returnType = vxlb_strdup(line.signature.returnType);
    method->arguments = make_argument_copy(line.signature.arguments, &method->argumentCount);
    vxFileMethod(method, delivery.table->map);
    VX_TRACE(2, kControlThread, kInfo,
             "Method = '%s', isEntryPointPtr = '%d'  MethodId = '%d', usedFlag = %d, instrumentationProp = "
             "%d, instrumentationStatus = %d",
             method->methodName, static_cast<int>(line.entry),
             static_cast<int>(method->methodId.load(relaxed)), 0, method->instrumentationProp,
             method->instrumentationStatus);
}

// A known method keeps what other texts have said of it: its callout, its monitor.
void applyProfile(Delivery& delivery, const ProfileLine& line) {
    mPP* known = vxSearchMethod(delivery.table, line.signature.name);
    if (!known) {
        addProfiled(delivery, line);
        return;
    }
    VXMethodClass methodClass = vxTakeClass(*known, delivery.classes);
    methodClass.flags = (methodClass.flags & ~kMethodEntryPoint) | (line.entry & kMethodEntryPoint);
    if (methodClass.type == kTypePlain) methodClass.subtype = line.subtype;
    vxPutClass(*known, methodClass);
    known->usedFlag.store(0, relaxed);
}

// Lock held.
void keepBeginRequest(Delivery& delivery) {
    mPP* begin = vxFixBeginRequest(delivery.table);
    if (!begin) return;
    vxPutClass(*begin, vxTakeClass(*begin, delivery.classes));
    if (delivery.replayComes) {
        begin->usedFlag.store(1, relaxed);
    } else {
        markMethodUsed(begin);
    }
}

void endDelivery(Delivery& delivery, void (*keepFixed)(Delivery&)) {
    if (keepFixed) {
        VXMethodLock lock;
        keepFixed(delivery);
    }
    vxEndDelivery(delivery.classes);
    tellCollector(delivery);
}

}  // namespace

void parseEntryFile(char* text) {
    if (!text) return;
    Delivery delivery = beginDelivery(kTextEntryPoints);
    if (!delivery.table) return;
    const std::size_t length = std::strlen(text);
    keepText(delivery.app, "entryPointFile.txt", text, length > 0 ? length - 1 : 0);
    readLines<EntryLine>(delivery, text, splitEntry, applyEntry);
    endDelivery(delivery, keepSqlDb);
}

void parseMethodMonitor(char* text) {
    if (!text) return;
    Delivery delivery = beginDelivery(kTextMonitor);
    if (!delivery.table) return;
    readLines<MonitorLine>(delivery, text, splitMonitor, applyMonitor);
    endDelivery(delivery, nullptr);
}

void setMethodHashMapNode(char* text) {
    char none[] = "";
    readInstrProfFileRTC(text ? text : none);
}

void readInstrProfFileRTC(char* text) {
    Delivery delivery = beginDelivery(kTextProfile);
    if (!delivery.table) return;
    keepText(delivery.app, "instrProfile.txt", text, std::strlen(text));
    readLines<ProfileLine>(delivery, text, splitProfile, applyProfile);
    endDelivery(delivery, keepBeginRequest);
}

}  // namespace vx
