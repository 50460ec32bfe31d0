#include "tools/collector/collector_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vx::collector {

namespace {

constexpr std::size_t kKeywordMax = 31;
constexpr std::size_t kShownNameMax = 255;  // of a name that a peer made up
constexpr std::string_view kProfileFolder = "instrProfile";

struct FolderCloser {
    void operator()(DIR* folder) const { ::closedir(folder); }
};

bool isKeyword(std::string_view name) {
    const auto plain = [](char byte) {
        return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
               byte == '_';
    };
    return name.size() <= kKeywordMax && std::all_of(name.begin(), name.end(), plain);
}

// A profile's name stands in a field of its own and, at the other end, in a path.
bool isProfileName(std::string_view name) {
    const auto breaks = [](char byte) {
        return static_cast<unsigned char>(byte) < ' ' || std::strchr(";=|\\/", byte) != nullptr;
    };
    return std::none_of(name.begin(), name.end(), breaks);
}

FileMark markOf(const struct stat& status) {
    return {status.st_size, lmdOf(status)};
}

// Why an entry of the folder is not handed out; null when it is.
const char* refusal(const std::string& name, FileKind kind, const struct stat& status) {
    if (!S_ISREG(status.st_mode)) return "no regular file";
    if (!(kind == FileKind::kKeyword ? isKeyword(name) : isProfileName(name)))
        return kind == FileKind::kKeyword ? "not named like a keyword" : "a name that cannot stand in a line";
    return status.st_size > kMaxFileSize ? "larger than 64 MB" : nullptr;
}

std::string failedAnswer(FileKind kind, std::string_view name) {
    const std::string shown(name.substr(0, kShownNameMax));
    if (kind == FileKind::kProfile)
        return "vx_control_rep:action=FailedInstrumentationProfile - " + shown + "\n";
    return "vx_control_rep:action=Failed" + shown + " - " + shown + "\n";
}

// The forms that the proxy's agents get, too: escaped behind a keyword, plain behind a profile's name.
std::string headOf(FileKind kind, std::string_view name, const FileMark& mark) {
    const std::string size = std::to_string(mark.size), lmd = std::to_string(mark.lmd);
    if (kind == FileKind::kProfile)
        return "vx_control_rep:action=instrumentation_profile;instrProfile=" + std::string(name) +
               ";size=" + size + ";lmd=" + lmd + ";\n";
    return "vx_control_rep:action=file;keyword=" + std::string(name) + "%3Bsize%3D" + size + "%3Blmd%3D" +
           lmd + ";\n";
}

// Reads as much of the file as its size says. False when it cannot be read or is no file to hand out now.
bool readFile(const std::string& path, std::string& content, FileMark& mark) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return false;
    struct stat status {};
    bool good = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size <= kMaxFileSize;
    std::size_t held = 0;
    if (good) content.resize(static_cast<std::size_t>(status.st_size));
    while (good && held < content.size()) {
        const ssize_t got = ::read(fd, content.data() + held, content.size() - held);
        if (got == 0) break;
        if (got > 0) held += static_cast<std::size_t>(got);
        good = got > 0 || errno == EINTR;
    }
    ::close(fd);
    content.resize(held);
    mark = markOf(status);
    mark.size = static_cast<std::int64_t>(held);
    return good;
}

std::string profileFields(const FileMarks& profiles) {
    std::string out = "numInstrProfile=" + std::to_string(profiles.size()) + ";";
    if (profiles.empty()) out += "instrProfile=NA;";
    for (const auto& [name, mark] : profiles)
        out += "instrProfile=" + name + ";lmd=" + std::to_string(mark.lmd) +
               ";size=" + std::to_string(mark.size) + ";";
    return out;
}

std::string keywordField(const std::string& name, const FileMark& mark) {
    return name + "=" + name + "|" + std::to_string(mark.size) + "|" + std::to_string(mark.lmd) + ";";
}

}  // namespace

std::int64_t lmdOf(const struct stat& status) {
    return static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1000000 + status.st_mtim.tv_nsec / 1000;
}

bool FileStore::open(std::string& error) {
    if (folder_.empty() || scan(present_)) {
        seen_ = present_;
        return true;
    }
    error = folder_ + ": " + std::strerror(errno);
    return false;
}

void FileStore::look() {
    FileSet found;
    if (folder_.empty() || !scan(found)) return;
    if (found == seen_ && present_ != seen_) {
        present_ = seen_;
        std::erase_if(kept_, [](const auto& kept) { return kept.second.answer.expired(); });
    }
    seen_ = std::move(found);
}

bool FileStore::scan(FileSet& found) {
    passedOver_.clear();
    if (!scanFolder(folder_, FileKind::kKeyword, found.keywords)) return false;
    const std::string profiles = folder_ + "/" + std::string(kProfileFolder);
    return scanFolder(profiles, FileKind::kProfile, found.profiles) || errno == ENOENT;
}

bool FileStore::scanFolder(const std::string& folder, FileKind kind, FileMarks& found) {
    const std::unique_ptr<DIR, FolderCloser> open(::opendir(folder.c_str()));
    if (!open) return false;
    while (const dirent* entry = ::readdir(open.get())) {
        const std::string name = entry->d_name;
        struct stat status {};
        if (name.front() == '.' || (kind == FileKind::kKeyword && name == kProfileFolder)) continue;
        if (::fstatat(::dirfd(open.get()), name.c_str(), &status, 0) != 0) continue;  // gone meanwhile
        const char* why = refusal(name, kind, status);
        if (!why && found.size() >= kMaxFiles) why = "too many files";
        if (why) {
            if (passedOver_.size() < kMaxFiles) passedOver_.push_back(name + ": " + why);
        } else {
            found[name] = markOf(status);
        }
    }
    return true;
}

std::shared_ptr<const std::string> FileStore::answer(FileKind kind, std::string_view name) {
    const FileMarks& handedOut = kind == FileKind::kKeyword ? present_.keywords : present_.profiles;
    const auto failed = [&] { return std::make_shared<const std::string>(failedAnswer(kind, name)); };
    if (handedOut.find(name) == handedOut.end()) return failed();
    std::string path = folder_ + "/";
    if (kind == FileKind::kProfile) path.append(kProfileFolder).append("/");
    path.append(name);
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return failed();
    Kept& kept = kept_[path];
    if (auto held = kept.answer.lock(); held && kept.mark == markOf(status)) return held;
    std::string content;
    FileMark mark;
    if (!readFile(path, content, mark)) return failed();
    auto made = std::make_shared<const std::string>(headOf(kind, name, mark) + content);
    kept = {mark, made};
    return made;
}

std::string startFields(const FileSet& present) {
    std::string out;
    for (const auto& [name, mark] : present.keywords) out += keywordField(name, mark);
    return out + (present.profiles.empty() ? "" : profileFields(present.profiles));
}

std::string changedFields(const FileSet& told, const FileSet& present) {
    std::string out;
    for (const auto& [name, mark] : present.keywords) {
        const auto before = told.keywords.find(name);
        if (before == told.keywords.end() || before->second != mark) out += keywordField(name, mark);
    }
    for (const auto& [name, mark] : told.keywords)
        if (present.keywords.find(name) == present.keywords.end()) out += name + "=NA;";
    return out + (told.profiles == present.profiles ? "" : profileFields(present.profiles));
}

}  // namespace vx::collector
