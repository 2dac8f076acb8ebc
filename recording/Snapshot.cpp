#include "recording/Snapshot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/kivshimo/Paths.h"
#include "recording/Codec.h"
#include "recording/FileAccess.h"

namespace Recording {

namespace {

namespace fs = std::filesystem;

/// Zeros between two parts of a file that are not worth a part of their own.
constexpr std::size_t kGap = 16;
/// Largest part of a file that is looked at together: a page.
constexpr std::size_t kStep = 4096;
/// No table is larger.
constexpr std::uint64_t kMostBytes = std::uint64_t{1} << 32U;

/// Tables and the manifests beside them: what else lies in the directory, a recording perhaps, a
/// process that begins does not look at.
bool isTold(const std::string& path) {
    return path.ends_with(KivShimo::kTableSuffix) ||
           path.ends_with(std::string(KivShimo::kTableSuffix) + ".manifest");
}

/// The parts that are not zero. Whole pages of zeros, of which a table is full, are passed over at
/// once.
std::vector<Run> runsOf(Bytes bytes) {
    static constexpr std::array<std::byte, kStep> kZeros{};
    std::vector<Run> runs;
    for (std::size_t page = 0; page < bytes.size(); page += kStep) {
        const std::size_t size = std::min(kStep, bytes.size() - page);
        if (std::memcmp(bytes.data() + page, kZeros.data(), size) == 0)
            continue;
        for (std::size_t at = page; at < page + size; ++at) {
            if (bytes[at] == std::byte{0})
                continue;
            const bool joins =
                !runs.empty() && at - (runs.back().offset + runs.back().bytes.size()) < kGap;
            if (!joins)
                runs.push_back({at, {}});
            const std::size_t begin = runs.back().offset;
            runs.back().bytes = bytes.subspan(begin, at + 1 - begin);
        }
    }
    return runs;
}

}  // namespace

void forEachFile(const std::string& directory, const std::function<void(const File&)>& tell) {
    std::vector<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        const std::string path = fs::relative(entry.path(), directory);
        if (entry.symlink_status().type() == fs::file_type::regular && isTold(path))
            paths.push_back(path);
    }
    std::ranges::sort(paths);
    for (const std::string& path : paths) {
        const std::string whole = fs::path(directory) / path;
        const Descriptor opened(
            ::open(whole.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (opened.fd() < 0)
            throwErrno(whole, "open for recording");
        const std::vector<std::byte> bytes = allOf(opened, whole);
        tell({path, bytes.size(), runsOf(bytes)});
    }
}

void layOut(const File& file, const std::string& directory) {
    const fs::path path(file.path);
    const bool leadsElsewhere =
        path.empty() || path.is_absolute() ||
        std::any_of(path.begin(), path.end(), [](const fs::path& part) { return part == ".."; });
    if (leadsElsewhere || file.size > kMostBytes)
        throw FormatError(path.string() + ": no file of a state directory");
    const fs::path whole = directory / path;
    // Others may not write to a state directory, nor to what lies in it.
    for (fs::path folder = directory; const fs::path& part : path.parent_path()) {
        folder /= part;
        if (::mkdir(folder.c_str(), 0750) != 0 && errno != EEXIST)
            throwErrno(folder, "make folder");
    }
    const Descriptor made(
        ::open(whole.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640));
    if (made.fd() < 0)
        throwErrno(whole, "make");
    errno = ::posix_fallocate(made.fd(), 0, static_cast<off_t>(file.size));
    if (file.size != 0 && errno != 0)
        throwErrno(whole, "allocate");
    for (const Run& run : file.runs) {
        if (run.offset > file.size || run.bytes.size() > file.size - run.offset)
            throw FormatError(path.string() + ": a part lies outside of its file");
        writeAt(made, whole, "write", run.bytes, run.offset);
    }
}

}  // namespace Recording
