// Files that the collector hands out: those of one folder, each named by its keyword, and instrumentation
// profiles in its sub-folder instrProfile.
//
//     DIR/VXEntryPointsFile      on a start line   VXEntryPointsFile=VXEntryPointsFile|size|lmd
//     DIR/instrProfile/NAME      on a start line   numInstrProfile=N; and for each
//     instrProfile=NAME;lmd=..;size=..
//
// A change counts once two looks in a row have seen the same, so that a file is not handed out while it is
// still being written. Only names that a look has found are ever opened: a request cannot leave the folder.
// A folder that cannot be read leaves the set as it was.
//
// Units     lmd is the file's modification time in microseconds since the Unix epoch.
// Limits    kMaxFileSize a file, kMaxFiles of a kind; what lies beyond, what is no regular file and names
// that
//           cannot stand in a line are passed over.
// Lifetime  An answer holds its text for itself: it stays good when the file changes.
// Threads   One.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vx::collector {

inline constexpr std::int64_t kMaxFileSize = 64 * 1024 * 1024;
inline constexpr std::size_t kMaxFiles = 140;
inline constexpr const char* kRulesFile = "BTRuleConfig";

struct FileMark {
    std::int64_t size = 0, lmd = 0;
    bool operator==(const FileMark&) const = default;
};
using FileMarks = std::map<std::string, FileMark, std::less<>>;
struct FileSet {
    FileMarks keywords, profiles;
    bool operator==(const FileSet&) const = default;
};

enum class FileKind { kKeyword, kProfile };

class FileStore {
public:
    // `folder` empty: hands out nothing.
    explicit FileStore(std::string folder) : folder_(std::move(folder)) {}

    // The first look, which counts at once. False with the reason in `error`.
    bool open(std::string& error);
    void look();
    const FileSet& present() const { return present_; }
    // Names in the folder that are not handed out, each with the reason.
    const std::vector<std::string>& passedOver() const { return passedOver_; }
    // The answer to a request, head and content; the line that says "Failed" for what is not handed out.
    std::shared_ptr<const std::string> answer(FileKind kind, std::string_view name);

private:
    struct Kept {
        FileMark mark;
        std::weak_ptr<const std::string> answer;  // many instances ask for the same file at a time
    };
    bool scan(FileSet& found);
    bool scanFolder(const std::string& folder, FileKind kind, FileMarks& found);

    const std::string folder_;
    FileSet present_, seen_;
    std::vector<std::string> passedOver_;
    std::map<std::string, Kept> kept_;  // by path
};

// As in a mark: tells one version of a file from the next.
std::int64_t lmdOf(const struct stat& status);

// Fields, each with its ";", that tell an instance of the files on a start line.
std::string startFields(const FileSet& present);
// Fields that lead an instance from what it was told to what is there now; empty when nothing changed.
std::string changedFields(const FileSet& told, const FileSet& present);

}  // namespace vx::collector
