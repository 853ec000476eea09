#pragma once

#include <libCommon/Export.h>
#include <libCommon/String.h>

namespace zrn {

// The locale settings are looked up in. One global locale exists.
class ZRN_COMMON_API ZRNLocale {
public:
    static ZRNLocale const& getGlobalLocale();
    String const& name() const { return m_name; }

private:
    ZRNLocale() = default;
    String m_name{"C"};
};

// Settings lookup in an INI file: $ZRN_SETTINGS_FILE, else "<application directory>/settings.ini".
// A missing or unreadable file means no settings. The file is read again when it changes, so
// edits are seen by later lookups.
class ZRN_COMMON_API Resource {
public:
    // True, with `value` set, when the key exists in the section; otherwise false and `value`
    // untouched. Section and key names are compared exactly (keys may contain dots).
    static bool getSetting(char const* section, char const* key, String& value,
                           ZRNLocale const& locale);
    // The file the settings are read from.
    static String settingsFilePath();
};

}  // namespace zrn
