#include <gtest/gtest.h>
#include <libCommon/FileSystem.h>
#include <libCommon/Resource.h>
#include <libCommon/System.h>
#include <unistd.h>

#include <filesystem>

#include "TestSupport.h"

namespace zrn {
namespace {

bool lookup(char const* section, char const* key, String& value) {
    return Resource::getSetting(section, key, value, ZRNLocale::getGlobalLocale());
}

TEST(ResourceTest, SettingsFileEditsAreSeenByLaterLookups) {
    test::TempDir dir;
    std::string const file = dir.file("settings.ini");
    test::ScopedEnv env("ZRN_SETTINGS_FILE", file.c_str());
    EXPECT_EQ(Resource::settingsFilePath().str(), file);

    String value("untouched");
    EXPECT_FALSE(lookup("libDataStore", "SQLiteDataStore.SyncMode", value));  // no file
    EXPECT_EQ(value, "untouched");

    test::writeFile(file, "[libDataStore]\nSQLiteDataStore.SyncMode = normal\n[other]\nk=v\n");
    EXPECT_TRUE(
        lookup("libDataStore", "SQLiteDataStore.SyncMode", value));  // dotted key, literally
    EXPECT_EQ(value, "normal");
    EXPECT_FALSE(lookup("libDataStore", "SQLiteDataStore", value));
    EXPECT_FALSE(lookup("other", "SQLiteDataStore.SyncMode", value));
    // A missing section or key names no setting, whatever the other one is.
    EXPECT_FALSE(lookup(nullptr, "k", value));
    EXPECT_FALSE(lookup("other", nullptr, value));
    EXPECT_EQ(value, "normal");

    // Same size, rewritten at once: the modification time (or inode) tells the versions apart.
    test::writeFile(file, "[libDataStore]\nSQLiteDataStore.SyncMode = NORMAL\n[other]\nk=v\n");
    EXPECT_TRUE(lookup("libDataStore", "SQLiteDataStore.SyncMode", value));
    EXPECT_EQ(value, "NORMAL");

    test::writeFile(file, "this is [not valid\n");
    EXPECT_FALSE(lookup("libDataStore", "SQLiteDataStore.SyncMode", value));
    std::filesystem::remove(file);
    EXPECT_FALSE(lookup("other", "k", value));
}

TEST(FileSystemTest, AbsolutePathsAndExistence) {
    EXPECT_STREQ(FileSystem::slash().c_str(), "/");
    EXPECT_EQ(FileSystem::getAbsolutePath("/var/data", "event.db", true).str(),
              "/var/data/event.db");
    EXPECT_EQ(FileSystem::getAbsolutePath("/var//data/./x/..", "event.db", true).str(),
              "/var/data/event.db");
    EXPECT_EQ(FileSystem::getAbsolutePath("/var/data/", "/etc/abs.db", true).str(), "/etc/abs.db");
    std::string const cwd = std::filesystem::current_path().string();
    EXPECT_EQ(FileSystem::getAbsolutePath("rel", "f.db", true).str(), cwd + "/rel/f.db");

    test::TempDir dir;
    EXPECT_TRUE(FileSystem::exists(dir.path()));
    EXPECT_FALSE(FileSystem::exists(dir.file("missing")));
    EXPECT_FALSE(FileSystem::exists(""));
}

TEST(SystemTest, ApplicationDirectoryIsTheExecutablesDirectory) {
    std::string const exe = std::filesystem::read_symlink("/proc/self/exe").string();
    EXPECT_EQ(System::getApplicationDirectory().str(), exe.substr(0, exe.rfind('/')));
}

}  // namespace
}  // namespace zrn
