// From paths of tables to names of files.
#include "platform/kivshimo/Paths.h"

#include "platform/kivshimo/Errors.h"

namespace KivShimo {

std::string defaultRoot(std::string_view systemName, bool local) {
    return "/dev/shm/" + std::string(systemName) + (local ? "" : "-shared");
}

std::string tableFile(std::string_view root, std::string_view path) {
    std::string_view rest = path;
    if (rest.starts_with('/'))
        rest.remove_prefix(1);
    std::string result(root);
    while (true) {
        const std::size_t slash = rest.find('/');
        const std::string_view part = rest.substr(0, slash);
        if (part.empty() || part == "." || part == ".." ||
            part.find('\0') != std::string_view::npos) {
            throw MountError(path, "find the file", "not a path of a table");
        }
        result += '/';
        result += part;
        if (slash == std::string_view::npos)
            break;
        rest.remove_prefix(slash + 1);
    }
    return result += kTableSuffix;
}

}  // namespace KivShimo
