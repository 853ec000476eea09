#pragma once

#include <libCommon/Export.h>
#include <libCommon/String.h>

#include <exception>

namespace zrn {

// The base of every exception of libCommon and the libraries built on it: a message only.
class ZRN_COMMON_API Exception : public std::exception {
public:
    explicit Exception(String const& message);
    Exception(Exception const&) = default;
    Exception& operator=(Exception const&) = default;
    ~Exception() override;

    // The message exactly as given.
    String const& getMessage() const { return m_message; }
    // The message as text; the same as getMessage().
    String toString() const { return m_message; }
    char const* what() const noexcept override { return m_message.c_str(); }

private:
    String m_message;
};

// Thrown by SQLite3Database on every SQLite failure; the message names the database file and
// gives SQLite's own error text.
class ZRN_COMMON_API DatabaseError : public Exception {
public:
    explicit DatabaseError(String const& message);
    DatabaseError(DatabaseError const&) = default;
    DatabaseError& operator=(DatabaseError const&) = default;
    ~DatabaseError() override;
};

}  // namespace zrn
