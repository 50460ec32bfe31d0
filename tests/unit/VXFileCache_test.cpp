#include "commonlibc/VXFileCache.h"

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/home_fixture.h"

namespace vx::test {
namespace {

class FileCache : public HomeFixture {
protected:
    void SetUp() override {
        HomeFixture::SetUp();
        setProxyVXHome();
    }
    std::string pathOf(const char* agentName, const char* name, std::size_t size = kCachePathSize) {
        std::string out(kCachePathSize, '?');
        const bool given = vxCachePath(out.data(), size, agentName, name);
        EXPECT_EQ(given, out[0] != '\0');
        return out.c_str();
    }
};

TEST_F(FileCache, ANameNeverLeavesItsFolder) {
    EXPECT_EQ(pathOf("agent", "BTRuleConfig"), home() + "/.cache/agent/BTRuleConfig");
    for (const char* name : {"", ".", "..", "../a", "a/b", "/etc/passwd", "a\\b", "a\nb", "\x1f"}) {
        EXPECT_EQ(pathOf("agent", name), "") << name;
        EXPECT_EQ(pathOf(name, "file"), "") << name;
        EXPECT_FALSE(dumpDataInFile(name, "x", 1)) << name;
    }
    EXPECT_EQ(pathOf(nullptr, "file"), "");
    EXPECT_EQ(pathOf("agent", "file", 20), "");  // refused, not cut
    EXPECT_NE(pathOf("agent", "..."), "");
    for (const auto& [path, base] : {std::pair("C:\\a/b\\c.txt", "c.txt"), {"a\\", ""}, {"plain", "plain"}})
        EXPECT_STREQ(vxBaseName(path), base);
}

TEST_F(FileCache, AFileIsReplacedWholeAndLeavesNothingBeside) {
    EXPECT_TRUE(dumpDataInFile("rules", "first", 5));
    std::ifstream reader(home() + "/.cache/agent/rules");  // opened before: still sees the former content
    EXPECT_TRUE(dumpDataInFile("rules", "2nd\0x", 5));
    EXPECT_EQ(cached("rules"), std::string("2nd\0x", 5));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(reader), {}), "first");
    std::filesystem::create_directory(home() + "/.cache/agent/taken");  // a folder stands in the way
    EXPECT_FALSE(dumpDataInFile("taken", "x", 1));
    for (const auto& entry : std::filesystem::directory_iterator(home() + "/.cache/agent"))
        EXPECT_TRUE(entry.path().filename() == "rules" || entry.path().filename() == "taken") << entry.path();
}

}  // namespace
}  // namespace vx::test
