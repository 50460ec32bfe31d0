#include "commonlibc/vxbt/vxbt_state_machine.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

#include "commonlibc/vxlb_mem.h"

namespace vx {

namespace {

constexpr const char* kBlockName = "state_machine";
constexpr std::int32_t kGrowthStep = 128, kRowGrowth = 16;
constexpr std::int32_t kNothing = -1;  // the answer where nothing is found

using Machine = vxlb_state_machine;

bool allInRange(std::string_view text) {
    return std::all_of(text.begin(), text.end(), vxlb_state_machine_takes);
}

bool growStates(Machine& machine, std::int32_t capacity) {
    const auto count = static_cast<std::size_t>(capacity);
    void* block =
        VXLB_REALLOC(machine.states, count * sizeof(vxlb_machine_state), kBlockName, machine.nextState);
    if (!block) return false;
    machine.states = static_cast<vxlb_machine_state*>(block);
    const auto held = static_cast<std::size_t>(machine.capacity);
    std::memset(machine.states + held, 0, (count - held) * sizeof(vxlb_machine_state));
    machine.capacity = capacity;
    return true;
}

bool growRows(Machine& machine, std::int32_t capacity) {
    void* block = VXLB_REALLOC(machine.rows, static_cast<std::size_t>(capacity) * sizeof(*machine.rows),
                               kBlockName, machine.rowCount);
    if (!block) return false;
    machine.rows = static_cast<std::int32_t(*)[kMachineChars]>(block);
    machine.rowCapacity = capacity;
    return true;
}

// Room for a rule of `length` characters: that many states and, since its path leaves the others at one state
// only, one row.
bool reserve(Machine& machine, std::size_t length) {
    if (length > static_cast<std::size_t>(kMachineStatesLimit - machine.nextState - 1)) return false;
    const std::int32_t needed = machine.nextState + 1 + static_cast<std::int32_t>(length);
    if (machine.capacity < needed) {
        const std::int32_t grown = machine.capacity + std::max(machine.growthStep, machine.capacity / 2);
        if (!growStates(machine, std::max(needed, grown))) return false;
    }
    if (machine.rowCount < machine.rowCapacity) return true;
    return growRows(machine, machine.rowCapacity + std::max(kRowGrowth, machine.rowCapacity / 2));
}

void moveToRow(Machine& machine, vxlb_machine_state& state) {
    std::int32_t(&row)[kMachineChars] = machine.rows[machine.rowCount];
    std::fill(std::begin(row), std::end(row), 0);
    row[state.sole - kMachineFirstChar] = state.next;
    state.sole = kStateHasRow;
    state.next = machine.rowCount++;
}

// The state behind `c`, made where there is none; reserve() has found room for it.
std::int32_t follow(Machine& machine, std::int32_t from, char c) {
    if (const std::int32_t next = vxlb_state_machine_next(machine, from, c)) return next;
    vxlb_machine_state& state = machine.states[from];
    if (!state.sole) {
        state.sole = static_cast<std::uint8_t>(c);
        return state.next = machine.nextState++;
    }
    if (state.sole != kStateHasRow) moveToRow(machine, state);
    return machine.rows[state.next][c - kMachineFirstChar] = machine.nextState++;
}

std::int32_t followAll(Machine& machine, std::int32_t from, std::string_view text) {
    for (const char c : text) from = follow(machine, from, c);
    return from;
}

void setId(vxlb_machine_state& state, std::int32_t id, std::int32_t matchType) {
    (matchType == 1 ? state.partial : state.exact) = id;
}

// Stores a pattern; the state of its last plain character. An id is set where the rule ends with its pattern.
std::int32_t addPattern(Machine& machine, std::string_view pattern, std::int32_t id, std::int32_t matchType,
                        bool endsHere) {
    std::int32_t state = 0;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '*') {
            i = std::min(pattern.find_first_not_of('*', i), pattern.size());
            if (i == pattern.size()) {  // nothing has to follow: the text may end before it
                if (endsHere) machine.states[state].exact = id;
                if (endsHere && matchType == 1) machine.states[state].partial = id;
                return state;
            }
            machine.states[state].wild = 1;
        }
        state = follow(machine, state, pattern[i]);
    }
    if (endsHere) setId(machine.states[state], id, matchType);
    return state;
}

// What a walk is about, beside the machine: texts may be null.
struct Request {
    const Machine& machine;
    const char* query;
    const char* method;

