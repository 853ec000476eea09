#pragma once

#include <libCommon/Exception.h>
#include <libDataStore/Export.h>

namespace zrn {

// Misuse of a store, caught by callers as Exception. Each carries only the thrower's message.

// An operation was attempted on a closed store. Not thrown by this library; for callers.
class ZRN_DATASTORE_API CannotAccessClosedDatabaseException : public Exception {
public:
    explicit CannotAccessClosedDatabaseException(String const& message);
    CannotAccessClosedDatabaseException(CannotAccessClosedDatabaseException const&) = default;
    CannotAccessClosedDatabaseException& operator=(CannotAccessClosedDatabaseException const&) =
        default;
    ~CannotAccessClosedDatabaseException() override;
};

// An identifier to be created is already present. Not thrown by this library; for callers.
class ZRN_DATASTORE_API IdAlreadyUsedException : public Exception {
public:
    explicit IdAlreadyUsedException(String const& message);
    IdAlreadyUsedException(IdAlreadyUsedException const&) = default;
    IdAlreadyUsedException& operator=(IdAlreadyUsedException const&) = default;
    ~IdAlreadyUsedException() override;
};

// An identifier looked up is absent. Not thrown by this library; for callers.
class ZRN_DATASTORE_API IdDoesntExistException : public Exception {
public:
    explicit IdDoesntExistException(String const& message);
    IdDoesntExistException(IdDoesntExistException const&) = default;
    IdDoesntExistException& operator=(IdDoesntExistException const&) = default;
    ~IdDoesntExistException() override;
};

// A declared column is named "group" (thrown when a table is created).
class ZRN_DATASTORE_API InvalidColumnNameException : public Exception {
public:
    explicit InvalidColumnNameException(String const& message);
    InvalidColumnNameException(InvalidColumnNameException const&) = default;
    InvalidColumnNameException& operator=(InvalidColumnNameException const&) = default;
    ~InvalidColumnNameException() override;
};

// The next id of a column would exceed 16777215.
class ZRN_DATASTORE_API OutOfUniqueIdsException : public Exception {
public:
    explicit OutOfUniqueIdsException(String const& message);
    OutOfUniqueIdsException(OutOfUniqueIdsException const&) = default;
    OutOfUniqueIdsException& operator=(OutOfUniqueIdsException const&) = default;
    ~OutOfUniqueIdsException() override;
};

// A row has more cells than the table has columns, or a read row's width differs from the
// declaration.
class ZRN_DATASTORE_API RowDataMismatchException : public Exception {
public:
    explicit RowDataMismatchException(String const& message);
    RowDataMismatchException(RowDataMismatchException const&) = default;
    RowDataMismatchException& operator=(RowDataMismatchException const&) = default;
    ~RowDataMismatchException() override;
};

// A table is declared without columns.
class ZRN_DATASTORE_API ZeroTableColumnsException : public Exception {
public:
    explicit ZeroTableColumnsException(String const& message);
    ZeroTableColumnsException(ZeroTableColumnsException const&) = default;
    ZeroTableColumnsException& operator=(ZeroTableColumnsException const&) = default;
    ~ZeroTableColumnsException() override;
};

}  // namespace zrn
