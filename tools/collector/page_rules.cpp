#include "tools/collector/page_rules.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commonlibc/vxbt/vxbt_rule_execute.h"
#include "commonlibc/vxbt/vxbt_rule_explain.h"
#include "commonlibc/vxbt/vxbt_rule_reading.h"
#include "tools/collector/page_body.h"
#include "tools/collector/page_json.h"
#include "tools/collector/page_preview.h"

namespace vx::collector {

namespace {

constexpr std::size_t kMostUrl = 4096;
constexpr std::size_t kMostMethod = 19;  // as in the service
constexpr const char* kVerdicts[] = {"names", "outdone", "fails", "mute"};
constexpr const char* kDeciding[] = {"patterns", "customs", "global", "default"};

struct Descriptor {
    explicit Descriptor(int opened) : fd(opened) {}
    ~Descriptor() {
        if (fd >= 0) ::close(fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    const int fd;
};

std::string systemError(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

// Tells one text from another; not against somebody who wants to deceive himself.
std::string digestOf(bool present, const std::string& text) {
    if (!present) return "none";
    std::uint64_t hash = 0xcbf29ce484222325;
    for (const char byte : text) hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
    char digits[17];
    std::snprintf(digits, sizeof(digits), "%016llx", static_cast<unsigned long long>(hash));
    return digits;
}

const char* kindWords(const VXReadLine& line) {
    return line.type == 0 && line.fault.empty() ? "comment" : vxRuleKindWords(line.type);
}

JsonText& putLine(JsonText& json, const VXReadLine& line) {
    return json.open('{').put("number", line.number).put("kind", kindWords(line)).put("text", line.text);
}

// Members of an object: what the last text of a reading means.
void putReading(JsonText& json, const VXRuleReading& reading) {
    json.put("deciding", kDeciding[static_cast<int>(reading.deciding())]);
    json.put("decidingWords", reading.decidingWords());
    json.key("lines").open('[');
    for (const VXReadLine& line : reading.lines()) {
        putLine(json, line).put("meaning", line.meaning);
        json.putKnown("fault", !line.fault.empty(), line.fault).close();
    }
    json.close().putObjects("warnings", reading.warnings(), [&](const VXRuleWarning& warning) {
        json.put("line", warning.line).put("text", warning.text);
    });
}

// Why a file must not be replaced; empty: it may be.
std::string lockOf(const std::string& folder, const std::string& path) {
    struct stat status {};
    if (::access(folder.c_str(), W_OK | X_OK) != 0) return systemError(folder);
    if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT ? "" : systemError(path);
    if (S_ISLNK(status.st_mode)) return path + " is a link: it is edited where it leads";
    return status.st_mode & 0222 ? "" : path + " is read-only";  // also for whoever could write it anyhow
}

// Writes beside the file and renames; what was there stays whole until then.
bool replaceFile(const std::string& folder, const std::string& name, const std::string& text,
                 std::int64_t& version, std::string& error) {
    const std::string path = folder + "/" + name;
    std::string beside = folder + "/." + name + ".XXXXXX";  // a dot: not handed out meanwhile
    const Descriptor file(::mkostemp(beside.data(), O_CLOEXEC));
    if (file.fd < 0) {
        error = systemError(folder);
        return false;
    }
    struct stat before {};
    const bool replaces = ::stat(path.c_str(), &before) == 0;
    const mode_t mode = replaces ? before.st_mode & 07777 : 0644;
    if (replaces && ::fchown(file.fd, before.st_uid, before.st_gid) != 0) errno = 0;  // as far as may be
    bool good = ::fchmod(file.fd, mode) == 0;
    for (std::size_t at = 0; good && at < text.size();) {
        const ssize_t put = ::write(file.fd, text.data() + at, text.size() - at);
        if (put > 0) at += static_cast<std::size_t>(put);
        good = put > 0 || errno == EINTR;
    }
    struct stat after {};
    good = good && ::fsync(file.fd) == 0 && ::fstat(file.fd, &after) == 0 &&
           ::rename(beside.c_str(), path.c_str()) == 0;
    if (!good) {
        error = systemError(path);
        ::unlink(beside.c_str());
        return false;
    }
    version = lmdOf(after);
    const Descriptor parent(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (parent.fd >= 0) ::fsync(parent.fd);
    return true;
}

// Reads the body of a request; an answer with a fault when it cannot be used.
bool takeBody(const PageRequest& request, RuleBody& body, PageAnswer& fault) {
    std::string error;
    if (!readRuleBody(request.body, body, error)) {
        fault = pageFault(400, error);
    } else if (body.text && body.text->size() > kMostRulesText) {
        fault = pageFault(413, "a rule text of more than 256 KB is edited in its file");
    } else if (body.text && body.text->find('\0') != std::string::npos) {
        fault = pageFault(400, "the text has a zero byte");
    } else {
        return true;
    }
    return false;
}

PageAnswer explained(VXRuleReading& reading, const RuleBody& body) {
    const VXUrlParts parts = vxSplitUrl(*body.url);
    const VXRuleRequest asked{std::string(parts.path), body.query ? *body.query : std::string(parts.query),
                              body.method.value_or(std::string(parts.method)).substr(0, kMostMethod)};
    const VXExplanation got =
        vxExplainRequest(reading, asked, body.headers ? body.headers->c_str() : nullptr);
    JsonText json;
    json.open('{').putKnown("bt", !got.answer.bt.empty(), got.answer.bt);
    json.put("btId", got.answer.id)
        .put("excluded", got.answer.bt.empty())
        .put("line", got.line)
        .put("why", got.why);
    json.put("deciding", kDeciding[static_cast<int>(reading.deciding())]).key("lines").open('[');
    for (std::size_t i = 0; i < got.lines.size(); ++i)
        putLine(json, reading.lines()[i])
            .put("outcome", kVerdicts[static_cast<int>(got.lines[i].verdict)])
            .put("reason", got.lines[i].reason)
            .close();
    json.close().close();
    return jsonAnswer(json);
}

}  // namespace

PageRules::Held PageRules::held() const {
    Held out;
    if (folder_.empty()) return out;
    out.locked = lockOf(folder_, path());
    const Descriptor file(::open(path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.fd < 0) {
        if (errno != ENOENT) out.fault = systemError(path());
        return out;
    }
    struct stat status {};
    out.present = true;
    if (::fstat(file.fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        out.fault = path() + ": no regular file";
        return out;
    }
    out.version = lmdOf(status);
    char part[16384];
    for (ssize_t got = 0; (got = ::read(file.fd, part, sizeof(part))) > 0;) {
        out.text.append(part, static_cast<std::size_t>(got));
        if (out.text.size() <= kMostRulesText) continue;
        out.text.clear();
        out.fault = "a rule text of more than 256 KB is edited in its file";
        return out;
    }
    return out;
}

PageAnswer PageRules::show() const {
    const Held now = held();
    VXRuleReading reading;
    if (!reading.good() || !reading.read(now.text)) return pageFault(503, "out of memory");
    JsonText json;
    const std::string& fault = now.fault.empty() ? now.locked : now.fault;
    json.open('{').put("editable", editable() && fault.empty()).put("present", now.present);
    json.put("name", kRulesFile).put("text", now.text).put("digest", digestOf(now.present, now.text));
    json.putKnown("version", now.present, now.version).putKnown("fault", !fault.empty(), fault);
    putReading(json, reading);
    json.close();
    return jsonAnswer(json);
}

PageAnswer PageRules::tryOut(const PageRequest& request) const {
    RuleBody body;
    PageAnswer fault;
    if (!takeBody(request, body, fault)) return fault;
    if (!body.url || body.url->empty() || body.url->size() > kMostUrl)
        return pageFault(400, "'url' is missing, or longer than 4096 bytes");
    const Held now = held();
    if (!body.text && !now.fault.empty()) return pageFault(423, now.fault);
    VXRuleReading reading;
    if (!reading.good() || !reading.read(body.text ? *body.text : now.text))
        return pageFault(503, "out of memory");
    return explained(reading, body);
}

PageAnswer PageRules::preview(const PageRequest& request) const {
    RuleBody body;
    PageAnswer fault;
    if (!takeBody(request, body, fault)) return fault;
    if (!body.text) return pageFault(400, "'text' is missing");
    const Held now = held();
    if (!now.fault.empty()) return pageFault(423, now.fault);
    std::vector<RequestRow> requests;
    const bool had = recent_ && recent_(kPreviewed, requests);
    RulePreview preview;
    if (!makePreview(now.present ? &now.text : nullptr, *body.text, requests, preview))
        return pageFault(503, "out of memory");
    if (!had) preview.notes.emplace_back("There is no store to take requests from.");
    if (!now.present)
        preview.notes.emplace_back(
            "No rules are handed out: requests are compared with the BT that they have.");
    JsonText json;
    json.open('{');
    putReading(json, *preview.reading);
    putPreview(json, preview);
    json.close();
    return jsonAnswer(json);
}

PageAnswer PageRules::save(const PageRequest& request) const {
    RuleBody body;
    PageAnswer fault;
    if (!editable()) return pageFault(423, "the collector hands out no files: start it with --files");
    if (!takeBody(request, body, fault)) return fault;
    if (!body.text || !body.digest) return pageFault(400, "'text' or 'digest' is missing");
    const Held now = held();
    for (const std::string& why : {now.fault, now.locked})
        if (!why.empty()) return pageFault(423, why);
    if (digestOf(now.present, now.text) != *body.digest)
        return pageFault(409, "the rules have changed since they were read: read them again");
    std::string error;
    std::int64_t version = 0;
    if (!replaceFile(folder_, kRulesFile, *body.text, version, error)) return pageFault(500, error);
    JsonText json;
    json.open('{').put("saved", true).put("digest", digestOf(true, *body.text));
    json.put("version", version).close();
    return jsonAnswer(json);
}

}  // namespace vx::collector
