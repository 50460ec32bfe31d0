#include "tools/collector/collector_capture.h"

namespace vx::collector {

namespace {

// "3:<text/html>|4:17": ids of headers with their values, or with the ids that stand for these.
bool keepHeaders(std::string_view items, const Names& headers, std::vector<std::string>& kept) {
    while (!items.empty()) {
        std::string_view item = takeUntil(items, '|');
        std::int64_t id = 0, valueId = 0;
        if (!takeNumber(item, id) || !takeChar(item, ':')) return false;
        const bool isText = item.size() > 1 && item.front() == '<' && item.back() == '>';
        if (!isText && !readNumber(item, valueId)) return false;
        if (kept.size() >= kKeptHeaders) continue;
        const std::string value =
            isText ? plainName(item.substr(1, item.size() - 2)) : nameOf(headers, valueId, "value");
        kept.push_back(nameOf(headers, id, "header") + ": " + value);
    }
    return true;
}

std::string partOf(const InstanceState& instance, ExceptionPart part, std::int64_t id) {
    return knownName(instance.exceptionParts[static_cast<std::size_t>(part)], id, "");
}

}  // namespace

std::string exceptionText(const std::string& throwingClass, const std::string& method,
                          const std::string& message, const std::string& cause) {
    std::string out = "in " + (method.empty() ? "?" : method);
    if (!throwingClass.empty() && throwingClass != "-") out.append(" of ").append(throwingClass);
    if (!message.empty()) out.append(": ").append(message);
    if (!cause.empty()) out.append(", because of ").append(cause);
    return out;
}

// "%7C", "%20" and "%2C" are undone; each line ends with a newline. Cut at kKeptStack bytes.
std::string plainStack(std::string_view text) {
    std::string out;
    for (std::size_t at = 0; at < text.size() && out.size() < kKeptStack; ++at) {
        const std::string_view code = text.substr(at, 3);
        const char byte = code == "%7C" ? '\n' : code == "%20" ? ' ' : code == "%2C" ? ',' : '\0';
        out += byte ? byte : text[at];
        if (byte) at += 2;
    }
    if (!out.empty() && out.back() != '\n') out += '\n';
    return out;
}

// "instance,items"
bool takeRequestHeaders(std::string_view rest, InstanceState& instance, Summary& summary) {
    std::int64_t flowpath = 0;
    return readFlowpath(takeUntil(rest, ','), flowpath) &&
           keepHeaders(rest, instance.headers, summary.kept.of(flowpath).request);
}

// "instance,status,items"
bool takeResponseHeaders(std::string_view rest, InstanceState& instance, Summary& summary) {
    std::int64_t flowpath = 0, status = 0;
    return readFlowpath(takeUntil(rest, ','), flowpath) && readNumber(takeUntil(rest, ','), status) &&
           keepHeaders(rest, instance.headers, summary.kept.of(flowpath).response);
}

// "instance,time,method,seq,-1,-1,class,throwing class,throwing method,number,message,cause,stack"
bool takeException(std::string_view rest, InstanceState& instance, Summary& summary) {
    enum { kTime, kMethod, kSeq, kOne, kTwo, kClass, kThrower, kIn, kNumber, kMessage, kCause, kFields };
    std::int64_t flowpath = 0;
    if (!readFlowpath(takeUntil(rest, ','), flowpath)) return false;
    std::array<std::int64_t, kFields> field{};
    for (std::int64_t& value : field)
        if (!readNumber(takeUntil(rest, ','), value)) return false;
    KeptException thrown;
    thrown.name =
        field[kClass] < 0 ? "(no class)" : nameOf(instance.exceptionParts[0], field[kClass], "exception");
    thrown.text = exceptionText(partOf(instance, ExceptionPart::kThrowingClass, field[kThrower]),
                                partOf(instance, ExceptionPart::kThrowingMethod, field[kIn]),
                                partOf(instance, ExceptionPart::kMessage, field[kMessage]),
                                partOf(instance, ExceptionPart::kCause, field[kCause]));
    thrown.stack = plainStack(rest);
    ExceptionRow& row = exceptionRow(summary, thrown.name);
    ++row.count;
    row.lastText = thrown.text;
    if (!thrown.stack.empty()) row.lastStack = thrown.stack;
    addSingle(instance.run, Monitored::kException, exceptionId(instance.run, thrown.name), oneOf(0));
    KeptTransaction& kept = summary.kept.of(flowpath);
    if (kept.exceptions.size() < kKeptExceptions) kept.exceptions.push_back(std::move(thrown));
    return true;
}

}  // namespace vx::collector