    const vxlb_machine_state& state(std::int32_t s) const { return machine.states[s]; }
};

std::int32_t idOr(std::int32_t id, std::int32_t otherwise) {
    return id ? id : otherwise;
}

// `skipped`: a "*" was needed on the way, so that exact ids do not count.
std::int32_t walkMethod(const Request& request, std::int32_t s, std::int32_t otherwise, bool skipped) {
    if (!request.method || !*request.method) return otherwise;
    for (const char* at = request.method; *at; ++at) {
        if (!vxlb_state_machine_takes(*at)) return kNothing;
        s = vxlb_state_machine_next(request.machine, s, *at);
        if (!s) return otherwise;
    }
    const vxlb_machine_state& last = request.state(s);
    if (last.exact && !skipped) return last.exact;
    return idOr(last.partial, otherwise);
}

// The method that hangs on `s`; where it finds nothing the walk's default is gone.
std::int32_t methodOf(const Request& request, std::int32_t s, std::int32_t& otherwise, bool skipped) {
    if (!request.state(s).hasMethod) return kNothing;
    const std::int32_t found = walkMethod(request, s, otherwise, skipped);
    if (found == kNothing) otherwise = kNothing;
    return found;
}

// The rule of a parameter that is complete at `s`.
std::int32_t parameterAt(const Request& request, std::int32_t s, std::int32_t& otherwise, bool skipped) {
    const std::int32_t found = methodOf(request, s, otherwise, skipped);
    if (found != kNothing) return found;
    const vxlb_machine_state& state = request.state(s);
    if (state.exact && !skipped) return state.exact;
    return idOr(state.partial, kNothing);
}

// A character of the query without a transition: what the name before the last "=" says, or the rule of any
// URL. `equals` is the state behind that "=", 0: none was met.
std::int32_t parameterMissed(const Request& request, std::int32_t equals, std::int32_t& otherwise,
                             bool skipped) {
    if (equals) {
        const std::int32_t found = methodOf(request, equals, otherwise, skipped);
        if (found != kNothing) return found;
        const std::int32_t exact = request.state(equals).exact;
        if (exact && !skipped) return exact;
    }
    return idOr(request.state(0).partial, kNothing);
}

// Matches one parameter of the query after the other against the states behind `start`.
std::int32_t walkQuery(const Request& request, std::int32_t start, std::int32_t otherwise, bool skipped) {
    std::int32_t s = start, equals = 0;
    char previous = '&';
    for (const char* at = request.query; *at; previous = *at++) {
        const char c = *at;
        if (!vxlb_state_machine_takes(c)) return kNothing;
        const std::int32_t next = vxlb_state_machine_next(request.machine, s, c);
        if (!next) {
            std::int32_t found = kNothing;
            if (c == '&' && s != start) found = parameterAt(request, s, otherwise, skipped);
            if (found == kNothing) found = parameterMissed(request, equals, otherwise, skipped);
            if (found != kNothing) return found;
            s = start;
        } else if (previous == '&' || s != start) {  // a parameter begins here, or goes on
            if (c == '=') equals = next;
            s = next;
            if (c != '&' && at[1]) continue;
            const std::int32_t found = parameterAt(request, s, otherwise, skipped);
            if (found != kNothing) return found;
        }
    }
    return otherwise;
}

// The answer at state `s`, which the last character of the URL has led to.
std::int32_t endOfUrl(const Request& request, std::int32_t s, std::int32_t best, bool skipped) {
    const vxlb_machine_state& state = request.state(s);
    std::int32_t found = kNothing;
    if (state.wild && request.query) {
        found = walkQuery(request, s, best, skipped);
        if (found == kNothing && state.hasMethod) found = walkMethod(request, s, kNothing, skipped);
    } else if (state.hasMethod) {
        found = walkMethod(request, s, best, skipped);
    } else {
        return idOr(state.exact, idOr(state.partial, best));
    }
    if (found != kNothing) return found;
    if (state.exact && !skipped) return state.exact;
    return idOr(state.partial, kNothing);
}

// The answer where the URL leaves the patterns at `s`.
std::int32_t leaveAt(const Request& request, std::int32_t s, std::int32_t best) {
    const vxlb_machine_state& state = request.state(s);
    if (!state.hasMethod) return best;
    const std::int32_t found = walkMethod(request, s, best, true);
    return found != kNothing ? found : idOr(state.partial, kNothing);
}

