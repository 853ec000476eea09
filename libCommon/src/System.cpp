#include <libCommon/System.h>

#include <unistd.h>

#include <string>
#include <vector>

namespace zrn {

String System::getApplicationDirectory() {
    std::vector<char> buffer(4096);
    ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
    if (length <= 0) {
        // No /proc: the working directory is the best remaining guess.
        if (::getcwd(buffer.data(), buffer.size()) == nullptr) return String(".");
        return String(buffer.data());
    }
    std::string path(buffer.data(), static_cast<std::size_t>(length));
    std::size_t const slash = path.rfind('/');
    if (slash == std::string::npos) return String(".");
    if (slash == 0) return String("/");
    path.resize(slash);
    return String(path);
}

}  // namespace zrn
