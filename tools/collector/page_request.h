// A request for the web page or its data, and its answer, without a socket.
//
// Limits    As the server sets them (page_server).
// Threads   Any; no state.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vx::collector {

class JsonText;

struct PageRequest {
    bool post = false;
    std::string path;                                            // decoded, without the query
    std::vector<std::pair<std::string, std::string>> arguments;  // of the query, decoded
    std::string body;
    // Headers; empty: not there.
    std::string host, origin, contentType, authorization, cookie;
};

struct PageAnswer {
    int status = 200;
    std::string type = "application/json";
    std::string body;
    std::string_view bytes;  // in place of the body: of the program itself
    std::string location, setCookie;
};

// How long a question takes, as far as its words tell: whether it is answered at once or waits for its turn.
enum class PageTurn { kNow, kSoon, kLate };

// {"error": why}
PageAnswer pageFault(int status, std::string_view why);
// What was written; a fault when it is too large.
PageAnswer jsonAnswer(JsonText& json);

// Undoes "%41" and "+"; a "%" without two digits stays.
std::string decodeUrl(std::string_view text);
// Takes "name=value&name=value" apart.
std::vector<std::pair<std::string, std::string>> formFields(std::string_view text);

// The parameters of a request. What cannot be read is remembered: ask fault() before acting on any.
class PageParameters {
public:
    explicit PageParameters(const PageRequest& request) : request_(request) {}

    // Empty where it is not there.
    std::string_view text(std::string_view name) const;
    // A number in that range, or `otherwise` where it is not there.
    std::int64_t number(std::string_view name, std::int64_t otherwise, std::int64_t least, std::int64_t most);
    // Empty: none.
    const std::string& fault() const { return fault_; }
    void refuse(std::string_view name) { fault_ = "bad value of parameter '" + std::string(name) + "'"; }

private:
    const PageRequest& request_;
    std::string fault_;
};

}  // namespace vx::collector
