#include <libCommon/FileSystem.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

namespace zrn {

namespace {

std::string currentDirectory() {
    std::vector<char> buffer(256);
    while (::getcwd(buffer.data(), buffer.size()) == nullptr) {
        if (errno != ERANGE) return "/";
        buffer.resize(buffer.size() * 2);
    }
    return buffer.data();
}

std::string normalized(std::string const& path) {
    std::vector<std::string> parts;
    std::size_t pos = 0;
    while (pos <= path.size()) {
        std::size_t const next = path.find('/', pos);
        std::string const part =
            path.substr(pos, next == std::string::npos ? std::string::npos : next - pos);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        if (next == std::string::npos) break;
        pos = next + 1;
    }
    std::string result;
    for (auto const& part : parts) result += "/" + part;
    return result.empty() ? "/" : result;
}

}  // namespace

CString FileSystem::slash() { return CString("/"); }

String FileSystem::getAbsolutePath(String const& directory, String const& name, bool normalize) {
    std::string path;
    if (!name.empty() && name.str()[0] == '/') {
        path = name.str();
    } else {
        path = directory.str();
        if (path.empty() || path[0] != '/') path = currentDirectory() + "/" + path;
        if (!name.empty()) {
            if (path.back() != '/') path += '/';
            path += name.str();
        }
    }
    return String(normalize ? normalized(path) : path);
}

bool FileSystem::exists(String const& path) {
    struct stat info {};
    return !path.empty() && ::stat(path.c_str(), &info) == 0;
}

}  // namespace zrn
