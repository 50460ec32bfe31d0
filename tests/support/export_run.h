// "vxcollector export" inside a test.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tools/collector/export_command.h"

namespace vx::test {

struct Exported {
    int code = 0;
    std::string text, fault;  // what it wrote, and what it said on standard error
};
inline Exported exported(std::vector<std::string> words) {
    const TempDir dir;
    words.insert(words.begin(), {"--out", dir / "out"});  // a later one counts
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    testing::internal::CaptureStderr();
    Exported answer;
    answer.code = collector::exportCommand(static_cast<int>(arguments.size()), arguments.data());
    answer.fault = testing::internal::GetCapturedStderr();
    if (answer.code == 0) answer.text = dir.read("out");
    return answer;
}

}  // namespace vx::test
