#include "tools/vorn/NewDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include <fmt/format.h>

#include "inspect/Errors.h"

namespace Vorn {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void throwErrno(const fs::path& path, const char* operation) {
    throw std::system_error(errno, std::generic_category(),
                            fmt::format("{}: {}", path.string(), operation));
}

/// Takes back what was made, unless it is kept.
class Made {
public:
    explicit Made(const fs::path& directory) : directory_(directory) {
        if (mkdir(directory.c_str(), 0777) == 0) {
            isOurs_ = true;
            return;
        }
        if (errno != EEXIST)
            throwErrno(directory, "make directory");
        if (!fs::is_directory(directory)) {
            throw Inspect::QuestionError(
                fmt::format("{}: is no directory; give a new one", directory.string()));
        }
        if (!fs::is_empty(directory)) {
            throw Inspect::QuestionError(
                fmt::format("{}: is not empty; give a new directory", directory.string()));
        }
    }
    Made(const Made&) = delete;
    Made& operator=(const Made&) = delete;
    ~Made() {
        std::error_code ignored;  // the failure that brought us here is told
        for (const fs::path& file : files_)
            fs::remove(file, ignored);
        if (isOurs_)
            fs::remove(directory_, ignored);
    }

    void add(const fs::path& file) { files_.push_back(file); }
    void keep() {
        files_.clear();
        isOurs_ = false;
    }

private:
    fs::path directory_;
    std::vector<fs::path> files_;
    bool isOurs_ = false;
};

/// Never over a file that is there.
void writeFile(const fs::path& file, std::string_view content, Made& made) {
    const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor < 0)
        throwErrno(file, "make file");
    made.add(file);
    while (!content.empty()) {
        const ssize_t written = write(descriptor, content.data(), content.size());
        if (written < 0 && errno != EINTR) {
            const int reason = errno;
            close(descriptor);
            errno = reason;
            throwErrno(file, "write file");
        }
        content.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
    if (close(descriptor) != 0)
        throwErrno(file, "write file");
}

}  // namespace

void writeNewDirectory(const fs::path& directory, const std::vector<NewFile>& files) {
    Made made(directory);
    for (const NewFile& file : files)
        writeFile(directory / (file.name + ".part"), file.content, made);
    for (const NewFile& file : files) {
        made.add(directory / file.name);
        fs::rename(directory / (file.name + ".part"), directory / file.name);
    }
    made.keep();
}

}  // namespace Vorn
