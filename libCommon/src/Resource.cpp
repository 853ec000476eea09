#include <libCommon/Resource.h>

#include <libCommon/System.h>
#include <sys/stat.h>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdlib>
#include <mutex>
#include <string>

namespace zrn {

namespace {

// What identifies one version of the file: an edit changes the modification time (to the
// nanosecond), the size or, for editors that write a new file, the inode.
struct FileVersion {
    std::string path;
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    long long mtimeNs = 0;

    bool operator==(FileVersion const& o) const {
        return path == o.path && exists == o.exists && device == o.device && inode == o.inode &&
               size == o.size && mtimeNs == o.mtimeNs;
    }
};

FileVersion versionOf(std::string const& path) {
    FileVersion v;
    v.path = path;
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
        v.exists = true;
        v.device = info.st_dev;
        v.inode = info.st_ino;
        v.size = info.st_size;
        v.mtimeNs =
            static_cast<long long>(info.st_mtim.tv_sec) * 1000000000LL + info.st_mtim.tv_nsec;
    }
    return v;
}

struct Cache {
    std::mutex mutex;
    bool loaded = false;
    FileVersion version;
    boost::property_tree::ptree tree;
};

Cache& cache() {
    static Cache* const instance = new Cache();  // used by loggers during static destruction
    return *instance;
}

}  // namespace

ZRNLocale const& ZRNLocale::getGlobalLocale() {
    static ZRNLocale const locale;
    return locale;
}

String Resource::settingsFilePath() {
    if (char const* file = std::getenv("ZRN_SETTINGS_FILE")) {
        if (*file) return String(file);
    }
    return System::getApplicationDirectory() + "/settings.ini";
}

bool Resource::getSetting(
    char const* section, char const* key, String& value,
    ZRNLocale const& /*locale: one global locale, settings are not localised*/) {
    if (!section || !key) return false;
    FileVersion const current = versionOf(settingsFilePath().str());

    Cache& c = cache();
    std::lock_guard<std::mutex> guard(c.mutex);
    if (!c.loaded || !(c.version == current)) {
        c.tree.clear();
        if (current.exists) {
            try {
                boost::property_tree::ini_parser::read_ini(current.path, c.tree);
            } catch (boost::property_tree::ini_parser_error const&) {
                // A file that is not valid INI (or vanished meanwhile) counts as no settings.
                c.tree.clear();
            }
        }
        c.version = current;
        c.loaded = true;
    }

    // find() takes the name literally; get() would split "SQLiteDataStore.SyncMode" at the dot.
    auto const sectionIt = c.tree.find(section);
    if (sectionIt == c.tree.not_found()) return false;
    auto const keyIt = sectionIt->second.find(key);
    if (keyIt == sectionIt->second.not_found()) return false;
    value = String(keyIt->second.data());
    return true;
}

}  // namespace zrn