// The answer where the "*" of state `s` has taken the last character of the URL.
std::int32_t endOfWild(const Request& request, std::int32_t s, std::int32_t best) {
    if (!request.query) return best;
    const std::int32_t found = walkQuery(request, s, best, true);
    return found != kNothing ? found : idOr(request.state(s).partial, kNothing);
}

std::int32_t walkUrl(const Request& request, const char* url, std::int64_t length) {
    const vxlb_machine_state* states = request.machine.states;
    std::int32_t best = idOr(states->partial, kNothing);
    std::int32_t s = 0, anchor = 0;
    std::int64_t sinceAnchor = 0;  // characters matched behind it
    bool anchored = states->wild, skipped = false;
    for (std::int64_t i = 0; i < length; ++i) {
        if (!vxlb_state_machine_takes(url[i])) return kNothing;
        if (const std::int32_t next = vxlb_state_machine_next(request.machine, s, url[i])) {
            if (i + 1 == length) return endOfUrl(request, next, best, skipped);
            s = next;
            ++sinceAnchor;
            best = idOr(states[s].partial, best);
            if (states[s].wild) {
                anchor = s;
                anchored = true;
                sinceAnchor = 0;
            }
            continue;
        }
        skipped = true;
        if (!anchored) return leaveAt(request, s, best);
        i -= sinceAnchor;  // the "*" takes one character more
        sinceAnchor = 0;
        s = anchor;
        if (i + 1 == length) return endOfWild(request, s, best);
    }
    return best;
}

}  // namespace

int vxlb_state_machine_init(vxlb_state_machine* machine, std::int32_t maxStates) {
    if (!machine) return -1;
    vxlb_state_machine_free(machine);
    machine->growthStep = kGrowthStep;
    if (!growStates(*machine, maxStates > 0 ? std::min(maxStates, kMaxStatesLimit) : kDefaultMaxStates))
        return -1;
    machine->nextState = 1;
    return 0;
}

void vxlb_state_machine_free(vxlb_state_machine* machine) {
    if (!machine) return;
    VXLB_FREE(machine->states, "state_machine Free", -1);
    VXLB_FREE(machine->rows, "state_machine Free", -1);
    *machine = {};
}

int vxlb_state_machine_add(vxlb_state_machine* machine, const char* pattern, std::size_t patternLength,
                           const char* second, std::size_t secondLength, std::int32_t id,
                           std::int32_t matchType, std::int32_t mode) {
    const bool withMethod = mode > 1;
    if (!vxlb_state_machine_usable(machine) || !pattern || !patternLength) return -1;
    if (withMethod && (!second || !secondLength)) return -1;
    const std::string_view url(pattern, patternLength);
    const std::string_view method(withMethod ? second : "", withMethod ? secondLength : 0);
    if (!allInRange(url) || !allInRange(method)) return -1;
    if (!reserve(*machine, url.size() + method.size())) return -1;

    const std::int32_t state = addPattern(*machine, url, id, matchType, !withMethod);
    if (!withMethod) return 0;
    machine->states[state].hasMethod = 1;
    setId(machine->states[followAll(*machine, state, method)], id, matchType);
    return 0;
}

std::string_view vxlb_state_machine_header_key(std::int32_t id, char (&buffer)[kHeaderKeySize]) {
    char* end = std::to_chars(buffer, buffer + sizeof(buffer), id).ptr;
    *end++ = '&';
    return {buffer, static_cast<std::size_t>(end - buffer)};
}

int vxlb_state_machine_add_header(vxlb_state_machine* machine, const char* expression, std::size_t length,
                                  std::int32_t id, std::int32_t matchType) {
    if (!vxlb_state_machine_usable(machine) || !expression || !length) return -1;
    const std::string_view text(expression, length);
    if (!allInRange(text)) return -1;
    char key[kHeaderKeySize];
    const std::string_view prefix = vxlb_state_machine_header_key(id, key);
    if (!reserve(*machine, prefix.size() + text.size())) return -1;
    const std::int32_t state = followAll(*machine, followAll(*machine, 0, prefix), text);
    setId(machine->states[state], id, matchType);
    return 0;
}

std::int32_t vxlb_state_machine_search(const vxlb_state_machine* machine, const char* url,
                                       std::int64_t length, const char* query, const char* method) {
    if (!vxlb_state_machine_usable(machine) || !url || length == 0) return 1;
    if (length < 0) return kNothing;
    return walkUrl({*machine, query && *query ? query : nullptr, method}, url, length);
}

}  // namespace vx
