// Opens a table in the default store folder, writes a row, reads it back and says where the
// file is. Uses the public API only.

#include <libDataStore/DataStore.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <iostream>

int main() {
    using namespace zrn;
    try {
        // The stores never create their folder; an application makes it once.
        String const folder = DataStoreSettings::generalDataStorePath();
        if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
            std::cerr << "cannot create " << folder << ": " << std::strerror(errno) << "\n";
            return 2;
        }
        String const path = FileSystem::getAbsolutePath(folder, "hello.db", true);

        static SQLiteDataStoreColumnSpec const columns[] = {{"id", "INTEGER PRIMARY KEY"},
                                                            {"greeting", "TEXT"},
                                                            {"writtenAt", "INTEGER"},
                                                            {nullptr, nullptr}};
        SQLiteDataStore table(path, "Greetings", columns);

        // A row names every column; a shorter one is logged as a warning.
        long long const id = table.getUniqueIdForColumn("id");
        HashTable<String, String> row;
        row.insert("id", String(std::to_string(id)));
        row.insert("greeting", "Hello from libDataStore, it's working");
        row.insert("writtenAt",
                   String(std::to_string(TimeStamp::getCurrentUTCTimeStamp().getUnixTimeStamp())));
        table.append(row);

        String greeting;
        String writtenAt;
        table.cellData("greeting", greeting, "id", String(std::to_string(id)));
        table.cellData("writtenAt", writtenAt, "id", String(std::to_string(id)));
        TimeStamp const when(String::strToInt64(writtenAt, 10));

        std::cout << "file:      " << path << "\n"
                  << "table:     " << table.tableName() << " (" << table.count("", "") << " rows)\n"
                  << "wrote row: " << id << "\n"
                  << "read back: \"" << greeting << "\" written " << when.toDisplayString() << "\n";
        return 0;
    } catch (Exception const& e) {
        std::cerr << "hello_datastore: " << e.getMessage() << "\n";
        return 2;
    }
}
