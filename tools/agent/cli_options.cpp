#include "tools/agent/cli_options.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

namespace vx::agent {
namespace {

template <class T>
bool readAll(std::string_view text, T& out) {
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, out);
    return error == std::errc() && at == end;
}

bool setNumber(const Option& option, std::string_view text, std::string& error) {
    const bool whole = option.kind == OptionKind::kCount;
    double value = 0;
    const bool number =
        readAll(text, value) && std::isfinite(value) && (!whole || value == std::floor(value));
    if (!number || value < option.least || value > option.most) {
        char range[96];
        std::snprintf(range, sizeof(range), " takes a %s from %g to %g, not '",
                      whole ? "whole number" : "number", option.least, option.most);
        error = option.name + std::string(range).append(text) + "'";
        return false;
    }
    *static_cast<double*>(option.target) = value;
    return true;
}

bool setAddress(const Option& option, std::string_view text, std::string& error) {
    auto& address = *static_cast<Address*>(option.target);
    const std::size_t colon = text.rfind(':');
    int port = 0;
    if (colon == std::string_view::npos || colon == 0 || !readAll(text.substr(colon + 1), port) || port < 1 ||
        port > 65535) {
        error = std::string(option.name) + " takes HOST:PORT, not '" + std::string(text) + "'";
        return false;
    }
    address = {std::string(text.substr(0, colon)), port};
    return true;
}

bool setOption(const Option& option, const char* text, std::string& error) {
    switch (option.kind) {
        case OptionKind::kFlag:
            *static_cast<bool*>(option.target) = true;
            return true;
        case OptionKind::kText:
            *static_cast<std::string*>(option.target) = text;
            return true;
        case OptionKind::kNumber:
        case OptionKind::kCount:
            return setNumber(option, text, error);
        case OptionKind::kAddress:
            return setAddress(option, text, error);
    }
    return false;
}

}  // namespace

bool parseOptions(std::span<const Option> options, int argc, char** argv, std::string& error) {
    std::vector<bool> given(options.size());
    for (int i = 0; i < argc; ++i) {
        std::size_t row = 0;
        while (row < options.size() && std::strcmp(options[row].name, argv[i]) != 0) ++row;
        if (row == options.size()) {
            error = "unknown option '" + std::string(argv[i]) + "'";
            return false;
        }
        const bool takesArgument = options[row].kind != OptionKind::kFlag;
        if (takesArgument && i + 1 == argc) {
            error = std::string(options[row].name) + " needs " + options[row].argument;
            return false;
        }
        if (!setOption(options[row], takesArgument ? argv[++i] : "", error)) return false;
        given[row] = true;
    }
    for (std::size_t row = 0; row < options.size(); ++row) {
        if (!options[row].required || given[row]) continue;
        error = std::string(options[row].name) + " " + options[row].argument + " is missing";
        return false;
    }
    return true;
}

void printOptions(std::span<const Option> options) {
    for (const Option& option : options) {
        const std::string left =
            option.argument ? std::string(option.name) + " " + option.argument : option.name;
        std::printf("  %-26s %s\n", left.c_str(), option.help);
    }
}

}  // namespace vx::agent
